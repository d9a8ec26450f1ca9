#define LOG_TAG "PreferencesService"

#include "StoreRecovery.h"

#include <log/log.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

// Result codes that say the bytes are not a readable database, as opposed to a database that
// cannot be reached just now.
bool meansDamaged(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

std::string utcStamp() {
    const time_t now = time(nullptr);
    struct tm utc {};
    gmtime_r(&now, &utc);
    char text[32];
    strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

}  // namespace

StoreRecovery::StoreRecovery(std::string dataDir)
    : mDataDir(std::move(dataDir)), mPath(mDataDir + "/" + kSystemDbName) {}

StoreRecovery::Outcome StoreRecovery::run() {
    switch (check()) {
        case Verdict::Healthy:
            return Outcome::Healthy;
        case Verdict::Unknown:
            return Outcome::Failed;
        case Verdict::Damaged:
            break;
    }
    const std::string damage = mProblem;
    if (!moveAside()) {
        ALOGE("The preference store %s is damaged (%s) and cannot be moved aside: %s",
              mPath.c_str(), damage.c_str(), mProblem.c_str());
        return Outcome::Failed;
    }
    mProblem = damage;
    ALOGE("The preference store %s is damaged (%s): moved to %s; starting with an empty store",
          mPath.c_str(), mProblem.c_str(), mMovedTo.c_str());
    Telemetry::reportError(kMovedAsideEvent, 0, mProblem);
    return Outcome::MovedAside;
}

StoreRecovery::Verdict StoreRecovery::check() {
    struct stat st {};
    if (lstat(mPath.c_str(), &st) != 0) {
        if (errno == ENOENT) return Verdict::Healthy;
        mProblem = std::string("cannot look at it: ") + strerror(errno);
        return Verdict::Unknown;
    }
    if (!S_ISREG(st.st_mode)) {
        mProblem = "not a regular file";
        return Verdict::Damaged;
    }
    sqlite3* db = nullptr;
    int code = sqlite3_open_v2(mPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_stmt* statement = nullptr;
    if (code == SQLITE_OK) {
        sqlite3_extended_result_codes(db, 1);
        code = sqlite3_prepare_v2(db, "PRAGMA quick_check", -1, &statement, nullptr);
    }
    Verdict verdict = Verdict::Healthy;
    if (code != SQLITE_OK) {
        mProblem = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code);
        verdict = meansDamaged(code) ? Verdict::Damaged : Verdict::Unknown;
    } else {
        // One row "ok" for a sound database; otherwise one row per problem found.
        while ((code = sqlite3_step(statement)) == SQLITE_ROW) {
            const auto* row = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            const std::string text = row != nullptr ? row : "";
            if (text != "ok" && mProblem.empty()) {
                mProblem = text;
                verdict = Verdict::Damaged;
            }
        }
        if (code != SQLITE_DONE && verdict == Verdict::Healthy) {
            mProblem = sqlite3_errmsg(db);
            verdict = meansDamaged(code) ? Verdict::Damaged : Verdict::Unknown;
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close_v2(db);
    return verdict;
}

bool StoreRecovery::moveAside() {
    const std::string suffix = ".corrupt-" + utcStamp();
    if (rename(mPath.c_str(), (mPath + suffix).c_str()) != 0) {
        mProblem = strerror(errno);
        return false;
    }
    mMovedTo = mPath + suffix;
    // Journal files belong to the damaged database: a new one must not replay them.
    for (const char* journal : {"-wal", "-shm", "-journal"}) {
        const std::string path = mPath + journal;
        if (rename(path.c_str(), (path + suffix).c_str()) != 0 && errno != ENOENT) {
            ALOGE("Cannot move %s aside: %s", path.c_str(), strerror(errno));
        }
    }
    return true;
}

}  // namespace Halo::OS
