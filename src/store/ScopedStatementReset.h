#pragma once

#include <sqlite3.h>

namespace Halo::OS {

// Resets a prepared statement and clears its bindings when the scope ends. A statement left
// stepped would keep its read transaction (and, in WAL mode, its snapshot) open until its next
// use and would block DROP TABLE; clearing the bindings means a statement never refers to bound
// text that no longer exists. A null statement is ignored.
class ScopedStatementReset {
public:
    explicit ScopedStatementReset(sqlite3_stmt* statement) : mStatement(statement) {}
    ~ScopedStatementReset() {
        if (mStatement == nullptr) return;
        sqlite3_reset(mStatement);
        sqlite3_clear_bindings(mStatement);
    }
    ScopedStatementReset(const ScopedStatementReset&) = delete;
    ScopedStatementReset& operator=(const ScopedStatementReset&) = delete;

private:
    sqlite3_stmt* const mStatement;
};

}  // namespace Halo::OS
