#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

namespace Halo::OS::testing {

// What `write` writes to the descriptor it is given (a temporary file, so that large output
// cannot block the writer).
inline std::string capturedText(const std::function<void(int)>& write) {
    FILE* file = tmpfile();
    if (file == nullptr) {
        ADD_FAILURE() << "tmpfile failed";
        return "";
    }
    write(fileno(file));
    std::string text;
    rewind(file);
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof(buffer), file)) text.append(buffer, n);
    fclose(file);
    return text;
}

}  // namespace Halo::OS::testing
