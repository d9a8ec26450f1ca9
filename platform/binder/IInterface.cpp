#include <binder/IInterface.h>

namespace android {

IInterface::IInterface() : RefBase() {}

IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    if (iface == nullptr) return nullptr;
    return const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    if (iface == nullptr) return nullptr;
    return iface->onAsBinder();
}

}  // namespace android
