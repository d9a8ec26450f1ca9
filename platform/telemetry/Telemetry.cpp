#define LOG_TAG "PreferencesService"

#include "telemetry/Telemetry.h"

#include <dlfcn.h>
#include <log/log.h>

#include <atomic>
#include <map>

#include "threads/Mutex.h"

namespace Halo::OS {
namespace {

struct State {
    Mutex mutex;
    // std::less<> lets string_view look up string keys without a copy.
    std::map<std::string, uint64_t, std::less<>> counts GUARDED_BY(mutex);
    std::atomic<Telemetry::ReportFunction> sink{nullptr};
};

// Leaked on purpose: reports may arrive from threads that outlive static destruction.
State& state() {
    static State* s = new State;
    return *s;
}

void record(Telemetry::Kind kind, std::string_view name, int64_t uid, int32_t success,
            std::string_view message) {
    State& s = state();
    {
        Mutex::Autolock lock(s.mutex);
        auto it = s.counts.find(name);
        if (it == s.counts.end()) {
            s.counts.emplace(std::string(name), 1);
        } else {
            ++it->second;
        }
    }
    Telemetry::ReportFunction sink = s.sink.load(std::memory_order_acquire);
    if (sink != nullptr) {
        std::string nameText(name);
        std::string messageText(message);
        sink(kind, nameText.c_str(), uid, success,
             kind == Telemetry::kError ? messageText.c_str() : nullptr);
        return;
    }
    ALOGD("telemetry: %.*s uid=%lld success=%d %.*s", static_cast<int>(name.size()), name.data(),
          static_cast<long long>(uid), success, static_cast<int>(message.size()), message.data());
}

}  // namespace

void Telemetry::report(std::string_view name) {
    record(kEvent, name, -1, 1, {});
}

void Telemetry::report(std::string_view name, uint32_t uid, bool success) {
    record(kResultEvent, name, uid, success ? 1 : 0, {});
}

void Telemetry::reportError(std::string_view name, uint32_t uid, std::string_view message) {
    record(kError, name, uid, 0, message);
}

bool Telemetry::load(const std::string& path) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        ALOGE("Unable to load telemetry library %s: %s", path.c_str(), dlerror());
        return false;
    }
    auto fn = reinterpret_cast<ReportFunction>(dlsym(handle, kReportSymbol));
    if (fn == nullptr) {
        ALOGE("Telemetry library %s has no %s entry point", path.c_str(), kReportSymbol);
        dlclose(handle);
        return false;
    }
    state().sink.store(fn, std::memory_order_release);
    return true;
}

bool Telemetry::isLoaded() {
    return state().sink.load(std::memory_order_acquire) != nullptr;
}

uint64_t Telemetry::count(std::string_view name) {
    State& s = state();
    Mutex::Autolock lock(s.mutex);
    auto it = s.counts.find(name);
    return it == s.counts.end() ? 0 : it->second;
}

uint64_t Telemetry::countPrefix(std::string_view prefix) {
    State& s = state();
    Mutex::Autolock lock(s.mutex);
    uint64_t total = 0;
    for (auto it = s.counts.lower_bound(prefix);
         it != s.counts.end() && std::string_view(it->first).substr(0, prefix.size()) == prefix;
         ++it) {
        total += it->second;
    }
    return total;
}

void Telemetry::resetCounts() {
    State& s = state();
    Mutex::Autolock lock(s.mutex);
    s.counts.clear();
}

}  // namespace Halo::OS
