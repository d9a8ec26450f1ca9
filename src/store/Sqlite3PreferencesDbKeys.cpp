// Packages, key registration, owners, permissions and the expiry sweep of Sqlite3PreferencesDb.

#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include <string>

#include "store/Sqlite3PreferencesDb.h"
#include "store/SqliteBinding.h"
#include "store/StoreTexts.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using PreferenceScope = PreferencesKeyInfo::PreferenceScope;
using PreferencePermission = PreferencesKeyInfo::PreferencePermission;

constexpr const char* kLegacyPrefix = "nimbus.preferences.service";
constexpr const char* kNativeServicePrefix = "nimbus.preferences.native";
// Requesters that may take over a key owned by another package.
constexpr const char* kPrivilegedRequesters[] = {"nimbus.preferences.service.legacy",
                                                 "nimbus.preferences.service.core"};

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

bool isPrivilegedRequester(const std::string& packageName) {
    for (const char* privileged : kPrivilegedRequesters) {
        if (packageName == privileged) return true;
    }
    return false;
}

// "package(uid)", naming the package that asks for a change in log lines.
std::string describeRequester(unsigned int uid, const std::string& packageName) {
    return packageName + "(" + std::to_string(uid) + ")";
}

std::string describeOwner(const std::optional<unsigned int>& uid,
                          const std::optional<std::string>& packageName) {
    if (!uid.has_value()) return "none";
    return packageName.value_or("") + "(" + std::to_string(*uid) + ")";
}

bool isOwnedBy(const std::optional<unsigned int>& ownerUid, unsigned int uid) {
    return ownerUid.has_value() && *ownerUid == uid;
}

// The owner columns (uid, then name) of a row, starting at `column`: a NULL uid means no owner,
// and leaves both outputs empty.
void readOwner(sqlite3_stmt* statement, int column, std::optional<unsigned int>& uid,
               std::optional<std::string>& packageName) {
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) {
        uid.reset();
        packageName.reset();
        return;
    }
    uid = columnUnsigned(statement, column);
    packageName = columnText(statement, column + 1);
}

}  // namespace

// ---- Packages ----

int32_t Sqlite3PreferencesDb::registerPackage(unsigned int uid, const std::string& packageName) {
    Query query = systemQuery(kInsertPackage, uid, packageName);
    if (!query.built()) return StoreStatus::Failed;
    const int stepped = query.step();
    if (isConstraintFailure(stepped)) {
        // Known package with a new schema: what only it declared expires unless re-declared.
        return markPreferencesReferencedOnlyByPackageForExpiration(uid, packageName);
    }
    if (stepped != SQLITE_DONE) {
        query.logFailedStep();
        return StoreStatus::Failed;
    }
    if (changedRows(PreferenceScope::System, std::nullopt) > 0) return StoreStatus::Ok;
    ALOGE("Unable to register duplicate package.");
    return StoreStatus::DuplicatePackage;
}

int32_t Sqlite3PreferencesDb::unregisterPackage(unsigned int uid, const std::string& packageName) {
    int32_t result = StoreStatus::Ok;
    {
        Query query = systemQuery(kDeletePackage, uid, packageName);
        if (!query.built()) return StoreStatus::Failed;
        if (query.step() != SQLITE_DONE) {
            query.logFailedStep();
            result = StoreStatus::Failed;
        } else if (changedRows(PreferenceScope::System, std::nullopt) == 0) {
            ALOGE("Unable to unregister package: package does not in packages table.");
            result = StoreStatus::UnknownPackage;
        }
    }
    const int32_t cleared = clearPackageOwnership(uid, packageName);
    return result != StoreStatus::Ok ? result : cleared;
}

int32_t Sqlite3PreferencesDb::clearPackageOwnership(unsigned int uid,
                                                    const std::string& packageName) {
    Query query = systemQuery(kClearPackageOwnership, uid, packageName);
    return query.write();
}

