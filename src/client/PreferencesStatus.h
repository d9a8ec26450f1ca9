#pragma once

#include <cstdint>
#include <string>

namespace Halo::OS {

// The outcome of one call to the preferences service, as its client sees it.
//
//   Ok               the call succeeded
//   ServiceSpecific  the service refused with one of its own codes, a ServiceError (for example
//                    ReadRefused, -9: the key is not readable by the caller)
//   Exception        the service refused with a Binder exception code (for example -7 for a
//                    profile command from a caller that is not root, -3 for an unknown word)
//   Failed           the service answered a dump request with a failing status_t (-1: the
//                    caller may not read settings)
//   Unreachable      the call did not reach the service or its answer was lost: no such service,
//                    the connection broke, or the reply was malformed (code: the status_t)
class PreferencesStatus {
public:
    enum class Kind { Ok, ServiceSpecific, Exception, Failed, Unreachable };

    // The codes of ServiceSpecific statuses: the service's refusals, which reach the client
    // unchanged. They are part of the service's interface: never renumber one. Reads and writes
    // report the same kinds of refusal with different codes (ReadRefused on reads, type look-ups
    // and listener registration, WriteRefused on writes and resets).
    enum ServiceError : int32_t {
        // The app's permission for this key does not allow the operation.
        KeyPermissionDenied = -3,
        // No listener of this app is registered under that object.
        ListenerNotFound = -6,
        // The app lacks com.nimbus.permission.READ_SETTINGS or WRITE_SETTINGS.
        OsPermissionDenied = -7,
        // Unknown key, wrong type, a user key of another user, or the store write failed.
        WriteRefused = -8,
        // Unknown key, wrong type, a user key of another user, or the store read failed.
        ReadRefused = -9,
        // The call gave no place for its result.
        NullOutValue = -10,
        // The service could not register the listener.
        ListenerNotStored = -13,
    };

    PreferencesStatus() = default;

    static PreferencesStatus ok() { return PreferencesStatus(Kind::Ok, 0); }
    static PreferencesStatus serviceSpecific(int32_t code) {
        return PreferencesStatus(Kind::ServiceSpecific, code);
    }
    static PreferencesStatus exception(int32_t code) {
        return PreferencesStatus(Kind::Exception, code);
    }
    static PreferencesStatus failed(int32_t status) {
        return PreferencesStatus(Kind::Failed, status);
    }
    static PreferencesStatus unreachable(int32_t status) {
        return PreferencesStatus(Kind::Unreachable, status);
    }

    bool isOk() const { return mKind == Kind::Ok; }
    Kind kind() const { return mKind; }
    // The service-specific code, exception code or status_t; 0 when ok.
    int32_t code() const { return mCode; }

    // The status in words: a short name that names the kind and the code, and a sentence on
    // what the service meant by it (empty for a code the service never returns).
    struct Description {
        std::string name;
        std::string sentence;
    };
    Description describe() const;

    // The description as one line: "<name>: <sentence>", or the name alone without a sentence.
    // For example "key not readable (service-specific error -9): unknown key, wrong type, or not
    // readable by this app", "exception -7 (unsupported operation): profile commands are for root
    // only", "service unreachable: status -2 (no such service)", "ok".
    std::string toString() const;

    bool operator==(const PreferencesStatus& other) const {
        return mKind == other.mKind && mCode == other.mCode;
    }
    bool operator!=(const PreferencesStatus& other) const { return !(*this == other); }

private:
    PreferencesStatus(Kind kind, int32_t code) : mKind(kind), mCode(code) {}

    Kind mKind = Kind::Ok;
    int32_t mCode = 0;
};

}  // namespace Halo::OS
