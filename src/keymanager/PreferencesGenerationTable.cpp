#define LOG_TAG "PreferencesService"

#include "keymanager/PreferencesGenerationTable.h"

#include <fcntl.h>
#include <log/log.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace Halo::OS {

using Layout = PreferencesGenerationLayout;

PreferencesGenerationTable::PreferencesGenerationTable() {
    android::base::unique_fd fd(memfd_create("prefs-generations", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (fd.get() < 0 || ftruncate(fd.get(), Layout::kSize) != 0) {
        ALOGE("generation table: cannot create the memfd: %s", strerror(errno));
        return;
    }
    void* base = mmap(nullptr, Layout::kSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (base == MAP_FAILED) {
        ALOGE("generation table: cannot map the memfd: %s", strerror(errno));
        return;
    }
    const uint32_t magic = Layout::kMagic;
    const uint32_t slots = Layout::kSlotCount;
    memcpy(static_cast<char*>(base) + Layout::kMagicOffset, &magic, sizeof(magic));
    memcpy(static_cast<char*>(base) + Layout::kSlotCountOffset, &slots, sizeof(slots));
    // Nobody but this mapping may write from now on: no other process can open the file for
    // writing through /proc (mode 0444), no new writable mapping or write() is allowed
    // (F_SEAL_FUTURE_WRITE keeps only this one), and the size is fixed for good.
    const int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;
    if (fchmod(fd.get(), 0444) != 0 || fcntl(fd.get(), F_ADD_SEALS, seals) != 0) {
        ALOGE("generation table: cannot seal the memfd: %s", strerror(errno));
        munmap(base, Layout::kSize);
        return;
    }
    mFd = std::move(fd);
    mBase = base;
}

PreferencesGenerationTable::~PreferencesGenerationTable() {
    if (mBase != nullptr) munmap(mBase, Layout::kSize);
}

uint64_t* PreferencesGenerationTable::word(size_t offset) const {
    return reinterpret_cast<uint64_t*>(static_cast<char*>(mBase) + offset);
}

void PreferencesGenerationTable::bumpKey(std::string_view key) {
    if (mBase == nullptr) return;
    const size_t offset = Layout::kSlotsOffset + Layout::slotOf(key) * sizeof(uint64_t);
    __atomic_fetch_add(word(offset), 1, __ATOMIC_RELEASE);
}

void PreferencesGenerationTable::bumpGlobal() {
    if (mBase == nullptr) return;
    __atomic_fetch_add(word(Layout::kGlobalOffset), 1, __ATOMIC_RELEASE);
}

uint64_t PreferencesGenerationTable::global() const {
    if (mBase == nullptr) return 0;
    return __atomic_load_n(word(Layout::kGlobalOffset), __ATOMIC_ACQUIRE);
}

uint64_t PreferencesGenerationTable::slot(uint32_t slot) const {
    if (mBase == nullptr || slot >= Layout::kSlotCount) return 0;
    return __atomic_load_n(word(Layout::kSlotsOffset + slot * sizeof(uint64_t)), __ATOMIC_ACQUIRE);
}

android::base::unique_fd PreferencesGenerationTable::openReadOnly() const {
    if (mBase == nullptr) return android::base::unique_fd();
    const std::string path = "/proc/self/fd/" + std::to_string(mFd.get());
    return android::base::unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace Halo::OS
