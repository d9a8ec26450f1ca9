#include "prefs/PrefsTool.h"

#include <cutils/multiuser.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include <binder/Status.h>

#include "binder/BinderServiceManager.h"
#include "binder/DirectoryTrust.h"
#include "prefs/BackupFileReader.h"
#include "prefs/PrefsJson.h"
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
// stack frame by a moment (a death notification in flight). The callbacks only queue; the watch
// prints on its own thread, where it may call the service again (a notification arrives while
// the service holds its lock, so the callback itself must not).
class WatchState {
public:
    WatchState() : mWakeFd(eventfd(0, EFD_CLOEXEC)) {}
    ~WatchState() {
        if (mWakeFd >= 0) close(mWakeFd);
    }
    WatchState(const WatchState&) = delete;
    WatchState& operator=(const WatchState&) = delete;

    int wakeFd() const { return mWakeFd; }

    void onChanged(const std::vector<std::string>& keys) EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        mPending.push_back(keys);
        wake();
    }

    void onServiceDied() EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        mDied = true;
        wake();
    }

    // The notifications received since the last call, oldest first.
    std::deque<std::vector<std::string>> takePending() EXCLUDES(mMutex) {
        uint64_t count = 0;
        (void)!read(mWakeFd, &count, sizeof(count));
        Mutex::Autolock lock(mMutex);
        return std::exchange(mPending, {});
    }

    bool died() EXCLUDES(mMutex) {
        Mutex::Autolock lock(mMutex);
        return mDied;
    }

private:
    void wake() {
        const uint64_t one = 1;
        (void)!write(mWakeFd, &one, sizeof(one));
    }

    const int mWakeFd;
    Mutex mMutex;
    std::deque<std::vector<std::string>> mPending GUARDED_BY(mMutex);
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
        return finishOutput("help");
    }
    if (request.command == Command::Version) {
        fprintf(mOut, "prefs %s\n", PREFS_VERSION);
        return finishOutput("--version");
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

    int exit = kExitOk;
    std::unique_ptr<PreferencesClient> client = connect(request, &exit);
    if (client == nullptr) return exit;
    switch (request.command) {
        case Command::Get:
            return get(*client, request);
        case Command::Set:
            return request.pairs.empty() ? set(*client, request) : setPairs(*client, request);
        case Command::Restore:
            return restore(*client, request);
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
        case Command::List:
            return list(*client, request);
        case Command::Describe:
            return describe(*client, request);
        case Command::Backup:
            return backup(*client, request);
        case Command::Help:
        case Command::Version:
            break;
    }
    return kExitOk;
}

std::unique_ptr<PreferencesClient> PrefsTool::connect(const Request& request, int* exit) {
    using Clock = std::chrono::steady_clock;
    // A longer wait is a wait without end; beyond it the clock's arithmetic would overflow.
    constexpr double kMaxWait = 1e9;
    const char* env = getenv("BINDER_DIR");
    const std::string dir = env != nullptr && *env != '\0' ? env : "/run/binder";
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline =
            start + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(std::min(request.waitSeconds, kMaxWait)));
    const Clock::time_point hintAt = start + std::chrono::seconds(1);
    bool hinted = false;
    for (;;) {
        PreferencesStatus status;
        std::unique_ptr<PreferencesClient> client =
                PreferencesClient::tryConnect(PreferencesClient::kServiceName, &status);
        if (client != nullptr) return client;
        const Clock::time_point now = Clock::now();
        if (now >= deadline) {
            *exit = fail(
                    std::string("connect to ") + PreferencesClient::kServiceName + " in " + dir,
                    status);
            return nullptr;
        }
        if (!hinted && now >= hintAt) {
            fprintf(mErr, "prefs: waiting for %s in %s (is preferencesd running?)\n",
                    PreferencesClient::kServiceName, dir.c_str());
            fflush(mErr);
            hinted = true;
        }
        std::this_thread::sleep_for(
                std::min<Clock::duration>(std::chrono::milliseconds(50), deadline - now));
    }
}

