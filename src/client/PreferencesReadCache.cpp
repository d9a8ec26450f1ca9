#include "client/PreferencesReadCache.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "model/PreferencesGenerationLayout.h"

namespace Halo::OS {

using Layout = PreferencesGenerationLayout;

std::unique_ptr<PreferencesReadCache> PreferencesReadCache::create(android::base::unique_fd table,
                                                                   size_t capacity) {
    struct stat info {};
    if (capacity == 0 || table.get() < 0 || fstat(table.get(), &info) != 0 ||
        static_cast<size_t>(info.st_size) < Layout::kSize) {
        return nullptr;
    }
    void* base = mmap(nullptr, Layout::kSize, PROT_READ, MAP_SHARED, table.get(), 0);
    if (base == MAP_FAILED) return nullptr;
    uint32_t magic = 0;
    uint32_t slots = 0;
    memcpy(&magic, static_cast<const char*>(base) + Layout::kMagicOffset, sizeof(magic));
    memcpy(&slots, static_cast<const char*>(base) + Layout::kSlotCountOffset, sizeof(slots));
    if (magic != Layout::kMagic || slots != Layout::kSlotCount) {
        munmap(base, Layout::kSize);
        return nullptr;
    }
    return std::unique_ptr<PreferencesReadCache>(
            new PreferencesReadCache(static_cast<const uint8_t*>(base), capacity));
}

std::shared_ptr<PreferencesReadCache> PreferencesReadCache::shared(android::base::unique_fd table,
                                                                   size_t capacity) {
    // Each service's table is one memfd: its inode tells the service (a restarted service has
    // a new one), whichever descriptor of it a connection was given.
    struct stat info {};
    if (capacity == 0 || table.get() < 0 || fstat(table.get(), &info) != 0) return nullptr;
    using Key = std::pair<dev_t, ino_t>;
    static Mutex registryLock;
    // Never freed: a connection may be destroyed by a thread that outlives static destruction.
    static auto* registry = new std::map<Key, std::weak_ptr<PreferencesReadCache>>();
    Mutex::Autolock lock(registryLock);
    for (auto it = registry->begin(); it != registry->end();) {
        it = it->second.expired() ? registry->erase(it) : std::next(it);
    }
    const Key key{info.st_dev, info.st_ino};
    if (auto found = registry->find(key); found != registry->end()) return found->second.lock();
    std::shared_ptr<PreferencesReadCache> cache = create(std::move(table), capacity);
    if (cache != nullptr) (*registry)[key] = cache;
    return cache;
}

PreferencesReadCache::PreferencesReadCache(const uint8_t* base, size_t capacity)
    : mBase(base),
      mShardCount(std::min(kShards, capacity)),
      mShardCapacity(capacity / mShardCount),
      mShards(new Shard[mShardCount]) {}

PreferencesReadCache::~PreferencesReadCache() {
    munmap(const_cast<uint8_t*>(mBase), Layout::kSize);
}

PreferencesReadCache::Generations PreferencesReadCache::generations(uint32_t slot) const {
    const auto* global = reinterpret_cast<const uint64_t*>(mBase + Layout::kGlobalOffset);
    const auto* slots = reinterpret_cast<const uint64_t*>(mBase + Layout::kSlotsOffset);
    return Generations{__atomic_load_n(global, __ATOMIC_ACQUIRE),
                       __atomic_load_n(slots + slot, __ATOMIC_ACQUIRE)};
}

uint64_t PreferencesReadCache::hashOf(std::string_view key, PreferenceValue::Type type,
                                      const PreferencesTarget& target) {
    uint64_t hash = 0xcbf29ce484222325ull;
    const auto mix = [&hash](uint8_t byte) {
        hash ^= byte;
        hash *= 0x100000001b3ull;
    };
    for (char c : key) mix(static_cast<uint8_t>(c));
    mix(static_cast<uint8_t>(type));
    mix(static_cast<uint8_t>(target.flavour()));
    const auto user = static_cast<uint32_t>(target.userId());
    for (int shift = 0; shift < 32; shift += 8) mix(static_cast<uint8_t>(user >> shift));
    return hash;
}

bool PreferencesReadCache::matches(const Entry& entry, std::string_view key,
                                   PreferenceValue::Type type, const PreferencesTarget& target) {
    return entry.type == type && entry.target.flavour() == target.flavour() &&
           entry.target.userId() == target.userId() && entry.key == key;
}

void PreferencesReadCache::store(std::string_view key, PreferenceValue::Type type,
                                 const PreferencesTarget& target, uint32_t slot,
                                 Generations generations, PreferenceValue value) {
    if (slot >= Layout::kSlotCount) return;
    const uint64_t hash = hashOf(key, type, target);
    Shard& shard = shardOf(hash);
    Mutex::Autolock lock(shard.mutex);
    auto [it, end] = shard.entries.equal_range(hash);
    for (; it != end; ++it) {
        if (!matches(it->second, key, type, target)) continue;
        it->second.slot = slot;
        it->second.generations = generations;
        it->second.value = std::move(value);
        return;
    }
    if (shard.entries.size() >= mShardCapacity) shard.entries.erase(shard.entries.begin());
    shard.entries.emplace(
            hash, Entry{std::string(key), type, target, slot, generations, std::move(value)});
}

uint64_t PreferencesReadCache::hits() const {
    uint64_t total = 0;
    for (size_t i = 0; i < mShardCount; ++i)
        total += mShards[i].hits.load(std::memory_order_relaxed);
    return total;
}

uint64_t PreferencesReadCache::misses() const {
    uint64_t total = 0;
    for (size_t i = 0; i < mShardCount; ++i) {
        total += mShards[i].misses.load(std::memory_order_relaxed);
    }
    return total;
}

size_t PreferencesReadCache::size() const {
    size_t total = 0;
    for (size_t i = 0; i < mShardCount; ++i) {
        Mutex::Autolock lock(mShards[i].mutex);
        total += mShards[i].entries.size();
    }
    return total;
}

}  // namespace Halo::OS
