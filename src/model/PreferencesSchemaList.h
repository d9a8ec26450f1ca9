#pragma once

#include <memory>
#include <vector>

#include "model/PreferencesSchema.h"

namespace Halo::OS {

// Schemas that travel together to the key manager, with the two flags that say what to do with
// them: `isInstalled()` adds or updates them (false removes the named packages), and
// `isRestarted()` marks the list as the complete set of its source domain. Moved between
// threads, never shared.
class PreferencesSchemaList {
public:
    using Schemas = std::vector<std::unique_ptr<PreferencesSchema>>;

    const Schemas& schemas() const { return mSchemas; }
    // The schema at `index`; `index` must be below size().
    const std::unique_ptr<PreferencesSchema>& operator[](unsigned long index) const {
        return mSchemas[index];
    }
    size_t size() const { return mSchemas.size(); }
    bool isInstalled() const { return mInstalled; }
    bool isRestarted() const { return mRestarted; }

private:
    friend class PreferencesSchemaListBuilder;

    Schemas mSchemas;
    bool mInstalled = false;
    bool mRestarted = false;
};

}  // namespace Halo::OS
