#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace Halo::OS {

// Nesting is counted as JsonCpp's reader counts it: the values on the path from the document to
// its deepest value ("1" and "[]" are one level, "[1]" and {"a": []} two).
//
// The deepest nesting accepted in a document read from a file: a package file, a native-service
// schema, legacy-keys.json, users.json. A schema needs four levels (document, "contents", entry,
// value); the rest is headroom. JsonCpp reads and copies documents recursively, so without a
// bound a document of a few hundred kilobytes of "[" would exhaust a thread's stack.
constexpr unsigned int kMaxJsonFileDepth = 64;
// The deepest nesting accepted in a schema list: a list holds its schemas two levels down (the
// list, its "schemas" array), so every document accepted from a file fits in a list.
constexpr unsigned int kMaxJsonListDepth = kMaxJsonFileDepth + 2;

// Parses `text` as one JSON document into `out`, nested at most `maxDepth` levels.
// Returns false, with `out` unspecified, when the text is not valid JSON or nests deeper; then
// `error` (when not null) is set to a one-line reason. Never throws.
bool parseJsonText(const std::string& text, Json::Value& out, std::string* error = nullptr,
                   unsigned int maxDepth = kMaxJsonListDepth);

// Reads the regular file at `path` whole, when it is at most `maxBytes` long, and parses it as
// parseJsonText() does with `maxDepth`. Returns false, with `out` unspecified and a one-line
// reason in `error` (when not null), when the file cannot be read, is not a regular file, is
// larger, is not valid JSON or nests deeper. Never reads more than `maxBytes` + 1 bytes; never
// throws.
bool readJsonFile(const std::string& path, size_t maxBytes, unsigned int maxDepth, Json::Value& out,
                  std::string* error = nullptr);

}  // namespace Halo::OS
