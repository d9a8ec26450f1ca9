#define LOG_TAG "PreferencesService"

#include <binder/IBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/Parcelable.h>
#include <binder/Status.h>
#include <fcntl.h>
#include <unistd.h>
#include <utils/Unicode.h>

#include <log/log.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "binder/WireFormat.h"

namespace android {

namespace {

using Halo::OS::wire::kObjectFlags;
using Halo::OS::wire::kRecordBinder;
using Halo::OS::wire::kRecordFd;
using Halo::OS::wire::kStabilitySystem;
using Halo::OS::wire::ObjectRecord;
using Halo::OS::wire::pad4;

constexpr int32_t kStrictModePenaltyGather = static_cast<int32_t>(1u << 31);
constexpr int32_t kInterfaceHeader = B_PACK_CHARS('S', 'Y', 'S', 'T');
constexpr size_t kMaxParcelSize = std::numeric_limits<int32_t>::max();

// Strict UTF-8 to UTF-16: rejects truncated and overlong sequences, surrogate code points and
// values above U+10FFFF. Returns false for invalid input.
bool utf8ToUtf16(const std::string& in, std::u16string* out) {
    out->clear();
    out->reserve(in.size());
    const auto* s = reinterpret_cast<const uint8_t*>(in.data());
    const size_t n = in.size();
    size_t i = 0;
    while (i < n) {
        const uint8_t c = s[i];
        uint32_t cp;
        size_t len;
        if (c < 0x80) {
            cp = c;
            len = 1;
        } else if ((c & 0xe0) == 0xc0) {
            cp = c & 0x1f;
            len = 2;
        } else if ((c & 0xf0) == 0xe0) {
            cp = c & 0x0f;
            len = 3;
        } else if ((c & 0xf8) == 0xf0) {
            cp = c & 0x07;
            len = 4;
        } else {
            return false;
        }
        if (len > n - i) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xc0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3f);
        }
        static constexpr uint32_t kMinForLength[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMinForLength[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) {
            return false;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out->push_back(static_cast<char16_t>(0xd800 + (cp >> 10)));
            out->push_back(static_cast<char16_t>(0xdc00 + (cp & 0x3ff)));
        } else {
            out->push_back(static_cast<char16_t>(cp));
        }
        i += len;
    }
    return true;
}

status_t utf16ToUtf8(const char16_t* src, size_t len, std::string* out) {
    if (len == 0) {
        out->clear();
        return OK;
    }
    const ssize_t utf8Len = utf16_to_utf8_length(src, len);
    if (utf8Len < 0) return BAD_VALUE;
    out->resize(static_cast<size_t>(utf8Len) + 1);
    utf16_to_utf8(src, len, &(*out)[0], out->size());
    out->resize(static_cast<size_t>(utf8Len));
    return OK;
}

}  // namespace

Parcel::Parcel() : mData(nullptr), mDataSize(0), mDataCapacity(0), mDataPos(0), mError(OK) {}

Parcel::~Parcel() {
    freeData();
    free(mData);
}

const uint8_t* Parcel::data() const {
    return mData;
}

size_t Parcel::dataSize() const {
    return mDataSize;
}

size_t Parcel::dataAvail() const {
    return mDataPos < mDataSize ? mDataSize - mDataPos : 0;
}

size_t Parcel::dataPosition() const {
    return mDataPos;
}

size_t Parcel::dataCapacity() const {
    return mDataCapacity;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > kMaxParcelSize) return BAD_VALUE;
    if (size <= mDataCapacity) return OK;
    auto* data = static_cast<uint8_t*>(realloc(mData, size));
    if (data == nullptr) {
        mError = NO_MEMORY;
        return NO_MEMORY;
    }
    mData = data;
    mDataCapacity = size;
    return OK;
}

status_t Parcel::setDataSize(size_t size) {
    if (size > kMaxParcelSize) return BAD_VALUE;
    status_t err = setDataCapacity(size);
    if (err != OK) return err;
    if (size > mDataSize) memset(mData + mDataSize, 0, size - mDataSize);
    mDataSize = size;
    if (mDataPos > size) mDataPos = size;
    dropObjectsFrom(size);
    return OK;
}

void Parcel::setDataPosition(size_t pos) const {
    mDataPos = std::min(pos, kMaxParcelSize);
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > kMaxParcelSize) return BAD_VALUE;
    freeData();
    status_t err = setDataCapacity(len);
    if (err != OK) return err;
    if (len > 0) memcpy(mData, buffer, len);
    mDataSize = len;
    mDataPos = 0;
    return OK;
}

