// Key definitions of Sqlite3PreferencesDb, for listing and describing keys.

#define LOG_TAG "PreferencesService"
#include <log/log.h>
#include <sqlite3.h>

#include <string>

#include "store/Sqlite3PreferencesDb.h"

namespace Halo::OS {
namespace {

using PreferenceScope = PreferencesKeyInfo::PreferenceScope;
using Type = PreferencesKeyInfo::Type;

// The owner's name only counts with an owner uid: clearing a package's ownership leaves the
// name behind.
constexpr const char* kQueryAllDefinitions =
        "SELECT key, type, scope, CASE WHEN owner_package_uid IS NULL THEN NULL ELSE "
        "owner_package_name END, default_value FROM preferences ORDER BY key";
constexpr const char* kQueryOneDefinition =
        "SELECT key, type, scope, CASE WHEN owner_package_uid IS NULL THEN NULL ELSE "
        "owner_package_name END, default_value FROM preferences WHERE key = ?";

std::optional<std::string> textColumn(sqlite3_stmt* statement, int column) {
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) return std::nullopt;
    const unsigned char* text = sqlite3_column_text(statement, column);
    return std::string(text != nullptr ? reinterpret_cast<const char*>(text) : "",
                       static_cast<size_t>(sqlite3_column_bytes(statement, column)));
}

}  // namespace

int32_t Sqlite3PreferencesDb::getPreferenceDefinitions(
        const std::optional<std::string>& key, std::vector<PreferenceDefinition>& definitions) {
    sqlite3* db = getDbForScope(PreferenceScope::System, std::nullopt);
    if (db == nullptr) return -3;
    sqlite3_stmt* statement = nullptr;
    const char* query = key.has_value() ? kQueryOneDefinition : kQueryAllDefinitions;
    if (sqlite3_prepare_v2(db, query, -1, &statement, nullptr) != SQLITE_OK ||
        (key.has_value() &&
         sqlite3_bind_text(statement, 1, key->data(), static_cast<int>(key->size()),
                           SQLITE_STATIC) != SQLITE_OK)) {
        ALOGE("Unable to list key definitions: %s", sqlite3_errmsg(db));
        sqlite3_finalize(statement);
        return -1;
    }
    const size_t before = definitions.size();
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        PreferenceDefinition definition;
        definition.key = textColumn(statement, 0).value_or(std::string());
        definition.type = static_cast<Type>(sqlite3_column_int64(statement, 1));
        definition.scope = static_cast<PreferenceScope>(sqlite3_column_int64(statement, 2));
        definition.ownerPackage = textColumn(statement, 3);
        definition.defaultValue = textColumn(statement, 4);
        definitions.push_back(std::move(definition));
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) {
        ALOGE("Unable to list key definitions: %s", sqlite3_errmsg(db));
        definitions.resize(before);
        return -1;
    }
    if (key.has_value() && definitions.size() == before) return -8;
    return 0;
}

}  // namespace Halo::OS
