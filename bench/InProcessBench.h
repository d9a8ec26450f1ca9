#pragma once

#include <cstddef>

namespace Halo::OS {

// Measurements inside the benchmark process: PreferencesKeyManager on a DirectoryPreferencesDb in
// a temporary directory, against raw SQLite on the same database file. The key manager sees the
// bench package's uid as its caller (an ordinary app with a permission row and the OS
// permissions, which PermissionCache grants to callers inside the process).
class InProcessBench {
public:
    struct ReadFigures {
        double floorSelectMicros = 0;  // p50 of the raw point select
        double getMicros = 0;          // p50 of PreferencesKeyManager::get
        double floorWriteMicros = 0;   // p50 of the raw committed update
    };
    struct SchemaFigures {
        double coldMillis = 0;  // the restart list applied to an empty store
        double warmMillis = 0;  // the same list applied again
    };

    // Declares the bench package and `fillers` filler packages, stores a value for every read
    // key, then times `samples` gets and as many raw selects, alternating blocks of both so that
    // changes in machine load affect both alike; then `samples` raw writes. False (reason on
    // stderr) when a step fails.
    static bool measureReads(size_t fillers, size_t samples, ReadFigures* out);

    // Applies a restart list of `packages` filler packages of `keysPerPackage` keys to an empty
    // store, then the same list again.
    static bool measureSchema(size_t packages, size_t keysPerPackage, SchemaFigures* out);
};

}  // namespace Halo::OS