status_t Parcel::appendFrom(const Parcel* parcel, size_t start, size_t len) {
    if (parcel == nullptr || start > parcel->mDataSize || len > parcel->mDataSize - start) {
        return BAD_VALUE;
    }
    if (len == 0) return OK;
    const size_t dest = mDataPos;
    if (dest + len < dest || dest + len > kMaxParcelSize) return BAD_VALUE;
    status_t err = growData(len);
    if (err != OK) return err;
    memcpy(mData + dest, parcel->mData + start, len);
    mDataPos = dest + len;
    if (mDataPos > mDataSize) mDataSize = mDataPos;

    for (size_t offset : parcel->mObjects) {
        if (offset < start || offset + sizeof(ObjectRecord) > start + len) continue;
        ObjectRecord record;
        memcpy(&record, parcel->mData + offset, sizeof(record));
        if (record.type == kRecordBinder && record.value >= 1 &&
            record.value <= parcel->mBinders.size()) {
            record.value = appendBinderRef(parcel->mBinders[record.value - 1]) + 1;
        } else if (record.type == kRecordFd && record.value < parcel->mFds.size()) {
            int fd = fcntl(parcel->mFds[record.value].fd, F_DUPFD_CLOEXEC, 0);
            if (fd < 0) return BAD_VALUE;
            record.value = appendFd(fd, true);
        } else {
            continue;
        }
        const size_t newOffset = dest + (offset - start);
        memcpy(mData + newOffset, &record, sizeof(record));
        registerObject(newOffset);
    }
    return OK;
}

void Parcel::freeData() {
    for (const FdEntry& entry : mFds) {
        if (entry.owned) close(entry.fd);
    }
    mFds.clear();
    mBinders.clear();
    mObjects.clear();
    mDataSize = 0;
    mDataPos = 0;
    mError = OK;
}

bool Parcel::hasFileDescriptors() const {
    return !mFds.empty();
}

size_t Parcel::objectsCount() const {
    return mObjects.size();
}

status_t Parcel::errorCheck() const {
    return mError;
}

void Parcel::setError(status_t err) {
    mError = err;
}

status_t Parcel::growData(size_t len) {
    const size_t end = mDataPos + len;
    if (end < mDataPos || end > kMaxParcelSize) return BAD_VALUE;
    if (end > mDataCapacity) {
        size_t capacity = std::max<size_t>(end + end / 2, 128);
        if (capacity > kMaxParcelSize) capacity = kMaxParcelSize;
        status_t err = setDataCapacity(capacity);
        if (err != OK) return err;
    }
    if (mDataPos > mDataSize) memset(mData + mDataSize, 0, mDataPos - mDataSize);
    return OK;
}

status_t Parcel::finishWrite(size_t len) {
    mDataPos += len;
    if (mDataPos > mDataSize) mDataSize = mDataPos;
    return OK;
}

void* Parcel::writeInplace(size_t len) {
    if (len > kMaxParcelSize) return nullptr;
    const size_t padded = pad4(len);
    if (growData(padded) != OK) return nullptr;
    uint8_t* data = mData + mDataPos;
    if (padded != len) memset(data + len, 0, padded - len);
    finishWrite(padded);
    return data;
}

status_t Parcel::write(const void* data, size_t len) {
    void* dest = writeInplace(len);
    if (dest == nullptr) return mError != OK ? mError : BAD_VALUE;
    if (len > 0) memcpy(dest, data, len);
    return OK;
}

status_t Parcel::writeUnpadded(const void* data, size_t len) {
    if (len > kMaxParcelSize) return BAD_VALUE;
    status_t err = growData(len);
    if (err != OK) return err;
    if (len > 0) memcpy(mData + mDataPos, data, len);
    return finishWrite(len);
}

template <typename T>
status_t Parcel::writeAligned(T val) {
    static_assert(sizeof(T) == 4 || sizeof(T) == 8, "aligned items are 4 or 8 bytes");
    status_t err = growData(sizeof(T));
    if (err != OK) return err;
    memcpy(mData + mDataPos, &val, sizeof(T));
    return finishWrite(sizeof(T));
}

template <typename T>
status_t Parcel::readAligned(T* pArg) const {
    if (mDataPos > mDataSize || sizeof(T) > mDataSize - mDataPos) return NOT_ENOUGH_DATA;
    memcpy(pArg, mData + mDataPos, sizeof(T));
    mDataPos += sizeof(T);
    return OK;
}

