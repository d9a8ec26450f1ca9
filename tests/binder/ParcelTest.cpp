#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace {

using android::BAD_TYPE;
using android::BAD_VALUE;
using android::NOT_ENOUGH_DATA;
using android::OK;
using android::Parcel;
using android::sp;
using android::String16;
using android::UNEXPECTED_NULL;
using android::binder::Status;
using Bytes = std::vector<uint8_t>;

Bytes bytesOf(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

// Little-endian words, for writing expected layouts compactly.
Bytes le32(std::initializer_list<uint32_t> words) {
    Bytes out;
    for (uint32_t w : words) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(w >> (8 * i)));
    }
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

TEST(BinderParcelLayoutTest, InterfaceTokenAndStringsAreByteExact) {
    Parcel token;
    ASSERT_EQ(OK, token.writeInterfaceToken(String16("ab.C")));
    EXPECT_EQ(concat({le32({0x80000000u, 0xffffffffu, 0x53595354u, 4}),
                      {'a', 0, 'b', 0, '.', 0, 'C', 0, 0, 0, 0, 0}}),
              bytesOf(token));

    Parcel strings;
    ASSERT_EQ(OK, strings.writeString16(String16("")));
    ASSERT_EQ(OK, strings.writeString16(String16("abc")));
    ASSERT_EQ(OK, strings.writeString16(String16("ab")));
    const char16_t withNul[] = {u'a', 0, u'b'};
    ASSERT_EQ(OK, strings.writeString16(String16(withNul, 3)));
    ASSERT_EQ(OK, strings.writeString16(String16(u"\U0001F600")));
    ASSERT_EQ(OK, strings.writeString16(std::unique_ptr<String16>()));
    ASSERT_EQ(OK, strings.writeUtf8AsUtf16("\xc3\xa9\xf0\x9f\x98\x80"));  // é, U+1F600
    EXPECT_EQ(concat({le32({0, 0}),
                      le32({3}),
                      {'a', 0, 'b', 0, 'c', 0, 0, 0},
                      le32({2}),
                      {'a', 0, 'b', 0, 0, 0, 0, 0},
                      le32({3}),
                      {'a', 0, 0, 0, 'b', 0, 0, 0},
                      le32({2}),
                      {0x3d, 0xd8, 0x00, 0xde, 0, 0, 0, 0},
                      le32({0xffffffffu}),
                      le32({3}),
                      {0xe9, 0, 0x3d, 0xd8, 0x00, 0xde, 0, 0}}),
              bytesOf(strings));

    strings.setDataPosition(0);
    String16 s;
    EXPECT_EQ(OK, strings.readString16(&s));
    EXPECT_EQ(0u, s.size());
    EXPECT_EQ(OK, strings.readString16(&s));
    EXPECT_EQ(String16("abc"), s);
    EXPECT_EQ(OK, strings.readString16(&s));
    EXPECT_EQ(String16("ab"), s);
    EXPECT_EQ(OK, strings.readString16(&s));
    EXPECT_EQ(String16(withNul, 3), s);
    EXPECT_EQ(3u, s.size());
    std::string utf8;
    EXPECT_EQ(OK, strings.readUtf8FromUtf16(&utf8));
    EXPECT_EQ("\xf0\x9f\x98\x80", utf8);
    EXPECT_EQ(UNEXPECTED_NULL, strings.readString16(&s));
    std::unique_ptr<std::string> nullableUtf8;
    EXPECT_EQ(OK, strings.readUtf8FromUtf16(&nullableUtf8));
    ASSERT_NE(nullptr, nullableUtf8);
    EXPECT_EQ("\xc3\xa9\xf0\x9f\x98\x80", *nullableUtf8);
    EXPECT_EQ(0u, strings.dataAvail());

    Parcel nullable;
    nullable.writeInt32(-1);
    nullable.setDataPosition(0);
    std::unique_ptr<String16> maybe(new String16("x"));
    EXPECT_EQ(OK, nullable.readString16(&maybe));
    EXPECT_EQ(nullptr, maybe);

    Parcel invalid;
    EXPECT_EQ(BAD_VALUE, invalid.writeUtf8AsUtf16("\xff"));
    EXPECT_EQ(BAD_VALUE, invalid.writeUtf8AsUtf16("\xc3"));
    EXPECT_EQ(BAD_VALUE, invalid.writeUtf8AsUtf16("\xed\xa0\x80"));  // encoded surrogate
    EXPECT_EQ(0u, invalid.dataSize());
}

