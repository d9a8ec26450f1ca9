#pragma once

#include <string>

namespace Halo::OS {

// Looks at the system database of a data directory before the service opens it. A database that
// SQLite cannot read as one (not a database, damaged pages, something other than a file in its
// place) is moved aside, with its journal files, to "system.db.corrupt-<UTC time>", so that the
// service starts on an empty store, as Android does with a corrupt database; the damaged file is
// kept for inspection. A database that cannot be looked at for another reason (busy, I/O error,
// no permission) is left alone: moving it could lose good data.
//
// One object per start-up; not thread-safe.
class StoreRecovery {
public:
    enum class Outcome {
        Healthy,     // no database yet, or one that passed the check
        MovedAside,  // damaged and moved aside; movedTo() and problem() say where and why
        Failed,      // cannot be checked or moved; problem() says why
    };

    static constexpr const char* kSystemDbName = "system.db";
    // Reported to telemetry when a damaged database was moved aside.
    static constexpr const char* kMovedAsideEvent = "system_db_corrupt_moved_aside";

    // `dataDir` is the directory of the databases, without a trailing slash.
    explicit StoreRecovery(std::string dataDir);

    // Checks the database and moves it aside when it is damaged; logs and reports that loudly.
    Outcome run();

    // What was wrong: SQLite's message, or why the move failed. Empty when healthy.
    const std::string& problem() const { return mProblem; }
    // The path the damaged database was moved to; empty unless MovedAside.
    const std::string& movedTo() const { return mMovedTo; }

private:
    enum class Verdict { Healthy, Damaged, Unknown };

    // Opens the database read-write (without creating it) and runs SQLite's quick check.
    Verdict check();
    // Renames the database and its journal files with the suffix ".corrupt-<UTC time>".
    bool moveAside();

    const std::string mDataDir;
    const std::string mPath;
    std::string mProblem;
    std::string mMovedTo;
};

}  // namespace Halo::OS