template <typename T>
T Parcel::readAligned() const {
    T result{};
    if (readAligned(&result) != OK) return T{};
    return result;
}

const void* Parcel::readInplace(size_t len) const {
    if (len > kMaxParcelSize) return nullptr;
    const size_t padded = pad4(len);
    if (mDataPos > mDataSize || padded > mDataSize - mDataPos) return nullptr;
    const void* data = mData + mDataPos;
    mDataPos += padded;
    return data;
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* data = readInplace(len);
    if (data == nullptr) return NOT_ENOUGH_DATA;
    if (len > 0) memcpy(outData, data, len);
    return OK;
}

status_t Parcel::writeInt32(int32_t val) {
    return writeAligned(val);
}
status_t Parcel::writeUint32(uint32_t val) {
    return writeAligned(val);
}
status_t Parcel::writeInt64(int64_t val) {
    return writeAligned(val);
}
status_t Parcel::writeUint64(uint64_t val) {
    return writeAligned(val);
}
status_t Parcel::writeFloat(float val) {
    return writeAligned(val);
}
status_t Parcel::writeDouble(double val) {
    return writeAligned(val);
}
status_t Parcel::writeBool(bool val) {
    return writeInt32(val ? 1 : 0);
}
status_t Parcel::writeChar(char16_t val) {
    return writeInt32(static_cast<int32_t>(val));
}
status_t Parcel::writeByte(int8_t val) {
    return writeInt32(static_cast<int32_t>(val));
}

int32_t Parcel::readInt32() const {
    return readAligned<int32_t>();
}
status_t Parcel::readInt32(int32_t* pArg) const {
    return readAligned(pArg);
}
uint32_t Parcel::readUint32() const {
    return readAligned<uint32_t>();
}
status_t Parcel::readUint32(uint32_t* pArg) const {
    return readAligned(pArg);
}
int64_t Parcel::readInt64() const {
    return readAligned<int64_t>();
}
status_t Parcel::readInt64(int64_t* pArg) const {
    return readAligned(pArg);
}
uint64_t Parcel::readUint64() const {
    return readAligned<uint64_t>();
}
status_t Parcel::readUint64(uint64_t* pArg) const {
    return readAligned(pArg);
}
float Parcel::readFloat() const {
    return readAligned<float>();
}
status_t Parcel::readFloat(float* pArg) const {
    return readAligned(pArg);
}
double Parcel::readDouble() const {
    return readAligned<double>();
}
status_t Parcel::readDouble(double* pArg) const {
    return readAligned(pArg);
}

bool Parcel::readBool() const {
    return readInt32() != 0;
}

status_t Parcel::readBool(bool* pArg) const {
    int32_t tmp = 0;
    status_t err = readInt32(&tmp);
    if (err == OK) *pArg = (tmp != 0);
    return err;
}

char16_t Parcel::readChar() const {
    return static_cast<char16_t>(readInt32());
}

status_t Parcel::readChar(char16_t* pArg) const {
    int32_t tmp = 0;
    status_t err = readInt32(&tmp);
    if (err == OK) *pArg = static_cast<char16_t>(tmp);
    return err;
}

int8_t Parcel::readByte() const {
    return static_cast<int8_t>(readInt32());
}

status_t Parcel::readByte(int8_t* pArg) const {
    int32_t tmp = 0;
    status_t err = readInt32(&tmp);
    if (err == OK) *pArg = static_cast<int8_t>(tmp);
    return err;
}

status_t Parcel::writeCString(const char* str) {
    return write(str, strlen(str) + 1);
}

const char* Parcel::readCString() const {
    if (mDataPos >= mDataSize) return nullptr;
    const char* str = reinterpret_cast<const char*>(mData + mDataPos);
    const void* end = memchr(str, 0, mDataSize - mDataPos);
    if (end == nullptr) return nullptr;
    const size_t len = static_cast<const char*>(end) - str;
    if (readInplace(len + 1) == nullptr) return nullptr;
    return str;
}

status_t Parcel::writeString8(const String8& str) {
    status_t err = writeInt32(static_cast<int32_t>(str.bytes()));
    if (err != OK) return err;
    return write(str.string(), str.bytes() + 1);
}

status_t Parcel::readString8(String8* pArg) const {
    int32_t size;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    if (size < 0) return size == -1 ? UNEXPECTED_NULL : BAD_VALUE;
    if (size == std::numeric_limits<int32_t>::max()) return BAD_VALUE;
    const auto* str = static_cast<const char*>(readInplace(static_cast<size_t>(size) + 1));
    if (str == nullptr) return NOT_ENOUGH_DATA;
    if (str[size] != '\0') return BAD_VALUE;
    pArg->setTo(str, static_cast<size_t>(size));
    return OK;
}

