#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace Halo::OS::testing {

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/prefs-test-XXXXXX";
    char* made = mkdtemp(pattern.data());
    if (made == nullptr) {
        ADD_FAILURE() << "mkdtemp failed for " << pattern;
        return;
    }
    mPath = made;
}

TempDir::~TempDir() {
    if (mPath.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

std::string TempDir::file(const std::string& name) const {
    return mPath + "/" + name;
}

}  // namespace Halo::OS::testing
