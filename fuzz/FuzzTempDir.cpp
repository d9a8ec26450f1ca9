#include "FuzzTempDir.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace Halo::OS::fuzzing {

FuzzTempDir::FuzzTempDir(const std::string& prefix) {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" +
                          prefix + ".XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    mPath = buffer.data();
    chmod(mPath.c_str(), 0755);
}

FuzzTempDir::~FuzzTempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string FuzzTempDir::file(const std::string& name, bool makeDirectory) const {
    const std::string path = mPath + "/" + name;
    if (makeDirectory) mkdir(path.c_str(), 0755);
    return path;
}

}  // namespace Halo::OS::fuzzing