String8 Parcel::readString8() const {
    String8 result;
    if (readString8(&result) != OK) return String8();
    return result;
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    auto* data = static_cast<uint8_t*>(writeInplace((len + 1) * sizeof(char16_t)));
    if (data == nullptr) return mError != OK ? mError : BAD_VALUE;
    if (len > 0) memcpy(data, str, len * sizeof(char16_t));
    const char16_t terminator = 0;
    memcpy(data + len * sizeof(char16_t), &terminator, sizeof(terminator));
    return OK;
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const std::unique_ptr<String16>& str) {
    if (!str) return writeInt32(-1);
    return writeString16(*str);
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    *outLen = 0;
    int32_t size;
    if (readInt32(&size) != OK) return nullptr;
    if (size < 0 || size == std::numeric_limits<int32_t>::max()) return nullptr;
    const auto* units = static_cast<const uint8_t*>(
            readInplace((static_cast<size_t>(size) + 1) * sizeof(char16_t)));
    if (units == nullptr) return nullptr;
    char16_t terminator;
    memcpy(&terminator, units + static_cast<size_t>(size) * sizeof(char16_t), sizeof(char16_t));
    if (terminator != 0) return nullptr;
    *outLen = static_cast<size_t>(size);
    return reinterpret_cast<const char16_t*>(units);
}

// The distinct failures of a String16 read: NOT_ENOUGH_DATA, UNEXPECTED_NULL (-1) or BAD_VALUE.
static status_t readString16Units(const Parcel& parcel, const char16_t** units, size_t* len) {
    const size_t start = parcel.dataPosition();
    int32_t size;
    status_t err = parcel.readInt32(&size);
    if (err != OK) return err;
    if (size == -1) return UNEXPECTED_NULL;
    if (size < 0 || size == std::numeric_limits<int32_t>::max()) return BAD_VALUE;
    if ((static_cast<size_t>(size) + 1) * sizeof(char16_t) > parcel.dataAvail()) {
        parcel.setDataPosition(start);
        return NOT_ENOUGH_DATA;
    }
    parcel.setDataPosition(start);
    *units = parcel.readString16Inplace(len);
    return *units == nullptr ? BAD_VALUE : OK;
}

status_t Parcel::readString16(String16* pArg) const {
    const char16_t* units = nullptr;
    size_t len = 0;
    status_t err = readString16Units(*this, &units, &len);
    if (err != OK) {
        *pArg = String16();
        return err;
    }
    pArg->setTo(units, len);
    return OK;
}

status_t Parcel::readString16(std::unique_ptr<String16>* pArg) const {
    const char16_t* units = nullptr;
    size_t len = 0;
    status_t err = readString16Units(*this, &units, &len);
    if (err == UNEXPECTED_NULL) {
        pArg->reset();
        return OK;
    }
    if (err != OK) return err;
    pArg->reset(new String16(units, len));
    return OK;
}

String16 Parcel::readString16() const {
    String16 result;
    if (readString16(&result) != OK) return String16();
    return result;
}

status_t Parcel::writeUtf8AsUtf16(const std::string& str) {
    std::u16string utf16;
    if (!utf8ToUtf16(str, &utf16)) return BAD_VALUE;
    return writeString16(utf16.data(), utf16.size());
}

status_t Parcel::writeUtf8AsUtf16(const std::unique_ptr<std::string>& str) {
    if (!str) return writeInt32(-1);
    return writeUtf8AsUtf16(*str);
}

status_t Parcel::readUtf8FromUtf16(std::string* str) const {
    const char16_t* units = nullptr;
    size_t len = 0;
    status_t err = readString16Units(*this, &units, &len);
    if (err != OK) return err;
    return utf16ToUtf8(units, len, str);
}

status_t Parcel::readUtf8FromUtf16(std::unique_ptr<std::string>* str) const {
    const char16_t* units = nullptr;
    size_t len = 0;
    status_t err = readString16Units(*this, &units, &len);
    if (err == UNEXPECTED_NULL) {
        str->reset();
        return OK;
    }
    if (err != OK) return err;
    auto value = std::make_unique<std::string>();
    err = utf16ToUtf8(units, len, value.get());
    if (err == OK) *str = std::move(value);
    return err;
}

