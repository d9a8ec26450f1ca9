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

    // "ok", "service-specific error -9", "exception -7", "status -1 (permission denied)",
    // "service unreachable: status -32 (dead object)".
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
