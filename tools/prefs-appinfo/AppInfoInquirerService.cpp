#include "prefs-appinfo/AppInfoInquirerService.h"

#include "prefs-appinfo/AppInfoSimulator.h"

namespace Halo::OS {

AppInfoInquirerService::Status AppInfoInquirerService::getFullPackageInfo() {
    mSimulator->resendPackages();
    return Status::ok();
}

AppInfoInquirerService::Status AppInfoInquirerService::getUserList(std::vector<int32_t>* users) {
    *users = mSimulator->users();
    return Status::ok();
}

AppInfoInquirerService::Status AppInfoInquirerService::registerPackageInfoListener(
        const android::sp<Listener>& listener, bool* ok) {
    *ok = listener != nullptr;
    if (*ok) mSimulator->attachListener(listener);
    return Status::ok();
}

AppInfoInquirerService::Status AppInfoInquirerService::unregisterPackageInfoListener(bool* ok) {
    *ok = mSimulator->detachListener();
    return Status::ok();
}

}  // namespace Halo::OS
