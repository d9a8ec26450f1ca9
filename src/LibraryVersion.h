#pragma once

namespace Halo::OS {

// Version of libpreferences.so, as "major.minor.patch"; printed by the tools' --version.
const char* libraryVersion();

}  // namespace Halo::OS
