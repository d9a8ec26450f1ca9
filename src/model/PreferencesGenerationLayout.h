#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Halo::OS {

// The layout of the generation table that the service shares with its clients (a memfd that
// clients map read-only), and the slot of a key. Little-endian, 64-bit aligned:
//   offset 0   uint32  kMagic
//   offset 4   uint32  kSlotCount
//   offset 8   uint64  global generation: bumped by any change that can alter many reads
//   offset 64  uint64  one generation per slot, kSlotCount of them: bumped by a change of a key
//                      whose name hashes to the slot
// Generations only grow and are written with release stores; readers load them with acquire
// loads. Keys that share a slot only cost each other cache misses.
class PreferencesGenerationLayout {
public:
    static constexpr uint32_t kMagic = 0x50474e31;  // "PGN1"
    static constexpr uint32_t kSlotCount = 4096;
    static constexpr size_t kMagicOffset = 0;
    static constexpr size_t kSlotCountOffset = 4;
    static constexpr size_t kGlobalOffset = 8;
    static constexpr size_t kSlotsOffset = 64;
    static constexpr size_t kSize = kSlotsOffset + kSlotCount * sizeof(uint64_t);

    // The slot of the key named `key` (its UTF-8 bytes): FNV-1a, reduced to kSlotCount.
    static constexpr uint32_t slotOf(std::string_view key) {
        uint64_t hash = 0xcbf29ce484222325ull;
        for (char c : key) {
            hash ^= static_cast<uint8_t>(c);
            hash *= 0x100000001b3ull;
        }
        return static_cast<uint32_t>(hash % kSlotCount);
    }
};

}  // namespace Halo::OS
