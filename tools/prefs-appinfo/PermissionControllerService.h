#pragma once

#include <android/os/BnPermissionController.h>
#include <binder/Status.h>
#include <utils/String16.h>

#include <cstdint>

#include "prefs-appinfo/PackageCatalog.h"

namespace Halo::OS {

// The simulator's "permission" service: answers whether a uid holds an OS permission, from the
// installed packages' "permissions" arrays (see PackageCatalog::isGranted). The catalog must
// outlive the service's publication.
class PermissionControllerService : public android::os::BnPermissionController {
public:
    explicit PermissionControllerService(const PackageCatalog* catalog) : mCatalog(catalog) {}

    android::binder::Status checkPermission(const android::String16& permission, int32_t pid,
                                            int32_t uid, bool* granted) override;

private:
    const PackageCatalog* const mCatalog;
};

}  // namespace Halo::OS
