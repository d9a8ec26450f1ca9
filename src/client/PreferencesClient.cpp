#include "client/PreferencesClient.h"

#include <binder/IServiceManager.h>
#include <lumen/preferences/IPreferencesService.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>
#include <vector>

#include "client/BinderStatusConversion.h"
#include "client/PreferencesConnection.h"
#include "threads/Mutex.h"

namespace Halo::OS {

namespace {

using android::String16;
using android::binder::Status;
using lumen::preferences::IPreferencesService;

// The six methods of one value type, one per flavour and direction. `Wire` is the type on the
// interface and `Arg` the way a setter takes it.
template <typename Wire, typename Arg>
struct TypedMethods {
    Status (IPreferencesService::*set)(const String16&, Arg);
    Status (IPreferencesService::*setCurrent)(const String16&, Arg);
    Status (IPreferencesService::*setUser)(const String16&, Arg, int32_t);
    Status (IPreferencesService::*get)(const String16&, Wire*);
    Status (IPreferencesService::*getCurrent)(const String16&, Wire*);
    Status (IPreferencesService::*getUser)(const String16&, int32_t, Wire*);
};

using S = IPreferencesService;
constexpr TypedMethods<int32_t, int32_t> kIntegerMethods{
        &S::setInteger, &S::setIntegerCurrent, &S::setIntegerUser,
        &S::getInteger, &S::getIntegerCurrent, &S::getIntegerUser};
constexpr TypedMethods<int64_t, int64_t> kLongMethods{&S::setLong,        &S::setLongCurrent,
                                                      &S::setLongUser,    &S::getLong,
                                                      &S::getLongCurrent, &S::getLongUser};
constexpr TypedMethods<float, float> kFloatMethods{&S::setFloat,        &S::setFloatCurrent,
                                                   &S::setFloatUser,    &S::getFloat,
                                                   &S::getFloatCurrent, &S::getFloatUser};
constexpr TypedMethods<double, double> kDoubleMethods{&S::setDouble,        &S::setDoubleCurrent,
                                                      &S::setDoubleUser,    &S::getDouble,
                                                      &S::getDoubleCurrent, &S::getDoubleUser};
constexpr TypedMethods<bool, bool> kBooleanMethods{&S::setBoolean,        &S::setBooleanCurrent,
                                                   &S::setBooleanUser,    &S::getBoolean,
                                                   &S::getBooleanCurrent, &S::getBooleanUser};
constexpr TypedMethods<String16, const String16&> kStringMethods{
        &S::setString, &S::setStringCurrent, &S::setStringUser,
        &S::getString, &S::getStringCurrent, &S::getStringUser};

String16 toString16(const std::string& text) {
    return String16(text.data(), text.size());
}

std::string toUtf8(const String16& text) {
    const android::String8 utf8(text);
    return std::string(utf8.string(), utf8.length());
}

template <typename Wire, typename Arg>
PreferencesStatus callSet(IPreferencesService& service, const TypedMethods<Wire, Arg>& methods,
                          const std::string& key, Arg value, const PreferencesTarget& target) {
    const String16 name = toString16(key);
    switch (target.flavour()) {
        case PreferencesTarget::Flavour::Caller:
            return BinderStatusConversion::fromStatus((service.*methods.set)(name, value));
        case PreferencesTarget::Flavour::Current:
            return BinderStatusConversion::fromStatus((service.*methods.setCurrent)(name, value));
        case PreferencesTarget::Flavour::User:
            return BinderStatusConversion::fromStatus(
                    (service.*methods.setUser)(name, value, target.userId()));
    }
    return PreferencesStatus::exception(Status::EX_ILLEGAL_ARGUMENT);
}

template <typename Wire, typename Arg>
PreferencesStatus callGet(IPreferencesService& service, const TypedMethods<Wire, Arg>& methods,
                          const std::string& key, Wire* out, const PreferencesTarget& target) {
    const String16 name = toString16(key);
    Wire value{};
    Status status;
    switch (target.flavour()) {
        case PreferencesTarget::Flavour::Caller:
            status = (service.*methods.get)(name, &value);
            break;
        case PreferencesTarget::Flavour::Current:
            status = (service.*methods.getCurrent)(name, &value);
            break;
        case PreferencesTarget::Flavour::User:
            status = (service.*methods.getUser)(name, target.userId(), &value);
            break;
    }
    if (status.isOk()) *out = std::move(value);
    return BinderStatusConversion::fromStatus(status);
}

std::unique_ptr<PreferencesConnection> makeConnection(const android::sp<android::IBinder>& binder,
                                                      PreferencesStatus* status) {
    if (binder == nullptr) {
        if (status != nullptr) *status = PreferencesStatus::unreachable(android::NAME_NOT_FOUND);
        return nullptr;
    }
    if (status != nullptr) *status = PreferencesStatus::ok();
    return std::make_unique<PreferencesConnection>(binder);
}

Mutex gTrustLock;
std::vector<uid_t>* gTrustedUids GUARDED_BY(gTrustLock) = nullptr;

// Root, this process, PREFS_TRUSTED_UIDS and the uids given to trustServerUid. A malformed entry
// of the variable is skipped.
std::vector<uid_t> trustedServerUids() {
    std::vector<uid_t> uids = {0, geteuid()};
    if (const char* listed = getenv("PREFS_TRUSTED_UIDS"); listed != nullptr) {
        for (const char* at = listed; *at != '\0';) {
            char* end = nullptr;
            errno = 0;
            const unsigned long long uid = strtoull(at, &end, 10);
            const bool number = end != at && *at != '-' && errno == 0 && uid < UINT32_MAX;
            if (number && (*end == ',' || *end == '\0')) uids.push_back(static_cast<uid_t>(uid));
            while (*end != '\0' && *end != ',') ++end;
            at = *end == ',' ? end + 1 : end;
        }
    }
    Mutex::Autolock lock(gTrustLock);
    if (gTrustedUids != nullptr)
        uids.insert(uids.end(), gTrustedUids->begin(), gTrustedUids->end());
    return uids;
}

// The service manager, with `name` restricted to trusted servers.
android::sp<android::IServiceManager> restrictedServiceManager(const String16& name) {
    android::sp<android::IServiceManager> services = android::defaultServiceManager();
    services->setTrustedServerUids(name, trustedServerUids());
    return services;
}

}  // namespace

void PreferencesClient::trustServerUid(uint32_t uid) {
    Mutex::Autolock lock(gTrustLock);
    // Never freed: a connect may run on a thread that outlives static destruction.
    if (gTrustedUids == nullptr) gTrustedUids = new std::vector<uid_t>();
    gTrustedUids->push_back(static_cast<uid_t>(uid));
}

void PreferencesClient::useBinderDirectory(const std::string& directory) {
    setenv("BINDER_DIR", directory.c_str(), 1);
}

std::unique_ptr<PreferencesClient> PreferencesClient::connect(const std::string& name,
                                                              PreferencesStatus* status) {
    std::shared_ptr<PreferencesConnection> connection = makeConnection(
            restrictedServiceManager(toString16(name))->getService(toString16(name)), status);
    if (connection == nullptr) return nullptr;
    return std::unique_ptr<PreferencesClient>(new PreferencesClient(std::move(connection)));
}

std::unique_ptr<PreferencesClient> PreferencesClient::tryConnect(const std::string& name,
                                                                 PreferencesStatus* status) {
    std::shared_ptr<PreferencesConnection> connection = makeConnection(
            restrictedServiceManager(toString16(name))->checkService(toString16(name)), status);
    if (connection == nullptr) return nullptr;
    return std::unique_ptr<PreferencesClient>(new PreferencesClient(std::move(connection)));
}

PreferencesClient::PreferencesClient(std::shared_ptr<PreferencesConnection> connection)
    : mConnection(std::move(connection)) {}

PreferencesClient::~PreferencesClient() = default;

PreferencesStatus PreferencesClient::getType(const std::string& key, PreferenceValue::Type* type) {
    int32_t code = 0;
    const PreferencesStatus status = BinderStatusConversion::fromStatus(
            mConnection->service()->getType(toString16(key), &code));
    if (!status.isOk()) return status;
    if (!PreferenceValue::typeFromCode(code, type)) {
        // A key without a value type (code 6) or a code this client does not know.
        return PreferencesStatus::failed(android::BAD_TYPE);
    }
    return status;
}

PreferencesStatus PreferencesClient::get(const std::string& key, PreferenceValue::Type type,
                                         const PreferencesTarget& target, PreferenceValue* out) {
    PreferencesStatus status;
    switch (type) {
        case PreferenceValue::Type::Integer: {
            int32_t value = 0;
            status = getInteger(key, &value, target);
            if (status.isOk()) *out = PreferenceValue::fromInteger(value);
            break;
        }
        case PreferenceValue::Type::Long: {
            int64_t value = 0;
            status = getLong(key, &value, target);
            if (status.isOk()) *out = PreferenceValue::fromLong(value);
            break;
        }
        case PreferenceValue::Type::Float: {
            float value = 0;
            status = getFloat(key, &value, target);
            if (status.isOk()) *out = PreferenceValue::fromFloat(value);
            break;
        }
        case PreferenceValue::Type::Double: {
            double value = 0;
            status = getDouble(key, &value, target);
            if (status.isOk()) *out = PreferenceValue::fromDouble(value);
            break;
        }
        case PreferenceValue::Type::Boolean: {
            bool value = false;
            status = getBoolean(key, &value, target);
            if (status.isOk()) *out = PreferenceValue::fromBoolean(value);
            break;
        }
        case PreferenceValue::Type::String: {
            std::string value;
            status = getString(key, &value, target);
            if (status.isOk()) *out = PreferenceValue::fromString(std::move(value));
            break;
        }
    }
    return status;
}

PreferencesStatus PreferencesClient::set(const std::string& key, const PreferenceValue& value,
                                         const PreferencesTarget& target) {
    switch (value.type()) {
        case PreferenceValue::Type::Integer:
            return setInteger(key, value.asInteger(), target);
        case PreferenceValue::Type::Long:
            return setLong(key, value.asLong(), target);
        case PreferenceValue::Type::Float:
            return setFloat(key, value.asFloat(), target);
        case PreferenceValue::Type::Double:
            return setDouble(key, value.asDouble(), target);
        case PreferenceValue::Type::Boolean:
            return setBoolean(key, value.asBoolean(), target);
        case PreferenceValue::Type::String:
            return setString(key, value.asString(), target);
    }
    return PreferencesStatus::exception(Status::EX_ILLEGAL_ARGUMENT);
}

PreferencesStatus PreferencesClient::getInteger(const std::string& key, int32_t* out,
                                                const PreferencesTarget& target) {
    return callGet(*mConnection->service(), kIntegerMethods, key, out, target);
}

PreferencesStatus PreferencesClient::getLong(const std::string& key, int64_t* out,
                                             const PreferencesTarget& target) {
    return callGet(*mConnection->service(), kLongMethods, key, out, target);
}

PreferencesStatus PreferencesClient::getFloat(const std::string& key, float* out,
                                              const PreferencesTarget& target) {
    return callGet(*mConnection->service(), kFloatMethods, key, out, target);
}

PreferencesStatus PreferencesClient::getDouble(const std::string& key, double* out,
                                               const PreferencesTarget& target) {
    return callGet(*mConnection->service(), kDoubleMethods, key, out, target);
}

PreferencesStatus PreferencesClient::getBoolean(const std::string& key, bool* out,
                                                const PreferencesTarget& target) {
    return callGet(*mConnection->service(), kBooleanMethods, key, out, target);
}

PreferencesStatus PreferencesClient::getString(const std::string& key, std::string* out,
                                               const PreferencesTarget& target) {
    String16 value;
    const PreferencesStatus status =
            callGet(*mConnection->service(), kStringMethods, key, &value, target);
    if (status.isOk()) *out = toUtf8(value);
    return status;
}

PreferencesStatus PreferencesClient::setInteger(const std::string& key, int32_t value,
                                                const PreferencesTarget& target) {
    return callSet(*mConnection->service(), kIntegerMethods, key, value, target);
}

PreferencesStatus PreferencesClient::setLong(const std::string& key, int64_t value,
                                             const PreferencesTarget& target) {
    return callSet(*mConnection->service(), kLongMethods, key, value, target);
}

PreferencesStatus PreferencesClient::setFloat(const std::string& key, float value,
                                              const PreferencesTarget& target) {
    return callSet(*mConnection->service(), kFloatMethods, key, value, target);
}

PreferencesStatus PreferencesClient::setDouble(const std::string& key, double value,
                                               const PreferencesTarget& target) {
    return callSet(*mConnection->service(), kDoubleMethods, key, value, target);
}

PreferencesStatus PreferencesClient::setBoolean(const std::string& key, bool value,
                                                const PreferencesTarget& target) {
    return callSet(*mConnection->service(), kBooleanMethods, key, value, target);
}

PreferencesStatus PreferencesClient::setString(const std::string& key, const std::string& value,
                                               const PreferencesTarget& target) {
    return callSet<String16, const String16&>(*mConnection->service(), kStringMethods, key,
                                              toString16(value), target);
}

PreferencesStatus PreferencesClient::reset(const std::string& key) {
    return BinderStatusConversion::fromStatus(mConnection->service()->reset(toString16(key)));
}

std::unique_ptr<PreferencesWatch> PreferencesClient::watch(const std::vector<std::string>& keys,
                                                           ChangeCallback onChanged,
                                                           PreferencesStatus* status) {
    uint64_t token = 0;
    const PreferencesStatus result =
            mConnection->registerListener(keys, std::move(onChanged), &token);
    if (status != nullptr) *status = result;
    if (!result.isOk()) return nullptr;
    return std::make_unique<PreferencesWatch>(mConnection, token);
}

PreferencesStatus PreferencesClient::dump(int fd, const std::vector<std::string>& args) {
    android::Vector<String16> words;
    for (const std::string& arg : args) words.push_back(toString16(arg));
    return BinderStatusConversion::fromDumpResult(mConnection->binder()->dump(fd, words));
}

PreferencesStatus PreferencesClient::profile(const std::string& command,
                                             const std::vector<std::string>& args) {
    return BinderStatusConversion::fromStatus(mConnection->service()->profile(command, args));
}

void PreferencesClient::setOnServiceDied(std::function<void()> onDied) {
    mConnection->deathRecipient()->setCallback(std::move(onDied));
}

bool PreferencesClient::isAlive() const {
    return !mConnection->deathRecipient()->died();
}

}  // namespace Halo::OS
