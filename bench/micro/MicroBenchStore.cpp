#include "MicroBenchStore.h"

#include "BenchSchemas.h"
#include "store/DirectoryPreferencesDb.h"

namespace Halo::OS {
namespace {

using Type = PreferencesKeyInfo::Type;

// A key manager whose caller is always the same uid.
class FixedCallerKeyManager : public PreferencesKeyManager {
public:
    FixedCallerKeyManager(std::unique_ptr<IPreferencesDb> db, uid_t uid)
        : PreferencesKeyManager(std::move(db)), mUid(uid) {}
    ~FixedCallerKeyManager() override { stopCallbacks(); }
    uid_t getCallingUid() const override { return mUid; }

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
    return std::make_unique<FixedCallerKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(directory), uid);
}

}  // namespace Halo::OS
