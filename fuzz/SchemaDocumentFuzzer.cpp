// Schema documents into the model's builders: the bytes are parsed as JSON the way every intake
// path parses them, then given to PreferencesSchemaListBuilder (as a list document and, wrapped,
// as the one schema of a list), to PreferencesSchemaBuilder and, entry by entry, to
// PreferencesKeyInfoBuilder. Whatever the document, a builder either rejects it or builds an
// object whose fields are consistent with what it accepted.
#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "model/JsonParsing.h"
#include "model/PreferencesKeyInfoBuilder.h"
#include "model/PreferencesSchemaBuilder.h"
#include "model/PreferencesSchemaListBuilder.h"

namespace {

using namespace Halo::OS;

// As a schema file is read: deeper documents are refused, never thrown.
bool parse(const uint8_t* data, size_t size, Json::Value* out) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    return parseJsonText(text, *out, nullptr, kMaxJsonFileDepth);
}

// A built key has a type and a scope within their codes (6 is "no type": an unknown type word).
void checkKeyInfo(const PreferencesKeyInfo& info) {
    if (static_cast<int>(info.getType()) < 0 || static_cast<int>(info.getType()) > 6) abort();
    if (static_cast<int>(info.getScope()) < 0 || static_cast<int>(info.getScope()) > 2) abort();
}

void checkSchema(const PreferencesSchema& schema) {
    if (schema.package().empty()) abort();
    for (const auto& info : schema.keyInfos()) checkKeyInfo(*info);
}

void buildList(const Json::Value& document) {
    PreferencesSchemaListBuilder builder;
    if (!builder.process(document)) return;
    std::unique_ptr<PreferencesSchemaList> list = builder.build();
    if (list == nullptr) abort();
    for (const auto& schema : list->schemas()) checkSchema(*schema);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Json::Value document;
    if (!parse(data, size, &document)) return 0;

    buildList(document);

    Json::Value wrapped(Json::objectValue);
    wrapped["add"] = true;
    wrapped["schemas"] = Json::Value(Json::arrayValue);
    wrapped["schemas"].append(document);
    buildList(wrapped);

    PreferencesSchemaBuilder schemaBuilder;
    if (schemaBuilder.process(document)) {
        std::unique_ptr<PreferencesSchema> schema = schemaBuilder.build();
        if (schema == nullptr) abort();
        checkSchema(*schema);
    }

    if (document.isObject() && document["contents"].isArray()) {
        for (const Json::Value& entry : document["contents"]) {
            PreferencesKeyInfoBuilder keyBuilder;
            if (!keyBuilder.process(entry, 10123, "com.example.fuzz")) continue;
            std::unique_ptr<PreferencesKeyInfo> info = keyBuilder.build();
            if (info == nullptr) abort();
            checkKeyInfo(*info);
        }
    }
    return 0;
}
