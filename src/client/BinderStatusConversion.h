#pragma once

#include <binder/Status.h>
#include <utils/Errors.h>

#include "client/PreferencesStatus.h"

namespace Halo::OS {

// Turns what the Binder layer returns into a PreferencesStatus.
class BinderStatusConversion {
public:
    // Service-specific errors and exceptions keep their codes; a failed transaction becomes
    // Unreachable with its status_t.
    static PreferencesStatus fromStatus(const android::binder::Status& status);
    // The status_t of a dump request: OK, Unreachable for a broken or failed transaction
    // (DEAD_OBJECT, FAILED_TRANSACTION, TIMED_OUT), Failed with the service's status otherwise.
    static PreferencesStatus fromDumpResult(android::status_t status);
};

}  // namespace Halo::OS
