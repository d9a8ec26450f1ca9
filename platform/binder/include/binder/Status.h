#pragma once

#include <utils/Errors.h>
#include <utils/String8.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace android {

class Parcel;

namespace binder {

// The result of a Binder interface method: ok, an exception code with a message, a
// service-specific error with a message, or a transport failure (EX_TRANSACTION_FAILED with the
// status_t). Travels at the start of every two-way reply.
class Status final {
public:
    enum Exception {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_SERVICE_SPECIFIC = -8,
        EX_PARCELABLE = -9,
        // A reply header precedes the reply; skipped by readers.
        EX_HAS_REPLY_HEADER = -128,
        // Never written to a parcel: the transport failed.
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok();
    static Status fromExceptionCode(int32_t exceptionCode);
    static Status fromExceptionCode(int32_t exceptionCode, const String8& message);
    static Status fromExceptionCode(int32_t exceptionCode, const char* message);
    static Status fromServiceSpecificError(int32_t serviceSpecificErrorCode);
    static Status fromServiceSpecificError(int32_t serviceSpecificErrorCode,
                                           const String8& message);
    static Status fromServiceSpecificError(int32_t serviceSpecificErrorCode, const char* message);
    // OK gives ok(); any other status EX_TRANSACTION_FAILED with that status.
    static Status fromStatusT(status_t status);

    static std::string exceptionToString(int32_t exceptionCode);

    Status() = default;
    ~Status() = default;
    Status(const Status& status) = default;
    Status(Status&& status) = default;
    Status& operator=(const Status& status) = default;
    Status& operator=(Status&& status) = default;

    // Reads what writeToParcel wrote. On a read failure the status becomes that transport error
    // and the error is returned.
    status_t readFromParcel(const Parcel& parcel);
    // Writes the exception code; when not ok also the message (String16), an empty
    // remote-stack-trace header (0) and, for EX_SERVICE_SPECIFIC, the error code (for
    // EX_PARCELABLE an empty blob, 0). A transport failure is not written: its status_t is
    // returned instead.
    status_t writeToParcel(Parcel* parcel) const;

    void setException(int32_t ex, const String8& message);
    void setServiceSpecificError(int32_t errorCode, const String8& message);
    void setFromStatusT(status_t status);

    int32_t exceptionCode() const { return mException; }
    const String8& exceptionMessage() const { return mMessage; }
    status_t transactionError() const {
        return mException == EX_TRANSACTION_FAILED ? mErrorCode : OK;
    }
    int32_t serviceSpecificErrorCode() const {
        return mException == EX_SERVICE_SPECIFIC ? mErrorCode : 0;
    }

    bool isOk() const { return mException == EX_NONE; }

    // "No error", or "Status(<code>, <name>): '<error code>: <message>'" (the error code only for
    // service-specific and transport failures).
    String8 toString8() const;

private:
    Status(int32_t exceptionCode, int32_t errorCode);
    Status(int32_t exceptionCode, int32_t errorCode, const String8& message);

    int32_t mException = EX_NONE;
    int32_t mErrorCode = 0;
    String8 mMessage;
};

std::stringstream& operator<<(std::stringstream& stream, const Status& s);

}  // namespace binder
}  // namespace android
