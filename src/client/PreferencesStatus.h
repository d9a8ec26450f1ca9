#pragma once

#include <cstdint>
#include <string>

namespace Halo::OS {

// The outcome of one call to the preferences service, as its client sees it.
//
//   Ok               the call succeeded
//   ServiceSpecific  the service refused with one of its own codes (for example -9: the key is
//                    not readable by the caller, -7: the OS permission is missing)
//   Exception        the service refused with a Binder exception code (for example -7 for a
//                    profile command from a caller that is not root, -3 for an unknown word)
//   Failed           the service answered a dump request with a failing status_t (-1: the
//                    caller may not read settings)
//   Unreachable      the call did not reach the service or its answer was lost: no such service,
//                    the connection broke, or the reply was malformed (code: the status_t)
class PreferencesStatus {
public:
    enum class Kind { Ok, ServiceSpecific, Exception, Failed, Unreachable };

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
