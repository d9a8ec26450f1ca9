#pragma once

#include <initializer_list>
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

// The texts for which `log` has no line at `priority` (see hasLogLine), one per line; empty when
// every one is there. Compare with "" so that a failure names the missing lines.
inline std::string missingLogLines(const std::string& log, char priority,
                                   std::initializer_list<std::string> texts) {
    std::string missing;
    for (const std::string& text : texts) {
        if (!hasLogLine(log, priority, text)) missing += text + "\n";
    }
    return missing;
}

}  // namespace Halo::OS::testing
