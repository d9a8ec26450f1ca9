#pragma once

#include <string>

namespace Halo::OS::fuzzing {

// A directory of its own under $TMPDIR (or /tmp) for one fuzzer process, made searchable by
// every uid and removed with everything in it when the process exits normally. A fuzzer keeps
// one for its whole run: its store, its service directory.
class FuzzTempDir {
public:
    // Makes the directory; aborts the fuzzer when it cannot (nothing could be fuzzed).
    explicit FuzzTempDir(const std::string& prefix);
    ~FuzzTempDir();
    FuzzTempDir(const FuzzTempDir&) = delete;
    FuzzTempDir& operator=(const FuzzTempDir&) = delete;

    const std::string& path() const { return mPath; }
    // path() + "/" + name, made as a directory (0755) when `makeDirectory`.
    std::string file(const std::string& name, bool makeDirectory = false) const;

private:
    std::string mPath;
};

}  // namespace Halo::OS::fuzzing