status_t Parcel::writeInt32Array(size_t len, const int32_t* val) {
    if (val == nullptr) return writeInt32(-1);
    if (len > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    return write(val, len * sizeof(int32_t));
}

status_t Parcel::writeByteArray(size_t len, const uint8_t* val) {
    if (val == nullptr) return writeInt32(-1);
    if (len > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    return write(val, len);
}

status_t Parcel::readVectorSize(int32_t* size, size_t minElementSize) const {
    status_t err = readInt32(size);
    if (err != OK) return err;
    if (*size == -1) return UNEXPECTED_NULL;
    if (*size < 0) return BAD_VALUE;
    if (static_cast<size_t>(*size) * minElementSize > dataAvail()) return NOT_ENOUGH_DATA;
    return OK;
}

template <typename T, typename W>
status_t Parcel::writeVector(const std::vector<T>& val, W writeOne) {
    if (val.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(val.size()));
    for (size_t i = 0; err == OK && i < val.size(); ++i) err = writeOne(this, val[i]);
    return err;
}

template <typename T, typename W>
status_t Parcel::writeNullableVector(const std::unique_ptr<std::vector<T>>& val, W writeOne) {
    if (!val) return writeInt32(-1);
    return writeVector(*val, writeOne);
}

template <typename T, typename R>
status_t Parcel::readVector(std::vector<T>* val, size_t minElementSize, R readOne) const {
    int32_t size;
    status_t err = readVectorSize(&size, minElementSize);
    if (err != OK) return err;
    std::vector<T> result(static_cast<size_t>(size));
    for (size_t i = 0; i < result.size(); ++i) {
        T item{};
        err = readOne(this, &item);
        if (err != OK) return err;
        result[i] = std::move(item);
    }
    *val = std::move(result);
    return OK;
}

template <typename T, typename R>
status_t Parcel::readNullableVector(std::unique_ptr<std::vector<T>>* val, size_t minElementSize,
                                    R readOne) const {
    const size_t start = dataPosition();
    int32_t size;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    if (size == -1) {
        val->reset();
        return OK;
    }
    setDataPosition(start);
    auto result = std::make_unique<std::vector<T>>();
    err = readVector(result.get(), minElementSize, readOne);
    if (err == OK) *val = std::move(result);
    return err;
}

namespace {

template <typename B>
status_t writeBytes(Parcel* parcel, const std::vector<B>& val) {
    if (val.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = parcel->writeInt32(static_cast<int32_t>(val.size()));
    if (err != OK) return err;
    return parcel->write(val.data(), val.size());
}

template <typename B>
status_t readBytes(const Parcel* parcel, std::vector<B>* val) {
    int32_t size;
    status_t err = parcel->readInt32(&size);
    if (err != OK) return err;
    if (size == -1) return UNEXPECTED_NULL;
    if (size < 0) return BAD_VALUE;
    const void* data = parcel->readInplace(static_cast<size_t>(size));
    if (data == nullptr) return NOT_ENOUGH_DATA;
    const auto* bytes = static_cast<const B*>(data);
    val->assign(bytes, bytes + size);
    return OK;
}

template <typename B>
status_t readNullableBytes(const Parcel* parcel, std::unique_ptr<std::vector<B>>* val) {
    const size_t start = parcel->dataPosition();
    int32_t size;
    status_t err = parcel->readInt32(&size);
    if (err != OK) return err;
    if (size == -1) {
        val->reset();
        return OK;
    }
    parcel->setDataPosition(start);
    auto result = std::make_unique<std::vector<B>>();
    err = readBytes(parcel, result.get());
    if (err == OK) *val = std::move(result);
    return err;
}

}  // namespace

status_t Parcel::writeByteVector(const std::vector<int8_t>& val) {
    return writeBytes(this, val);
}
status_t Parcel::writeByteVector(const std::unique_ptr<std::vector<int8_t>>& val) {
    return val ? writeBytes(this, *val) : writeInt32(-1);
}
status_t Parcel::writeByteVector(const std::vector<uint8_t>& val) {
    return writeBytes(this, val);
}
status_t Parcel::writeByteVector(const std::unique_ptr<std::vector<uint8_t>>& val) {
    return val ? writeBytes(this, *val) : writeInt32(-1);
}
status_t Parcel::readByteVector(std::vector<int8_t>* val) const {
    return readBytes(this, val);
}
status_t Parcel::readByteVector(std::unique_ptr<std::vector<int8_t>>* val) const {
    return readNullableBytes(this, val);
}
status_t Parcel::readByteVector(std::vector<uint8_t>* val) const {
    return readBytes(this, val);
}
status_t Parcel::readByteVector(std::unique_ptr<std::vector<uint8_t>>* val) const {
    return readNullableBytes(this, val);
}

#define PARCEL_VECTOR_METHODS(NAME, TYPE, MIN_SIZE, WRITE_ONE, READ_ONE)                           \
    status_t Parcel::write##NAME##Vector(const std::vector<TYPE>& val) {                           \
        return writeVector(val, [](Parcel* p, const TYPE& v) { return p->WRITE_ONE(v); });         \
    }                                                                                              \
    status_t Parcel::write##NAME##Vector(const std::unique_ptr<std::vector<TYPE>>& val) {          \
        return writeNullableVector(val, [](Parcel* p, const TYPE& v) { return p->WRITE_ONE(v); }); \
    }                                                                                              \
    status_t Parcel::read##NAME##Vector(std::vector<TYPE>* val) const {                            \
        return readVector(val, MIN_SIZE, [](const Parcel* p, TYPE* v) { return p->READ_ONE(v); }); \
    }                                                                                              \
    status_t Parcel::read##NAME##Vector(std::unique_ptr<std::vector<TYPE>>* val) const {           \
        return readNullableVector(val, MIN_SIZE,                                                   \
                                  [](const Parcel* p, TYPE* v) { return p->READ_ONE(v); });        \
    }

