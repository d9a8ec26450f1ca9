#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace Halo::OS {

// Small helpers to bind parameters and read columns of the store's prepared statements. Text is
// bound without a copy: the caller keeps it alive until the statement is reset after its step.
// Each bind helper returns true on SQLITE_OK.

inline bool bindText(sqlite3_stmt* statement, int index, const std::string& text) {
    return sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                             SQLITE_STATIC) == SQLITE_OK;
}

inline bool bindText(sqlite3_stmt* statement, int index, const std::optional<std::string>& text) {
    if (!text.has_value()) return sqlite3_bind_null(statement, index) == SQLITE_OK;
    return bindText(statement, index, *text);
}

// Uids and listener ids are unsigned 32-bit; they are stored as non-negative integers.
inline bool bindUnsigned(sqlite3_stmt* statement, int index, unsigned int value) {
    return sqlite3_bind_int64(statement, index, static_cast<sqlite3_int64>(value)) == SQLITE_OK;
}

inline bool bindUnsigned(sqlite3_stmt* statement, int index,
                         const std::optional<unsigned int>& value) {
    if (!value.has_value()) return sqlite3_bind_null(statement, index) == SQLITE_OK;
    return bindUnsigned(statement, index, *value);
}

// Enumeration codes (type, scope, permission) are stored as their integer values.
template <typename Enum, typename = std::enable_if_t<std::is_enum_v<Enum>>>
inline bool bindCode(sqlite3_stmt* statement, int index, Enum code) {
    return sqlite3_bind_int64(statement, index, static_cast<sqlite3_int64>(code)) == SQLITE_OK;
}

// One overload set over the helpers above, so that a statement's parameters can be bound in
// order by a variadic caller (Sqlite3PreferencesDb::Query).
inline bool bindParameter(sqlite3_stmt* statement, int index, const std::string& text) {
    return bindText(statement, index, text);
}
inline bool bindParameter(sqlite3_stmt* statement, int index,
                          const std::optional<std::string>& text) {
    return bindText(statement, index, text);
}
inline bool bindParameter(sqlite3_stmt* statement, int index, unsigned int value) {
    return bindUnsigned(statement, index, value);
}
inline bool bindParameter(sqlite3_stmt* statement, int index,
                          const std::optional<unsigned int>& value) {
    return bindUnsigned(statement, index, value);
}
template <typename Enum, typename = std::enable_if_t<std::is_enum_v<Enum>>>
inline bool bindParameter(sqlite3_stmt* statement, int index, Enum code) {
    return bindCode(statement, index, code);
}

inline unsigned int columnUnsigned(sqlite3_stmt* statement, int column) {
    return static_cast<unsigned int>(sqlite3_column_int64(statement, column));
}

// The column as text; empty when it is NULL.
inline std::optional<std::string> columnText(sqlite3_stmt* statement, int column) {
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) return std::nullopt;
    const unsigned char* text = sqlite3_column_text(statement, column);
    if (text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<size_t>(sqlite3_column_bytes(statement, column)));
}

// The column as a C string for printing; null when it is NULL.
inline const char* columnCString(sqlite3_stmt* statement, int column) {
    if (sqlite3_column_type(statement, column) == SQLITE_NULL) return nullptr;
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

inline bool isConstraintFailure(int result) {
    return (result & 0xff) == SQLITE_CONSTRAINT;
}

}  // namespace Halo::OS
