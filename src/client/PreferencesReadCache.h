#pragma once

#include <android-base/unique_fd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "client/PreferenceValue.h"
#include "client/PreferencesTarget.h"
#include "threads/Mutex.h"

namespace Halo::OS {

// The read cache of one client connection: successful typed reads keyed by key, type, flavour
// and user, each kept with the generations (global and the key's slot) of the service's
// generation table that it was read under. An entry answers only while both generations are
// unchanged; the service bumps one of them before any change that could alter the answer
// returns, so a hit answers exactly what the service would.
//
// A hit is a hash look-up in one of kShards shards (each with its own mutex, so readers of keys
// in different shards never meet), two acquire loads from the read-only mapping of the table
// and a copy of the value. At most `capacity` entries are kept; a full shard drops an entry to
// make room. Thread-safe.
class PreferencesReadCache {
public:
    struct Generations {
        uint64_t global;
        uint64_t slot;
        bool operator==(const Generations& other) const {
            return global == other.global && slot == other.slot;
        }
    };

    // Maps the generation table `table` read-only. Null when `capacity` is 0 or `table` is not a
    // table of the layout this library knows.
    static std::unique_ptr<PreferencesReadCache> create(android::base::unique_fd table,
                                                        size_t capacity);
    // The process's cache for the service whose generation table `table` is: every connection
    // of this process to that service shares one cache, of the capacity the first one asked
    // for, so that the bound holds per process. A new cache (see create) for a table that no
    // live cache maps. Null as create().
    static std::shared_ptr<PreferencesReadCache> shared(android::base::unique_fd table,
                                                        size_t capacity);
    ~PreferencesReadCache();
    PreferencesReadCache(const PreferencesReadCache&) = delete;
    PreferencesReadCache& operator=(const PreferencesReadCache&) = delete;

    // The generations of `slot` (which must be below the table's slot count) now.
    Generations generations(uint32_t slot) const;

    // On a hit calls `copyOut(value)` with the cached value and returns true; otherwise returns
    // false (dropping an entry whose generations moved on). Counts a hit or a miss.
    template <typename CopyOut>
    bool lookup(std::string_view key, PreferenceValue::Type type, const PreferencesTarget& target,
                const CopyOut& copyOut);
    // Keeps `value`, read under `generations` of `slot`.
    void store(std::string_view key, PreferenceValue::Type type, const PreferencesTarget& target,
               uint32_t slot, Generations generations, PreferenceValue value);

    uint64_t hits() const;
    uint64_t misses() const;
    size_t size() const;
    size_t capacity() const { return mShardCapacity * mShardCount; }

private:
    static constexpr size_t kShards = 16;

    struct Entry {
        std::string key;
        PreferenceValue::Type type;
        PreferencesTarget target;
        uint32_t slot;
        Generations generations;
        PreferenceValue value;
    };

    struct alignas(64) Shard {
        mutable Mutex mutex;
        std::unordered_multimap<uint64_t, Entry> entries GUARDED_BY(mutex);
        std::atomic<uint64_t> hits{0};
        std::atomic<uint64_t> misses{0};
    };

    PreferencesReadCache(const uint8_t* base, size_t capacity);

    static uint64_t hashOf(std::string_view key, PreferenceValue::Type type,
                           const PreferencesTarget& target);
    static bool matches(const Entry& entry, std::string_view key, PreferenceValue::Type type,
                        const PreferencesTarget& target);
    Shard& shardOf(uint64_t hash) const { return mShards[(hash >> 32) % mShardCount]; }

    const uint8_t* const mBase;
    const size_t mShardCount;
    const size_t mShardCapacity;
    const std::unique_ptr<Shard[]> mShards;
};

template <typename CopyOut>
bool PreferencesReadCache::lookup(std::string_view key, PreferenceValue::Type type,
                                  const PreferencesTarget& target, const CopyOut& copyOut) {
    const uint64_t hash = hashOf(key, type, target);
    Shard& shard = shardOf(hash);
    {
        Mutex::Autolock lock(shard.mutex);
        auto [it, end] = shard.entries.equal_range(hash);
        for (; it != end; ++it) {
            if (!matches(it->second, key, type, target)) continue;
            if (generations(it->second.slot) == it->second.generations) {
                copyOut(it->second.value);
                shard.hits.fetch_add(1, std::memory_order_relaxed);
                return true;
            }
            shard.entries.erase(it);
            break;
        }
    }
    shard.misses.fetch_add(1, std::memory_order_relaxed);
    return false;
}

}  // namespace Halo::OS
