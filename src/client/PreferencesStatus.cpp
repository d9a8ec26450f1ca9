#include "client/PreferencesStatus.h"

#include <binder/Status.h>
#include <utils/Errors.h>

namespace Halo::OS {

namespace {

struct CodeText {
    int32_t code;
    const char* label;
    // What the service means by the code; null when there is nothing to add to the label.
    const char* sentence;
};

// The codes that the key manager returns through the service, unchanged, as service-specific
// errors. Reads and writes use different codes for the same refusals: -9 on reads, type look-ups
// and listener registration, -8 on writes and resets.
constexpr CodeText kServiceSpecific[] = {
        {PreferencesStatus::KeyPermissionDenied, "no permission for this key",
         "the app's permission for this key does not allow the operation"},
        {PreferencesStatus::ListenerNotFound, "listener not found",
         "no listener of this app is registered"},
        {PreferencesStatus::OsPermissionDenied, "OS permission missing",
         "the app lacks com.nimbus.permission.READ_SETTINGS or WRITE_SETTINGS"},
        {PreferencesStatus::WriteRefused, "write refused",
         "unknown key, wrong type, a user key of another user, or the store write failed"},
        {PreferencesStatus::ReadRefused, "key not readable",
         "unknown key, wrong type, a user key of another user, or the store read failed"},
        {PreferencesStatus::NullOutValue, "no place for the result", "the call gave no out-value"},
        {PreferencesStatus::ListenerNotStored, "listener not registered",
         "the store could not register the listener"},
};

// Binder's exception codes. The service itself raises only the two of its profile command.
using BinderStatus = android::binder::Status;
constexpr CodeText kExceptions[] = {
        {BinderStatus::EX_SECURITY, "security", nullptr},
        {BinderStatus::EX_BAD_PARCELABLE, "bad parcelable", nullptr},
        {BinderStatus::EX_ILLEGAL_ARGUMENT, "illegal argument",
         "the service does not know this argument (a profile word)"},
        {BinderStatus::EX_NULL_POINTER, "null pointer", nullptr},
        {BinderStatus::EX_ILLEGAL_STATE, "illegal state", nullptr},
        {BinderStatus::EX_NETWORK_MAIN_THREAD, "network on main thread", nullptr},
        {BinderStatus::EX_UNSUPPORTED_OPERATION, "unsupported operation",
         "only root may do this (profile commands)"},
        {BinderStatus::EX_SERVICE_SPECIFIC, "service specific", nullptr},
        {BinderStatus::EX_PARCELABLE, "parcelable", nullptr},
        {BinderStatus::EX_HAS_REPLY_HEADER, "has reply header", nullptr},
        {BinderStatus::EX_TRANSACTION_FAILED, "transaction failed", nullptr},
};

// The status_t values a client meets.
constexpr CodeText kStatuses[] = {
        {android::PERMISSION_DENIED, "permission denied",
         "the caller lacks com.nimbus.permission.READ_SETTINGS"},
        {android::NAME_NOT_FOUND, "no such service", "nothing is published under that name"},
        {android::DEAD_OBJECT, "dead object", "the service's process went away"},
        {android::FAILED_TRANSACTION, "failed transaction", nullptr},
        {android::UNKNOWN_TRANSACTION, "unknown transaction", nullptr},
        {android::BAD_TYPE, "bad type", "the service named no value type"},
        {android::BAD_VALUE, "bad value", nullptr},
        {android::NOT_ENOUGH_DATA, "not enough data", nullptr},
        {android::TIMED_OUT, "timed out", nullptr},
};

template <size_t N>
const CodeText* find(const CodeText (&table)[N], int32_t code) {
    for (const CodeText& entry : table) {
        if (entry.code == code) return &entry;
    }
    return nullptr;
}

std::string sentenceOf(const CodeText* entry) {
    return entry != nullptr && entry->sentence != nullptr ? entry->sentence : "";
}

}  // namespace

PreferencesStatus::Description PreferencesStatus::describe() const {
    const std::string code = std::to_string(mCode);
    switch (mKind) {
        case Kind::Ok:
            return {"ok", ""};
        case Kind::ServiceSpecific: {
            const CodeText* entry = find(kServiceSpecific, mCode);
            const std::string status = "service-specific error " + code;
            if (entry == nullptr) return {status, ""};
            return {std::string(entry->label) + " (" + status + ")", sentenceOf(entry)};
        }
        case Kind::Exception: {
            const CodeText* entry = find(kExceptions, mCode);
            const std::string status = "exception " + code;
            if (entry == nullptr) return {status, ""};
            return {status + " (" + entry->label + ")", sentenceOf(entry)};
        }
        case Kind::Failed:
        case Kind::Unreachable: {
            const CodeText* entry = find(kStatuses, mCode);
            std::string name = "status " + code + " (" + (entry ? entry->label : "error") + ")";
            if (mKind == Kind::Unreachable) name = "service unreachable: " + name;
            return {name, sentenceOf(entry)};
        }
    }
    return {"", ""};
}

std::string PreferencesStatus::toString() const {
    const Description description = describe();
    return description.sentence.empty() ? description.name
                                        : description.name + ": " + description.sentence;
}

}  // namespace Halo::OS
