#include "model/JsonParsing.h"

#include <json/reader.h>

#include <memory>

namespace Halo::OS {

bool parseJsonText(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        return reader->parse(text.data(), text.data() + text.size(), &out, nullptr);
    } catch (const Json::Exception&) {
        return false;
    }
}

}  // namespace Halo::OS
