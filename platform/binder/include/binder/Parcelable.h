#pragma once

#include <utils/Errors.h>

namespace android {

class Parcel;

// A structured value that writes itself into a parcel and reads itself back.
class Parcelable {
public:
    virtual ~Parcelable() = default;
    Parcelable() = default;
    Parcelable(const Parcelable&) = default;

    virtual status_t writeToParcel(Parcel* parcel) const = 0;
    virtual status_t readFromParcel(const Parcel* parcel) = 0;
};

}  // namespace android
