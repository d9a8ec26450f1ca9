#pragma once

#include <android-base/unique_fd.h>

#include <cstdint>
#include <string_view>

#include "model/PreferencesGenerationLayout.h"

namespace Halo::OS {

// The service's side of the generation table (PreferencesGenerationLayout): a sealed memfd that
// this object maps read-write and hands to clients as read-only descriptors. A client caches a
// successful read together with the generations it was read under and trusts it while they are
// unchanged, so every change that can alter a read's answer must bump a generation after the
// change is made and before the call that made it returns.
//
// When the memfd cannot be made the table is invalid: bumps do nothing, reads give generation 0
// and openReadOnly fails, so clients never cache. Thread-safe; bumps are atomic increments.
class PreferencesGenerationTable {
public:
    PreferencesGenerationTable();
    ~PreferencesGenerationTable();
    PreferencesGenerationTable(const PreferencesGenerationTable&) = delete;
    PreferencesGenerationTable& operator=(const PreferencesGenerationTable&) = delete;

    bool valid() const { return mBase != nullptr; }

    // Bumps the slot of `key` (see PreferencesGenerationLayout::slotOf).
    void bumpKey(std::string_view key);
    // Bumps the global generation.
    void bumpGlobal();

    // The generations now; 0 for an invalid table or a slot out of range.
    uint64_t global() const;
    uint64_t slot(uint32_t slot) const;

    // A new descriptor of the table opened read-only (close-on-exec): it can be neither written
    // nor mapped writable shared, and the table's size is sealed. -1 on failure or when invalid.
    android::base::unique_fd openReadOnly() const;

private:
    uint64_t* word(size_t offset) const;

    android::base::unique_fd mFd;
    void* mBase = nullptr;
};

}  // namespace Halo::OS
