#include "client/BinderStatusConversion.h"

namespace Halo::OS {

using android::binder::Status;

PreferencesStatus BinderStatusConversion::fromStatus(const Status& status) {
    switch (status.exceptionCode()) {
        case Status::EX_NONE:
            return PreferencesStatus::ok();
        case Status::EX_SERVICE_SPECIFIC:
            return PreferencesStatus::serviceSpecific(status.serviceSpecificErrorCode());
        case Status::EX_TRANSACTION_FAILED:
            return PreferencesStatus::unreachable(status.transactionError());
        default:
            return PreferencesStatus::exception(status.exceptionCode());
    }
}

PreferencesStatus BinderStatusConversion::fromDumpResult(android::status_t status) {
    switch (status) {
        case android::OK:
            return PreferencesStatus::ok();
        case android::DEAD_OBJECT:
        case android::FAILED_TRANSACTION:
        case android::TIMED_OUT:
            return PreferencesStatus::unreachable(status);
        default:
            return PreferencesStatus::failed(status);
    }
}

}  // namespace Halo::OS
