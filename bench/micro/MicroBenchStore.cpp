#include "MicroBenchStore.h"

#include <unistd.h>

#include "BenchSchemas.h"
#include "store/DirectoryPreferencesDb.h"

namespace Halo::OS {
namespace {

using Type = PreferencesKeyInfo::Type;

// The caller is always the same uid, calling from this process (which holds every permission).
class FixedCallerAccess : public PreferencesAccess {
public:
    explicit FixedCallerAccess(uid_t uid) : mUid(uid) {}
    CallingContext getCallingContext() const override { return {getpid(), mUid}; }

private:
    const uid_t mUid;
};

}  // namespace

MicroBenchStore::MicroBenchStore() : mDir("prefs-microbench") {
    auto manager = keyManager(mDir.path(), BenchSchemas::kBenchUid);
    manager->process(BenchSchemas::restartList(BenchSchemas::devicePackages(50)),
                     KeySourceDomain::Application);
    for (const std::string& key : BenchSchemas::readKeys()) {
        manager->set(key, std::to_string(BenchSchemas::kReadValue), Type::Integer);
    }
    manager->set(BenchSchemas::kSetKey, "0", Type::Integer);
}

MicroBenchStore& MicroBenchStore::shared() {
    // Destroyed at exit, which removes the directory; no store is open by then.
    static MicroBenchStore store;
    return store;
}

std::unique_ptr<PreferencesKeyManager> MicroBenchStore::keyManager(const std::string& directory,
                                                                   uid_t uid) {
    return std::make_unique<PreferencesKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(directory),
            std::make_shared<FixedCallerAccess>(uid));
}

}  // namespace Halo::OS