int32_t Sqlite3PreferencesDb::getAllPackages(PackageSet& packages) {
    Query query = systemQuery(kListPackages);
    if (!query.built()) return StoreStatus::Failed;
    int stepped;
    while ((stepped = query.step()) == SQLITE_ROW) {
        packages.emplace(columnUnsigned(query.statement(), 1),
                         columnText(query.statement(), 0).value_or(""));
    }
    if (stepped != SQLITE_DONE) {
        query.logFailedStep();
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::unregisterMissingPackages(const PackageSet& present,
                                                        KeySourceDomain domain) {
    PackageSet known;
    int32_t result = getAllPackages(known);
    if (result != StoreStatus::Ok) {
        ALOGE("Failed to unregister missing packages; could not get list of all known packages.");
        return result;
    }
    for (const auto& package : known) {
        if (present.count(package) != 0 || !isPackageInDomain(package.second, domain)) continue;
        const int32_t unregistered = unregisterPackage(package.first, package.second);
        if (unregistered != StoreStatus::Ok) {
            ALOGE("Unable to unregister missing package.");
            if (result == StoreStatus::Ok) result = unregistered;
        }
    }
    return result;
}

bool Sqlite3PreferencesDb::isPackageInDomain(const std::string& packageName,
                                             KeySourceDomain domain) {
    switch (domain) {
        case KeySourceDomain::Legacy:
            return startsWith(packageName, kLegacyPrefix);
        case KeySourceDomain::NativeService:
            return startsWith(packageName, kNativeServicePrefix);
        case KeySourceDomain::Application:
            return !startsWith(packageName, kLegacyPrefix) &&
                   !startsWith(packageName, kNativeServicePrefix);
    }
    return false;
}

// ---- Registering keys ----

int32_t Sqlite3PreferencesDb::registerPreference(unsigned int requesterUid,
                                                 const std::string& requesterPackage,
                                                 const std::string& key, PreferenceScope scope,
                                                 Type type,
                                                 const std::optional<unsigned int>& ownerUid,
                                                 const std::optional<std::string>& ownerPackage,
                                                 const std::optional<std::string>& defaultValue) {
    if (static_cast<uint32_t>(scope) > static_cast<uint32_t>(PreferenceScope::Cross)) {
        ALOGE("Unable to register %s: invalid scope %u.", key.c_str(),
              static_cast<unsigned int>(scope));
        return StoreStatus::Failed;
    }
    PreferenceScope currentScope;
    int32_t result = getPreferenceScope(key, currentScope, true);
    if (result == StoreStatus::UnknownKey) {
        result = insertPreferenceInPreferencesMap(scope, type, ownerUid, ownerPackage, key,
                                                  defaultValue);
        if (result != StoreStatus::Ok) {
            ALOGE("Failed to register new %s.", key.c_str());
            return result;
        }
        return StoreStatus::Ok;
    }
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to register/update %s; failed to determine if exists or to get current "
              "scope. req: %s",
              key.c_str(), describeRequester(requesterUid, requesterPackage).c_str());
        Telemetry::report("registerpreference_error_check_preference_exists");
        return result;
    }
    result = clearExpiration(key);
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to update %s; unable to clear expiration time. value will expire when it "
              "should not.",
              key.c_str());
        Telemetry::report("registerpreference_error_expiration_time");
        return result;
    }
    return updateExistingPreference(requesterUid, requesterPackage, key, currentScope, scope, type,
                                    ownerUid, ownerPackage, defaultValue);
}

int32_t Sqlite3PreferencesDb::insertPreferenceInPreferencesMap(
        PreferenceScope scope, Type type, const std::optional<unsigned int>& ownerUid,
        const std::optional<std::string>& ownerPackage, const std::string& key,
        const std::optional<std::string>& defaultValue) {
    if (ownerUid.has_value() != ownerPackage.has_value()) {
        ALOGE("Unable to insert %s; either both owner package and name or neither must be "
              "specified.",
              key.c_str());
        return StoreStatus::OwnerRefused;
    }
    Query query =
            systemQuery(kInsertPreference, key, type, scope, ownerUid, ownerPackage, defaultValue);
    if (!query.built()) return StoreStatus::Failed;
    const int stepped = query.step();
    if (stepped == SQLITE_DONE) return StoreStatus::Ok;
    // Every constraint failure, a type or scope outside the table's CHECK constraints included,
    // is logged as a duplicate row.
    if (isConstraintFailure(stepped)) {
        ALOGE("Unable to insert duplicate row for %s.", key.c_str());
    } else {
        query.logFailedStep();
    }
    return StoreStatus::Failed;
}

