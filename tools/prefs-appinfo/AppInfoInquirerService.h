#pragma once

#include <binder/Status.h>
#include <nimbus/internal/BnPreferencesAppInfoInquirer.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace Halo::OS {

class AppInfoSimulator;

// The simulator's "PreferencesAppInfoInquirer" service. Registration, the full-list request and
// the user list are answered by the simulator, which owns this object and outlives its
// publication.
class AppInfoInquirerService : public nimbus::internal::BnPreferencesAppInfoInquirer {
public:
    using Status = android::binder::Status;
    using Listener = nimbus::internal::IPreferencesAppInfoListener;

    explicit AppInfoInquirerService(AppInfoSimulator* simulator) : mSimulator(simulator) {}

    // Queues the schema list of every package for the registered listener.
    Status getFullPackageInfo() override;
    Status getUserList(std::vector<int32_t>* users) override;
    // Makes `listener` the listener and answers true; the user list, the current user and the
    // schema list of every package then follow one-way. A null listener is answered false.
    Status registerPackageInfoListener(const android::sp<Listener>& listener, bool* ok) override;
    // Drops the listener; true when there was one.
    Status unregisterPackageInfoListener(bool* ok) override;

private:
    AppInfoSimulator* const mSimulator;
};

}  // namespace Halo::OS
