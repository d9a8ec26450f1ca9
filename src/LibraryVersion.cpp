#include "LibraryVersion.h"

namespace Halo::OS {

const char* libraryVersion() {
    return PREFS_VERSION;
}

}  // namespace Halo::OS
