#define LOG_TAG "PreferencesService"

#include "prefs-appinfo/AppInfoInquirerService.h"

#include <binder/IPCThreadState.h>
#include <cutils/multiuser.h>
#include <log/log.h>

#include <algorithm>
#include <string>

#include "prefs-appinfo/AppInfoSimulator.h"

namespace Halo::OS {

namespace {

constexpr appid_t kSystemAppId = 1000;

}  // namespace

std::optional<AppInfoInquirerService::Status> AppInfoInquirerService::refuseUnlessSystem(
        const char* method) const {
    const uid_t uid = android::IPCThreadState::self()->getCallingUid();
    if (uid == 0 || multiuser_get_app_id(uid) == kSystemAppId ||
        std::find(mSystemUids.begin(), mSystemUids.end(), uid) != mSystemUids.end()) {
        return std::nullopt;
    }
    ALOGW("prefs-appinfo: refused %s from uid %u, which is not a system uid", method, uid);
    return Status::fromExceptionCode(Status::EX_SECURITY,
                                     (std::string(method) + " is for system uids only").c_str());
}

AppInfoInquirerService::Status AppInfoInquirerService::getFullPackageInfo() {
    if (auto refused = refuseUnlessSystem("getFullPackageInfo")) return *refused;
    mSimulator->resendPackages();
    return Status::ok();
}

AppInfoInquirerService::Status AppInfoInquirerService::getUserList(std::vector<int32_t>* users) {
    *users = mSimulator->users();
    return Status::ok();
}

AppInfoInquirerService::Status AppInfoInquirerService::registerPackageInfoListener(
        const android::sp<Listener>& listener, bool* ok) {
    if (auto refused = refuseUnlessSystem("registerPackageInfoListener")) return *refused;
    *ok = listener != nullptr;
    if (*ok) mSimulator->attachListener(listener);
    return Status::ok();
}

AppInfoInquirerService::Status AppInfoInquirerService::unregisterPackageInfoListener(bool* ok) {
    if (auto refused = refuseUnlessSystem("unregisterPackageInfoListener")) return *refused;
    *ok = mSimulator->detachListener();
    return Status::ok();
}

}  // namespace Halo::OS
