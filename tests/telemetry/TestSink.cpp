// A telemetry library for tests: remembers the last report and counts them.
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

namespace {
std::mutex gMutex;
int gReports = 0;
std::string gLast;
}  // namespace

extern "C" {

__attribute__((visibility("default"))) void halo_telemetry_report(int32_t kind, const char* name,
                                                                  int64_t uid, int32_t success,
                                                                  const char* message) {
    std::lock_guard<std::mutex> lock(gMutex);
    ++gReports;
    gLast = std::to_string(kind) + "|" + name + "|" + std::to_string(uid) + "|" +
            std::to_string(success) + "|" + (message != nullptr ? message : "(none)");
}

// Copies the last report into `out` (at most `size` bytes, NUL-terminated) and returns the count.
__attribute__((visibility("default"))) int test_sink_last(char* out, size_t size) {
    std::lock_guard<std::mutex> lock(gMutex);
    strncpy(out, gLast.c_str(), size - 1);
    out[size - 1] = '\0';
    return gReports;
}
}
