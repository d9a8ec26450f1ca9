#include "prefs/PrefsTool.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <optional>

#include "binder/BinderServiceManager.h"
#include "binder/DirectoryTrust.h"
#include "process/ProcessSignals.h"
#include "threads/Mutex.h"

namespace Halo::OS {

namespace {

using Command = PrefsCommandLine::Command;

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) text += ' ';
        text += word;
    }
    return text;
}

// What a running watch shares with its Binder callbacks, which may outlive the watch command's
// stack frame by a moment (a death notification in flight).
class WatchState {
public:
    WatchState(FILE* out, std::optional<int> count)
        : mOut(out), mCount(count), mWakeFd(eventfd(0, EFD_CLOEXEC)) {}
    ~WatchState() {
        if (mWakeFd >= 0) close(mWakeFd);
    }
    WatchState(const WatchState&) = delete;
    WatchState& operator=(const WatchState&) = delete;

    int wakeFd() const { return mWakeFd; }

    // Prints one notification, unless the count has been reached already.
    void onChanged(const std::vector<std::string>& keys) EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        if (mCount && mPrinted >= *mCount) return;
        fprintf(mOut, "%s\n", joined(keys).c_str());
        fflush(mOut);
        ++mPrinted;
        if (mCount && mPrinted == *mCount) wake();
    }

    void onServiceDied() EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        mDied = true;
        wake();
    }

    bool died() EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        return mDied;
    }
    int printed() EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        return mPrinted;
    }

private:
    void wake() {
        const uint64_t one = 1;
        (void)!write(mWakeFd, &one, sizeof(one));
    }

    FILE* mOut;
    const std::optional<int> mCount;
    const int mWakeFd;
    Mutex mMutex;
    int mPrinted GUARDED_BY(mMutex) = 0;
    bool mDied GUARDED_BY(mMutex) = false;
};

}  // namespace

int PrefsTool::run(const std::vector<std::string>& words) {
    Request request;
    std::string error;
    if (!PrefsCommandLine::parse(words, &request, &error)) return usage(error);
    if (request.command == Command::Help) {
        const std::string text = request.helpTopic
                                         ? PrefsCommandLine::commandHelp(*request.helpTopic)
                                         : PrefsCommandLine::overview();
        fputs(text.c_str(), mOut);
        fflush(mOut);
        return kExitOk;
    }
    if (!request.binderDir.empty()) PreferencesClient::useBinderDirectory(request.binderDir);
    for (uint32_t uid : request.trustedUids) PreferencesClient::trustServerUid(uid);
    // Whoever may write the service directory could pose as the service.
    const std::string binderDir = BinderServiceManager::directory();
    std::string problem;
    switch (DirectoryTrust::check(binderDir, &problem)) {
        case DirectoryTrust::Verdict::Trusted:
        case DirectoryTrust::Verdict::Missing:  // then the service is not reachable either
            break;
        case DirectoryTrust::Verdict::Warn:
            fprintf(mErr,
                    "prefs: warning: socket directory %s %s; accepted because it belongs to the "
                    "uid running prefs\n",
                    binderDir.c_str(), problem.c_str());
            break;
        case DirectoryTrust::Verdict::Refused:
            fprintf(mErr, "prefs: socket directory %s %s\n", binderDir.c_str(), problem.c_str());
            return kExitUnreachable;
    }
    if (request.command == Command::Watch) {
        // Taken before any Binder thread exists, whatever disposition was inherited (a
        // background job starts with SIGINT ignored), so that every thread inherits the mask and
        // the watch receives Ctrl-C through its signalfd.
        ProcessSignals::takeStopSignals();
    }

    PreferencesStatus status;
    std::unique_ptr<PreferencesClient> client =
            PreferencesClient::connect(PreferencesClient::kServiceName, &status);
    if (client == nullptr) {
        const char* dir = getenv("BINDER_DIR");
        return fail(std::string("connect to ") + PreferencesClient::kServiceName + " in " +
                            (dir != nullptr && *dir != '\0' ? dir : "/run/binder"),
                    status);
    }
    switch (request.command) {
        case Command::Get:
            return get(*client, request);
        case Command::Set:
            return set(*client, request);
        case Command::Type:
            return type(*client, request);
        case Command::Reset:
            return reset(*client, request);
        case Command::Watch:
            return watch(*client, request);
        case Command::Dump:
            return dump(*client, request);
        case Command::Profile:
            return profile(*client, request);
        case Command::Help:
            break;
    }
    return kExitOk;
}

int PrefsTool::resolveType(PreferencesClient& client, const Request& request,
                           PreferenceValue::Type* type) {
    if (request.type) {
        *type = *request.type;
        return kExitOk;
    }
    const PreferencesStatus status = client.getType(request.key, type);
    if (!status.isOk()) return fail("type of " + request.key, status);
    return kExitOk;
}

