#pragma once

#include <memory>
#include <string>

#include "model/PreferencesSchemaListBuilder.h"
#include "support/JsonText.h"

namespace Halo::OS::testing {

// The schema list that `json` (a schema list document) builds.
inline std::unique_ptr<PreferencesSchemaList> schemaList(const std::string& json) {
    PreferencesSchemaListBuilder builder;
    builder.process(parseJson(json));
    return builder.build();
}

}  // namespace Halo::OS::testing