TEST(BinderParcelLayoutTest, ScalarsAndVectorsAreByteExact) {
    Parcel parcel;
    parcel.writeBool(true);
    parcel.writeBool(false);
    parcel.writeInt32(-2);
    parcel.writeInt64(0x0102030405060708);
    parcel.writeFloat(1.5f);
    parcel.writeDouble(-2.0);
    parcel.writeChar(u'\u00e9');
    parcel.writeByte(-1);
    parcel.writeInt32Vector(std::vector<int32_t>{1, -1});
    parcel.writeString16Vector(std::vector<String16>{String16("a"), String16("")});
    parcel.writeByteVector(std::vector<uint8_t>{1, 2, 3});
    parcel.writeInt32Vector(std::unique_ptr<std::vector<int32_t>>());
    parcel.writeBoolVector(std::vector<bool>{true, false});
    parcel.writeInt64Vector(std::vector<int64_t>{-1});
    parcel.writeUtf8VectorAsUtf16Vector(std::vector<std::string>{"hi"});
    EXPECT_EQ(concat({le32({1, 0, 0xfffffffeu, 0x05060708, 0x01020304, 0x3fc00000u, 0, 0xc0000000u,
                            0xe9, 0xffffffffu}),
                      le32({2, 1, 0xffffffffu}),
                      le32({2, 1}),
                      {'a', 0, 0, 0},
                      le32({0, 0}),
                      le32({3}),
                      {1, 2, 3, 0},
                      le32({0xffffffffu}),
                      le32({2, 1, 0}),
                      le32({1, 0xffffffffu, 0xffffffffu}),
                      le32({1, 2}),
                      {'h', 0, 'i', 0, 0, 0, 0, 0}}),
              bytesOf(parcel));

    parcel.setDataPosition(0);
    EXPECT_TRUE(parcel.readBool());
    EXPECT_FALSE(parcel.readBool());
    EXPECT_EQ(-2, parcel.readInt32());
    EXPECT_EQ(0x0102030405060708, parcel.readInt64());
    EXPECT_EQ(1.5f, parcel.readFloat());
    EXPECT_EQ(-2.0, parcel.readDouble());
    EXPECT_EQ(u'\u00e9', parcel.readChar());
    EXPECT_EQ(-1, parcel.readByte());
    std::vector<int32_t> ints;
    EXPECT_EQ(OK, parcel.readInt32Vector(&ints));
    EXPECT_EQ((std::vector<int32_t>{1, -1}), ints);
    std::vector<String16> strings;
    EXPECT_EQ(OK, parcel.readString16Vector(&strings));
    EXPECT_EQ((std::vector<String16>{String16("a"), String16("")}), strings);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(OK, parcel.readByteVector(&bytes));
    EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), bytes);
    std::unique_ptr<std::vector<int32_t>> nullInts(new std::vector<int32_t>{5});
    EXPECT_EQ(OK, parcel.readInt32Vector(&nullInts));
    EXPECT_EQ(nullptr, nullInts);
    std::vector<bool> bools;
    EXPECT_EQ(OK, parcel.readBoolVector(&bools));
    EXPECT_EQ((std::vector<bool>{true, false}), bools);
    std::vector<int64_t> longs;
    EXPECT_EQ(OK, parcel.readInt64Vector(&longs));
    EXPECT_EQ((std::vector<int64_t>{-1}), longs);
    std::vector<std::string> utf8s;
    EXPECT_EQ(OK, parcel.readUtf8VectorFromUtf16Vector(&utf8s));
    EXPECT_EQ((std::vector<std::string>{"hi"}), utf8s);
    EXPECT_EQ(0u, parcel.dataAvail());

    // Vectors that no interface here sends read back as written.
    Parcel more;
    more.writeFloatVector(std::vector<float>{1.5f, -0.0f});
    more.writeDoubleVector(std::vector<double>{1e300, -2.0});
    more.writeCharVector(std::vector<char16_t>{u'a', 0xd800});
    more.setDataPosition(0);
    std::vector<float> floats;
    std::vector<double> doubles;
    std::vector<char16_t> chars;
    EXPECT_EQ(OK, more.readFloatVector(&floats));
    EXPECT_EQ(OK, more.readDoubleVector(&doubles));
    EXPECT_EQ(OK, more.readCharVector(&chars));
    EXPECT_EQ((std::vector<float>{1.5f, -0.0f}), floats);
    EXPECT_EQ((std::vector<double>{1e300, -2.0}), doubles);
    EXPECT_EQ((std::vector<char16_t>{u'a', 0xd800}), chars);
}

