#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "client/PreferencesClient.h"
#include "client/PreferencesStatus.h"
#include "prefs/PrefsCommandLine.h"

namespace Halo::OS {

// The `prefs` command-line client: runs one command line against the preferences service and
// returns the process's exit status.
//
// Results go to `out` (a value, a type, watch lines, the dump); failures to `err` as one line
// "prefs: <what failed>: <reason>", the reason being the status in words with its code. Exit
// status: 0 ok, 1 the service refused (a service-specific error, an exception, a refused dump) or
// the output could not be written, 2 usage error (bad command line, a value that is not of the
// key's type, an argument that the service does not know), 3 the service is not reachable
// (absent after the wait, or its process died).
class PrefsTool {
public:
    static constexpr int kExitOk = 0;
    static constexpr int kExitRefused = 1;
    static constexpr int kExitUsage = 2;
    static constexpr int kExitUnreachable = 3;

    PrefsTool(FILE* out, FILE* err) : mOut(out), mErr(err) {}

    // `words` are the arguments after the program name.
    int run(const std::vector<std::string>& words);

private:
    using Request = PrefsCommandLine::Request;

    int get(PreferencesClient& client, const Request& request);
    int set(PreferencesClient& client, const Request& request);
    int type(PreferencesClient& client, const Request& request);
    int reset(PreferencesClient& client, const Request& request);
    int watch(PreferencesClient& client, const Request& request);
    int dump(PreferencesClient& client, const Request& request);
    int profile(PreferencesClient& client, const Request& request);
    int list(PreferencesClient& client, const Request& request);
    int describe(PreferencesClient& client, const Request& request);
    int backup(PreferencesClient& client, const Request& request);

    // Connects, waiting up to request.waitSeconds for the service to be published and printing
    // a one-line hint to `err` once the wait has lasted about a second. Null (already reported
    // as unreachable, `*exit` set) when the service does not appear.
    std::unique_ptr<PreferencesClient> connect(const Request& request, int* exit);
    // Prints one watch notification: the keys on one line, or KEY=VALUE lines read now with the
    // types in `types` (same order as request.keys). Returns kExitOk or the failure's status.
    int printChange(PreferencesClient& client, const Request& request,
                    const std::vector<PreferenceValue::Type>& types,
                    const std::vector<std::string>& keys);
    // Flushes `out`; when anything written to it failed, reports it for `what` and returns 1.
    int finishOutput(const std::string& what);
    // The type given with --type, or else the key's declared type asked of the service.
    // Returns kExitOk or the exit status of the failure (already reported).
    int resolveType(PreferencesClient& client, const Request& request, PreferenceValue::Type* type);

    // Reports `status` for `what` and returns its exit status (1 or 3).
    int fail(const std::string& what, const PreferencesStatus& status);
    // Reports a usage error and returns 2.
    int usage(const std::string& message);

    FILE* mOut;
    FILE* mErr;
};

}  // namespace Halo::OS
