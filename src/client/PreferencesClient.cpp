#include "client/PreferencesClient.h"

#include <binder/IServiceManager.h>
#include <lumen/preferences/IPreferencesService.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "client/BinderStatusConversion.h"
#include "client/PreferencesConnection.h"
#include "model/PreferencesGenerationLayout.h"
#include "threads/Mutex.h"

namespace Halo::OS {

namespace {

using android::String16;
using android::binder::Status;
using halo::preferences::GenerationStamp;
using halo::preferences::IPreferencesExtension;
using lumen::preferences::IPreferencesService;

static_assert(PreferencesClient::kMaxBatchEntries == IPreferencesExtension::MAX_BATCH_ENTRIES);

std::atomic<size_t> gCacheEntries{PreferencesClient::kDefaultCacheEntries};

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
    return std::make_unique<PreferencesConnection>(binder, gCacheEntries.load());
}

// The extension's stamped get of one type.
template <typename Wire>
using StampedGet = Status (IPreferencesExtension::*)(const String16&, int32_t, int32_t,
                                                     GenerationStamp*, Wire*);

int32_t flavourCode(const PreferencesTarget& target) {
    switch (target.flavour()) {
        case PreferencesTarget::Flavour::Caller:
            return IPreferencesExtension::FLAVOUR_CALLER;
        case PreferencesTarget::Flavour::Current:
            return IPreferencesExtension::FLAVOUR_CURRENT;
        case PreferencesTarget::Flavour::User:
            return IPreferencesExtension::FLAVOUR_USER;
    }
    return -1;
}

// Conversions between what a getter hands out and what the cache keeps.
void copyValue(const PreferenceValue& value, int32_t* out) {
    *out = value.asInteger();
}
void copyValue(const PreferenceValue& value, int64_t* out) {
    *out = value.asLong();
}
void copyValue(const PreferenceValue& value, float* out) {
    *out = value.asFloat();
}
void copyValue(const PreferenceValue& value, double* out) {
    *out = value.asDouble();
}
void copyValue(const PreferenceValue& value, bool* out) {
    *out = value.asBoolean();
}
void copyValue(const PreferenceValue& value, std::string* out) {
    *out = value.asString();
}
PreferenceValue cachedValue(int32_t value) {
    return PreferenceValue::fromInteger(value);
}
PreferenceValue cachedValue(int64_t value) {
    return PreferenceValue::fromLong(value);
}
PreferenceValue cachedValue(float value) {
    return PreferenceValue::fromFloat(value);
}
PreferenceValue cachedValue(double value) {
    return PreferenceValue::fromDouble(value);
}
PreferenceValue cachedValue(bool value) {
    return PreferenceValue::fromBoolean(value);
}
PreferenceValue cachedValue(const std::string& value) {
    return PreferenceValue::fromString(value);
}
void fromWire(int32_t value, int32_t* out) {
    *out = value;
}
void fromWire(int64_t value, int64_t* out) {
    *out = value;
}
void fromWire(float value, float* out) {
    *out = value;
}
void fromWire(double value, double* out) {
    *out = value;
}
void fromWire(bool value, bool* out) {
    *out = value;
}
void fromWire(const String16& value, std::string* out) {
    *out = toUtf8(value);
}

// A typed get through the connection's read cache: a fresh entry answers at once; otherwise the
// extension's stamped get answers, and its answer is kept when the generations it was read under
// are the ones this process saw before the call (so no change can have slipped in between).
// Without a cache, or once the service is known dead, `plainGet(out)` answers.
template <typename Out, typename Wire, typename PlainGet>
PreferencesStatus readThrough(PreferencesConnection& connection, StampedGet<Wire> stampedGet,
                              PreferenceValue::Type type, const std::string& key,
                              const PreferencesTarget& target, Out* out, const PlainGet& plainGet) {
    PreferencesReadCache* cache = connection.readCache();
    if (cache == nullptr || !connection.binder()->isBinderAlive()) return plainGet(out);
    if (cache->lookup(key, type, target,
                      [out](const PreferenceValue& value) { copyValue(value, out); })) {
        return PreferencesStatus::ok();
    }
    const uint32_t slot = PreferencesGenerationLayout::slotOf(key);
    const PreferencesReadCache::Generations before = cache->generations(slot);
    GenerationStamp stamp;
    Wire wire{};
    const Status status = ((*connection.extension()).*stampedGet)(
            toString16(key), flavourCode(target), target.userId(), &stamp, &wire);
    if (!status.isOk()) return BinderStatusConversion::fromStatus(status);
    Out value{};
    fromWire(wire, &value);
    if (stamp.slot == static_cast<int32_t>(slot) &&
        static_cast<uint64_t>(stamp.globalGeneration) == before.global &&
        static_cast<uint64_t>(stamp.slotGeneration) == before.slot) {
        cache->store(key, type, target, slot, before, cachedValue(value));
    }
    *out = std::move(value);
    return PreferencesStatus::ok();
}

// The service's extension: the connection's when it caches, else asked of the service now.
// Null when the service offers none.
android::sp<IPreferencesExtension> extensionOf(const PreferencesConnection& connection) {
    if (connection.extension() != nullptr) return connection.extension();
    android::sp<android::IBinder> binder;
    if (connection.binder()->getExtension(&binder) != android::OK || binder == nullptr) {
        return nullptr;
    }
    return android::interface_cast<IPreferencesExtension>(binder);
}

// False when the description names a type or scope this client does not know.
bool fromParcelable(const halo::preferences::KeyDescription& parcel,
                    PreferencesKeyDescription* out) {
    PreferencesKeyDescription description;
    if (!PreferenceValue::typeFromCode(parcel.type, &description.type)) return false;
    if (parcel.scope < 0 || parcel.scope > 2) return false;
    description.scope = static_cast<PreferencesKeyDescription::Scope>(parcel.scope);
    description.key = toUtf8(parcel.key);
    if (parcel.hasDefaultValue) description.defaultValue = toUtf8(parcel.defaultValue);
    if (parcel.hasOwnerPackage) description.ownerPackage = toUtf8(parcel.ownerPackage);
    description.writable = parcel.writable;
    *out = std::move(description);
    return true;
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

void PreferencesClient::setCacheEntries(size_t entries) {
    gCacheEntries.store(entries);
}

size_t PreferencesClient::cacheEntries() {
    return gCacheEntries.load();
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
    return readThrough(*mConnection, &IPreferencesExtension::getIntegerStamped,
                       PreferenceValue::Type::Integer, key, target, out, [&](int32_t* value) {
                           return callGet(*mConnection->service(), kIntegerMethods, key, value,
                                          target);
                       });
}

PreferencesStatus PreferencesClient::getLong(const std::string& key, int64_t* out,
                                             const PreferencesTarget& target) {
    return readThrough(*mConnection, &IPreferencesExtension::getLongStamped,
                       PreferenceValue::Type::Long, key, target, out, [&](int64_t* value) {
                           return callGet(*mConnection->service(), kLongMethods, key, value,
                                          target);
                       });
}

PreferencesStatus PreferencesClient::getFloat(const std::string& key, float* out,
                                              const PreferencesTarget& target) {
    return readThrough(*mConnection, &IPreferencesExtension::getFloatStamped,
                       PreferenceValue::Type::Float, key, target, out, [&](float* value) {
                           return callGet(*mConnection->service(), kFloatMethods, key, value,
                                          target);
                       });
}

PreferencesStatus PreferencesClient::getDouble(const std::string& key, double* out,
                                               const PreferencesTarget& target) {
    return readThrough(*mConnection, &IPreferencesExtension::getDoubleStamped,
                       PreferenceValue::Type::Double, key, target, out, [&](double* value) {
                           return callGet(*mConnection->service(), kDoubleMethods, key, value,
                                          target);
                       });
}

PreferencesStatus PreferencesClient::getBoolean(const std::string& key, bool* out,
                                                const PreferencesTarget& target) {
    return readThrough(*mConnection, &IPreferencesExtension::getBooleanStamped,
                       PreferenceValue::Type::Boolean, key, target, out, [&](bool* value) {
                           return callGet(*mConnection->service(), kBooleanMethods, key, value,
                                          target);
                       });
}

PreferencesStatus PreferencesClient::getString(const std::string& key, std::string* out,
                                               const PreferencesTarget& target) {
    return readThrough(*mConnection, &IPreferencesExtension::getStringStamped,
                       PreferenceValue::Type::String, key, target, out, [&](std::string* value) {
                           String16 wire;
                           const PreferencesStatus status = callGet(
                                   *mConnection->service(), kStringMethods, key, &wire, target);
                           if (status.isOk()) *value = toUtf8(wire);
                           return status;
                       });
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

PreferencesStatus PreferencesClient::listKeys(const std::string& ownerPackage,
                                              std::vector<PreferencesKeyDescription>* out) {
    const android::sp<IPreferencesExtension> extension = extensionOf(*mConnection);
    if (extension == nullptr) return PreferencesStatus::failed(android::UNKNOWN_TRANSACTION);
    std::vector<halo::preferences::KeyDescription> parcels;
    const PreferencesStatus status = BinderStatusConversion::fromStatus(
            extension->listKeys(toString16(ownerPackage), &parcels));
    if (!status.isOk()) return status;
    std::vector<PreferencesKeyDescription> descriptions;
    descriptions.reserve(parcels.size());
    for (const halo::preferences::KeyDescription& parcel : parcels) {
        PreferencesKeyDescription description;
        if (fromParcelable(parcel, &description)) descriptions.push_back(std::move(description));
    }
    *out = std::move(descriptions);
    return status;
}

PreferencesStatus PreferencesClient::describeKey(const std::string& key,
                                                 PreferencesKeyDescription* out) {
    const android::sp<IPreferencesExtension> extension = extensionOf(*mConnection);
    if (extension == nullptr) return PreferencesStatus::failed(android::UNKNOWN_TRANSACTION);
    halo::preferences::KeyDescription parcel;
    const PreferencesStatus status =
            BinderStatusConversion::fromStatus(extension->describeKey(toString16(key), &parcel));
    if (!status.isOk()) return status;
    if (!fromParcelable(parcel, out)) return PreferencesStatus::failed(android::BAD_TYPE);
    return status;
}

PreferencesStatus PreferencesClient::setBatch(const std::vector<BatchEntry>& entries,
                                              const PreferencesTarget& target, size_t* refused) {
    if (entries.empty()) return PreferencesStatus::ok();
    const android::sp<IPreferencesExtension> extension = extensionOf(*mConnection);
    if (extension == nullptr) return PreferencesStatus::failed(android::UNKNOWN_TRANSACTION);
    std::vector<halo::preferences::BatchEntry> wire(entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const PreferenceValue& value = entries[i].value;
        halo::preferences::BatchEntry& out = wire[i];
        out = halo::preferences::BatchEntry{};
        out.key = toString16(entries[i].key);
        out.type = static_cast<int32_t>(value.type());
        out.integerValue = value.asInteger();
        out.doubleValue = value.asDouble();
        out.stringValue = toString16(value.asString());
        out.longValue = value.asLong();
        out.booleanValue = value.asBoolean();
        out.floatValue = value.asFloat();
    }
    const Status status = extension->setBatch(wire, flavourCode(target), target.userId());
    if (refused != nullptr && status.serviceSpecificErrorCode() != 0) {
        // The service names the refused entry in its message: "entry N".
        unsigned long index = 0;
        if (sscanf(status.exceptionMessage().c_str(), "entry %lu", &index) == 1 &&
            index < entries.size()) {
            *refused = index;
        }
    }
    return BinderStatusConversion::fromStatus(status);
}

PreferencesStatus PreferencesClient::reset(const std::string& key,
                                           const PreferencesTarget& target) {
    if (target.flavour() == PreferencesTarget::Flavour::Caller) {
        return BinderStatusConversion::fromStatus(mConnection->service()->reset(toString16(key)));
    }
    const android::sp<IPreferencesExtension> extension = extensionOf(*mConnection);
    if (extension == nullptr) return PreferencesStatus::failed(android::UNKNOWN_TRANSACTION);
    return BinderStatusConversion::fromStatus(
            extension->resetUser(toString16(key), flavourCode(target), target.userId()));
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

PreferencesClient::CacheStatistics PreferencesClient::cacheStatistics() const {
    CacheStatistics statistics;
    const PreferencesReadCache* cache = mConnection->readCache();
    if (cache == nullptr) return statistics;
    statistics.hits = cache->hits();
    statistics.misses = cache->misses();
    statistics.entries = cache->size();
    statistics.capacity = cache->capacity();
    return statistics;
}

}  // namespace Halo::OS
