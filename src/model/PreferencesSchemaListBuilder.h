#pragma once

#include <json/value.h>

#include <memory>
#include <vector>

#include "model/PreferencesSchemaList.h"

namespace Halo::OS {

// Builds a PreferencesSchemaList from a schema list document or from built schemas. The builder
// owns the list until `build()` hands it over.
class PreferencesSchemaListBuilder {
public:
    PreferencesSchemaListBuilder();

    // Reads "add", "restart" and "schemas"; schemas that PreferencesSchemaBuilder rejects are
    // dropped silently, and a flag whose JSON kind cannot be read as a boolean stays false.
    // Always returns true.
    bool process(const Json::Value& list);
    // Sets both flags and appends every schema, in order. Always returns true.
    bool process(bool installed, bool restarted,
                 std::vector<std::unique_ptr<PreferencesSchema>>&& schemas);

    std::unique_ptr<PreferencesSchemaList> build();
    operator std::unique_ptr<PreferencesSchemaList>() { return build(); }

private:
    std::unique_ptr<PreferencesSchemaList> mList;
};

}  // namespace Halo::OS
