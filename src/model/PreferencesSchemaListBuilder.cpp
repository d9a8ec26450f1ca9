#include "model/PreferencesSchemaListBuilder.h"

#include "model/PreferencesSchemaBuilder.h"

namespace Halo::OS {
namespace {

// asBool of a JSON value, or false where the JSON library refuses the conversion ("yes").
bool readFlag(const Json::Value& value) {
    try {
        return value.asBool();
    } catch (const Json::Exception&) {
        return false;
    }
}

}  // namespace

PreferencesSchemaListBuilder::PreferencesSchemaListBuilder()
    : mList(std::make_unique<PreferencesSchemaList>()) {}

bool PreferencesSchemaListBuilder::process(const Json::Value& list) {
    if (!list.isObject()) return true;
    for (auto it = list.begin(); it != list.end(); ++it) {
        const std::string name = it.name();
        if (name == "add") {
            mList->mInstalled = readFlag(*it);
        } else if (name == "restart") {
            mList->mRestarted = readFlag(*it);
        } else if (name == "schemas" && it->isArray()) {
            for (const Json::Value& element : *it) {
                PreferencesSchemaBuilder schemaBuilder;
                if (schemaBuilder.process(element)) {
                    mList->mSchemas.push_back(schemaBuilder.build());
                }
            }
        }
    }
    return true;
}

bool PreferencesSchemaListBuilder::process(
        bool installed, bool restarted, std::vector<std::unique_ptr<PreferencesSchema>>&& schemas) {
    mList->mInstalled = installed;
    mList->mRestarted = restarted;
    for (auto& schema : schemas) mList->mSchemas.push_back(std::move(schema));
    schemas.clear();
    return true;
}

std::unique_ptr<PreferencesSchemaList> PreferencesSchemaListBuilder::build() {
    return std::move(mList);
}

}  // namespace Halo::OS
