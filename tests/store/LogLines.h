#pragma once

#include <sstream>
#include <string>

namespace Halo::OS::testing {

// True when `log` (host liblog output) has a line of the store's tag at `priority` ('E', 'W',
// ...) that contains `text`.
inline bool hasLogLine(const std::string& log, char priority, const std::string& text) {
    const std::string prefix = std::string("PreferencesService ") + priority + " ";
    std::istringstream lines(log);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind(prefix, 0) == 0 && line.find(text) != std::string::npos) return true;
    }
    return false;
}

}  // namespace Halo::OS::testing