int PrefsTool::finishOutput(const std::string& what) {
    if (fflush(mOut) == 0 && !ferror(mOut)) return kExitOk;
    const int error = errno;
    fprintf(mErr, "prefs: %s: cannot write the output: %s\n", what.c_str(),
            error != 0 ? strerror(error) : "write error");
    fflush(mErr);
    return kExitRefused;
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
    if (request.json) {
        fprintf(mOut, "{\"key\": %s, \"type\": \"%s\", \"value\": %s}\n",
                PrefsJson::quote(request.key).c_str(), PreferenceValue::typeName(type),
                PrefsJson::value(value).c_str());
    } else {
        fprintf(mOut, "%s\n", value.toString().c_str());
    }
    return finishOutput("get " + request.key);
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

int PrefsTool::setPairs(PreferencesClient& client, const Request& request) {
    std::vector<PreferencesClient::BatchEntry> entries;
    for (const auto& [key, text] : request.pairs) {
        PreferenceValue::Type type;
        const PreferencesStatus status = client.getType(key, &type);
        if (!status.isOk()) return fail("type of " + key, status);
        PreferenceValue value;
        if (!PreferenceValue::parse(type, text, &value)) {
            return usage("set " + key + ": '" + text + "' is not a valid " +
                         PreferenceValue::typeName(type));
        }
        entries.push_back({key, std::move(value)});
    }
    size_t refused = entries.size();
    const PreferencesStatus status = client.setBatch(entries, request.target, &refused);
    if (!status.isOk()) {
        // Nothing was written; the refused key is named when the service said which it was.
        const std::string what = refused < entries.size()
                                         ? "set " + entries[refused].key + " (nothing written)"
                                         : std::string("set");
        return fail(what, status);
    }
    return kExitOk;
}

int PrefsTool::restore(PreferencesClient& client, const Request& request) {
    const std::string what = "restore " + request.key;
    std::vector<BackupFileReader::Entry> backup;
    std::string error;
    if (!BackupFileReader::read(request.key, &backup, &error)) {
        return usage(what + ": " + error);
    }
    std::map<int32_t, std::vector<PreferencesClient::BatchEntry>> byUser;
    for (BackupFileReader::Entry& entry : backup) {
        byUser[entry.user].push_back({std::move(entry.key), std::move(entry.value)});
    }
    int exit = kExitOk;
    for (const auto& [user, entries] : byUser) {
        if (request.dryRun) {
            const int printed = printRestoreChanges(client, what, user, entries);
            if (printed != kExitOk) exit = printed;
            continue;
        }
        const size_t step = PreferencesClient::kMaxBatchEntries;
        for (size_t first = 0; first < entries.size(); first += step) {
            const std::vector<PreferencesClient::BatchEntry> part(
                    entries.begin() + first,
                    entries.begin() + std::min(entries.size(), first + step));
            size_t refused = part.size();
            const PreferencesStatus status =
                    client.setBatch(part, PreferencesTarget::user(user), &refused);
            if (status.isOk()) continue;
            const std::string where =
                    what + ": user " + std::to_string(user) + ": " +
                    (refused < part.size() ? part[refused].key + " (this step not written)"
                                           : std::string("not written"));
            exit = fail(where, status);
            if (exit == kExitUnreachable) return exit;
            break;
        }
    }
    if (request.dryRun && exit == kExitOk) return finishOutput(what);
    return exit;
}

int PrefsTool::printRestoreChanges(PreferencesClient& client, const std::string& what, int32_t user,
                                   const std::vector<PreferencesClient::BatchEntry>& entries) {
    int exit = kExitOk;
    for (const PreferencesClient::BatchEntry& entry : entries) {
        PreferenceValue current;
        const PreferencesStatus status =
                client.get(entry.key, entry.value.type(), PreferencesTarget::user(user), &current);
        if (!status.isOk()) {
            exit = fail(what + ": get " + entry.key + " (user " + std::to_string(user) + ")",
                        status);
            if (exit == kExitUnreachable) return exit;
            continue;
        }
        if (current == entry.value) continue;
        fprintf(mOut, "%s (user %d): %s -> %s\n", entry.key.c_str(), user,
                current.toString().c_str(), entry.value.toString().c_str());
    }
    return exit;
}

int PrefsTool::type(PreferencesClient& client, const Request& request) {
    PreferenceValue::Type type;
    const PreferencesStatus status = client.getType(request.key, &type);
    if (!status.isOk()) return fail("type " + request.key, status);
    fprintf(mOut, "%s\n", PreferenceValue::typeName(type));
    return finishOutput("type " + request.key);
}

int PrefsTool::reset(PreferencesClient& client, const Request& request) {
    const PreferencesStatus status = client.reset(request.key, request.target);
    if (!status.isOk()) return fail("reset " + request.key, status);
    return kExitOk;
}

int PrefsTool::watch(PreferencesClient& client, const Request& request) {
    std::string what = "watch " + joined(request.keys);
    auto state = std::make_shared<WatchState>();
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
    // The service registers root's listeners for any names, and a key that does not exist would
    // never be reported: every key must have a type that the caller may see. (Asked after the
    // registration, so that a caller without the OS permission hears of that first.)
    std::vector<PreferenceValue::Type> types;
    for (const std::string& key : request.keys) {
        if (registration == nullptr) break;
        PreferenceValue::Type type = PreferenceValue::Type::String;
        status = client.getType(key, &type);
        if (!status.isOk()) {
            registration.reset();
            what = "watch " + key;
        }
        types.push_back(type);
    }
    if (registration == nullptr) {
        client.setOnServiceDied(nullptr);
        close(signalFd);
        return fail(what, status);
    }

    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> deadline;
    if (request.timeoutSeconds) {
        deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(*request.timeoutSeconds));
    }
    int printed = 0;
    int exit = kExitOk;
    bool done = false;
    while (!done) {
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
                        what.c_str(), *request.timeoutSeconds, printed, *request.count);
            } else {
                fprintf(mErr, "prefs: %s: timed out after %g s\n", what.c_str(),
                        *request.timeoutSeconds);
            }
            exit = kExitRefused;
            break;
        }
        if (fds[1].revents != 0) break;
        for (const std::vector<std::string>& keys : state->takePending()) {
            exit = printChange(client, request, types, keys);
            if (exit == kExitOk) exit = finishOutput(what);
            ++printed;
            if (exit != kExitOk || (request.count && printed == *request.count)) {
                done = true;
                break;
            }
        }
        if (!done && state->died()) {
            fprintf(mErr, "prefs: %s: service unreachable: its process died\n", what.c_str());
            exit = kExitUnreachable;
            done = true;
        }
    }
    registration.reset();
    client.setOnServiceDied(nullptr);
    close(signalFd);
    return exit;
}