TEST(BinderParcelLayoutTest, StatusIsWrittenAndReadAsLibbinderDoes) {
    Parcel ok;
    ASSERT_EQ(OK, Status::ok().writeToParcel(&ok));
    EXPECT_EQ(le32({0}), bytesOf(ok));

    Parcel specific;
    ASSERT_EQ(OK, Status::fromServiceSpecificError(-9, "bad key").writeToParcel(&specific));
    EXPECT_EQ(concat({le32({0xfffffff8u, 7}),
                      {'b', 0, 'a', 0, 'd', 0, ' ', 0, 'k', 0, 'e', 0, 'y', 0, 0, 0},
                      le32({0, 0xfffffff7u})}),
              bytesOf(specific));

    Parcel exception;
    ASSERT_EQ(
            OK,
            Status::fromExceptionCode(Status::EX_UNSUPPORTED_OPERATION).writeToParcel(&exception));
    EXPECT_EQ(le32({0xfffffff9u, 0, 0, 0}), bytesOf(exception));

    Parcel parcelable;
    ASSERT_EQ(OK, Status::fromExceptionCode(Status::EX_PARCELABLE, "p").writeToParcel(&parcelable));
    EXPECT_EQ(concat({le32({0xfffffff7u, 1}), {'p', 0, 0, 0}, le32({0, 0})}), bytesOf(parcelable));

    Parcel transport;
    EXPECT_EQ(android::DEAD_OBJECT,
              Status::fromStatusT(android::DEAD_OBJECT).writeToParcel(&transport));
    EXPECT_EQ(0u, transport.dataSize());

    Status read;
    specific.setDataPosition(0);
    ASSERT_EQ(OK, read.readFromParcel(specific));
    EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, read.exceptionCode());
    EXPECT_EQ(-9, read.serviceSpecificErrorCode());
    EXPECT_STREQ("bad key", read.exceptionMessage().string());
    EXPECT_STREQ("Status(-8, EX_SERVICE_SPECIFIC): '-9: bad key'", read.toString8().string());
    exception.setDataPosition(0);
    ASSERT_EQ(OK, read.readFromParcel(exception));
    EXPECT_EQ(Status::EX_UNSUPPORTED_OPERATION, read.exceptionCode());
    EXPECT_EQ(0, read.serviceSpecificErrorCode());
    ok.setDataPosition(0);
    ASSERT_EQ(OK, read.readFromParcel(ok));
    EXPECT_TRUE(read.isOk());

    // A reply header (its size counts its own size word) is skipped.
    Parcel header;
    header.writeInt32(Status::EX_HAS_REPLY_HEADER);
    header.writeInt32(8);
    header.writeInt32(0x1234);
    header.writeInt32(77);
    header.setDataPosition(0);
    ASSERT_EQ(OK, read.readFromParcel(header));
    EXPECT_TRUE(read.isOk());
    EXPECT_EQ(77, header.readInt32());

    Parcel truncated;
    truncated.writeInt32(Status::EX_SERVICE_SPECIFIC);
    truncated.setDataPosition(0);
    EXPECT_EQ(NOT_ENOUGH_DATA, read.readFromParcel(truncated));
    EXPECT_EQ(Status::EX_TRANSACTION_FAILED, read.exceptionCode());
    EXPECT_EQ(NOT_ENOUGH_DATA, read.transactionError());

    Parcel hostileTrace;
    hostileTrace.writeInt32(Status::EX_SECURITY);
    hostileTrace.writeString16(String16("m"));
    hostileTrace.writeInt32(1 << 20);
    hostileTrace.setDataPosition(0);
    EXPECT_EQ(android::UNKNOWN_ERROR, read.readFromParcel(hostileTrace));
}

