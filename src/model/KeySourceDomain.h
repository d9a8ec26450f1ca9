#pragma once

#include <cstdint>

namespace Halo::OS {

// Where a schema list came from. Passed with every schema list to the key manager and used by
// the store to limit expiry and owner clearing to one domain. Codes must never change.
enum class KeySourceDomain : uint32_t {
    Legacy = 0,         // legacy settings migration
    NativeService = 1,  // built-in native-service schemas and the store's version keys
    Application = 2,    // package schemas delivered by the app-info service
};

}  // namespace Halo::OS