int PrefsTool::printChange(PreferencesClient& client, const Request& request,
                           const std::vector<PreferenceValue::Type>& types,
                           const std::vector<std::string>& keys) {
    if (!request.values) {
        fprintf(mOut, "%s\n", joined(keys).c_str());
        return kExitOk;
    }
    for (const std::string& key : keys) {
        PreferenceValue::Type type = PreferenceValue::Type::String;
        for (size_t i = 0; i < request.keys.size(); ++i) {
            if (request.keys[i] == key) type = types[i];
        }
        PreferenceValue value;
        const PreferencesStatus status = client.get(key, type, PreferencesTarget::caller(), &value);
        if (!status.isOk()) return fail("watch: get " + key, status);
        fprintf(mOut, "%s=%s\n", key.c_str(), value.toString().c_str());
    }
    return kExitOk;
}

int PrefsTool::dump(PreferencesClient& client, const Request& request) {
    const std::string what = request.dumpArgs.empty() ? "dump" : "dump " + joined(request.dumpArgs);
    if (const int exit = finishOutput(what); exit != kExitOk) return exit;
    const PreferencesStatus status = client.dump(fileno(mOut), request.dumpArgs);
    if (!status.isOk()) return fail(what, status);
    // The service answers arguments it does not know with the list of those it knows, which
    // stays on the output as the service wrote it.
    if (!PrefsCommandLine::isDumpArgument(request.dumpArgs)) {
        return usage(what + ": unknown argument (see 'prefs dump --help')");
    }
    return kExitOk;
}