TEST(BinderParcelReadTest, ReadsPastTheEndOrOfHostileSizesFail) {
    Parcel empty;
    int32_t i32;
    int64_t i64;
    double d;
    bool b;
    String16 s;
    std::string utf8;
    sp<android::IBinder> binder;
    EXPECT_EQ(NOT_ENOUGH_DATA, empty.readInt32(&i32));
    EXPECT_EQ(NOT_ENOUGH_DATA, empty.readDouble(&d));
    EXPECT_EQ(NOT_ENOUGH_DATA, empty.readBool(&b));
    EXPECT_EQ(NOT_ENOUGH_DATA, empty.readString16(&s));
    EXPECT_EQ(NOT_ENOUGH_DATA, empty.readUtf8FromUtf16(&utf8));
    EXPECT_EQ(NOT_ENOUGH_DATA, empty.readNullableStrongBinder(&binder));
    EXPECT_EQ(0, empty.readInt32());

    Parcel four;
    four.writeInt32(1);
    four.setDataPosition(0);
    EXPECT_EQ(NOT_ENOUGH_DATA, four.readInt64(&i64));

    Parcel shortString;
    shortString.writeInt32(10);
    shortString.writeInt32(0x00620061);
    shortString.setDataPosition(0);
    EXPECT_EQ(NOT_ENOUGH_DATA, shortString.readString16(&s));

    Parcel hugeVector;
    hugeVector.writeInt32(std::numeric_limits<int32_t>::max());
    hugeVector.setDataPosition(0);
    std::vector<int32_t> ints;
    EXPECT_EQ(NOT_ENOUGH_DATA, hugeVector.readInt32Vector(&ints));
    hugeVector.setDataPosition(0);
    std::vector<uint8_t> bytes;
    EXPECT_EQ(NOT_ENOUGH_DATA, hugeVector.readByteVector(&bytes));
    hugeVector.setDataPosition(0);
    std::vector<String16> strings;
    EXPECT_EQ(NOT_ENOUGH_DATA, hugeVector.readString16Vector(&strings));
    EXPECT_TRUE(strings.empty());

    Parcel negative;
    negative.writeInt32(-5);
    negative.setDataPosition(0);
    EXPECT_EQ(BAD_VALUE, negative.readString16(&s));
    negative.setDataPosition(0);
    EXPECT_EQ(BAD_VALUE, negative.readInt32Vector(&ints));

    Parcel unterminated;
    unterminated.writeInt32(1);
    unterminated.writeInt32(0x00620061);  // "a" followed by "b" where the NUL belongs
    unterminated.setDataPosition(0);
    EXPECT_EQ(BAD_VALUE, unterminated.readString16(&s));

    // Plain words that look like object records are not objects.
    Parcel forged;
    forged.writeInt32(static_cast<int32_t>(B_PACK_CHARS('s', 'b', '*', 0x85)));
    forged.writeInt32(0x17f);
    forged.writeInt64(1);
    forged.writeInt64(0);
    forged.writeInt32(0);
    forged.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, forged.readNullableStrongBinder(&binder));
    Parcel forgedFd;
    forgedFd.writeInt32(static_cast<int32_t>(B_PACK_CHARS('f', 'd', '*', 0x85)));
    forgedFd.writeInt32(0x17f);
    forgedFd.writeInt64(0);
    forgedFd.writeInt64(0);
    forgedFd.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, forgedFd.readFileDescriptor());
}

