#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Halo::OS {

// Process-wide reporter of selected outcomes (permission results, set events, store and
// transaction errors, connection losses). Every layer calls the static report functions with the
// snake-case event names of the system.
//
// Reports go to the platform's telemetry library when one was loaded with `load()`; otherwise
// they are only logged at debug level. In both cases every report is counted per event name, so
// that tests and dumps can check that an outcome was reported. A report never changes an outcome,
// never throws and never blocks for longer than one short critical section.
//
// All functions are thread-safe.
class Telemetry {
public:
    // The C entry point that a telemetry library exports under the name
    // "halo_telemetry_report". `kind` is one of the Kind values; `uid` is -1 and `message` null
    // when the report has none. The library must not call back into this process's reporter.
    using ReportFunction = void (*)(int32_t kind, const char* name, int64_t uid, int32_t success,
                                    const char* message);
    static constexpr const char* kReportSymbol = "halo_telemetry_report";

    enum Kind : int32_t {
        kEvent = 0,        // a plain named event
        kResultEvent = 1,  // a named event with the uid it concerns and a success flag
        kError = 2,        // an error with the uid it concerns and a message
    };

    // A plain named event.
    static void report(std::string_view name);
    // A named event about `uid`, successful or not.
    static void report(std::string_view name, uint32_t uid, bool success);
    // An error about `uid` with a human-readable message.
    static void reportError(std::string_view name, uint32_t uid, std::string_view message);

    // Loads the telemetry library at `path` with dlopen and sends every later report to it.
    // Returns false (and logs why) when the library cannot be loaded or lacks the entry point;
    // the reporter then keeps counting and logging only. A library loaded earlier stays loaded.
    static bool load(const std::string& path);
    // True when reports are sent to a loaded library.
    static bool isLoaded();

    // Number of reports of `name` since the start of the process or the last resetCounts().
    static uint64_t count(std::string_view name);
    // Sum of the counts of every event whose name starts with `prefix`.
    static uint64_t countPrefix(std::string_view prefix);
    static void resetCounts();
};

}  // namespace Halo::OS
