#pragma once

#include <android-base/unique_fd.h>
#include <binder/Parcelable.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/StrongPointer.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Halo::OS {
class BinderConnection;
}

namespace android {

class IBinder;
class IPCThreadState;
class Parcelable;

// The data of one transaction or reply, laid out as Android lays it out: little-endian, every
// item padded to 4 bytes; a String16 is its length in UTF-16 units, the units, a NUL unit and
// padding; a null string or vector has length -1; bool is a 32-bit word. Binder objects and file
// descriptors are object records inside the data; only records the parcel itself wrote (or that
// arrived as records) are read back as objects.
//
// Reads fail with NOT_ENOUGH_DATA past the end, UNEXPECTED_NULL for a null where a value is
// required, BAD_TYPE for a record that is not the expected object and BAD_VALUE for malformed
// contents. A Parcel is used by one thread at a time.
class Parcel {
public:
    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    const uint8_t* data() const;
    size_t dataSize() const;
    size_t dataAvail() const;
    size_t dataPosition() const;
    size_t dataCapacity() const;

    // Truncates or extends (with zeros) the data; objects beyond the new end are forgotten.
    status_t setDataSize(size_t size);
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);
    // Replaces the contents with a copy of `buffer` (plain data, no objects); position 0.
    status_t setData(const uint8_t* buffer, size_t len);
    // Appends `len` bytes of `parcel` from `start`, objects included (file descriptors are
    // duplicated). BAD_VALUE when the range is outside `parcel`.
    status_t appendFrom(const Parcel* parcel, size_t start, size_t len);
    // Empties the parcel, dropping its binders and closing the descriptors it owns.
    void freeData();

    bool hasFileDescriptors() const;
    size_t objectsCount() const;
    status_t errorCheck() const;
    void setError(status_t err);

    // Writes the interface token: strict-mode policy word, work-source word, header 'SYST' and
    // the descriptor as String16.
    status_t writeInterfaceToken(const String16& interface);
    // Reads an interface token and tells whether it names `interface`.
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool enforceInterface(const char16_t* interface, size_t len,
                          IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder* binder) const;

