#include "SqliteFloor.h"

#include <cstdio>

namespace Halo::OS {
namespace {

constexpr const char* kSettings[] = {
        "PRAGMA cache_size = 256",     "PRAGMA page_size = 4096",  "PRAGMA main.journal_mode = WAL",
        "PRAGMA synchronous = NORMAL", "PRAGMA foreign_keys = ON",
};
constexpr const char* kSelect = "SELECT current_value FROM preference_values WHERE key = ?";
constexpr const char* kUpdate = "UPDATE preference_values SET current_value = ? WHERE key = ?";

}  // namespace

SqliteFloor::SqliteFloor(const std::string& systemDbPath) {
    if (sqlite3_open(systemDbPath.c_str(), &mDb) != SQLITE_OK) {
        fprintf(stderr, "prefs-bench: cannot open %s: %s\n", systemDbPath.c_str(),
                sqlite3_errmsg(mDb));
        return;
    }
    for (const char* setting : kSettings) {
        if (sqlite3_exec(mDb, setting, nullptr, nullptr, nullptr) != SQLITE_OK) {
            fprintf(stderr, "prefs-bench: %s: %s\n", setting, sqlite3_errmsg(mDb));
        }
    }
    if (sqlite3_prepare_v2(mDb, kSelect, -1, &mSelect, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(mDb, kUpdate, -1, &mUpdate, nullptr) != SQLITE_OK) {
        fprintf(stderr, "prefs-bench: cannot prepare the floor statements: %s\n",
                sqlite3_errmsg(mDb));
    }
}

SqliteFloor::~SqliteFloor() {
    sqlite3_finalize(mSelect);
    sqlite3_finalize(mUpdate);
    sqlite3_close(mDb);
}

bool SqliteFloor::measureSelect(const std::vector<std::string>& keys, size_t count,
                                LatencySamples* samples) {
    std::string value;
    for (size_t i = 0; i < count; ++i) {
        const std::string& key = keys[i % keys.size()];
        const LatencySamples::Clock::time_point start = LatencySamples::Clock::now();
        sqlite3_bind_text(mSelect, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        const bool found = sqlite3_step(mSelect) == SQLITE_ROW;
        if (found) {
            value.assign(reinterpret_cast<const char*>(sqlite3_column_text(mSelect, 0)),
                         static_cast<size_t>(sqlite3_column_bytes(mSelect, 0)));
        }
        sqlite3_reset(mSelect);
        samples->add(LatencySamples::Clock::now() - start);
        if (!found) {
            fprintf(stderr, "prefs-bench: %s has no value row\n", key.c_str());
            return false;
        }
    }
    return true;
}

bool SqliteFloor::measureWrite(const std::string& key, size_t count, LatencySamples* samples) {
    for (size_t i = 0; i < count; ++i) {
        const std::string value = std::to_string(i);
        const LatencySamples::Clock::time_point start = LatencySamples::Clock::now();
        sqlite3_bind_text(mUpdate, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
        sqlite3_bind_text(mUpdate, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        const int stepped = sqlite3_step(mUpdate);
        const bool changed = stepped == SQLITE_DONE && sqlite3_changes(mDb) == 1;
        sqlite3_reset(mUpdate);
        samples->add(LatencySamples::Clock::now() - start);
        if (!changed) {
            fprintf(stderr, "prefs-bench: the floor update of %s failed: %s\n", key.c_str(),
                    sqlite3_errmsg(mDb));
            return false;
        }
    }
    return true;
}

}  // namespace Halo::OS
