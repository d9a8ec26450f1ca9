#include "process/Process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Halo::OS {

std::string Process::getProcessName(int pid, bool baseNameOnly) {
    if (pid <= 0) return "";
    std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    int fd = TEMP_FAILURE_RETRY(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd < 0) return "";

    // Only the first word is wanted, so reading stops at the first NUL.
    std::string word;
    char buffer[256];
    bool complete = false;
    while (!complete) {
        ssize_t count = TEMP_FAILURE_RETRY(read(fd, buffer, sizeof(buffer)));
        if (count <= 0) break;
        for (ssize_t i = 0; i < count; ++i) {
            if (buffer[i] == '\0') {
                complete = true;
                break;
            }
            word.push_back(buffer[i]);
        }
    }
    close(fd);

    if (baseNameOnly) {
        size_t slash = word.rfind('/');
        if (slash != std::string::npos) word.erase(0, slash + 1);
    }
    return word;
}

}  // namespace Halo::OS
