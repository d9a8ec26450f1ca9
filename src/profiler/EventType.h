#pragma once

#include <cstdint>

namespace Halo::OS::preferences::profiler {

// The kinds of events in the access trace. The codes are fixed: they select the histogram in
// PreferencesProfiler::getPercentileRange and are the values callers pass around.
enum class EventType : int32_t {
    Read = 0,        // read of a value
    Write = 1,       // write of a value
    Register = 2,    // listener registration
    Callback = 3,    // listener callback
    Unregister = 4,  // listener removal
    Lock = 5,        // wait for the key manager's lock
    GetType = 6,     // type query
    Process = 7,     // schema processing
    Reset = 8,       // reset of a key
};

// The word that names `type` in trace lines ("read", "write", ... "reset"); "unknown" for a value
// outside the enumeration. The returned text is static.
inline const char* eventTypeWord(EventType type) {
    switch (type) {
        case EventType::Read:
            return "read";
        case EventType::Write:
            return "write";
        case EventType::Register:
            return "register";
        case EventType::Callback:
            return "callback";
        case EventType::Unregister:
            return "unregister";
        case EventType::Lock:
            return "lock";
        case EventType::GetType:
            return "gettype";
        case EventType::Process:
            return "process";
        case EventType::Reset:
            return "reset";
    }
    return "unknown";
}

}  // namespace Halo::OS::preferences::profiler
