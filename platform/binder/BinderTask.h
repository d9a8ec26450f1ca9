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
// where no connection lock is held. A transaction names its target by number: the connection
// holds one reference per target for all of its calls in progress (see
// BinderConnection::execute), so queued calls add no reference to the target each.
struct BinderTask {
    enum class Kind { Transaction, Obituary };

    Kind kind = Kind::Transaction;
    android::sp<BinderConnection> connection;
    uint64_t targetId = 0;
    uint32_t frameBytes = 0;  // the size of the call's frame, counted against the queue bounds
    uint64_t txid = 0;        // 0 for one-way
    uint64_t context = 0;     // the call of this side it is nested in, 0 when none
    uint32_t code = 0;
    uint32_t flags = 0;
    std::unique_ptr<android::Parcel> data;
    android::sp<android::BpBinder> proxy;  // Kind::Obituary
};

}  // namespace Halo::OS
