#pragma once

#include <memory>
#include <string>
#include <vector>

#include "model/PreferencesKeyInfo.h"

namespace Halo::OS {

// The keys that one package declares, with the schema's version and revision date. Read-only
// once built by PreferencesSchemaBuilder; owns its key infos.
class PreferencesSchema {
public:
    using KeyInfos = std::vector<std::unique_ptr<PreferencesKeyInfo>>;

    std::string version() const { return mVersion; }
    unsigned int uid() const { return mUid; }
    std::string package() const { return mPackage; }
    std::string revTime() const { return mRevTime; }
    const KeyInfos& keyInfos() const { return mKeyInfos; }
    // The key info at `index`; `index` must be below size().
    const std::unique_ptr<PreferencesKeyInfo>& operator[](unsigned long index) const {
        return mKeyInfos[index];
    }
    size_t size() const { return mKeyInfos.size(); }

private:
    friend class PreferencesSchemaBuilder;

    std::string mVersion;
    unsigned int mUid = 0;
    std::string mPackage;
    std::string mRevTime;
    KeyInfos mKeyInfos;
};

}  // namespace Halo::OS
