#include "profiler/TraceData.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

#include "process/Process.h"

namespace Halo::OS {

std::string TraceData::toString(TimePoint start) const {
    std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    localtime_r(&seconds, &local);
    long long micros = time.time_since_epoch().count() % 1000000;
    return fmt::format("{:%Y-%m-%d %T.}{:06d} | {} | {} | {} | {} | {} | {} | {}", local, micros,
                       (time - start).count(), preferences::profiler::eventTypeWord(type), first,
                       second, Process::getProcessName(static_cast<int>(pid), true), tid, duration);
}

}  // namespace Halo::OS
