#pragma once

#include <string>

#include "device/DeviceRunner.h"
#include "prefs-attack/AttackRun.h"

namespace Halo::OS {

// prefs-attack's command line.
class AttackOptions {
public:
    enum class Parse { Run, Help, List, Usage };

    // Fills the options from argv. Usage: a message is in error().
    Parse parse(int argc, char** argv);

    static const char* usage();
    const std::string& error() const { return mError; }

    DeviceRunner::Programs programs;
    std::string work;
    AttackRun::Settings settings;

private:
    std::string mError;
};

}  // namespace Halo::OS