PARCEL_VECTOR_METHODS(Int32, int32_t, 4, writeInt32, readInt32)
PARCEL_VECTOR_METHODS(Int64, int64_t, 8, writeInt64, readInt64)
PARCEL_VECTOR_METHODS(Float, float, 4, writeFloat, readFloat)
PARCEL_VECTOR_METHODS(Double, double, 8, writeDouble, readDouble)
PARCEL_VECTOR_METHODS(Char, char16_t, 4, writeChar, readChar)
PARCEL_VECTOR_METHODS(StrongBinder, sp<IBinder>, 28, writeStrongBinder, readNullableStrongBinder)

#undef PARCEL_VECTOR_METHODS

status_t Parcel::writeBoolVector(const std::vector<bool>& val) {
    if (val.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(val.size()));
    for (size_t i = 0; err == OK && i < val.size(); ++i) err = writeBool(val[i]);
    return err;
}

status_t Parcel::writeBoolVector(const std::unique_ptr<std::vector<bool>>& val) {
    return val ? writeBoolVector(*val) : writeInt32(-1);
}

status_t Parcel::readBoolVector(std::vector<bool>* val) const {
    int32_t size;
    status_t err = readVectorSize(&size, 4);
    if (err != OK) return err;
    std::vector<bool> result(static_cast<size_t>(size));
    for (size_t i = 0; i < result.size(); ++i) {
        bool item;
        err = readBool(&item);
        if (err != OK) return err;
        result[i] = item;
    }
    *val = std::move(result);
    return OK;
}

status_t Parcel::readBoolVector(std::unique_ptr<std::vector<bool>>* val) const {
    const size_t start = dataPosition();
    int32_t size;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    if (size == -1) {
        val->reset();
        return OK;
    }
    setDataPosition(start);
    auto result = std::make_unique<std::vector<bool>>();
    err = readBoolVector(result.get());
    if (err == OK) *val = std::move(result);
    return err;
}

status_t Parcel::writeString16Vector(const std::vector<String16>& val) {
    return writeVector(val, [](Parcel* p, const String16& v) { return p->writeString16(v); });
}

status_t Parcel::writeString16Vector(
        const std::unique_ptr<std::vector<std::unique_ptr<String16>>>& val) {
    return writeNullableVector(
            val, [](Parcel* p, const std::unique_ptr<String16>& v) { return p->writeString16(v); });
}

status_t Parcel::readString16Vector(std::vector<String16>* val) const {
    return readVector(val, 4, [](const Parcel* p, String16* v) { return p->readString16(v); });
}

status_t Parcel::readString16Vector(
        std::unique_ptr<std::vector<std::unique_ptr<String16>>>* val) const {
    return readNullableVector(val, 4, [](const Parcel* p, std::unique_ptr<String16>* v) {
        return p->readString16(v);
    });
}

status_t Parcel::writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& val) {
    return writeVector(val, [](Parcel* p, const std::string& v) { return p->writeUtf8AsUtf16(v); });
}

status_t Parcel::writeUtf8VectorAsUtf16Vector(
        const std::unique_ptr<std::vector<std::unique_ptr<std::string>>>& val) {
    return writeNullableVector(val, [](Parcel* p, const std::unique_ptr<std::string>& v) {
        return p->writeUtf8AsUtf16(v);
    });
}

