#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

namespace Halo::OS::testing {

// Runs every statement of `script` on the SQLite file at `path` (created when missing) through a
// connection of its own; the rows they return, columns joined with '|' and NULL shown as "NULL".
// A failing statement fails the test.
inline std::vector<std::string> sqlRows(const std::string& path, const std::string& script) {
    std::vector<std::string> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) ADD_FAILURE() << path;
    for (const char* next = script.c_str(); db != nullptr && *next != '\0';) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, next, -1, &statement, &next) != SQLITE_OK) {
            ADD_FAILURE() << path << ": " << next << ": " << sqlite3_errmsg(db);
            break;
        }
        while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
            std::string row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const unsigned char* text = sqlite3_column_text(statement, i);
                row += (i > 0 ? "|" : "") +
                       std::string(text != nullptr ? reinterpret_cast<const char*>(text) : "NULL");
            }
            rows.push_back(row);
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return rows;
}

}  // namespace Halo::OS::testing