TEST(BinderParcelObjectTest, BindersAndDescriptorsRoundTrip) {
    sp<android::IBinder> local = new android::BBinder();
    Parcel parcel;
    ASSERT_EQ(OK, parcel.writeStrongBinder(local));
    ASSERT_EQ(OK, parcel.writeStrongBinder(nullptr));
    int pipeFds[2];
    ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
    ASSERT_EQ(OK, parcel.writeDupFileDescriptor(pipeFds[1]));
    EXPECT_EQ(2u, parcel.objectsCount());
    EXPECT_TRUE(parcel.hasFileDescriptors());

    // The null binder is a plain record (type, flags, zero object, zero cookie) and a
    // stability word, as the driver's flat_binder_object lays it out.
    const Bytes all = bytesOf(parcel);
    ASSERT_EQ(28u * 2 + 24u, all.size());
    EXPECT_EQ(concat({le32({0x73622a85u, 0x17f, 0, 0, 0, 0}), le32({0})}),
              Bytes(all.begin() + 28, all.begin() + 56));

    Parcel copy;
    ASSERT_EQ(OK, copy.appendFrom(&parcel, 0, parcel.dataSize()));
    for (const Parcel* p : {&parcel, &copy}) {
        p->setDataPosition(0);
        sp<android::IBinder> read;
        EXPECT_EQ(OK, p->readStrongBinder(&read));
        EXPECT_EQ(local, read);
        EXPECT_EQ(UNEXPECTED_NULL, p->readStrongBinder(&read));
        const int fd = p->readFileDescriptor();
        ASSERT_GE(fd, 0);
        struct stat expected {};
        struct stat actual {};
        ASSERT_EQ(0, fstat(pipeFds[1], &expected));
        ASSERT_EQ(0, fstat(fd, &actual));
        EXPECT_EQ(expected.st_ino, actual.st_ino);
        EXPECT_NE(pipeFds[1], fd);
    }
    close(pipeFds[0]);
    close(pipeFds[1]);

    Parcel wrongKind;
    wrongKind.writeStrongBinder(local);
    wrongKind.setDataPosition(0);
    EXPECT_EQ(BAD_TYPE, wrongKind.readFileDescriptor());
}

TEST(BinderParcelObjectTest, InterfaceTokensAreEnforced) {
    Parcel parcel;
    parcel.writeInterfaceToken(String16("a.b.IFoo"));
    parcel.writeInt32(5);
    parcel.setDataPosition(0);
    EXPECT_TRUE(parcel.enforceInterface(String16("a.b.IFoo")));
    EXPECT_EQ(5, parcel.readInt32());
    parcel.setDataPosition(0);
    EXPECT_FALSE(parcel.enforceInterface(String16("a.b.IFoe")));
    parcel.setDataPosition(0);
    EXPECT_FALSE(parcel.enforceInterface(String16("a.b.IFo")));

    Parcel badHeader;
    badHeader.writeInt32(0);
    badHeader.writeInt32(-1);
    badHeader.writeInt32(0x12345678);
    badHeader.writeString16(String16("a.b.IFoo"));
    badHeader.setDataPosition(0);
    EXPECT_FALSE(badHeader.enforceInterface(String16("a.b.IFoo")));

    Parcel truncated;
    truncated.writeInt32(0);
    truncated.setDataPosition(0);
    EXPECT_FALSE(truncated.enforceInterface(String16("a.b.IFoo")));
}

}  // namespace