status_t Parcel::readUtf8VectorFromUtf16Vector(std::vector<std::string>* val) const {
    return readVector(val, 4,
                      [](const Parcel* p, std::string* v) { return p->readUtf8FromUtf16(v); });
}

status_t Parcel::readUtf8VectorFromUtf16Vector(
        std::unique_ptr<std::vector<std::unique_ptr<std::string>>>* val) const {
    return readNullableVector(val, 4, [](const Parcel* p, std::unique_ptr<std::string>* v) {
        return p->readUtf8FromUtf16(v);
    });
}

status_t Parcel::writeUniqueFileDescriptorVector(const std::vector<base::unique_fd>& val) {
    return writeVector(val, [](Parcel* p, const base::unique_fd& v) {
        return p->writeUniqueFileDescriptor(v);
    });
}

status_t Parcel::writeUniqueFileDescriptorVector(
        const std::unique_ptr<std::vector<base::unique_fd>>& val) {
    return val ? writeUniqueFileDescriptorVector(*val) : writeInt32(-1);
}

status_t Parcel::readUniqueFileDescriptorVector(std::vector<base::unique_fd>* val) const {
    int32_t size;
    status_t err = readVectorSize(&size, sizeof(ObjectRecord));
    if (err != OK) return err;
    std::vector<base::unique_fd> result(static_cast<size_t>(size));
    for (auto& fd : result) {
        err = readUniqueFileDescriptor(&fd);
        if (err != OK) return err;
    }
    *val = std::move(result);
    return OK;
}

status_t Parcel::readUniqueFileDescriptorVector(
        std::unique_ptr<std::vector<base::unique_fd>>* val) const {
    const size_t start = dataPosition();
    int32_t size;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    if (size == -1) {
        val->reset();
        return OK;
    }
    setDataPosition(start);
    auto result = std::make_unique<std::vector<base::unique_fd>>();
    err = readUniqueFileDescriptorVector(result.get());
    if (err == OK) *val = std::move(result);
    return err;
}

void Parcel::registerObject(size_t offset) {
    auto it = std::lower_bound(mObjects.begin(), mObjects.end(), offset);
    if (it != mObjects.end() && *it == offset) return;
    mObjects.insert(it, offset);
}

bool Parcel::isObjectAt(size_t offset) const {
    return std::binary_search(mObjects.begin(), mObjects.end(), offset);
}

void Parcel::dropObjectsFrom(size_t size) {
    while (!mObjects.empty() && mObjects.back() + sizeof(ObjectRecord) > size) mObjects.pop_back();
}

size_t Parcel::appendBinderRef(const sp<IBinder>& binder) {
    mBinders.push_back(binder);
    return mBinders.size() - 1;
}

size_t Parcel::appendFd(int fd, bool owned) {
    mFds.push_back(FdEntry{fd, owned});
    return mFds.size() - 1;
}

status_t Parcel::writeObjectRecord(uint32_t type, uint64_t value, bool registerRecord) {
    const size_t offset = mDataPos;
    ObjectRecord record{type, kObjectFlags, value, 0};
    void* dest = writeInplace(sizeof(record));
    if (dest == nullptr) return mError != OK ? mError : BAD_VALUE;
    memcpy(dest, &record, sizeof(record));
    if (registerRecord) registerObject(offset);
    return OK;
}

status_t Parcel::readObjectRecord(uint32_t* type, uint64_t* value, bool* registered) const {
    const size_t offset = mDataPos;
    if (offset > mDataSize || sizeof(ObjectRecord) > mDataSize - offset) return NOT_ENOUGH_DATA;
    ObjectRecord record;
    memcpy(&record, mData + offset, sizeof(record));
    *type = record.type;
    *value = record.value;
    *registered = isObjectAt(offset);
    mDataPos += sizeof(record);
    return OK;
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    status_t err;
    if (val == nullptr) {
        err = writeObjectRecord(kRecordBinder, 0, false);
        if (err != OK) return err;
        return writeInt32(0);
    }
    const size_t index = appendBinderRef(val);
    err = writeObjectRecord(kRecordBinder, index + 1, true);
    if (err != OK) {
        mBinders.pop_back();
        return err;
    }
    return writeInt32(kStabilitySystem);
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const {
    uint32_t type;
    uint64_t value;
    bool registered;
    status_t err = readObjectRecord(&type, &value, &registered);
    if (err != OK) return err;
    if (type != kRecordBinder) return BAD_TYPE;
    sp<IBinder> binder;
    if (registered) {
        if (value == 0 || value > mBinders.size()) return BAD_TYPE;
        binder = mBinders[value - 1];
    } else if (value != 0) {
        return BAD_TYPE;
    }
    int32_t stability;
    err = readInt32(&stability);
    if (err != OK) return err;
    *val = std::move(binder);
    return OK;
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    status_t err = readNullableStrongBinder(val);
    if (err == OK && *val == nullptr) err = UNEXPECTED_NULL;
    return err;
}

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> val;
    readNullableStrongBinder(&val);
    return val;
}

