// Key definitions of Sqlite3PreferencesDb, for listing and describing keys.

#define LOG_TAG "PreferencesService"
#include <log/log.h>

#include <string>

#include "store/Sqlite3PreferencesDb.h"

namespace Halo::OS {

int32_t Sqlite3PreferencesDb::getPreferenceDefinitions(
        const std::optional<std::string>& key, std::vector<PreferenceDefinition>& definitions) {
    if (getDbForScope(PreferenceScope::System, std::nullopt) == nullptr) {
        return StoreStatus::NotOpen;
    }
    Query query =
            key.has_value() ? systemQuery(kGetDefinition, *key) : systemQuery(kListDefinitions);
    if (!query.built()) return StoreStatus::Failed;
    const size_t before = definitions.size();
    int stepped;
    while ((stepped = query.step()) == SQLITE_ROW) {
        sqlite3_stmt* row = query.statement();
        PreferenceDefinition definition;
        definition.key = columnText(row, 0).value_or(std::string());
        definition.type = static_cast<Type>(sqlite3_column_int64(row, 1));
        definition.scope = static_cast<PreferenceScope>(sqlite3_column_int64(row, 2));
        definition.ownerPackage = columnText(row, 3);
        definition.defaultValue = columnText(row, 4);
        definitions.push_back(std::move(definition));
    }
    if (stepped != SQLITE_DONE) {
        query.logFailedStep();
        definitions.resize(before);
        return StoreStatus::Failed;
    }
    if (key.has_value() && definitions.size() == before) return StoreStatus::UnknownKey;
    return StoreStatus::Ok;
}

}  // namespace Halo::OS
