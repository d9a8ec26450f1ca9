#include <binder/ParcelFileDescriptor.h>

namespace android {
namespace os {

ParcelFileDescriptor::ParcelFileDescriptor() = default;

ParcelFileDescriptor::ParcelFileDescriptor(android::base::unique_fd fd) : mFd(std::move(fd)) {}

ParcelFileDescriptor::~ParcelFileDescriptor() = default;

android::status_t ParcelFileDescriptor::writeToParcel(android::Parcel* parcel) const {
    // A "has communication channel" word (0), then the descriptor.
    android::status_t err = parcel->writeInt32(0);
    if (err != android::OK) return err;
    return parcel->writeDupFileDescriptor(mFd.get());
}

android::status_t ParcelFileDescriptor::readFromParcel(const android::Parcel* parcel) {
    int32_t hasCommChannel;
    android::status_t err = parcel->readInt32(&hasCommChannel);
    if (err != android::OK) return err;
    err = parcel->readUniqueFileDescriptor(&mFd);
    if (err != android::OK) return err;
    if (hasCommChannel != 0) {
        android::base::unique_fd commChannel;
        err = parcel->readUniqueFileDescriptor(&commChannel);
    }
    return err;
}

}  // namespace os
}  // namespace android
