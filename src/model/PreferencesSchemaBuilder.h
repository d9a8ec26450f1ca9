#pragma once

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "model/PreferencesSchema.h"

namespace Halo::OS {

// Builds one PreferencesSchema from a schema document or field by field. The builder owns the
// schema until `build()` hands it over; afterwards it is empty and must not be used again.
class PreferencesSchemaBuilder {
public:
    PreferencesSchemaBuilder();

    // Reads "uid" (the Binder calling uid when absent), "packageName", "version", "date" and
    // "contents"; key entries that PreferencesKeyInfoBuilder rejects are dropped. Returns false,
    // without logging, when the uid is -1, the package name is missing or empty, or the document
    // is not an object or has a member of a kind that cannot be converted (then the schema must
    // be dropped).
    bool process(const Json::Value& schema);

    PreferencesSchemaBuilder& uid(int uid);
    PreferencesSchemaBuilder& package(const std::string& package);
    PreferencesSchemaBuilder& version(const std::string& version);
    PreferencesSchemaBuilder& revTime(const std::string& revTime);
    // Appends every key info, in order, after the existing ones.
    PreferencesSchemaBuilder& keyInfos(std::vector<std::unique_ptr<PreferencesKeyInfo>>&& infos);
    PreferencesSchemaBuilder& keyInfo(std::unique_ptr<PreferencesKeyInfo>&& info);

    std::string getPackage() const;

    std::unique_ptr<PreferencesSchema> build();
    operator std::unique_ptr<PreferencesSchema>() { return build(); }

private:
    bool processDocument(const Json::Value& schema);

    std::unique_ptr<PreferencesSchema> mSchema;
};

}  // namespace Halo::OS
