#define LOG_TAG "PreferencesService"

#include "service/PreferencesService.h"

#include <android-base/parseint.h>
#include <fmt/format.h>
#include <log/log.h>
#include <stdio.h>
#include <utils/String8.h>

#include <cstdlib>
#include <utility>

#include "intake/LegacySettingsDbHelper.h"
#include "intake/PreferencesLegacyKeysMigrationManager.h"
#include "intake/PreferencesNativeServiceManager.h"
#include "intake/PreferencesVersionManager.h"
#include "keymanager/DumpBuffer.h"
#include "properties/SystemProperties.h"
#include "service/PreferencesExtension.h"
#include "service/String16Utils.h"
#include "service/ValueCodec.h"

namespace Halo::OS {
namespace {

using android::String16;

constexpr const char* kWrongArguments =
        "   wrong arguments. argument: all or <empty>, nodb, db, --list, --profile\n";
constexpr const char* kWrongArgument =
        "   wrong arguments. argument: all or <empty>, nodb, db, --list, --profile, --trace\n";

const char* trueFalse(bool value) {
    return value ? "True" : "False";
}

// Logs a failed read or write of a one-shot switch with the status it got.
void logStatusError(const std::string& text, const android::binder::Status& status) {
    ALOGE("%s; status code = %d (%s)", text.c_str(), status.exceptionCode(),
          status.exceptionMessage().c_str());
}
using android::binder::Status;
using Type = PreferencesKeyInfo::Type;

Status toStatus(int result) {
    return result == KeyManagerStatus::Ok ? Status::ok() : Status::fromServiceSpecificError(result);
}

}  // namespace

PreferencesService::PreferencesService()
    : PreferencesService(std::make_shared<PreferencesKeyManager>()) {}

PreferencesService::PreferencesService(std::shared_ptr<PreferencesKeyManager> keyManager)
    : mKeyManager(std::move(keyManager)),
      mAccess(mKeyManager != nullptr ? mKeyManager->access()
                                     : std::make_shared<PreferencesAccess>()),
      mPackageManager(std::make_unique<PreferencesPackageManager>(mKeyManager, false)) {
    int64_t timeout = -1;
    if (android::base::ParseInt(SystemProperties::get(kDumpTimeoutProperty, ""), &timeout,
                                int64_t{0}) &&
        mKeyManager != nullptr) {
        mKeyManager->setDumpTimeout(std::chrono::milliseconds(timeout));
    }
    mPackageManager->holdEvents();
    mPackageManager->start();
    setExtension(new PreferencesExtension(this, mKeyManager));
}

PreferencesService::~PreferencesService() {
    mOverrides.reset();
    mPackageManager.reset();
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
    if (out == nullptr) return Status::fromServiceSpecificError(ServiceStatus::NullOutValue);
    std::string text;
    const int result = readText(flavour, toString(key), ValueCodec<T>::kType, userId, text);
    if (result != 0) return toStatus(result);
    *out = ValueCodec<T>::fromText(text);
    return Status::ok();
}

// ---- Plain flavour ----

Status PreferencesService::setInteger(const String16& key, int32_t value) {
    PreferencesOverrides::setInteger(key, value);
    // The property is set in this process even when it could not be persisted.
    if (PreferencesOverrides::kOverrides.count(toString(key)) != 0) {
        mKeyManager->invalidateAllReads();
    }
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
    if (out == nullptr) return Status::fromServiceSpecificError(ServiceStatus::NullOutValue);
    if (PreferencesOverrides::getInteger(key, out) == ServiceStatus::Ok) return Status::ok();
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
    if (out == nullptr) return Status::fromServiceSpecificError(ServiceStatus::NullOutValue);
    if (PreferencesOverrides::getType(key, out) == ServiceStatus::Ok) return Status::ok();
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
    // The property is set in this process even when it could not be persisted.
    if (PreferencesOverrides::kOverrides.count(toString(key)) != 0) {
        mKeyManager->invalidateAllReads();
    }
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

// ---- Start-up steps ----

bool PreferencesService::migrateLegacyKeys() {
    return migrateLegacyKeys(LegacySettingsDbHelper::kDefaultDirectory);
}

bool PreferencesService::migrateLegacyKeys(const std::string& legacyDirectory) {
    PreferencesLegacyKeysMigrationManager migration(
            mKeyManager, std::make_shared<LegacySettingsDbHelper>(legacyDirectory));
    return migration.migrateLegacyKeys();
}

bool PreferencesService::injectNativeServiceKeys() {
    PreferencesNativeServiceManager nativeServices(mKeyManager);
    return nativeServices.injectNativeServiceKeys();
}

bool PreferencesService::upgradeToLatestVersion() {
    PreferencesVersionManager versions(mKeyManager);
    return versions.upgradeToLatestVersion();
}

void PreferencesService::handleProfileAndTraceOnBoot() {
    applyOnBootSwitch(kProfileOnBootKey, &PreferencesService::setProfiling);
    applyOnBootSwitch(kTraceOnBootKey, &PreferencesService::setTracing);
}

void PreferencesService::setStoreRecovery(std::string text) {
    Mutex::Autolock lock(mNoticeMutex);
    mStoreRecovery = std::move(text);
}

void PreferencesService::startupFinished() {
    if (mPackageManager != nullptr) mPackageManager->releaseEvents();
}

void PreferencesService::applyOnBootSwitch(const char* key,
                                           void (PreferencesService::*apply)(bool)) {
    const String16 name(key);
    bool on = false;
    const Status read = getBoolean(name, &on);
    if (!read.isOk()) logStatusError(fmt::format("Error getting {}", key), read);
    (this->*apply)(on);
    if (!on) return;
    const Status cleared = setBoolean(name, false);
    if (!cleared.isOk()) logStatusError(fmt::format("Error setting {} to false", key), cleared);
}

// ---- Profiling and tracing ----

void PreferencesService::setProfiling(bool on) {
    if (mKeyManager == nullptr) {
        ALOGE("Cannot set profiling because the key manager is null");
        return;
    }
    mKeyManager->setProfiling(on);
    ALOGD("Profiling is %s", on ? "enabled" : "disabled");
}

void PreferencesService::setTracing(bool on) {
    if (mKeyManager == nullptr) {
        ALOGE("Cannot set tracing because the key manager is null");
        return;
    }
    mKeyManager->setTracing(on);
    ALOGD("Tracing is %s", on ? "enabled" : "disabled");
}

bool PreferencesService::profiling() const {
    return mKeyManager != nullptr && mKeyManager->profiling();
}

bool PreferencesService::tracing() const {
    return mKeyManager != nullptr && mKeyManager->tracing();
}

void PreferencesService::setProfileOnBoot(bool on) {
    setOnBoot(kProfileOnBootKey, on);
}

void PreferencesService::setTraceOnBoot(bool on) {
    setOnBoot(kTraceOnBootKey, on);
}

void PreferencesService::setOnBoot(const char* key, bool on) {
    if (mKeyManager == nullptr) {
        ALOGE("Cannot set %s because the key manager is null", key);
        return;
    }
    const Status status = setBoolean(String16(key), on);
    const std::string text = fmt::format("Error setting {} to {}", key, on);
    if (!status.isOk()) logStatusError(text, status);
}

// ---- Commands ----

Status PreferencesService::profile(const std::string& command,
                                   const std::vector<std::string>& /*args*/) {
    const uid_t uid = mAccess->getCallingContext().uid;
    if (uid != 0) {
        ALOGE("Profile request is denied for UID %u; must be root", static_cast<unsigned>(uid));
        return Status::fromExceptionCode(Status::EX_UNSUPPORTED_OPERATION);
    }
    if (command == "start-profiling") {
        setProfiling(true);
    } else if (command == "stop-profiling") {
        setProfiling(false);
    } else if (command == "enable-profile-on-boot") {
        setProfileOnBoot(true);
    } else if (command == "disable-profile-on-boot") {
        setProfileOnBoot(false);
    } else if (command == "reset-profile") {
        if (mKeyManager != nullptr) {
            mKeyManager->resetProfile();
        } else {
            ALOGE("Cannot reset the profile because the key manager is null");
        }
    } else if (command == "start-tracing") {
        setTracing(true);
    } else if (command == "stop-tracing") {
        setTracing(false);
    } else if (command == "enable-trace-on-boot") {
        setTraceOnBoot(true);
    } else if (command == "disable-trace-on-boot") {
        setTraceOnBoot(false);
    } else if (command == "reset-trace") {
        if (mKeyManager != nullptr) {
            mKeyManager->resetTrace();
        } else {
            ALOGE("Cannot reset the trace because the key manager is null");
        }
    } else {
        return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT);
    }
    return Status::ok();
}

int PreferencesService::dumpSections(const android::Vector<String16>& args) {
    if (args.isEmpty())
        return kDumpSummary | kDumpKeyManager | kDumpPackageManager | kDumpDatabases;
    const android::String8 utf8(args[0]);
    const std::string word(utf8.c_str(), utf8.size());
    if (word == "all" || word == "-a") {
        return kDumpSummary | kDumpKeyManager | kDumpPackageManager | kDumpDatabases;
    }
    if (word == "nodb") return kDumpSummary | kDumpKeyManager | kDumpPackageManager;
    if (word == "db") return kDumpDatabases;
    if (word == "--list") return kDumpPreferences;
    if (word == "--profile") return kDumpProfile;
    if (word == "--trace") return kDumpTrace;
    return 0;
}

android::status_t PreferencesService::dump(int fd, const android::Vector<String16>& args) {
    DumpBuffer text;
    const android::status_t status = writeDump(text.fd(), args);
    text.copyTo(fd, mKeyManager != nullptr ? mKeyManager->dumpTimeout()
                                           : PreferencesKeyManager::kDefaultDumpTimeout);
    return status;
}

android::status_t PreferencesService::writeDump(int fd, const android::Vector<String16>& args) {
    if (!mAccess->checkPermission(mAccess->getCallingContext(),
                                  String16(PreferencesKeyManager::kReadPermission))) {
        dprintf(fd, "lack of root privilege: adb root\n");
        return android::PERMISSION_DENIED;
    }
    dprintf(fd, "PreferencesStore properties:\n");
    if (args.size() > 1) {
        dprintf(fd, "%s", kWrongArguments);
        return android::OK;
    }
    const int sections = dumpSections(args);
    if (sections == 0) {
        dprintf(fd, "%s", kWrongArgument);
        return android::OK;
    }
    if ((sections & kDumpSummary) != 0) {
        dprintf(fd, "  PreferencesService Service:\n");
        dprintf(fd, "      KeyManager exists:           %s\n", trueFalse(mKeyManager != nullptr));
        dprintf(fd, "      PackageManager exists:       %s\n",
                trueFalse(mPackageManager != nullptr));
        Mutex::Autolock lock(mNoticeMutex);
        if (!mStoreRecovery.empty()) {
            dprintf(fd, "      Store recovered at start:    %s\n", mStoreRecovery.c_str());
        }
    }
    if ((sections & kDumpPackageManager) != 0 && mPackageManager != nullptr) {
        mPackageManager->dump(fd);
    }
    if (mKeyManager != nullptr) {
        if ((sections & kDumpKeyManager) != 0) mKeyManager->dump(fd);
        if ((sections & kDumpDatabases) != 0) mKeyManager->dumpDb(fd);
        if ((sections & kDumpPreferences) != 0) mKeyManager->dumpPreferences(fd);
        if ((sections & kDumpProfile) != 0) mKeyManager->dumpProfile(fd);
        if ((sections & kDumpTrace) != 0) mKeyManager->dumpTrace(fd);
    }
    return android::OK;
}

}  // namespace Halo::OS
