#include "binder/DirectoryTrust.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Halo::OS {

DirectoryTrust::Verdict DirectoryTrust::check(const std::string& path, std::string* problem) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        *problem = strerror(errno);
        return Verdict::Missing;
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) == 0) return Verdict::Trusted;
    char text[128];
    snprintf(text, sizeof(text), "may be written by users other than its owner (uid %u, mode %04o)",
             st.st_uid, st.st_mode & 07777);
    *problem = text;
    const uid_t self = geteuid();
    return self != 0 && st.st_uid == self ? Verdict::Warn : Verdict::Refused;
}

}  // namespace Halo::OS