// Three reads, so that a failure names the fact it could not read.
int32_t Sqlite3PreferencesDb::getPreferenceConfiguration(const std::string& key, Type& type,
                                                         std::optional<unsigned int>& ownerUid,
                                                         std::optional<std::string>& ownerPackage,
                                                         std::optional<std::string>& defaultValue) {
    static constexpr const char* kOperation = "getPreferenceConfiguration";
    int32_t result = getPreferenceType(key, type);
    if (result != StoreStatus::Ok) {
        ALOGE("%s, Unable to update existing %s; failed to get current type.", kOperation,
              key.c_str());
        Telemetry::report("getPreferenceConfiguration_error_retrieve_type");
        return result;
    }
    result = getPreferenceOwner(key, ownerUid, ownerPackage);
    if (result != StoreStatus::Ok) {
        ALOGE("%s, Unable to update existing %s; failed to get current owner %s.", kOperation,
              key.c_str(), std::to_string(result).c_str());
        Telemetry::report("getPreferenceConfiguration_error_retrieve_owner");
        return result;
    }
    // The default is read here rather than with getDefaultValue(): a key may have no default,
    // which is a valid configuration and not an error.
    Query query = systemQuery(kGetDefault, key);
    if (!query.built()) {
        result = StoreStatus::Failed;
    } else {
        const int stepped = query.step();
        if (stepped == SQLITE_ROW) {
            defaultValue = columnText(query.statement(), 0);
        } else if (stepped == SQLITE_DONE) {
            result = StoreStatus::UnknownKey;
        } else {
            query.logFailedStep();
            result = StoreStatus::Failed;
        }
    }
    if (result != StoreStatus::Ok) {
        ALOGE("%s, Unable to update existing %s; failed to get current default value.", kOperation,
              key.c_str());
        Telemetry::report("getPreferenceConfiguration_error_retrieve_default_value");
    }
    return result;
}

// The owner's request is applied first, so that the owner it leaves decides whether the
// declared scope, type and default may change: a package that owns a key (or takes an unowned
// one) has its declaration applied in full. The first refusal or failure ends the update.
int32_t Sqlite3PreferencesDb::updateExistingPreference(
        unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
        PreferenceScope currentScope, PreferenceScope scope, Type type,
        const std::optional<unsigned int>& ownerUid, const std::optional<std::string>& ownerPackage,
        const std::optional<std::string>& defaultValue) {
    Type currentType;
    std::optional<unsigned int> currentOwnerUid;
    std::optional<std::string> currentOwnerPackage;
    std::optional<std::string> currentDefault;
    int32_t result = getPreferenceConfiguration(key, currentType, currentOwnerUid,
                                                currentOwnerPackage, currentDefault);
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to update %s; unable to get configuration.", key.c_str());
        Telemetry::report("updatepreference_error_update_configuration");
        return result;
    }
    result = processPreferenceOwnerChangeRequest(requesterUid, requesterPackage, key,
                                                 currentOwnerUid, currentOwnerPackage, ownerUid,
                                                 ownerPackage);
    if (result != StoreStatus::Ok) return result;
    result = processPreferenceScopeChangeRequest(requesterUid, requesterPackage, key, currentScope,
                                                 scope, currentOwnerUid, currentOwnerPackage);
    if (result != StoreStatus::Ok) return result;
    result = processPreferenceTypeChangeRequest(requesterUid, requesterPackage, key, currentType,
                                                type, currentOwnerUid, currentOwnerPackage);
    if (result != StoreStatus::Ok) return result;
    return processPreferenceDefaultValueChangeRequest(requesterUid, requesterPackage, key,
                                                      currentDefault, defaultValue, currentOwnerUid,
                                                      currentOwnerPackage);
}

