#include "model/PreferencesSchemaBuilder.h"

#include <binder/IPCThreadState.h>

#include "model/PreferencesKeyInfoBuilder.h"

namespace Halo::OS {
namespace {
constexpr unsigned int kInvalidUid = 4294967295u;
}  // namespace

PreferencesSchemaBuilder::PreferencesSchemaBuilder()
    : mSchema(std::make_unique<PreferencesSchema>()) {}

bool PreferencesSchemaBuilder::process(const Json::Value& schema) {
    // A member of the wrong JSON kind ("uid": "abc", "packageName": []) makes the JSON library
    // throw; schemas come from installed packages, so such a schema is dropped instead.
    try {
        return processDocument(schema);
    } catch (const Json::Exception&) {
        return false;
    }
}

bool PreferencesSchemaBuilder::processDocument(const Json::Value& schema) {
    if (!schema.isObject()) return false;

    unsigned int uid;
    if (schema.isMember("uid")) {
        uid = static_cast<unsigned int>(schema["uid"].asInt());
    } else {
        uid = android::IPCThreadState::self()->getCallingUid();
    }
    if (uid == kInvalidUid) return false;
    mSchema->mUid = uid;

    const std::string packageName = schema.get("packageName", "").asString();
    if (packageName.empty()) return false;
    mSchema->mPackage = packageName;

    for (auto it = schema.begin(); it != schema.end(); ++it) {
        const std::string name = it.name();
        if (name == "version") {
            mSchema->mVersion = it->asString();
        } else if (name == "date") {
            mSchema->mRevTime = it->asString();
        } else if (name == "contents" && it->isArray()) {
            for (const Json::Value& entry : *it) {
                PreferencesKeyInfoBuilder keyBuilder;
                if (keyBuilder.process(entry, uid, packageName)) {
                    mSchema->mKeyInfos.push_back(keyBuilder.build());
                }
            }
        }
    }
    return true;
}

PreferencesSchemaBuilder& PreferencesSchemaBuilder::uid(int uid) {
    mSchema->mUid = static_cast<unsigned int>(uid);
    return *this;
}

PreferencesSchemaBuilder& PreferencesSchemaBuilder::package(const std::string& package) {
    mSchema->mPackage = package;
    return *this;
}

PreferencesSchemaBuilder& PreferencesSchemaBuilder::version(const std::string& version) {
    mSchema->mVersion = version;
    return *this;
}

PreferencesSchemaBuilder& PreferencesSchemaBuilder::revTime(const std::string& revTime) {
    mSchema->mRevTime = revTime;
    return *this;
}

PreferencesSchemaBuilder& PreferencesSchemaBuilder::keyInfos(
        std::vector<std::unique_ptr<PreferencesKeyInfo>>&& infos) {
    for (auto& info : infos) mSchema->mKeyInfos.push_back(std::move(info));
    infos.clear();
    return *this;
}

PreferencesSchemaBuilder& PreferencesSchemaBuilder::keyInfo(
        std::unique_ptr<PreferencesKeyInfo>&& info) {
    mSchema->mKeyInfos.push_back(std::move(info));
    return *this;
}

std::string PreferencesSchemaBuilder::getPackage() const {
    return mSchema->mPackage;
}

std::unique_ptr<PreferencesSchema> PreferencesSchemaBuilder::build() {
    return std::move(mSchema);
}

}  // namespace Halo::OS
