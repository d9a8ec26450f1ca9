#include "client/PreferencesStatus.h"

#include <utils/Errors.h>

namespace Halo::OS {

namespace {

// A short lower-case name of the status_t values a client meets.
std::string statusName(int32_t status) {
    switch (status) {
        case android::PERMISSION_DENIED:
            return "permission denied";
        case android::NAME_NOT_FOUND:
            return "no such service";
        case android::DEAD_OBJECT:
            return "dead object";
        case android::FAILED_TRANSACTION:
            return "failed transaction";
        case android::UNKNOWN_TRANSACTION:
            return "unknown transaction";
        case android::BAD_TYPE:
            return "bad type";
        case android::BAD_VALUE:
            return "bad value";
        case android::NOT_ENOUGH_DATA:
            return "not enough data";
        case android::TIMED_OUT:
            return "timed out";
        default:
            return "error";
    }
}

std::string statusText(int32_t status) {
    return "status " + std::to_string(status) + " (" + statusName(status) + ")";
}

}  // namespace

std::string PreferencesStatus::toString() const {
    switch (mKind) {
        case Kind::Ok:
            return "ok";
        case Kind::ServiceSpecific:
            return "service-specific error " + std::to_string(mCode);
        case Kind::Exception:
            return "exception " + std::to_string(mCode);
        case Kind::Failed:
            return statusText(mCode);
        case Kind::Unreachable:
            return "service unreachable: " + statusText(mCode);
    }
    return "";
}

}  // namespace Halo::OS