    status_t write(const void* data, size_t len);
    // Reserves `len` bytes (padded, padding zeroed) at the position; null on failure.
    void* writeInplace(size_t len);
    status_t writeUnpadded(const void* data, size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeFloat(float val);
    status_t writeDouble(double val);
    status_t writeBool(bool val);
    status_t writeChar(char16_t val);
    status_t writeByte(int8_t val);
    status_t writeCString(const char* str);
    status_t writeString8(const String8& str);
    status_t writeString16(const String16& str);
    status_t writeString16(const std::unique_ptr<String16>& str);
    // A null `str` writes a null string.
    status_t writeString16(const char16_t* str, size_t len);
    // BAD_VALUE when `str` is not valid UTF-8.
    status_t writeUtf8AsUtf16(const std::string& str);
    status_t writeUtf8AsUtf16(const std::unique_ptr<std::string>& str);
    status_t writeInt32Array(size_t len, const int32_t* val);
    status_t writeByteArray(size_t len, const uint8_t* val);

    status_t writeByteVector(const std::vector<int8_t>& val);
    status_t writeByteVector(const std::unique_ptr<std::vector<int8_t>>& val);
    status_t writeByteVector(const std::vector<uint8_t>& val);
    status_t writeByteVector(const std::unique_ptr<std::vector<uint8_t>>& val);
    status_t writeInt32Vector(const std::vector<int32_t>& val);
    status_t writeInt32Vector(const std::unique_ptr<std::vector<int32_t>>& val);
    status_t writeInt64Vector(const std::vector<int64_t>& val);
    status_t writeInt64Vector(const std::unique_ptr<std::vector<int64_t>>& val);
    status_t writeFloatVector(const std::vector<float>& val);
    status_t writeFloatVector(const std::unique_ptr<std::vector<float>>& val);
    status_t writeDoubleVector(const std::vector<double>& val);
    status_t writeDoubleVector(const std::unique_ptr<std::vector<double>>& val);
    status_t writeBoolVector(const std::vector<bool>& val);
    status_t writeBoolVector(const std::unique_ptr<std::vector<bool>>& val);
    status_t writeCharVector(const std::vector<char16_t>& val);
    status_t writeCharVector(const std::unique_ptr<std::vector<char16_t>>& val);
    status_t writeString16Vector(const std::vector<String16>& val);
    status_t writeString16Vector(
            const std::unique_ptr<std::vector<std::unique_ptr<String16>>>& val);
    status_t writeUtf8VectorAsUtf16Vector(const std::vector<std::string>& val);
    status_t writeUtf8VectorAsUtf16Vector(
            const std::unique_ptr<std::vector<std::unique_ptr<std::string>>>& val);
    status_t writeStrongBinderVector(const std::vector<sp<IBinder>>& val);
    status_t writeStrongBinderVector(const std::unique_ptr<std::vector<sp<IBinder>>>& val);

    // Writes a binder object record (a null binder is a record with no object).
    status_t writeStrongBinder(const sp<IBinder>& val);

    // Writes a present flag (1) and the parcelable; a null unique_ptr writes 0.
    status_t writeParcelable(const Parcelable& parcelable);
    template <typename T>
    status_t writeNullableParcelable(const std::unique_ptr<T>& parcelable);
    // The element count, then each element as writeParcelable writes it.
    template <typename T>
    status_t writeParcelableVector(const std::vector<T>& val);

    // Writes a descriptor record. With `takeOwnership` the parcel closes `fd` when it is
    // destroyed; otherwise `fd` must stay open until the parcel has been sent.
    status_t writeFileDescriptor(int fd, bool takeOwnership = false);
    // Writes a duplicate of `fd` that the parcel owns.
    status_t writeDupFileDescriptor(int fd);
    status_t writeUniqueFileDescriptor(const base::unique_fd& fd);
    status_t writeUniqueFileDescriptorVector(const std::vector<base::unique_fd>& val);
    status_t writeUniqueFileDescriptorVector(
            const std::unique_ptr<std::vector<base::unique_fd>>& val);

    // Writes the "no exception" reply header (0).
    status_t writeNoException();

    // The size word of an out-vector (the server sizes its vector from it); -1 for null.
    template <typename T>
    status_t writeVectorSize(const std::vector<T>& val);
    template <typename T>
    status_t writeVectorSize(const std::unique_ptr<std::vector<T>>& val);
    // Reads an out-vector's size word and resizes `val`. UNEXPECTED_NULL for -1 (non-nullable),
    // BAD_VALUE for a size no reply could carry.
    template <typename T>
    status_t resizeOutVector(std::vector<T>* val) const;
    template <typename T>
    status_t resizeOutVector(std::unique_ptr<std::vector<T>>* val) const;

    status_t read(void* outData, size_t len) const;
    // The next `len` bytes (position advances by the padded length); null past the end.
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readUint32(uint32_t* pArg) const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readUint64(uint64_t* pArg) const;
    float readFloat() const;
    status_t readFloat(float* pArg) const;
    double readDouble() const;
    status_t readDouble(double* pArg) const;
    bool readBool() const;
    status_t readBool(bool* pArg) const;
    char16_t readChar() const;
    status_t readChar(char16_t* pArg) const;
    int8_t readByte() const;
    status_t readByte(int8_t* pArg) const;
    const char* readCString() const;
    String8 readString8() const;
    status_t readString8(String8* pArg) const;
    // An empty string on failure.
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    status_t readString16(std::unique_ptr<String16>* pArg) const;
    // The units of the next String16 (length in `outLen`); null for a null string or on failure.
    const char16_t* readString16Inplace(size_t* outLen) const;
    status_t readUtf8FromUtf16(std::string* str) const;
    status_t readUtf8FromUtf16(std::unique_ptr<std::string>* str) const;

    status_t readByteVector(std::vector<int8_t>* val) const;
    status_t readByteVector(std::unique_ptr<std::vector<int8_t>>* val) const;
    status_t readByteVector(std::vector<uint8_t>* val) const;
    status_t readByteVector(std::unique_ptr<std::vector<uint8_t>>* val) const;
    status_t readInt32Vector(std::vector<int32_t>* val) const;
    status_t readInt32Vector(std::unique_ptr<std::vector<int32_t>>* val) const;
    status_t readInt64Vector(std::vector<int64_t>* val) const;
    status_t readInt64Vector(std::unique_ptr<std::vector<int64_t>>* val) const;
    status_t readFloatVector(std::vector<float>* val) const;
    status_t readFloatVector(std::unique_ptr<std::vector<float>>* val) const;
    status_t readDoubleVector(std::vector<double>* val) const;
    status_t readDoubleVector(std::unique_ptr<std::vector<double>>* val) const;
    status_t readBoolVector(std::vector<bool>* val) const;
    status_t readBoolVector(std::unique_ptr<std::vector<bool>>* val) const;
    status_t readCharVector(std::vector<char16_t>* val) const;
    status_t readCharVector(std::unique_ptr<std::vector<char16_t>>* val) const;
    status_t readString16Vector(std::vector<String16>* val) const;
    status_t readString16Vector(std::unique_ptr<std::vector<std::unique_ptr<String16>>>* val) const;
    status_t readUtf8VectorFromUtf16Vector(std::vector<std::string>* val) const;
    status_t readUtf8VectorFromUtf16Vector(
            std::unique_ptr<std::vector<std::unique_ptr<std::string>>>* val) const;
    status_t readStrongBinderVector(std::vector<sp<IBinder>>* val) const;
    status_t readStrongBinderVector(std::unique_ptr<std::vector<sp<IBinder>>>* val) const;

    // Null on failure or for a null record.
    sp<IBinder> readStrongBinder() const;
    // UNEXPECTED_NULL for a null record.
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;
    // Reads a binder and casts it to the interface; UNKNOWN_ERROR when the cast fails.
    template <typename T>
    status_t readStrongBinder(sp<T>* val) const;
    template <typename T>
    status_t readNullableStrongBinder(sp<T>* val) const;

    // Reads a present flag and, when it is set, the parcelable (UNEXPECTED_NULL when not).
    status_t readParcelable(Parcelable* parcelable) const;
    template <typename T>
    status_t readParcelable(std::unique_ptr<T>* parcelable) const;
    // What writeParcelableVector wrote. UNEXPECTED_NULL for a null vector, NOT_ENOUGH_DATA for
    // a count that the rest of the parcel cannot hold; `val` is only replaced on success.
    template <typename T>
    status_t readParcelableVector(std::vector<T>* val) const;

    // The descriptor of the next record, owned by the parcel (valid while it lives), or a
    // negative status.
    int readFileDescriptor() const;
    // A duplicate of the next descriptor, owned by the caller.
    status_t readUniqueFileDescriptor(base::unique_fd* val) const;
    status_t readUniqueFileDescriptorVector(std::vector<base::unique_fd>* val) const;
    status_t readUniqueFileDescriptorVector(
            std::unique_ptr<std::vector<base::unique_fd>>* val) const;

    // Reads the reply header that writeNoException wrote (0 when none was written).
    int32_t readExceptionCode() const;

private:
    friend class Halo::OS::BinderConnection;

    // No reply can carry more elements than a frame has bytes.
    static constexpr int32_t kMaxOutVectorSize = 1 << 20;

    enum class ObjectKind { Binder, FileDescriptor };

    struct FdEntry {
        int fd;
        bool owned;
    };

    status_t growData(size_t len);
    status_t finishWrite(size_t len);
    template <typename T>
    status_t writeAligned(T val);
    template <typename T>
    status_t readAligned(T* pArg) const;
    template <typename T>
    T readAligned() const;
    status_t writeObjectRecord(uint32_t type, uint64_t value, bool registerObject);
    // Finds the record at the position (registered object or a null binder record) and
    // advances past it.
    status_t readObjectRecord(uint32_t* type, uint64_t* value, bool* registered) const;
    void registerObject(size_t offset);
    bool isObjectAt(size_t offset) const;
    void dropObjectsFrom(size_t size);
    status_t readVectorSize(int32_t* size, size_t minElementSize) const;

    template <typename T, typename W>
    status_t writeVector(const std::vector<T>& val, W writeOne);
    template <typename T, typename W>
    status_t writeNullableVector(const std::unique_ptr<std::vector<T>>& val, W writeOne);
    template <typename T, typename R>
    status_t readVector(std::vector<T>* val, size_t minElementSize, R readOne) const;
    template <typename T, typename R>
    status_t readNullableVector(std::unique_ptr<std::vector<T>>* val, size_t minElementSize,
                                R readOne) const;

    // For the runtime: the binder or descriptor behind a record, and adding received objects.
    size_t appendBinderRef(const sp<IBinder>& binder);
    size_t appendFd(int fd, bool owned);

    uint8_t* mData;
    size_t mDataSize;
    size_t mDataCapacity;
    mutable size_t mDataPos;
    status_t mError;
    std::vector<size_t> mObjects;  // sorted offsets of registered records
    std::vector<sp<IBinder>> mBinders;
    std::vector<FdEntry> mFds;
};

template <typename T>
status_t Parcel::writeVectorSize(const std::vector<T>& val) {
    if (val.size() > static_cast<size_t>(INT32_MAX)) return BAD_VALUE;
    return writeInt32(static_cast<int32_t>(val.size()));
}

template <typename T>
status_t Parcel::writeVectorSize(const std::unique_ptr<std::vector<T>>& val) {
    if (!val) return writeInt32(-1);
    return writeVectorSize(*val);
}

template <typename T>
status_t Parcel::resizeOutVector(std::vector<T>* val) const {
    int32_t size;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    if (size < 0) return UNEXPECTED_NULL;
    if (size > kMaxOutVectorSize) return BAD_VALUE;
    val->resize(static_cast<size_t>(size));
    return OK;
}

template <typename T>
status_t Parcel::resizeOutVector(std::unique_ptr<std::vector<T>>* val) const {
    int32_t size;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    val->reset();
    if (size > kMaxOutVectorSize) return BAD_VALUE;
    if (size >= 0) val->reset(new std::vector<T>(static_cast<size_t>(size)));
    return OK;
}

template <typename T>
status_t Parcel::writeNullableParcelable(const std::unique_ptr<T>& parcelable) {
    if (!parcelable) return writeInt32(0);
    return writeParcelable(*parcelable);
}

template <typename T>
status_t Parcel::readStrongBinder(sp<T>* val) const {
    sp<IBinder> tmp;
    status_t ret = readStrongBinder(&tmp);
    if (ret == OK) {
        *val = T::asInterface(tmp);
        if (val->get() == nullptr && tmp.get() != nullptr) ret = UNKNOWN_ERROR;
    }
    return ret;
}

template <typename T>
status_t Parcel::readNullableStrongBinder(sp<T>* val) const {
    sp<IBinder> tmp;
    status_t ret = readNullableStrongBinder(&tmp);
    if (ret == OK) {
        *val = T::asInterface(tmp);
        if (val->get() == nullptr && tmp.get() != nullptr) ret = UNKNOWN_ERROR;
    }
    return ret;
}

template <typename T>
status_t Parcel::readParcelable(std::unique_ptr<T>* parcelable) const {
    const size_t start = dataPosition();
    int32_t present;
    status_t status = readInt32(&present);
    parcelable->reset();
    if (status != OK || present == 0) return status;
    setDataPosition(start);
    parcelable->reset(new T());
    status = readParcelable(parcelable->get());
    if (status != OK) parcelable->reset();
    return status;
}

template <typename T>
status_t Parcel::writeParcelableVector(const std::vector<T>& val) {
    status_t err = writeVectorSize(val);
    for (size_t i = 0; err == OK && i < val.size(); ++i) err = writeParcelable(val[i]);
    return err;
}

template <typename T>
status_t Parcel::readParcelableVector(std::vector<T>* val) const {
    int32_t size;
    // Each element takes at least its present flag.
    status_t err = readVectorSize(&size, sizeof(int32_t));
    if (err != OK) return err;
    std::vector<T> result(static_cast<size_t>(size));
    for (T& item : result) {
        err = readParcelable(&item);
        if (err != OK) return err;
    }
    *val = std::move(result);
    return OK;
}

}  // namespace android
