#pragma once

#include <binder/Status.h>
#include <nimbus/internal/BnPreferencesAppInfoInquirer.h>
#include <sys/types.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace Halo::OS {

class AppInfoSimulator;

// The simulator's "PreferencesAppInfoInquirer" service. Registration, the full-list request and
// the user list are answered by the simulator, which owns this object and outlives its
// publication.
//
// Only system callers may register or unregister the listener or ask for the full list (the
// listener receives every package's schema and every user event, and whoever unregisters it
// cuts the preferences service off): root, application id 1000 in any user, and the uids given
// as `systemUids` (the preferences daemon's, when it does not run as root). Anyone else gets the
// exception EX_SECURITY (logged) and nothing changes. The user list is open to every caller.
class AppInfoInquirerService : public nimbus::internal::BnPreferencesAppInfoInquirer {
public:
    using Status = android::binder::Status;
    using Listener = nimbus::internal::IPreferencesAppInfoListener;

    AppInfoInquirerService(AppInfoSimulator* simulator, std::vector<uid_t> systemUids)
        : mSimulator(simulator), mSystemUids(std::move(systemUids)) {}

    // Queues the schema list of every package for the registered listener.
    Status getFullPackageInfo() override;
    Status getUserList(std::vector<int32_t>* users) override;
    // Makes `listener` the listener and answers true; the user list, the current user and the
    // schema list of every package then follow one-way. A null listener is answered false.
    Status registerPackageInfoListener(const android::sp<Listener>& listener, bool* ok) override;
    // Drops the listener; true when there was one.
    Status unregisterPackageInfoListener(bool* ok) override;

private:
    // Null when the calling uid is a system uid; otherwise the EX_SECURITY status for `method`.
    std::optional<Status> refuseUnlessSystem(const char* method) const;

    AppInfoSimulator* const mSimulator;
    const std::vector<uid_t> mSystemUids;
};

}  // namespace Halo::OS