int PrefsTool::get(PreferencesClient& client, const Request& request) {
    PreferenceValue::Type type;
    if (const int exit = resolveType(client, request, &type); exit != kExitOk) return exit;
    PreferenceValue value;
    const PreferencesStatus status = client.get(request.key, type, request.target, &value);
    if (!status.isOk()) return fail("get " + request.key, status);
    fprintf(mOut, "%s\n", value.toString().c_str());
    fflush(mOut);
    return kExitOk;
}

int PrefsTool::set(PreferencesClient& client, const Request& request) {
    PreferenceValue::Type type;
    if (const int exit = resolveType(client, request, &type); exit != kExitOk) return exit;
    PreferenceValue value;
    if (!PreferenceValue::parse(type, request.value, &value)) {
        return usage("set " + request.key + ": '" + request.value + "' is not a valid " +
                     PreferenceValue::typeName(type));
    }
    const PreferencesStatus status = client.set(request.key, value, request.target);
    if (!status.isOk()) return fail("set " + request.key, status);
    return kExitOk;
}

int PrefsTool::type(PreferencesClient& client, const Request& request) {
    PreferenceValue::Type type;
    const PreferencesStatus status = client.getType(request.key, &type);
    if (!status.isOk()) return fail("type " + request.key, status);
    fprintf(mOut, "%s\n", PreferenceValue::typeName(type));
    fflush(mOut);
    return kExitOk;
}

int PrefsTool::reset(PreferencesClient& client, const Request& request) {
    const PreferencesStatus status = client.reset(request.key);
    if (!status.isOk()) return fail("reset " + request.key, status);
    return kExitOk;
}

int PrefsTool::watch(PreferencesClient& client, const Request& request) {
    const std::string what = "watch " + joined(request.keys);
    auto state = std::make_shared<WatchState>(mOut, request.count);
    const sigset_t signals = ProcessSignals::stopSignals();
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (state->wakeFd() < 0 || signalFd < 0) {
        if (signalFd >= 0) close(signalFd);
        fprintf(mErr, "prefs: %s: cannot wait for notifications\n", what.c_str());
        return kExitRefused;
    }
    client.setOnServiceDied([state] { state->onServiceDied(); });

    PreferencesStatus status;
    std::unique_ptr<PreferencesWatch> registration = client.watch(
            request.keys, [state](const std::vector<std::string>& keys) { state->onChanged(keys); },
            &status);
    if (registration == nullptr) {
        close(signalFd);
        return fail(what, status);
    }

    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> deadline;
    if (request.timeoutSeconds) {
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(*request.timeoutSeconds));
    }
    int exit = kExitOk;
    for (;;) {
        int timeoutMs = -1;
        if (deadline) {
            const auto left =
                    std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
            timeoutMs = static_cast<int>(std::max<int64_t>(0, left.count()));
        }
        pollfd fds[2] = {{state->wakeFd(), POLLIN, 0}, {signalFd, POLLIN, 0}};
        const int ready = poll(fds, 2, timeoutMs);
        if (ready < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (ready == 0) {
            if (request.count) {
                fprintf(mErr, "prefs: %s: timed out after %g s with %d of %d notifications\n",
                        what.c_str(), *request.timeoutSeconds, state->printed(), *request.count);
            } else {
                fprintf(mErr, "prefs: %s: timed out after %g s\n", what.c_str(),
                        *request.timeoutSeconds);
            }
            exit = kExitRefused;
            break;
        }
        if (fds[0].revents != 0 && state->died()) {
            fprintf(mErr, "prefs: %s: service unreachable: its process died\n", what.c_str());
            exit = kExitUnreachable;
        }
        break;
    }
    registration.reset();
    client.setOnServiceDied(nullptr);
    close(signalFd);
    return exit;
}

int PrefsTool::dump(PreferencesClient& client, const Request& request) {
    fflush(mOut);
    const PreferencesStatus status = client.dump(fileno(mOut), request.dumpArgs);
    if (!status.isOk()) {
        return fail(request.dumpArgs.empty() ? "dump" : "dump " + joined(request.dumpArgs), status);
    }
    return kExitOk;
}

int PrefsTool::profile(PreferencesClient& client, const Request& request) {
    const PreferencesStatus status = client.profile(request.key);
    if (!status.isOk()) return fail("profile " + request.key, status);
    return kExitOk;
}

int PrefsTool::fail(const std::string& what, const PreferencesStatus& status) {
    fprintf(mErr, "prefs: %s: %s\n", what.c_str(), status.toString().c_str());
    fflush(mErr);
    return status.kind() == PreferencesStatus::Kind::Unreachable ? kExitUnreachable : kExitRefused;
}

int PrefsTool::usage(const std::string& message) {
    fprintf(mErr, "prefs: %s\n", message.c_str());
    fflush(mErr);
    return kExitUsage;
}

}  // namespace Halo::OS
