#include "prefs-attack/AttackRun.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <thread>

namespace Halo::OS {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uid_t kProbeUid = 10981;
constexpr uid_t kAttackerUid = 10982;
constexpr uid_t kCanaryUid = 10983;

}  // namespace

AttackRun::AttackRun(DeviceRunner* device, Settings settings)
    : mDevice(device),
      mSettings(std::move(settings)),
      mProbe(kProbeUid, "probe_sequence"),
      mTarget{device, kAttackerUid, "attacker_int", "attacker_cross"} {}

bool AttackRun::selected(const Attack& attack) const {
    if (mSettings.only.empty()) return !attack.onlyByName;
    return std::find(mSettings.only.begin(), mSettings.only.end(), attack.name) !=
           mSettings.only.end();
}

bool AttackRun::canaryArrives() {
    const std::string name = "com.example.canary" + std::to_string(++mCanaries);
    const std::string key = "canary_" + std::to_string(mCanaries);
    mDevice->writeFile(name + ".json",
                       DeviceRunner::package(kCanaryUid, name,
                                             DeviceRunner::entry(key, "integer", "1", "system")));
    const bool arrived = waitForKey(key, Clock::now() + std::chrono::seconds(30));
    mDevice->removeFile(name + ".json");
    return arrived;
}

AttackRun::Row AttackRun::measure(const Attack* attack) {
    Row row;
    const pid_t daemon = mDevice->daemonPid();
    row.rssBefore = DeviceRunner::residentKb(daemon);
    row.fdsBefore = DeviceRunner::descriptors(daemon);
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                 std::chrono::duration<double>(mSettings.seconds));
    mProbe.start(deadline);
    if (attack != nullptr) {
        row.count = attack->run(mTarget, deadline);
    } else {
        std::this_thread::sleep_until(deadline);
    }
    row.probe = mProbe.finish();
    row.rssAfter = DeviceRunner::residentKb(daemon);
    row.fdsAfter = DeviceRunner::descriptors(daemon);
    row.daemonUp = DeviceRunner::alive(daemon);
    row.appInfoUp = DeviceRunner::alive(mDevice->appInfoPid());
    row.writesKept = row.daemonUp && mProbe.writesKept(row.probe);
    row.packagesArrive = row.appInfoUp && row.daemonUp && canaryArrives();
    // Each attack meets a working device: one that lost the app-info service (or its
    // packages) gets it back, as the platform would restart it.
    if (row.daemonUp && (!row.appInfoUp || !row.packagesArrive)) {
        mDevice->restartAppInfo();
        canaryArrives();
    }
    return row;
}

bool AttackRun::report(FILE* out, const char* name, const Row& row, double referenceP99,
                       bool control) const {
    const bool slow = referenceP99 > 0 && row.probe.p99Us > 2 * referenceP99;
    const bool broken = !(row.daemonUp && row.appInfoUp && row.probe.ran && row.probe.failed == 0 &&
                          row.writesKept && row.packagesArrive);
    const char* result = broken ? "BROKE" : control ? "control" : slow ? "SLOW" : "held";
    fprintf(out,
            "%-16s %9ld %8ld %6ld>%-6ld %4d>%-4d %8.0f %8.0f %6ld %-5s %-8s %-4s %-4s %-7s %s\n",
            name, row.count.calls, row.count.refused, row.rssBefore, row.rssAfter, row.fdsBefore,
            row.fdsAfter, row.probe.p50Us, row.probe.p99Us, row.probe.failed,
            row.writesKept ? "kept" : "LOST", row.packagesArrive ? "arrive" : "LOST",
            row.daemonUp ? "up" : "DOWN", row.appInfoUp ? "up" : "DOWN", result,
            row.count.left.c_str());
    fflush(out);
    return !broken && (control || !slow);
}

int AttackRun::run(FILE* out) {
    mDevice->writeFile(
            "com.example.probe.json",
            DeviceRunner::package(kProbeUid, "com.example.probe",
                                  DeviceRunner::entry("probe_sequence", "integer", "0", "system")));
    mDevice->writeFile(
            "com.example.attacker.json",
            DeviceRunner::package(
                    kAttackerUid, "com.example.attacker",
                    DeviceRunner::entry(mTarget.systemKey, "integer", "0", "system") + ", " +
                            DeviceRunner::entry(mTarget.crossKey, "long", "0", "crossUser")));
    mDevice->writeFile("users.json", R"({"users": [0, 10], "current": 0})");
    if (!mDevice->start()) {
        fprintf(stderr, "prefs-attack: the device did not start; see %s\n",
                mDevice->logPath().c_str());
        return 1;
    }
    if (!canaryArrives()) {
        fprintf(stderr, "prefs-attack: packages do not reach the service; see %s\n",
                mDevice->logPath().c_str());
        return 1;
    }
    fprintf(out, "%-16s %9s %8s %13s %9s %8s %8s %6s %-5s %-8s %-4s %-4s %-7s %s\n", "attack",
            "calls", "refused", "rss_kb", "fds", "p50_us", "p99_us", "failed", "writes", "packages",
            "svc", "info", "result", "left behind");
    const Row baseline = measure(nullptr);
    bool allHeld = report(out, "(none)", baseline, 0, false);
    // The probe's p99 beside the busy app (or alone, if higher), and beside each floor.
    double reference = baseline.probe.p99Us;
    std::map<std::string, double> floors;
    for (const Attack& attack : attackCatalog()) {
        const bool control = attack.name == std::string(kBusyAppControl) ||
                             attack.name == std::string(kFloodFloor) ||
                             attack.name == std::string(kCallsFloor);
        if (!selected(attack) && !control) continue;
        Row row = measure(&attack);
        double judged = reference;
        if (attack.floor != nullptr && floors.count(attack.floor) != 0) {
            judged = std::max(reference, floors[attack.floor]);
            char ratio[64];
            snprintf(ratio, sizeof ratio, "%sp99 %.1fx %s", row.count.left.empty() ? "" : "; ",
                     row.probe.p99Us / std::max(1.0, floors[attack.floor]), attack.floor);
            row.count.left += ratio;
        }
        allHeld = report(out, attack.name, row, judged, control) && allHeld;
        if (attack.name == std::string(kBusyAppControl)) {
            reference = std::max(reference, row.probe.p99Us);
        } else if (control) {
            floors[attack.name] = row.probe.p99Us;
        }
        if (!row.daemonUp) {
            fprintf(out, "the daemon is down; the remaining attacks are not run (log: %s)\n",
                    mDevice->logPath().c_str());
            return 1;
        }
    }
    const bool cleanStop = mDevice->stop();
    fprintf(out, "clean stop: %s\n", cleanStop ? "yes" : "NO");
    return allHeld && cleanStop ? 0 : 1;
}

}  // namespace Halo::OS