status_t Parcel::writeParcelable(const Parcelable& parcelable) {
    status_t err = writeInt32(1);
    if (err != OK) return err;
    return parcelable.writeToParcel(this);
}

status_t Parcel::readParcelable(Parcelable* parcelable) const {
    int32_t present;
    status_t err = readInt32(&present);
    if (err != OK) return err;
    if (present == 0) return UNEXPECTED_NULL;
    return parcelable->readFromParcel(this);
}

status_t Parcel::writeFileDescriptor(int fd, bool takeOwnership) {
    if (fd < 0) return BAD_VALUE;
    const size_t index = appendFd(fd, takeOwnership);
    status_t err = writeObjectRecord(kRecordFd, index, true);
    if (err != OK) {
        mFds.pop_back();
        if (takeOwnership) close(fd);
    }
    return err;
}

status_t Parcel::writeDupFileDescriptor(int fd) {
    const int dupFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) return -errno;
    return writeFileDescriptor(dupFd, true);
}

status_t Parcel::writeUniqueFileDescriptor(const base::unique_fd& fd) {
    return writeDupFileDescriptor(fd.get());
}

int Parcel::readFileDescriptor() const {
    uint32_t type;
    uint64_t value;
    bool registered;
    status_t err = readObjectRecord(&type, &value, &registered);
    if (err != OK) return err;
    if (type != kRecordFd || !registered || value >= mFds.size()) return BAD_TYPE;
    return mFds[value].fd;
}

status_t Parcel::readUniqueFileDescriptor(base::unique_fd* val) const {
    const int fd = readFileDescriptor();
    if (fd < 0) return fd;
    const int dupFd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (dupFd < 0) return -errno;
    val->reset(dupFd);
    return OK;
}

status_t Parcel::writeNoException() {
    return binder::Status::ok().writeToParcel(this);
}

int32_t Parcel::readExceptionCode() const {
    binder::Status status;
    status.readFromParcel(*this);
    return status.exceptionCode();
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    const IPCThreadState* threadState = IPCThreadState::self();
    status_t err = writeInt32(threadState->getStrictModePolicy() | kStrictModePenaltyGather);
    if (err != OK) return err;
    err = writeInt32(threadState->shouldPropagateWorkSource()
                             ? static_cast<int32_t>(threadState->getCallingWorkSourceUid())
                             : IPCThreadState::kUnsetWorkSource);
    if (err != OK) return err;
    err = writeInt32(kInterfaceHeader);
    if (err != OK) return err;
    return writeString16(interface);
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* threadState) const {
    return enforceInterface(interface.string(), interface.size(), threadState);
}

bool Parcel::enforceInterface(const char16_t* interface, size_t len,
                              IPCThreadState* threadState) const {
    if (threadState == nullptr) threadState = IPCThreadState::self();
    int32_t strictPolicy;
    int32_t workSource;
    int32_t header;
    if (readInt32(&strictPolicy) != OK || readInt32(&workSource) != OK ||
        readInt32(&header) != OK) {
        return false;
    }
    if ((threadState->getLastTransactionBinderFlags() & IBinder::FLAG_ONEWAY) != 0) {
        threadState->setStrictModePolicy(0);
    } else {
        threadState->setStrictModePolicy(strictPolicy & ~kStrictModePenaltyGather);
    }
    threadState->setCallingWorkSourceUidWithoutPropagation(static_cast<uid_t>(workSource));
    if (header != kInterfaceHeader) {
        ALOGW("Parcel: expected interface header 0x%x, found 0x%x", kInterfaceHeader, header);
        return false;
    }
    size_t parcelLen = 0;
    const char16_t* parcelInterface = readString16Inplace(&parcelLen);
    if (parcelInterface != nullptr && parcelLen == len &&
        (len == 0 || memcmp(parcelInterface, interface, len * sizeof(char16_t)) == 0)) {
        return true;
    }
    return false;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return enforceInterface(binder->getInterfaceDescriptor());
}

}  // namespace android
