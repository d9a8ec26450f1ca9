#define LOG_TAG "PreferencesService"

#include "keyvaluestore/KeyValueStore.h"

#include <log/log.h>
#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace Halo::OS {
namespace {

// How long a statement waits for another process's lock on the file before it fails.
constexpr int kBusyTimeoutMs = 2000;

bool isIdentifier(const std::string& name) {
    if (name.empty() || isdigit(static_cast<unsigned char>(name[0]))) return false;
    for (char c : name) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
    }
    return true;
}

// Runs `statement` (already bound) to its first row and returns the first column as an integer;
// -1 when there is no row or the step failed.
int64_t firstInteger(sqlite3_stmt* statement) {
    return sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : -1;
}

// Resets `statement` and its bindings after a use, whatever the outcome.
class StatementScope {
public:
    explicit StatementScope(sqlite3_stmt* statement) : mStatement(statement) {}
    ~StatementScope() {
        sqlite3_reset(mStatement);
        sqlite3_clear_bindings(mStatement);
    }
    StatementScope(const StatementScope&) = delete;
    StatementScope& operator=(const StatementScope&) = delete;

private:
    sqlite3_stmt* mStatement;
};

}  // namespace

KeyValueStore::KeyValueStore(const std::string& path, const std::string& table, int flags)
    : mPath(path), mTable(table), mFlags(flags) {
    Mutex::Autolock lock(mMutex);
    mValid = openLocked();
    if (!mValid) closeLocked();
}

KeyValueStore::~KeyValueStore() {
    Mutex::Autolock lock(mMutex);
    closeLocked();
}

bool KeyValueStore::isValid() const {
    Mutex::Autolock lock(mMutex);
    return mValid;
}

bool KeyValueStore::openLocked() {
    if (!isIdentifier(mTable)) {
        ALOGE("KeyValueStore: invalid table name \"%s\" for %s", mTable.c_str(), mPath.c_str());
        return false;
    }
    const bool readOnly = (mFlags & kReadOnly) != 0;
    const int openFlags =
            readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    int rc = sqlite3_open_v2(mPath.c_str(), &mDb, openFlags, nullptr);
    if (rc != SQLITE_OK) {
        ALOGE("KeyValueStore: cannot open %s: %s", mPath.c_str(),
              mDb != nullptr ? sqlite3_errmsg(mDb) : sqlite3_errstr(rc));
        return false;
    }
    sqlite3_extended_result_codes(mDb, 1);
    sqlite3_busy_timeout(mDb, kBusyTimeoutMs);

    // A file that is not an SQLite database fails here, on its first read.
    sqlite3_stmt* check = nullptr;
    if (!prepareLocked("PRAGMA quick_check(1)", &check)) return false;
    rc = sqlite3_step(check);
    const unsigned char* verdict = rc == SQLITE_ROW ? sqlite3_column_text(check, 0) : nullptr;
    std::string report =
            verdict != nullptr ? reinterpret_cast<const char*>(verdict) : sqlite3_errmsg(mDb);
    const bool healthy = verdict != nullptr && report == "ok";
    if (!healthy) {
        std::replace(report.begin(), report.end(), '\n', ' ');
        ALOGE("KeyValueStore: %s is not a usable database: %s", mPath.c_str(), report.c_str());
    }
    sqlite3_finalize(check);
    if (!healthy || !ensureTableLocked()) return false;

    const std::string quoted = "\"" + mTable + "\"";
    if (!prepareLocked("SELECT value FROM " + quoted + " WHERE key = ?1 LIMIT 1", &mSelect)) {
        return false;
    }
    if (readOnly) return true;
    return prepareLocked("UPDATE " + quoted + " SET value = ?2 WHERE key = ?1", &mUpdate) &&
           prepareLocked("INSERT INTO " + quoted + " (key, value) VALUES (?1, ?2)", &mInsert);
}

