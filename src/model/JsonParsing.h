#pragma once

#include <json/value.h>

#include <string>

namespace Halo::OS {

// Parses `text` as one JSON document into `out` with JsonCpp's default reader settings.
// Returns false, with `out` unspecified, when the text is not valid JSON (including documents
// nested deeper than the reader allows); never throws.
bool parseJsonText(const std::string& text, Json::Value& out);

}  // namespace Halo::OS
