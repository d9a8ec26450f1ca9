#pragma once

#include <binder/IBinder.h>

#include <cstddef>
#include <cstdint>

// The layout of object records inside parcels and of the frames that carry transactions over a
// connection's socket. docs/wire.md describes the same for readers of the wire.
namespace Halo::OS::wire {

// An object record: 24 bytes, the layout of the kernel driver's flat_binder_object.
struct ObjectRecord {
    uint32_t type;
    uint32_t flags;
    uint64_t value;
    uint64_t cookie;
};
static_assert(sizeof(ObjectRecord) == 24, "object records are 24 bytes");

constexpr uint32_t kObjectFlags = 0x17f;  // accepts fds, priority 0x7f (as libbinder writes)

// Record types inside a parcel in memory. A binder record's value is 1 + the index of the binder
// in the parcel's binder table (0 is the null binder, which is plain data); a descriptor record's
// value is the index in the parcel's descriptor table.
constexpr uint32_t kRecordBinder = B_PACK_CHARS('s', 'b', '*', 0x85);
constexpr uint32_t kRecordFd = B_PACK_CHARS('f', 'd', '*', 0x85);

// After every binder record a stability word follows (0 for null, kStabilitySystem otherwise).
constexpr int32_t kStabilitySystem = 0x0c;

// Record types on the wire. The value of an object record is an object number in the owner's
// numbering on this connection; the value of a descriptor record is the descriptor's index among
// the frame's SCM_RIGHTS descriptors (records appear in index order).
constexpr uint32_t kWireSenderObject = B_PACK_CHARS('s', 'b', '*', 0x85);    // sender owns it
constexpr uint32_t kWireReceiverObject = B_PACK_CHARS('s', 'h', '*', 0x85);  // receiver owns it
constexpr uint32_t kWireFd = B_PACK_CHARS('f', 'd', '*', 0x85);

// Frames: an 8-byte header, then `size` bytes of body.
struct FrameHeader {
    uint32_t type;
    uint32_t size;
};
static_assert(sizeof(FrameHeader) == 8, "frame headers are 8 bytes");

constexpr uint32_t kMaxFrameBody = 1u << 20;  // 1 MiB; a larger frame closes the connection
// The most parcel data and offsets one out-of-line frame may carry in its memfd.
constexpr uint64_t kMaxOutOfLineBytes = 64u << 20;  // 64 MiB
constexpr uint32_t kMaxFdsPerFrame = 253;           // SCM_MAX_FD
constexpr size_t kMaxPendingFds = 1024;

enum FrameType : uint32_t {
    kFrameTransaction = B_PACK_CHARS('T', 'R', 'N', 'S'),
    kFrameReply = B_PACK_CHARS('R', 'P', 'L', 'Y'),
    kFrameRelease = B_PACK_CHARS('R', 'L', 'S', 'E'),
    // The sender's object `id` (a ReleaseBody with count 0) is a proxy whose own object died:
    // the receiver's proxy for it is dead too.
    kFrameDeath = B_PACK_CHARS('D', 'E', 'T', 'H'),
    // A transaction or reply whose parcel is too large for a frame: the body is only the fixed
    // part (TransactionBody or ReplyBody); the data and offsets are the whole content of a
    // sealed memfd sent as the frame's first descriptor, before the parcel's own descriptors.
    kFrameTransactionOutOfLine = B_PACK_CHARS('T', 'R', 'N', 'M'),
    kFrameReplyOutOfLine = B_PACK_CHARS('R', 'P', 'L', 'M'),
};

// Body of a transaction frame, followed by `dataSize` bytes of parcel data and `objectCount`
// 32-bit offsets of object records in that data (ascending).
struct TransactionBody {
    uint64_t txid;     // the sender's number for a two-way call (never 0); 0 for one-way
    uint64_t target;   // the receiver's object number
    uint64_t context;  // the receiver's txid this call is nested in, 0 when none
    uint32_t code;
    uint32_t flags;
    uint32_t dataSize;
    uint32_t objectCount;
    uint32_t fdCount;
    uint32_t reserved;
};
static_assert(sizeof(TransactionBody) == 48, "transaction bodies are 48 bytes");

// Body of a reply frame, followed by data and offsets as for a transaction. A status other than
// 0 is the bare transport status of a failed transaction; the reply then carries no data.
struct ReplyBody {
    uint64_t txid;
    int32_t status;
    uint32_t dataSize;
    uint32_t objectCount;
    uint32_t fdCount;
};
static_assert(sizeof(ReplyBody) == 24, "reply bodies are 24 bytes");

// The sender drops `count` references to the receiver's object `id`.
struct ReleaseBody {
    uint64_t id;
    uint32_t count;
    uint32_t reserved;
};
static_assert(sizeof(ReleaseBody) == 16, "release bodies are 16 bytes");

constexpr size_t pad4(size_t len) {
    return (len + 3) & ~static_cast<size_t>(3);
}

}  // namespace Halo::OS::wire
