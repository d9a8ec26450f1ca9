#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <cstdint>

// Packs four characters into a transaction code, first character in the high byte.
#define B_PACK_CHARS(c1, c2, c3, c4) (((c1) << 24) | ((c2) << 16) | ((c3) << 8) | (c4))

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

// The base of every Binder object: a local object (BBinder) or a proxy for an object in another
// process (BpBinder). Two references to the same object compare equal as pointers: the runtime
// keeps one proxy per remote object per connection and hands a proxy that comes back to its
// owner out as the owner's local object.
class IBinder : public virtual RefBase {
public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,

        PING_TRANSACTION = B_PACK_CHARS('_', 'P', 'N', 'G'),
        DUMP_TRANSACTION = B_PACK_CHARS('_', 'D', 'M', 'P'),
        SHELL_COMMAND_TRANSACTION = B_PACK_CHARS('_', 'C', 'M', 'D'),
        INTERFACE_TRANSACTION = B_PACK_CHARS('_', 'N', 'T', 'F'),
        SYSPROPS_TRANSACTION = B_PACK_CHARS('_', 'S', 'P', 'R'),
        // Asks a local object for its extension (see BBinder::setExtension); the reply is one
        // strong binder, null when the object has none.
        EXTENSION_TRANSACTION = B_PACK_CHARS('_', 'E', 'X', 'T'),

        // The call returns as soon as the request is sent; there is no reply.
        FLAG_ONEWAY = 0x00000001,
    };

    IBinder();

    // The local interface implementation behind this object when it lives in this process and
    // implements `descriptor`; null otherwise (always null for a proxy).
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);

    // The interface descriptor; for a proxy it is asked from the object once and remembered
    // (empty when the object cannot be reached).
    virtual const String16& getInterfaceDescriptor() const = 0;

    // The object's extension: a second Binder object that its owner attached with
    // BBinder::setExtension, so that new calls can be offered without changing the object's own
    // interface. A local object answers at once; a proxy asks the owner (EXTENSION_TRANSACTION).
    // Stores null in `out` when the object has no extension. Returns OK, or the transport status
    // (for example DEAD_OBJECT, or UNKNOWN_TRANSACTION from a peer that does not know the call),
    // leaving `out` untouched.
    status_t getExtension(sp<IBinder>* out);

    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;

    // Writes the object's state to `fd`. For a proxy the descriptor travels to the owner.
    virtual status_t dump(int fd, const Vector<String16>& args) = 0;

    // Sends a transaction. Returns the transport status: OK, DEAD_OBJECT when the object's
    // process is gone, FAILED_TRANSACTION when the request is too large, or the negative status
    // the object's onTransact returned. `reply` may be null for one-way calls.
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) = 0;

    // Told once when the process that owns a linked object dies or its connection breaks.
    class DeathRecipient : public virtual RefBase {
    public:
        virtual void binderDied(const wp<IBinder>& who) = 0;
    };

    // Registers `recipient` (held weakly) for the death of this object. Returns DEAD_OBJECT when
    // the object is already dead and INVALID_OPERATION for a local object, which never dies.
    virtual status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                                 uint32_t flags = 0) = 0;

    // Removes the registration that matches recipient, cookie and flags. Returns NAME_NOT_FOUND
    // when there is none and DEAD_OBJECT when the death has already been reported.
    virtual status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                                   uint32_t flags = 0,
                                   wp<DeathRecipient>* outRecipient = nullptr) = 0;

    virtual bool checkSubclass(const void* subclassID) const;

    typedef void (*object_cleanup_func)(const void* id, void* obj, void* cleanupCookie);

    // Per-object storage for callers: `func` (if any) runs when the binder is destroyed.
    virtual void attachObject(const void* objectID, void* object, void* cleanupCookie,
                              object_cleanup_func func) = 0;
    virtual void* findObject(const void* objectID) const = 0;
    virtual void detachObject(const void* objectID) = 0;

    virtual BBinder* localBinder();
    virtual BpBinder* remoteBinder();

protected:
    virtual ~IBinder();
};

}  // namespace android
