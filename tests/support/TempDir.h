#pragma once

#include <string>

namespace Halo::OS::testing {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return mPath; }
    // path() + "/" + name.
    std::string file(const std::string& name) const;

private:
    std::string mPath;
};

}  // namespace Halo::OS::testing
