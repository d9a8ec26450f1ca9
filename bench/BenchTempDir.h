#pragma once

#include <string>

namespace Halo::OS {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction. The
// directory is searchable by every user (mode 0711), so that processes running under app uids
// can reach the sockets published inside it.
class BenchTempDir {
public:
    // Exits the process (status 1, after a line on standard error) when no directory can be
    // created: a benchmark without its directory cannot measure anything.
    explicit BenchTempDir(const std::string& prefix);
    ~BenchTempDir();
    BenchTempDir(const BenchTempDir&) = delete;
    BenchTempDir& operator=(const BenchTempDir&) = delete;

    const std::string& path() const { return mPath; }
    // path() + "/" + name.
    std::string file(const std::string& name) const;
    // Creates path() + "/" + name (mode 0711) and returns its path; exits as above when it cannot.
    std::string makeDirectory(const std::string& name) const;

private:
    std::string mPath;
};

}  // namespace Halo::OS
