#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "device/DeviceRunner.h"
#include "prefs-attack/Attack.h"
#include "prefs-attack/ProbeClient.h"

namespace Halo::OS {

// Runs attacks one after the other against one live device and prints a line for each: what the
// attack did, the daemon's resident size and descriptors before and after, a probe app's latency
// while it ran, and whether the device still works (the probe's acknowledged writes are there, a
// newly installed package arrives, both services still run). A baseline line without an attack
// comes first, then the controls: an app that only keeps a CPU busy, and the floods of the
// attacks aimed at a service of the app's own (the floors). An attack fails when it breaks
// anything, or when it raises the probe's p99 to more than twice the highest of the baseline,
// the busy app and its floor.
class AttackRun {
public:
    struct Settings {
        double seconds = 10;
        // Names to run; empty: every attack not reserved for running by name.
        std::vector<std::string> only;
    };

    AttackRun(DeviceRunner* device, Settings settings);

    // Installs the probe's and the attacker's packages, starts the device, runs the attacks and
    // stops the device. Returns 0 when every attack was withstood, 1 otherwise (also when the
    // device does not start: the device log says why).
    int run(FILE* out);

private:
    struct Row {
        Attack::Count count;
        long rssBefore = -1, rssAfter = -1;
        int fdsBefore = -1, fdsAfter = -1;
        ProbeClient::Figures probe;
        bool writesKept = false;
        bool packagesArrive = false;
        bool daemonUp = false;
        bool appInfoUp = false;
    };

    Row measure(const Attack* attack);
    bool canaryArrives();
    bool selected(const Attack& attack) const;
    // Prints the row and returns whether the device withstood the attack: nothing broke and,
    // unless it is a control, the probe's p99 is at most twice `referenceP99`.
    bool report(FILE* out, const char* name, const Row& row, double referenceP99,
                bool control) const;

    DeviceRunner* mDevice;
    Settings mSettings;
    ProbeClient mProbe;
    Attack::Target mTarget;
    int mCanaries = 0;
};

}  // namespace Halo::OS
