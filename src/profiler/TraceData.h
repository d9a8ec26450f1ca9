#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "profiler/EventType.h"

namespace Halo::OS {

// One entry of the access trace (also reachable as PreferencesProfiler::TraceData): when an
// event happened, what it was, who caused it and how long it took.
struct TraceData {
    using TimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

    // The process id that stands for the service's own process.
    static constexpr uint32_t kOwnPid = 0xffffffffu;

    TraceData(TimePoint time, preferences::profiler::EventType type, std::string first,
              std::string second, uint32_t pid, uint32_t tid, int64_t duration)
        : time(time),
          type(type),
          first(std::move(first)),
          second(std::move(second)),
          pid(pid),
          tid(tid),
          duration(duration) {}

    // One trace line, without a line end:
    // "<local date and time>.<microseconds> | <us since start> | <event word> | <first> |
    //  <second> | <process name> | <tid> | <duration>", for example
    // "2024-05-11 13:45:12.004211 | 523 | read | some_key | some_text | some_process | 1234 | 87".
    // The process name comes from Process::getProcessName(pid, true) and is empty when the
    // process is gone or `pid` is kOwnPid. `start` is the time of the trace's first entry.
    std::string toString(TimePoint start) const;

    TimePoint time;
    preferences::profiler::EventType type;
    // Texts chosen by the recorder; for a "lock" event the first is the operation that waited.
    std::string first;
    std::string second;
    uint32_t pid;
    uint32_t tid;
    // Microseconds.
    int64_t duration;
};

}  // namespace Halo::OS
