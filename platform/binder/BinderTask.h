#pragma once

#include <binder/BpBinder.h>
#include <binder/IBinder.h>
#include <binder/Parcel.h>

#include <cstdint>
#include <memory>

namespace Halo::OS {

class BinderConnection;

// One unit of work for a thread of the pool: an incoming transaction (its objects already
// resolved) or the death notice of a proxy. Holds strong references, so it must be destroyed
// where no connection lock is held.
struct BinderTask {
    enum class Kind { Transaction, Obituary };

    Kind kind = Kind::Transaction;
    android::sp<BinderConnection> connection;
    android::sp<android::IBinder> target;
    uint64_t targetId = 0;
    uint64_t txid = 0;  // 0 for one-way
    uint32_t code = 0;
    uint32_t flags = 0;
    std::unique_ptr<android::Parcel> data;
    android::sp<android::BpBinder> proxy;  // Kind::Obituary
};

}  // namespace Halo::OS
