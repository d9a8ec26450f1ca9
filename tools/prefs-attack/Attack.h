#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "device/DeviceRunner.h"

namespace Halo::OS {

// One way an app (or a package file) tries to take the service down or over. `run` attacks the
// live device until the deadline and counts what it did; the caller measures the device around
// it (see AttackRun).
struct Attack {
    // Who and what is attacked.
    struct Target {
        DeviceRunner* device;
        // An app that holds the OS permissions to read and write settings and declares
        // `systemKey` (an integer, system scope) and `crossKey` (a long, cross-user scope).
        uid_t attacker;
        std::string systemKey;
        std::string crossKey;
    };
    struct Count {
        long calls = 0;
        long refused = 0;
        // What the attack left behind, in words (for example "listener rows 0").
        std::string left;
    };

    const char* name;
    const char* description;
    // Large-device cases take minutes on a sanitizer build: only run when asked by name.
    bool onlyByName;
    Count (*run)(const Target& target, std::chrono::steady_clock::time_point deadline);
    // The control run whose cost to the probe this attack is judged against besides the
    // busy app's (null: only that): the same load aimed at a service of the app's own.
    const char* floor = nullptr;
};

// The name of the first entry of the catalog: no attack but an app that keeps a CPU busy. The
// probe's p99 beside it is what any busy app costs the others on this machine, and the
// reference against which attacks are judged.
constexpr const char* kBusyAppControl = "busy-app";
// Controls, not attacks: the floods and the busy calls of the attacks aimed at a service of the
// attacking app's own in another process. The probe's p99 beside them is what such a load costs
// on this machine whoever serves it; what the same load at the device's services costs beyond
// that is the services' doing.
constexpr const char* kFloodFloor = "flood-floor";
constexpr const char* kCallsFloor = "calls-floor";

// Every attack prefs-attack knows, in the order it runs them.
const std::vector<Attack>& attackCatalog();

// Asks the service, as root in a child process, for `key`'s type until it is known (true) or
// `deadline` passes (false).
bool waitForKey(const std::string& key, std::chrono::steady_clock::time_point deadline);

}  // namespace Halo::OS
