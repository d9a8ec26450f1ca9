#define LOG_TAG "PreferencesService"

#include "model/PreferencesKeyInfoBuilder.h"

#include <json/value.h>
#include <log/log.h>

#include <cstdlib>

#include "properties/SystemProperties.h"

namespace Halo::OS {
namespace {

using Type = PreferencesKeyInfo::Type;
using Scope = PreferencesKeyInfo::PreferenceScope;

constexpr const char* kDefaultOverridePrefix = "persist.halo.prefs_default.";

// Maps a schema type word to its code and re-writes `defaultValue` in that type's encoding.
Type applyTypeWord(const std::string& word, std::string& defaultValue) {
    const char* text = defaultValue.c_str();
    if (word == "integer") {
        defaultValue = std::to_string(static_cast<int32_t>(strtol(text, nullptr, 10)));
        return Type::Integer;
    }
    if (word == "long") {
        defaultValue = std::to_string(static_cast<int64_t>(strtol(text, nullptr, 10)));
        return Type::Long;
    }
    if (word == "double") {
        defaultValue = std::to_string(strtod(text, nullptr));
        return Type::Double;
    }
    if (word == "float") {
        defaultValue = std::to_string(strtof(text, nullptr));
        return Type::Float;
    }
    if (word == "string") return Type::String;
    if (word == "boolean") return Type::Boolean;
    return Type::NoType;
}

Scope scopeFromWord(const std::string& word) {
    if (word == "system") return Scope::System;
    if (word == "crossUser") return Scope::Cross;
    return Scope::User;
}

}  // namespace

PreferencesKeyInfoBuilder::PreferencesKeyInfoBuilder()
    : mKeyInfo(std::make_unique<PreferencesKeyInfo>()) {}

PreferencesKeyInfoBuilder& PreferencesKeyInfoBuilder::setKey(const std::string& key) {
    mKeyInfo->mKey = key;
    return *this;
}

PreferencesKeyInfoBuilder& PreferencesKeyInfoBuilder::setDefaultValue(
        const std::string& defaultValue) {
    mKeyInfo->mDefaultValue = defaultValue;
    return *this;
}

PreferencesKeyInfoBuilder& PreferencesKeyInfoBuilder::setPackageName(
        const std::string& packageName) {
    mKeyInfo->mPackageName = packageName;
    return *this;
}

void PreferencesKeyInfoBuilder::setType(PreferencesKeyInfo::Type type) {
    mKeyInfo->mType = type;
}

void PreferencesKeyInfoBuilder::setScope(PreferencesKeyInfo::PreferenceScope scope) {
    mKeyInfo->mScope = scope;
}

void PreferencesKeyInfoBuilder::setPackageUid(unsigned int uid) {
    mKeyInfo->mPackageUid = uid;
}

void PreferencesKeyInfoBuilder::setIsWritable(bool writable) {
    mKeyInfo->mWritable = writable;
}

void PreferencesKeyInfoBuilder::setIsReadable(bool readable) {
    mKeyInfo->mReadable = readable;
}

void PreferencesKeyInfoBuilder::setIsOwner(bool owner) {
    mKeyInfo->mOwner = owner;
}

std::unique_ptr<PreferencesKeyInfo> PreferencesKeyInfoBuilder::build() {
    return std::move(mKeyInfo);
}

bool PreferencesKeyInfoBuilder::process(const Json::Value& entry, unsigned int uid,
                                        const std::string& packageName) {
    // Schema entries come from installed packages: a member of the wrong JSON kind makes the
    // JSON library throw, which must not escape into the service. Such an entry is rejected.
    try {
        return processEntry(entry, uid, packageName);
    } catch (const Json::Exception& e) {
        ALOGE("Unable to process key from package %s: %s", packageName.c_str(), e.what());
        return false;
    }
}

bool PreferencesKeyInfoBuilder::processEntry(const Json::Value& entry, unsigned int uid,
                                             const std::string& packageName) {
    if (!entry.isObject() || !entry.isMember("key")) {
        ALOGE("Field Key value is missing");
        return false;
    }
    mKeyInfo->mKey = entry.get("key", "").asString();

    if (!entry.isMember("default")) {
        ALOGE("Default value is missing");
        return false;
    }
    std::string defaultValue = entry["default"].asString();
    defaultValue = SystemProperties::get(kDefaultOverridePrefix + mKeyInfo->mKey, defaultValue);

    bool typed = false;
    for (auto it = entry.begin(); it != entry.end(); ++it) {
        const std::string name = it.name();
        if (name == "type") {
            mKeyInfo->mType = applyTypeWord(it->asString(), defaultValue);
            typed = true;
        } else if (name == "hasWritePermission") {
            mKeyInfo->mWritable = it->asBool();
        } else if (name == "scope") {
            mKeyInfo->mScope = scopeFromWord(it->asString());
        } else if (name == "isOwner") {
            mKeyInfo->mOwner = it->asBool();
        }
    }
    mKeyInfo->mDefaultValue = defaultValue;

    if (!typed) {
        ALOGE("Unable to process key from package; the mandatory values were not specified.");
        return false;
    }
    mKeyInfo->mPackageUid = uid;
    mKeyInfo->mPackageName = packageName;
    PreferencesKeyInfo::set(uid, packageName);
    return true;
}

}  // namespace Halo::OS