bool KeyValueStore::ensureTableLocked() {
    sqlite3_stmt* query = nullptr;
    if (!prepareLocked("SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = ?1 "
                       "COLLATE NOCASE",
                       &query)) {
        return false;
    }
    sqlite3_bind_text(query, 1, mTable.c_str(), static_cast<int>(mTable.size()), SQLITE_STATIC);
    const int64_t ours = firstInteger(query);
    sqlite3_finalize(query);
    if (ours > 0) return true;
    if (ours < 0) {
        ALOGE("KeyValueStore: cannot read the tables of %s: %s", mPath.c_str(),
              sqlite3_errmsg(mDb));
        return false;
    }

    if (!prepareLocked("SELECT count(*) FROM sqlite_master WHERE type = 'table'", &query)) {
        return false;
    }
    const int64_t tables = firstInteger(query);
    sqlite3_finalize(query);
    if (tables != 0 || (mFlags & kReadOnly) != 0) {
        ALOGE("KeyValueStore: %s has no table %s", mPath.c_str(), mTable.c_str());
        return false;
    }
    const std::string create =
            "CREATE TABLE \"" + mTable + "\" (key TEXT PRIMARY KEY NOT NULL, value TEXT)";
    char* error = nullptr;
    if (sqlite3_exec(mDb, create.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        ALOGE("KeyValueStore: cannot create table %s in %s: %s", mTable.c_str(), mPath.c_str(),
              error != nullptr ? error : "unknown error");
        sqlite3_free(error);
        return false;
    }
    return true;
}

bool KeyValueStore::prepareLocked(const std::string& sql, sqlite3_stmt** statement) {
    if (sqlite3_prepare_v2(mDb, sql.c_str(), static_cast<int>(sql.size()), statement, nullptr) !=
        SQLITE_OK) {
        ALOGE("KeyValueStore: %s: cannot prepare \"%s\": %s", mPath.c_str(), sql.c_str(),
              sqlite3_errmsg(mDb));
        sqlite3_finalize(*statement);
        *statement = nullptr;
        return false;
    }
    return true;
}

void KeyValueStore::closeLocked() {
    for (sqlite3_stmt** statement : {&mSelect, &mUpdate, &mInsert}) {
        sqlite3_finalize(*statement);
        *statement = nullptr;
    }
    if (mDb != nullptr) {
        sqlite3_close_v2(mDb);
        mDb = nullptr;
    }
    mValid = false;
}

std::optional<std::string> KeyValueStore::get(const std::string& key) const {
    Mutex::Autolock lock(mMutex);
    if (!mValid) return std::nullopt;
    StatementScope scope(mSelect);
    sqlite3_bind_text(mSelect, 1, key.c_str(), static_cast<int>(key.size()), SQLITE_STATIC);
    const int rc = sqlite3_step(mSelect);
    if (rc == SQLITE_DONE) return std::nullopt;
    if (rc != SQLITE_ROW) {
        ALOGE("KeyValueStore: %s: reading %s failed: %s", mPath.c_str(), key.c_str(),
              sqlite3_errmsg(mDb));
        return std::nullopt;
    }
    if (sqlite3_column_type(mSelect, 0) == SQLITE_NULL) return std::nullopt;
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(mSelect, 0));
    const int bytes = sqlite3_column_bytes(mSelect, 0);
    if (text == nullptr) return std::string();
    return std::string(text, static_cast<size_t>(bytes));
}

bool KeyValueStore::set(const std::string& key, const std::string& value) {
    Mutex::Autolock lock(mMutex);
    if (!mValid || (mFlags & kReadOnly) != 0) {
        ALOGE("KeyValueStore: %s is not writable; %s not set", mPath.c_str(), key.c_str());
        return false;
    }
    // An UPDATE first, then an INSERT when no row changed: this also works on legacy tables
    // whose key column lacks a uniqueness constraint, where an upsert cannot be prepared.
    for (sqlite3_stmt* statement : {mUpdate, mInsert}) {
        StatementScope scope(statement);
        sqlite3_bind_text(statement, 1, key.c_str(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_text(statement, 2, value.c_str(), static_cast<int>(value.size()),
                          SQLITE_STATIC);
        if (sqlite3_step(statement) != SQLITE_DONE) {
            ALOGE("KeyValueStore: %s: writing %s failed: %s", mPath.c_str(), key.c_str(),
                  sqlite3_errmsg(mDb));
            return false;
        }
        if (sqlite3_changes(mDb) > 0) return true;
    }
    ALOGE("KeyValueStore: %s: writing %s changed no row", mPath.c_str(), key.c_str());
    return false;
}

}  // namespace Halo::OS
