#pragma once

#include <string>

namespace Halo::OS::testing {

// Captures what the process writes to standard error (where the host liblog prints) between
// construction and `text()`. Only one capture may be active at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Stops capturing (on first call) and returns everything captured.
    const std::string& text();
    // True when some captured line contains `fragment`.
    bool contains(const std::string& fragment);

private:
    bool mActive;
    std::string mText;
};

}  // namespace Halo::OS::testing
