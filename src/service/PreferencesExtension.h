#pragma once

#include <binder/ParcelFileDescriptor.h>
#include <binder/Status.h>
#include <halo/preferences/BatchEntry.h>
#include <halo/preferences/BnPreferencesExtension.h>
#include <halo/preferences/GenerationStamp.h>
#include <halo/preferences/KeyDescription.h>
#include <utils/String16.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "keymanager/PreferencesKeyManager.h"

namespace Halo::OS {

class PreferencesService;

// The service object's Binder extension: "halo.preferences.IPreferencesExtension". Its typed
// gets run the service's own get of the same type and flavour (so they answer exactly what the
// plain call answers, refusals included) and stamp a successful answer with the key's slot and
// the generations read right after the value. A client that read the same generations before
// its call knows that nothing changed in between, and may keep the answer while they stay.
//
// Holds the service weakly (the service holds this object as its extension); once the service
// is gone every call fails with EX_ILLEGAL_STATE. The service must be held by sp<>.
class PreferencesExtension : public halo::preferences::BnPreferencesExtension {
public:
    using Status = android::binder::Status;
    using String16 = android::String16;
    using GenerationStamp = halo::preferences::GenerationStamp;
    using KeyDescription = halo::preferences::KeyDescription;

    PreferencesExtension(const android::wp<PreferencesService>& service,
                         std::shared_ptr<PreferencesKeyManager> keyManager);

    // EX_ILLEGAL_STATE when the table could not be made or opened.
    Status getGenerationTable(android::os::ParcelFileDescriptor* out) override;

    Status getIntegerStamped(const String16& key, int32_t flavour, int32_t userId,
                             GenerationStamp* stamp, int32_t* out) override;
    Status getDoubleStamped(const String16& key, int32_t flavour, int32_t userId,
                            GenerationStamp* stamp, double* out) override;
    Status getStringStamped(const String16& key, int32_t flavour, int32_t userId,
                            GenerationStamp* stamp, String16* out) override;
    Status getLongStamped(const String16& key, int32_t flavour, int32_t userId,
                          GenerationStamp* stamp, int64_t* out) override;
    Status getBooleanStamped(const String16& key, int32_t flavour, int32_t userId,
                             GenerationStamp* stamp, bool* out) override;
    Status getFloatStamped(const String16& key, int32_t flavour, int32_t userId,
                           GenerationStamp* stamp, float* out) override;

    // The key manager's listKeys and describeKey; a refusal is the service-specific error of
    // its code.
    Status listKeys(const String16& ownerPackage, std::vector<KeyDescription>* out) override;
    Status describeKey(const String16& key, KeyDescription* out) override;

    // The key manager's setBatch for the user of `flavour`; its code becomes the status's
    // service-specific error, with the message "entry N". Plain-flavour integer entries of keys
    // with an override property write it too once the batch is written, as setInteger does.
    Status setBatch(const std::vector<halo::preferences::BatchEntry>& entries, int32_t flavour,
                    int32_t userId) override;
    // The key manager's reset (FLAVOUR_CALLER) or resetUser for the user of `flavour`; a refusal
    // is the service-specific error of the key manager's code.
    Status resetUser(const String16& key, int32_t flavour, int32_t userId) override;

private:
    template <typename T>
    Status stamped(const String16& key, int32_t flavour, int32_t userId, GenerationStamp* stamp,
                   T* out);

    const android::wp<PreferencesService> mService;
    const std::shared_ptr<PreferencesKeyManager> mKeyManager;
};

}  // namespace Halo::OS
