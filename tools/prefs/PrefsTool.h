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
// "prefs: <what failed>: <reason>". Exit status: 0 ok, 1 the service refused (a
// service-specific error, an exception, a refused dump), 2 usage error (bad command line, a value
// that is not of the key's type), 3 the service is not reachable (absent, or its process died).
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
