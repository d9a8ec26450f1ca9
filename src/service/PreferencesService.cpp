#include "service/PreferencesService.h"

#include <cstdlib>
#include <utility>

#include "service/String16Utils.h"

namespace Halo::OS {
namespace {

using android::String16;
using android::binder::Status;
using Type = PreferencesKeyInfo::Type;

Status toStatus(int result) {
    return result == 0 ? Status::ok() : Status::fromServiceSpecificError(result);
}

// The stored text of each interface value type and its reading back. These encodings are what
// the databases hold: changing one changes how every existing value reads.
template <typename T>
struct ValueCodec;

template <>
struct ValueCodec<int32_t> {
    static constexpr Type kType = Type::Integer;
    static std::string toText(int32_t value) { return std::to_string(value); }
    static int32_t fromText(const std::string& text) {
        return static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
    }
};

template <>
struct ValueCodec<int64_t> {
    static constexpr Type kType = Type::Long;
    static std::string toText(int64_t value) { return std::to_string(value); }
    static int64_t fromText(const std::string& text) {
        return static_cast<int64_t>(std::strtol(text.c_str(), nullptr, 10));
    }
};

template <>
struct ValueCodec<double> {
    static constexpr Type kType = Type::Double;
    static std::string toText(double value) { return std::to_string(value); }
    static double fromText(const std::string& text) { return std::strtod(text.c_str(), nullptr); }
};

template <>
struct ValueCodec<float> {
    static constexpr Type kType = Type::Float;
    static std::string toText(float value) { return std::to_string(value); }
    static float fromText(const std::string& text) { return std::strtof(text.c_str(), nullptr); }
};

template <>
struct ValueCodec<bool> {
    static constexpr Type kType = Type::Boolean;
    static std::string toText(bool value) { return std::to_string(value ? 1 : 0); }
    static bool fromText(const std::string& text) { return text == "1" || text == "true"; }
};

template <>
struct ValueCodec<String16> {
    static constexpr Type kType = Type::String;
    static std::string toText(const String16& value) { return toString(value); }
    static String16 fromText(const std::string& text) {
        return String16(text.c_str(), text.size());
    }
};

}  // namespace

PreferencesService::PreferencesService()
    : PreferencesService(std::make_shared<PreferencesKeyManager>()) {}

PreferencesService::PreferencesService(std::shared_ptr<PreferencesKeyManager> keyManager)
    : mKeyManager(std::move(keyManager)) {}

PreferencesService::~PreferencesService() {
    mOverrides.reset();
    mKeyManager.reset();
}

int PreferencesService::writeText(Flavour flavour, const std::string& key, const std::string& text,
                                  Type type, int32_t userId) {
    if (flavour == Flavour::Plain) return mKeyManager->set(key, text, type);
    const unsigned int user = flavour == Flavour::Current ? mKeyManager->getCurrentUser()
                                                          : static_cast<unsigned int>(userId);
    return mKeyManager->setUser(key, text, type, user);
}

int PreferencesService::readText(Flavour flavour, const std::string& key, Type type, int32_t userId,
                                 std::string& text) {
    if (flavour == Flavour::Plain) return mKeyManager->get(key, text, type);
    const unsigned int user = flavour == Flavour::Current ? mKeyManager->getCurrentUser()
                                                          : static_cast<unsigned int>(userId);
    return mKeyManager->getUser(key, text, type, user);
}

template <typename T>
Status PreferencesService::setTyped(Flavour flavour, const String16& key, const T& value,
                                    int32_t userId) {
    return toStatus(writeText(flavour, toString(key), ValueCodec<T>::toText(value),
                              ValueCodec<T>::kType, userId));
}

template <typename T>
Status PreferencesService::getTyped(Flavour flavour, const String16& key, int32_t userId, T* out) {
    if (out == nullptr) return Status::fromServiceSpecificError(kNullOutValue);
    std::string text;
    const int result = readText(flavour, toString(key), ValueCodec<T>::kType, userId, text);
    if (result != 0) return toStatus(result);
    *out = ValueCodec<T>::fromText(text);
    return Status::ok();
}

// ---- Plain flavour ----

Status PreferencesService::setInteger(const String16& key, int32_t value) {
    PreferencesOverrides::setInteger(key, value);
    return setTyped(Flavour::Plain, key, value, 0);
}

Status PreferencesService::setDouble(const String16& key, double value) {
    return setTyped(Flavour::Plain, key, value, 0);
}

Status PreferencesService::setString(const String16& key, const String16& value) {
    return setTyped(Flavour::Plain, key, value, 0);
}

Status PreferencesService::setLong(const String16& key, int64_t value) {
    return setTyped(Flavour::Plain, key, value, 0);
}

Status PreferencesService::setBoolean(const String16& key, bool value) {
    return setTyped(Flavour::Plain, key, value, 0);
}

Status PreferencesService::setFloat(const String16& key, float value) {
    return setTyped(Flavour::Plain, key, value, 0);
}

Status PreferencesService::getInteger(const String16& key, int32_t* out) {
    if (out == nullptr) return Status::fromServiceSpecificError(kNullOutValue);
    if (PreferencesOverrides::getInteger(key, out) == 0) return Status::ok();
    return getTyped(Flavour::Plain, key, 0, out);
}

Status PreferencesService::getDouble(const String16& key, double* out) {
    return getTyped(Flavour::Plain, key, 0, out);
}

Status PreferencesService::getString(const String16& key, String16* out) {
    return getTyped(Flavour::Plain, key, 0, out);
}

Status PreferencesService::getLong(const String16& key, int64_t* out) {
    return getTyped(Flavour::Plain, key, 0, out);
}

Status PreferencesService::getBoolean(const String16& key, bool* out) {
    return getTyped(Flavour::Plain, key, 0, out);
}

Status PreferencesService::getFloat(const String16& key, float* out) {
    return getTyped(Flavour::Plain, key, 0, out);
}

// ---- Current flavour ----

Status PreferencesService::setIntegerCurrent(const String16& key, int32_t value) {
    return setTyped(Flavour::Current, key, value, 0);
}

Status PreferencesService::setDoubleCurrent(const String16& key, double value) {
    return setTyped(Flavour::Current, key, value, 0);
}

Status PreferencesService::setStringCurrent(const String16& key, const String16& value) {
    return setTyped(Flavour::Current, key, value, 0);
}

Status PreferencesService::setLongCurrent(const String16& key, int64_t value) {
    return setTyped(Flavour::Current, key, value, 0);
}

Status PreferencesService::setBooleanCurrent(const String16& key, bool value) {
    return setTyped(Flavour::Current, key, value, 0);
}

Status PreferencesService::setFloatCurrent(const String16& key, float value) {
    return setTyped(Flavour::Current, key, value, 0);
}

Status PreferencesService::getIntegerCurrent(const String16& key, int32_t* out) {
    return getTyped(Flavour::Current, key, 0, out);
}

Status PreferencesService::getDoubleCurrent(const String16& key, double* out) {
    return getTyped(Flavour::Current, key, 0, out);
}

Status PreferencesService::getStringCurrent(const String16& key, String16* out) {
    return getTyped(Flavour::Current, key, 0, out);
}

Status PreferencesService::getLongCurrent(const String16& key, int64_t* out) {
    return getTyped(Flavour::Current, key, 0, out);
}

Status PreferencesService::getBooleanCurrent(const String16& key, bool* out) {
    return getTyped(Flavour::Current, key, 0, out);
}

Status PreferencesService::getFloatCurrent(const String16& key, float* out) {
    return getTyped(Flavour::Current, key, 0, out);
}

// ---- Type ----

Status PreferencesService::getType(const String16& key, int32_t* out) {
    if (out == nullptr) return Status::fromServiceSpecificError(kNullOutValue);
    if (PreferencesOverrides::getType(key, out) == 0) return Status::ok();
    Type type = Type::Integer;
    const int result = mKeyManager->getType(toString(key), type);
    if (result != 0) return toStatus(result);
    *out = static_cast<int32_t>(type);
    return Status::ok();
}

// ---- User flavour ----

Status PreferencesService::setIntegerUser(const String16& key, int32_t value, int32_t userId) {
    return setTyped(Flavour::User, key, value, userId);
}

Status PreferencesService::setDoubleUser(const String16& key, double value, int32_t userId) {
    return setTyped(Flavour::User, key, value, userId);
}

Status PreferencesService::setStringUser(const String16& key, const String16& value,
                                         int32_t userId) {
    return setTyped(Flavour::User, key, value, userId);
}

Status PreferencesService::setLongUser(const String16& key, int64_t value, int32_t userId) {
    return setTyped(Flavour::User, key, value, userId);
}

Status PreferencesService::setBooleanUser(const String16& key, bool value, int32_t userId) {
    return setTyped(Flavour::User, key, value, userId);
}

Status PreferencesService::setFloatUser(const String16& key, float value, int32_t userId) {
    return setTyped(Flavour::User, key, value, userId);
}

Status PreferencesService::getIntegerUser(const String16& key, int32_t userId, int32_t* out) {
    return getTyped(Flavour::User, key, userId, out);
}

Status PreferencesService::getDoubleUser(const String16& key, int32_t userId, double* out) {
    return getTyped(Flavour::User, key, userId, out);
}

Status PreferencesService::getStringUser(const String16& key, int32_t userId, String16* out) {
    return getTyped(Flavour::User, key, userId, out);
}

Status PreferencesService::getLongUser(const String16& key, int32_t userId, int64_t* out) {
    return getTyped(Flavour::User, key, userId, out);
}

Status PreferencesService::getBooleanUser(const String16& key, int32_t userId, bool* out) {
    return getTyped(Flavour::User, key, userId, out);
}

Status PreferencesService::getFloatUser(const String16& key, int32_t userId, float* out) {
    return getTyped(Flavour::User, key, userId, out);
}

// ---- Reset and listeners ----

Status PreferencesService::reset(const String16& key) {
    PreferencesOverrides::reset(key);
    return toStatus(mKeyManager->reset(toString(key)));
}

Status PreferencesService::registerListener(const android::sp<IPreferencesListener>& listener,
                                            const std::vector<String16>& keys, bool flag) {
    std::vector<std::string> names;
    names.reserve(keys.size());
    for (const String16& key : keys) names.push_back(toString(key));
    return toStatus(mKeyManager->registerListener(listener, names, flag));
}

Status PreferencesService::unregisterListener(const android::sp<IPreferencesListener>& listener) {
    return toStatus(mKeyManager->unregisterListener(listener));
}

}  // namespace Halo::OS
