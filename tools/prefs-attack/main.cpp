// prefs-attack: every way we know for an app to take the service down or over, run against a live
// device, with the figures of docs/reliability.md. Not a test: each attack runs for seconds.
#include <unistd.h>

#include <cstdio>

#include "device/DeviceRunner.h"
#include "prefs-attack/Attack.h"
#include "prefs-attack/AttackOptions.h"
#include "prefs-attack/AttackRun.h"

int main(int argc, char** argv) {
    using Halo::OS::AttackOptions;
    AttackOptions options;
    switch (options.parse(argc, argv)) {
        case AttackOptions::Parse::Help:
            fputs(AttackOptions::usage(), stdout);
            return 0;
        case AttackOptions::Parse::List:
            for (const Halo::OS::Attack& attack : Halo::OS::attackCatalog()) {
                printf("%-16s %s%s\n", attack.name, attack.description,
                       attack.onlyByName ? " (only with --only)" : "");
            }
            return 0;
        case AttackOptions::Parse::Usage:
            fprintf(stderr, "prefs-attack: %s\n%s", options.error().c_str(),
                    AttackOptions::usage());
            return 2;
        case AttackOptions::Parse::Run:
            break;
    }
    if (geteuid() != 0) {
        fprintf(stderr, "prefs-attack: run as root: the apps switch to uids of their own\n");
        return 2;
    }
    Halo::OS::DeviceRunner device(options.programs, options.work);
    Halo::OS::AttackRun run(&device, options.settings);
    return run.run(stdout);
}
