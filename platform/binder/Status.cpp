#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/String16.h>

namespace android {
namespace binder {

Status Status::ok() {
    return Status();
}

Status Status::fromExceptionCode(int32_t exceptionCode) {
    if (exceptionCode == EX_TRANSACTION_FAILED) return Status(exceptionCode, FAILED_TRANSACTION);
    return Status(exceptionCode, OK);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const String8& message) {
    if (exceptionCode == EX_TRANSACTION_FAILED) {
        return Status(exceptionCode, FAILED_TRANSACTION, message);
    }
    return Status(exceptionCode, OK, message);
}

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    return fromExceptionCode(exceptionCode, String8(message));
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode) {
    return Status(EX_SERVICE_SPECIFIC, serviceSpecificErrorCode);
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode, const String8& message) {
    return Status(EX_SERVICE_SPECIFIC, serviceSpecificErrorCode, message);
}

Status Status::fromServiceSpecificError(int32_t serviceSpecificErrorCode, const char* message) {
    return fromServiceSpecificError(serviceSpecificErrorCode, String8(message));
}

Status Status::fromStatusT(status_t status) {
    Status ret;
    ret.setFromStatusT(status);
    return ret;
}

std::string Status::exceptionToString(int32_t exceptionCode) {
    switch (exceptionCode) {
        case EX_NONE:
            return "EX_NONE";
        case EX_SECURITY:
            return "EX_SECURITY";
        case EX_BAD_PARCELABLE:
            return "EX_BAD_PARCELABLE";
        case EX_ILLEGAL_ARGUMENT:
            return "EX_ILLEGAL_ARGUMENT";
        case EX_NULL_POINTER:
            return "EX_NULL_POINTER";
        case EX_ILLEGAL_STATE:
            return "EX_ILLEGAL_STATE";
        case EX_NETWORK_MAIN_THREAD:
            return "EX_NETWORK_MAIN_THREAD";
        case EX_UNSUPPORTED_OPERATION:
            return "EX_UNSUPPORTED_OPERATION";
        case EX_SERVICE_SPECIFIC:
            return "EX_SERVICE_SPECIFIC";
        case EX_PARCELABLE:
            return "EX_PARCELABLE";
        case EX_HAS_REPLY_HEADER:
            return "EX_HAS_REPLY_HEADER";
        case EX_TRANSACTION_FAILED:
            return "EX_TRANSACTION_FAILED";
        default:
            return "UNKNOWN_" + std::to_string(exceptionCode);
    }
}

Status::Status(int32_t exceptionCode, int32_t errorCode)
    : mException(exceptionCode), mErrorCode(errorCode) {}

Status::Status(int32_t exceptionCode, int32_t errorCode, const String8& message)
    : mException(exceptionCode), mErrorCode(errorCode), mMessage(message) {}

status_t Status::readFromParcel(const Parcel& parcel) {
    status_t status = parcel.readInt32(&mException);
    if (status != OK) {
        setFromStatusT(status);
        return status;
    }

    if (mException == EX_HAS_REPLY_HEADER) {
        // The header's size includes its own size word.
        const size_t headerStart = parcel.dataPosition();
        const size_t headerAvail = parcel.dataAvail();
        int32_t headerSize;
        status = parcel.readInt32(&headerSize);
        if (status != OK) {
            setFromStatusT(status);
            return status;
        }
        if (headerSize < 0 || static_cast<size_t>(headerSize) > headerAvail) {
            setFromStatusT(UNKNOWN_ERROR);
            return UNKNOWN_ERROR;
        }
        parcel.setDataPosition(headerStart + headerSize);
        mException = EX_NONE;
    }

    if (mException == EX_NONE) {
        mErrorCode = OK;
        mMessage.clear();
        return OK;
    }

    String16 message;
    status = parcel.readString16(&message);
    if (status != OK) {
        setFromStatusT(status);
        return status;
    }
    mMessage = String8(message);

    int32_t stackTraceSize;
    status = parcel.readInt32(&stackTraceSize);
    if (status != OK) {
        setFromStatusT(status);
        return status;
    }
    if (stackTraceSize < 0 || static_cast<size_t>(stackTraceSize) > parcel.dataAvail()) {
        setFromStatusT(UNKNOWN_ERROR);
        return UNKNOWN_ERROR;
    }
    parcel.setDataPosition(parcel.dataPosition() + stackTraceSize);

    mErrorCode = OK;
    if (mException == EX_SERVICE_SPECIFIC) {
        status = parcel.readInt32(&mErrorCode);
    } else if (mException == EX_PARCELABLE) {
        int32_t blobSize;
        status = parcel.readInt32(&blobSize);
        if (status == OK) {
            if (blobSize < 0 || static_cast<size_t>(blobSize) > parcel.dataAvail()) {
                status = UNKNOWN_ERROR;
            } else {
                parcel.setDataPosition(parcel.dataPosition() + blobSize);
            }
        }
    } else if (mException == EX_TRANSACTION_FAILED) {
        // Never written by a well-behaved peer; do not let it pass as a transport error of ours.
        status = BAD_VALUE;
    }
    if (status != OK) {
        setFromStatusT(status);
        return status;
    }
    return OK;
}

status_t Status::writeToParcel(Parcel* parcel) const {
    if (mException == EX_TRANSACTION_FAILED) return mErrorCode;

    status_t status = parcel->writeInt32(mException);
    if (status != OK || mException == EX_NONE) return status;
    status = parcel->writeString16(String16(mMessage));
    if (status != OK) return status;
    status = parcel->writeInt32(0);  // empty remote stack trace header
    if (status != OK) return status;
    if (mException == EX_SERVICE_SPECIFIC) {
        status = parcel->writeInt32(mErrorCode);
    } else if (mException == EX_PARCELABLE) {
        status = parcel->writeInt32(0);
    }
    return status;
}

void Status::setException(int32_t ex, const String8& message) {
    mException = ex;
    mErrorCode = ex == EX_TRANSACTION_FAILED ? FAILED_TRANSACTION : OK;
    mMessage.setTo(message);
}

void Status::setServiceSpecificError(int32_t errorCode, const String8& message) {
    setException(EX_SERVICE_SPECIFIC, message);
    mErrorCode = errorCode;
}

void Status::setFromStatusT(status_t status) {
    mException = (status == OK) ? EX_NONE : EX_TRANSACTION_FAILED;
    mErrorCode = status;
    mMessage.clear();
}

String8 Status::toString8() const {
    String8 ret;
    if (mException == EX_NONE) {
        ret.append("No error");
    } else {
        ret.appendFormat("Status(%d, %s): '", mException, exceptionToString(mException).c_str());
        if (mException == EX_SERVICE_SPECIFIC || mException == EX_TRANSACTION_FAILED) {
            ret.appendFormat("%d: ", mErrorCode);
        }
        ret.append(mMessage);
        ret.append("'");
    }
    return ret;
}

std::stringstream& operator<<(std::stringstream& stream, const Status& s) {
    stream << s.toString8().string();
    return stream;
}

}  // namespace binder
}  // namespace android
