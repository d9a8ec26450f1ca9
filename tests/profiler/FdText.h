#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace Halo::OS::testing {

// Runs `write` with the descriptor of an anonymous temporary file and returns what it wrote.
// A file rather than a pipe, so that large dumps cannot block the writer.
inline std::string textWrittenTo(const std::function<void(int fd)>& write) {
    FILE* file = tmpfile();
    if (file == nullptr) {
        ADD_FAILURE() << "tmpfile failed";
        return "";
    }
    int fd = fileno(file);
    write(fd);
    std::string text;
    char buffer[4096];
    ssize_t count;
    off_t offset = 0;
    while ((count = pread(fd, buffer, sizeof(buffer), offset)) > 0) {
        text.append(buffer, static_cast<size_t>(count));
        offset += count;
    }
    fclose(file);
    return text;
}

}  // namespace Halo::OS::testing