int PrefsTool::profile(PreferencesClient& client, const Request& request) {
    const PreferencesStatus status = client.profile(request.key);
    if (status == PreferencesStatus::exception(android::binder::Status::EX_ILLEGAL_ARGUMENT)) {
        return usage("profile " + request.key + ": unknown word (see 'prefs profile --help')");
    }
    if (!status.isOk()) return fail("profile " + request.key, status);
    return kExitOk;
}

int PrefsTool::list(PreferencesClient& client, const Request& request) {
    const std::string what = request.package.empty() ? "list" : "list --package " + request.package;
    std::vector<PreferencesKeyDescription> keys;
    const PreferencesStatus status = client.listKeys(request.package, &keys);
    if (!status.isOk()) return fail(what, status);
    if (request.json) fputs("[", mOut);
    for (size_t i = 0; i < keys.size(); ++i) {
        const PreferencesKeyDescription& key = keys[i];
        std::optional<PreferenceValue> value;
        if (request.values) {
            PreferenceValue read;
            // A value that cannot be read now (changed declarations, another user's key) is
            // left out, as from a backup.
            if (client.get(key.key, key.type, PreferencesTarget::caller(), &read).isOk()) {
                value = read;
            }
        }
        if (request.json) {
            fprintf(mOut, "%s\n  %s", i == 0 ? "" : ",",
                    PrefsJson::description(key, value).c_str());
            continue;
        }
        fprintf(mOut, "%s %s %s%s%s\n", key.key.c_str(), PreferenceValue::typeName(key.type),
                PreferencesKeyDescription::scopeName(key.scope), value ? " " : "",
                value ? value->toString().c_str() : "");
    }
    if (request.json) fputs(keys.empty() ? "]\n" : "\n]\n", mOut);
    return finishOutput(what);
}

int PrefsTool::describe(PreferencesClient& client, const Request& request) {
    const std::string what = "describe " + request.key;
    PreferencesKeyDescription key;
    const PreferencesStatus status = client.describeKey(request.key, &key);
    if (!status.isOk()) return fail(what, status);
    if (request.json) {
        fprintf(mOut, "%s\n", PrefsJson::description(key).c_str());
        return finishOutput(what);
    }
    const std::optional<PreferenceValue> byDefault = PrefsJson::defaultValue(key);
    fprintf(mOut, "key: %s\ntype: %s\nscope: %s\ndefault: %s\nowner: %s\nwritable: %s\n",
            key.key.c_str(), PreferenceValue::typeName(key.type),
            PreferencesKeyDescription::scopeName(key.scope),
            byDefault ? byDefault->toString().c_str() : "(none)",
            key.ownerPackage ? key.ownerPackage->c_str() : "(none)", key.writable ? "yes" : "no");
    return finishOutput(what);
}

int PrefsTool::backup(PreferencesClient& client, const Request& request) {
    const std::string what = "backup";
    std::vector<PreferencesKeyDescription> keys;
    const PreferencesStatus status = client.listKeys("", &keys);
    if (!status.isOk()) return fail(what, status);
    const unsigned int user = request.target.flavour() == PreferencesTarget::Flavour::User
                                      ? static_cast<unsigned int>(request.target.userId())
                                      : multiuser_get_user_id(getuid());
    std::vector<PrefsJson::BackupEntry> entries;
    for (const PreferencesKeyDescription& key : keys) {
        PrefsJson::BackupEntry entry{key, user, PreferenceValue()};
        const PreferencesTarget target = PreferencesTarget::user(static_cast<int32_t>(user));
        if (client.get(key.key, key.type, target, &entry.value).isOk()) {
            entries.push_back(std::move(entry));
        }
    }
    fputs(PrefsJson::backup(entries).c_str(), mOut);
    return finishOutput(what);
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
