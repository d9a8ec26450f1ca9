#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "BenchTempDir.h"
#include "keymanager/PreferencesKeyManager.h"

namespace Halo::OS {

// The data the micro-benchmarks run on: a store directory holding the bench package and 50
// filler packages, with a stored value for every read key of the bench package.
class MicroBenchStore {
public:
    MicroBenchStore();

    // The one instance every benchmark uses, made on first use and destroyed at exit.
    static MicroBenchStore& shared();
    const std::string& directory() const { return mDir.path(); }

    // A key manager on the directory whose caller is always `uid`. Only one store may be open
    // at a time in the process (closing one shuts SQLite down).
    static std::unique_ptr<PreferencesKeyManager> keyManager(const std::string& directory,
                                                             uid_t uid);

private:
    BenchTempDir mDir;
};

}  // namespace Halo::OS