int32_t Sqlite3PreferencesDb::processPreferenceOwnerChangeRequest(
        unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
        std::optional<unsigned int>& ownerUid, std::optional<std::string>& ownerPackage,
        const std::optional<unsigned int>& requestedOwnerUid,
        const std::optional<std::string>& requestedOwnerPackage) {
    const std::string request = describeRequester(requesterUid, requesterPackage);
    if (requestedOwnerUid.has_value() || requestedOwnerPackage.has_value()) {
        if (ownerUid.has_value() && requestedOwnerUid.has_value() &&
            *ownerUid != *requestedOwnerUid && !isPrivilegedRequester(requesterPackage)) {
            ALOGE("%s: Unable to update existing %s; already owned by (%s).", request.c_str(),
                  key.c_str(), describeOwner(ownerUid, ownerPackage).c_str());
            Telemetry::report("preferenceownerchange_error_already_owned");
            return StoreStatus::OwnerRefused;
        }
        if (ownerUid == requestedOwnerUid && ownerPackage == requestedOwnerPackage)
            return StoreStatus::Ok;
        const int32_t result = setPreferenceOwner(key, requestedOwnerUid, requestedOwnerPackage);
        if (result != StoreStatus::Ok) {
            ALOGE("%s: Unable to update existing %s; failed to set new owner.", request.c_str(),
                  key.c_str());
            Telemetry::report("preferenceownerchange_error_set_owner");
            return result;
        }
        ownerUid = requestedOwnerUid;
        ownerPackage = requestedOwnerPackage;
        return StoreStatus::Ok;
    }
    // The owner declares the key without claiming it any more: it gives the key up. Packages
    // that never owned the key leave its owner alone.
    if (!isOwnedBy(ownerUid, requesterUid)) return StoreStatus::Ok;
    const int32_t result = setPreferenceOwner(key, std::nullopt, std::nullopt);
    if (result != StoreStatus::Ok) {
        ALOGE("%s: Unable to update existing %s; failed to clear owner package.", request.c_str(),
              key.c_str());
        Telemetry::report("preferenceownerchange_error_clear_owner_package");
        return result;
    }
    ownerUid.reset();
    ownerPackage.reset();
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::processPreferenceScopeChangeRequest(
        unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
        PreferenceScope currentScope, PreferenceScope requestedScope,
        const std::optional<unsigned int>& ownerUid,
        const std::optional<std::string>& ownerPackage) {
    if (requestedScope == currentScope) return StoreStatus::Ok;
    if (!isOwnedBy(ownerUid, requesterUid)) {
        // A non-owner declaring a shared key as a plain user key is accepted as it is.
        if (currentScope == PreferenceScope::Cross && requestedScope == PreferenceScope::User) {
            return StoreStatus::Ok;
        }
        ALOGE("Unable to update existing %s; failed to change from %s to %s, requester %s is not "
              "the owner %s",
              key.c_str(), scopeToString(currentScope), scopeToString(requestedScope),
              requesterPackage.c_str(), ownerPackage.value_or("none").c_str());
        Telemetry::report("preferencescopechange_error_not_owner");
        return StoreStatus::NotOwner;
    }
    ALOGW("%s: non-owning packages have different scope (%d) from that (%d) of owning package. "
          "Please correct.",
          key.c_str(), static_cast<int>(currentScope), static_cast<int>(requestedScope));
    const int32_t result = updatePreferenceScope(key, requestedScope);
    if (result != StoreStatus::Ok) {
        ALOGE("Unable to update %s; unable to update from %s to %s.", key.c_str(),
              scopeToString(currentScope), scopeToString(requestedScope));
        Telemetry::report("preferencescopechange_error_update_scope");
    }
    return result;
}

int32_t Sqlite3PreferencesDb::processPreferenceTypeChangeRequest(
        unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
        Type currentType, Type requestedType, const std::optional<unsigned int>& ownerUid,
        const std::optional<std::string>& ownerPackage) {
    if (requestedType == currentType) return StoreStatus::Ok;
    if (!isOwnedBy(ownerUid, requesterUid)) {
        ALOGE("Unable to update existing %s; failed to change from %s to %s, requester %s is not "
              "the owner(%s).",
              key.c_str(), typeToString(currentType), typeToString(requestedType),
              requesterPackage.c_str(), ownerPackage.value_or("none").c_str());
        Telemetry::report("preferencestypechange_error_not_owner");
        return StoreStatus::NotOwner;
    }
    const int32_t result = updatePreferenceType(key, requestedType);
    if (result != StoreStatus::Ok) {
        ALOGE("%s, Unable to update %s; unable to update from %s to %s.",
              describeRequester(requesterUid, requesterPackage).c_str(), key.c_str(),
              typeToString(currentType), typeToString(requestedType));
        Telemetry::report("preferencestypechange_error_update_type");
    }
    return result;
}

int32_t Sqlite3PreferencesDb::processPreferenceDefaultValueChangeRequest(
        unsigned int requesterUid, const std::string& requesterPackage, const std::string& key,
        const std::optional<std::string>& currentDefault,
        const std::optional<std::string>& requestedDefault,
        const std::optional<unsigned int>& ownerUid,
        const std::optional<std::string>& ownerPackage) {
    if (requestedDefault == currentDefault) return StoreStatus::Ok;
    if (!isOwnedBy(ownerUid, requesterUid)) {
        ALOGE("Unable to update existing %s; failed to change default value, requester %s is not "
              "the owner (%s).",
              key.c_str(), requesterPackage.c_str(), ownerPackage.value_or("none").c_str());
        Telemetry::report("preferencedefault_error_not_owner");
        return StoreStatus::NotOwner;
    }
    const int32_t result = requestedDefault.has_value()
                                   ? setPreferenceDefault(key, *requestedDefault)
                                   : clearPreferenceDefault(key);
    if (result != StoreStatus::Ok) {
        ALOGE("%s: Unable to update %s; unable to update default value",
              describeRequester(requesterUid, requesterPackage).c_str(), key.c_str());
        Telemetry::report("preferencedefault_error");
    }
    return result;
}

int32_t Sqlite3PreferencesDb::clearPreferenceDefault(const std::string& key) {
    Query query = systemQuery(kSetDefault, std::optional<std::string>(), key);
    if (!query.built()) return StoreStatus::Failed;
    const int32_t result = query.write();
    if (result != StoreStatus::Ok) return result;
    return changedRows(PreferenceScope::System, std::nullopt) > 0 ? 0 : StoreStatus::UnknownKey;
}

// ---- Scope and type ----

int32_t Sqlite3PreferencesDb::getPreferenceScope(const std::string& key, PreferenceScope& scope,
                                                 bool quiet) {
    const bool cached = mMetadata.use(metadataDb());
    if (cached) {
        if (const std::optional<PreferenceScope> known = mMetadata.scope(key)) {
            scope = *known;
            return StoreStatus::Ok;
        }
    }
    Query query = systemQuery(kGetScope, key);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_ROW:
            scope = static_cast<PreferenceScope>(sqlite3_column_int(query.statement(), 0));
            if (cached) mMetadata.setScope(key, scope);
            return StoreStatus::Ok;
        case SQLITE_DONE:
            if (!quiet) ALOGE("Unable to get scope: %s does not exist in table.", key.c_str());
            return StoreStatus::UnknownKey;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

int32_t Sqlite3PreferencesDb::updatePreferenceScope(const std::string& key, PreferenceScope scope) {
    Query query = systemQuery(kSetScope, scope, key);
    if (!query.built()) return StoreStatus::Failed;
    const int32_t result = query.write();
    if (result != StoreStatus::Ok) return result;
    return changedRows(PreferenceScope::System, std::nullopt) > 0 ? 0 : StoreStatus::UnknownKey;
}

int32_t Sqlite3PreferencesDb::getPreferenceType(const std::string& key, Type& type) {
    const bool cached = mMetadata.use(metadataDb());
    if (cached) {
        if (const std::optional<Type> known = mMetadata.type(key)) {
            type = *known;
            return StoreStatus::Ok;
        }
    }
    Query query = systemQuery(kGetType, key);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_ROW:
            type = static_cast<Type>(sqlite3_column_int(query.statement(), 0));
            if (cached) mMetadata.setType(key, type);
            return StoreStatus::Ok;
        case SQLITE_DONE:
            ALOGE("Unable to get scope: %s does not exist in table.", key.c_str());
            Telemetry::report("getpreferencetype_error_unregistered_key");
            return StoreStatus::UnknownKey;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

int32_t Sqlite3PreferencesDb::updatePreferenceType(const std::string& key, Type type) {
    Query query = systemQuery(kSetType, type, key);
    if (!query.built()) return StoreStatus::Failed;
    const int32_t result = query.write();
    if (result != StoreStatus::Ok) return result;
    if (changedRows(PreferenceScope::System, std::nullopt) > 0) return StoreStatus::Ok;
    Telemetry::report("updatepreferencetype_error_unregistered_key");
    return StoreStatus::UnknownKey;
}

int32_t Sqlite3PreferencesDb::downGradeScopeForPackage() {
    return runSystemWrite(kDowngradeCrossScope);
}

// ---- Owners ----

int32_t Sqlite3PreferencesDb::getPreferenceOwner(const std::string& key,
                                                 std::optional<unsigned int>& uid,
                                                 std::optional<std::string>& packageName) {
    Query query = systemQuery(kGetOwner, key);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_ROW:
            readOwner(query.statement(), 0, uid, packageName);
            return StoreStatus::Ok;
        case SQLITE_DONE:
            ALOGE("Unable to get owner: %s does not exist.", key.c_str());
            Telemetry::report("getpreferenceowner_error_key_not_exist");
            return StoreStatus::UnknownKey;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

int32_t Sqlite3PreferencesDb::setPreferenceOwner(const std::string& key,
                                                 const std::optional<unsigned int>& uid,
                                                 const std::optional<std::string>& packageName) {
    if (uid.has_value() != packageName.has_value()) {
        ALOGE("Unable to set %s owner, either both owner id and name or neither must be "
              "specified.",
              key.c_str());
        return StoreStatus::OwnerRefused;
    }
    Query query = systemQuery(kSetOwner, uid, packageName, key);
    if (!query.built()) return StoreStatus::Failed;
    const int32_t result = query.write();
    if (result != StoreStatus::Ok) return result;
    if (changedRows(PreferenceScope::System, std::nullopt) > 0) return StoreStatus::Ok;
    ALOGE("Unable to set %s owner: key does not exist.", key.c_str());
    Telemetry::report("setpreferenceowner_error_key_not_exist");
    return StoreStatus::UnknownKey;
}

int32_t Sqlite3PreferencesDb::clearPreferenceOwnerForNonMigrationKeys(KeySourceDomain domain) {
    switch (domain) {
        case KeySourceDomain::Legacy:
            return runSystemWrite(kClearOwnerLegacy);
        case KeySourceDomain::NativeService:
            return runSystemWrite(kClearOwnerNativeService);
        case KeySourceDomain::Application:
            return runSystemWrite(kClearOwnerApplication);
    }
    ALOGE("Invalid domain %u provided to clear owners.", static_cast<unsigned int>(domain));
    return StoreStatus::Failed;
}

// ---- Permissions ----

int32_t Sqlite3PreferencesDb::setPreferencePermission(const std::string& key, unsigned int uid,
                                                      const std::string& packageName,
                                                      PreferencePermission permission) {
    if (permission != PreferencePermission::Read && permission != PreferencePermission::ReadWrite) {
        ALOGE("%s Invalid permission provided to registering permission: %u", key.c_str(),
              static_cast<unsigned int>(permission));
        return StoreStatus::InvalidPermission;
    }
    Query query = systemQuery(kInsertPermission, key, uid, packageName, permission);
    if (!query.built()) {
        Telemetry::report("setpreferencepermission_error_build_query");
        return StoreStatus::Failed;
    }
    const int stepped = query.step();
    if (stepped == SQLITE_DONE) return StoreStatus::Ok;
    // Any constraint failure is taken for an existing row and becomes an update. A missing key,
    // or a package name known under another uid (an app reinstalled under a new uid), is a
    // foreign key failure: the update then changes no row and succeeds.
    if (isConstraintFailure(stepped)) {
        return updatePreferencePermission(key, uid, packageName, permission);
    }
    query.logFailedStep();
    Telemetry::report("setpreferencepermission_error_prepared_statement");
    return StoreStatus::Failed;
}

int32_t Sqlite3PreferencesDb::updatePreferencePermission(const std::string& key, unsigned int uid,
                                                         const std::string& packageName,
                                                         PreferencePermission permission) {
    Query query = systemQuery(kUpdatePermission, permission, key, uid, packageName);
    if (!query.built()) {
        Telemetry::report("updatepreferencepermission_error_build_query");
        return StoreStatus::Failed;
    }
    if (query.write() != StoreStatus::Ok) {
        Telemetry::report("updatepreferencepermission_error_prepared_statement");
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::getPreferencePermission(const std::string& key, unsigned int uid,
                                                      PreferencePermission& permission) {
    const bool cached = mMetadata.use(metadataDb());
    if (cached) {
        if (const std::optional<PreferencePermission> known = mMetadata.permission(key, uid)) {
            permission = *known;
            return StoreStatus::Ok;
        }
    }
    Query query = systemQuery(kGetPermission, key, uid);
    if (!query.built()) {
        Telemetry::report("getpreferencepermission_error_build_query");
        return StoreStatus::Failed;
    }
    if (query.step() != SQLITE_ROW) {
        query.logFailedStep();
        Telemetry::report("getpreferencepermission_error_prepared_statement");
        return StoreStatus::Failed;
    }
    // MAX() over no rows is NULL, read as 0: no permission.
    permission = static_cast<PreferencePermission>(sqlite3_column_int(query.statement(), 0));
    if (cached) mMetadata.setPermission(key, uid, permission);
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::clearPermissionsForPackage(unsigned int uid,
                                                         const std::string& packageName) {
    Query query = systemQuery(kClearPackagePermissions, uid, packageName);
    if (!query.built()) return StoreStatus::Failed;
    // Without the trigger, keys that lose their last permission here stay for the expiry sweep,
    // which also removes their values from the user databases.
    if (dropReapOrphanedPreferencesTrigger() != StoreStatus::Ok) {
        ALOGE("Failed to drop trigger to reap orphaned preferences prior to clearing permissions.");
        return StoreStatus::Failed;
    }
    const bool stepped = query.step() == SQLITE_DONE;
    if (!stepped) {
        query.logFailedStep();
        Telemetry::report("clearpreferencepermission_error_prepared_statement");
    }
    if (createReapOrphanedPreferencesTrigger() != StoreStatus::Ok) {
        ALOGE("Failed to re-create trigger to reap orphaned preferences after clearing "
              "permissions.");
        return StoreStatus::Failed;
    }
    return stepped ? StoreStatus::Ok : StoreStatus::Failed;
}

// ---- Expiry ----

int32_t Sqlite3PreferencesDb::runSystemWrite(SystemStatement statementId) {
    Query query = systemQuery(statementId);
    return query.write();
}

int32_t Sqlite3PreferencesDb::runExpiryMark(SystemStatement statementId,
                                            std::chrono::seconds delay) {
    // The datetime() modifier, e.g. "+60 seconds".
    const std::string modifier = "+" + std::to_string(delay.count()) + " seconds";
    Query query = systemQuery(statementId, modifier);
    return query.write();
}

int32_t Sqlite3PreferencesDb::markPreferencesForExpiration(std::chrono::seconds delay,
                                                           KeySourceDomain domain) {
    switch (domain) {
        case KeySourceDomain::Legacy:
            return runExpiryMark(kExpireLegacy, delay);
        case KeySourceDomain::NativeService:
            return runExpiryMark(kExpireNativeService, delay);
        case KeySourceDomain::Application:
            return runExpiryMark(kExpireApplication, delay);
    }
    ALOGE("Invalid domain %u provided to mark keys for expiration.",
          static_cast<unsigned int>(domain));
    return StoreStatus::Failed;
}

int32_t Sqlite3PreferencesDb::markOrphanedPreferencesForExpiration(std::chrono::seconds delay) {
    return runExpiryMark(kExpireOrphaned, delay);
}

int32_t Sqlite3PreferencesDb::markPreferencesReferencedOnlyByPackageForExpiration(
        unsigned int uid, const std::string& packageName) {
    if (startsWith(packageName, kLegacyPrefix)) return StoreStatus::Ok;
    // The stamp reaches only keys on which the package holds a permission. When all of them have
    // expired already -- as every key of a restart list has, marked a moment before -- it would
    // only move the time of expiries that have passed: the sweep takes those keys either way and
    // registering one again clears its stamp either way. It is then skipped, as it costs a
    // materialisation of every other package's keys where the lookup reads this package's rows.
    bool found = true;
    if (findUnexpiredKey(uid, packageName, found) == StoreStatus::Ok && !found)
        return StoreStatus::Ok;
    Query query = systemQuery(kExpireReferencedOnlyByPackage, uid, packageName, uid, packageName);
    return query.write();
}

int32_t Sqlite3PreferencesDb::findUnexpiredKey(unsigned int uid, const std::string& packageName,
                                               bool& found) {
    Query query = systemQuery(kFindUnexpiredKeyOfPackage, uid, packageName);
    if (!query.built()) return StoreStatus::Failed;
    switch (query.step()) {
        case SQLITE_ROW:
            found = true;
            return StoreStatus::Ok;
        case SQLITE_DONE:
            found = false;
            return StoreStatus::Ok;
        default:
            query.logFailedStep();
            return StoreStatus::Failed;
    }
}

int32_t Sqlite3PreferencesDb::clearExpiration(const std::string& key) {
    Query query = systemQuery(kClearExpiration, key);
    return query.write();
}

int32_t Sqlite3PreferencesDb::getExpiredPreferences(
        std::vector<std::pair<std::string, PreferenceScope>>& expired) {
    Query query = systemQuery(kListExpired);
    if (!query.built()) return StoreStatus::Failed;
    int stepped;
    while ((stepped = query.step()) == SQLITE_ROW) {
        expired.emplace_back(
                columnText(query.statement(), 0).value_or(""),
                static_cast<PreferenceScope>(sqlite3_column_int(query.statement(), 1)));
    }
    if (stepped != SQLITE_DONE) {
        query.logFailedStep();
        return StoreStatus::Failed;
    }
    return StoreStatus::Ok;
}

int32_t Sqlite3PreferencesDb::deleteExpiredPreferencesFromMapPermissions() {
    return runSystemWrite(kDeleteExpired);
}

int32_t Sqlite3PreferencesDb::unregisterExpiredPreferences() {
    std::vector<std::pair<std::string, PreferenceScope>> expired;
    int32_t result = getExpiredPreferences(expired);
    if (result != StoreStatus::Ok) return result;
    for (const auto& [key, scope] : expired) {
        result = deletePreferenceFromValueTables(key, scope);
        if (result == StoreStatus::UnknownKey) {
            ALOGW("Unable to unregister %s: not found.", key.c_str());
        } else if (result != StoreStatus::Ok) {
            return result;
        }
    }
    result = deleteExpiredPreferencesFromMapPermissions();
    if (result != StoreStatus::Ok) return result;
    return cleanupDanglingListeners();
}

}  // namespace Halo::OS
