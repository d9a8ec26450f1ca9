#include "BenchTempDir.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace Halo::OS {
namespace {

int removeEntry(const char* path, const struct stat* /*st*/, int /*type*/, FTW* /*ftw*/) {
    remove(path);
    return 0;
}

}  // namespace

BenchTempDir::BenchTempDir(const std::string& prefix) {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/" +
                          prefix + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        fprintf(stderr, "prefs-bench: cannot create a directory %s: %s\n", pattern.c_str(),
                strerror(errno));
        exit(1);
    }
    mPath = buffer.data();
    chmod(mPath.c_str(), 0711);
}

BenchTempDir::~BenchTempDir() {
    nftw(mPath.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

std::string BenchTempDir::file(const std::string& name) const {
    return mPath + "/" + name;
}

std::string BenchTempDir::makeDirectory(const std::string& name) const {
    const std::string path = file(name);
    if (mkdir(path.c_str(), 0711) != 0 && errno != EEXIST) {
        fprintf(stderr, "prefs-bench: cannot create %s: %s\n", path.c_str(), strerror(errno));
        exit(1);
    }
    chmod(path.c_str(), 0711);
    return path;
}

}  // namespace Halo::OS
