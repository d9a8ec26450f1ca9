#include <android/os/IPermissionController.h>
#include <binder/IPCThreadState.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <lumen/preferences/IPreferencesService.h>
#include <nimbus/internal/BnPreferencesAppInfoListener.h>
#include <nimbus/internal/IPreferencesAppInfoInquirer.h>

#include <functional>

#include "BinderTestEnvironment.h"

namespace Halo::OS::testing {
namespace {

using android::IBinder;
using android::IInterface;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;
using lumen::preferences::IPreferencesListener;
using lumen::preferences::IPreferencesService;
using nimbus::internal::IPreferencesAppInfoInquirer;
using nimbus::internal::IPreferencesAppInfoListener;
using Bytes = std::vector<uint8_t>;

Bytes le32(std::initializer_list<uint32_t> words) {
    Bytes out;
    for (uint32_t w : words) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(w >> (8 * i)));
    }
    return out;
}

Bytes string16(const std::string& ascii) {
    Bytes out = le32({static_cast<uint32_t>(ascii.size())});
    for (char c : ascii) {
        out.push_back(static_cast<uint8_t>(c));
        out.push_back(0);
    }
    out.push_back(0);
    out.push_back(0);
    while (out.size() % 4 != 0) out.push_back(0);
    return out;
}

Bytes token(const std::string& descriptor) {
    Bytes out = le32({0x80000000u, 0xffffffffu, 0x53595354u});
    Bytes name = string16(descriptor);
    out.insert(out.end(), name.begin(), name.end());
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// Records every transaction and answers with an ok status followed by zeros (a zero or empty
// value for any getter).
class RecordingBinder : public android::BBinder {
public:
    struct Call {
        uint32_t code;
        uint32_t flags;
        Bytes data;
    };
    std::vector<Call> calls;

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        calls.push_back(Call{code, flags, Bytes(data.data(), data.data() + data.dataSize())});
        for (int i = 0; i < 4; ++i) reply->writeInt32(0);
        return OK;
    }
};

class Listener : public lumen::preferences::BnPreferencesListener {
public:
    Status onChanged(const std::vector<String16>&) override { return Status::ok(); }
};

class AppInfoListener : public nimbus::internal::BnPreferencesAppInfoListener {
public:
    Status onSchema(const std::vector<uint8_t>&) override { return Status::ok(); }
    Status deleteUserData(int32_t) override { return Status::ok(); }
    Status currentUser(int32_t) override { return Status::ok(); }
    Status userList(const std::vector<int32_t>&) override { return Status::ok(); }
};

TEST(BinderWireTest, ServiceMethodsUseCodesOneToFortyOneAndTheirLayouts) {
    sp<RecordingBinder> recorder = new RecordingBinder();
    sp<IPreferencesService> service = android::interface_cast<IPreferencesService>(recorder);
    ASSERT_NE(nullptr, service);
    const String16 k("k");
    int32_t i;
    double d;
    String16 s;
    int64_t l;
    bool b;
    float f;
    sp<Listener> listener = new Listener();
    const std::vector<std::function<Status()>> methods = {
            [&] { return service->setInteger(k, 5); },
            [&] { return service->setDouble(k, 0.5); },
            [&] { return service->setString(k, String16("v")); },
            [&] { return service->setLong(k, -2); },
            [&] { return service->setBoolean(k, true); },
            [&] { return service->setFloat(k, 1.5f); },
            [&] { return service->getInteger(k, &i); },
            [&] { return service->getDouble(k, &d); },
            [&] { return service->getString(k, &s); },
            [&] { return service->getLong(k, &l); },
            [&] { return service->getBoolean(k, &b); },
            [&] { return service->getFloat(k, &f); },
            [&] { return service->setIntegerCurrent(k, 1); },
            [&] { return service->setDoubleCurrent(k, 1); },
            [&] { return service->setStringCurrent(k, s); },
            [&] { return service->setLongCurrent(k, 1); },
            [&] { return service->setBooleanCurrent(k, false); },
            [&] { return service->setFloatCurrent(k, 1); },
            [&] { return service->getIntegerCurrent(k, &i); },
            [&] { return service->getDoubleCurrent(k, &d); },
            [&] { return service->getStringCurrent(k, &s); },
            [&] { return service->getLongCurrent(k, &l); },
            [&] { return service->getBooleanCurrent(k, &b); },
            [&] { return service->getFloatCurrent(k, &f); },
            [&] { return service->getType(k, &i); },
            [&] { return service->setIntegerUser(k, 1, 10); },
            [&] { return service->setDoubleUser(k, 1, 10); },
            [&] { return service->setStringUser(k, String16("v"), 3); },
            [&] { return service->setLongUser(k, 1, 10); },
            [&] { return service->setBooleanUser(k, true, 10); },
            [&] { return service->setFloatUser(k, 1, 10); },
            [&] { return service->getIntegerUser(k, 10, &i); },
            [&] { return service->getDoubleUser(k, 10, &d); },
            [&] { return service->getStringUser(k, 10, &s); },
            [&] { return service->getLongUser(k, 10, &l); },
            [&] { return service->getBooleanUser(k, 10, &b); },
            [&] { return service->getFloatUser(k, 10, &f); },
            [&] { return service->reset(k); },
            [&] {
                return service->registerListener(listener, {String16("a"), String16("b")}, true);
            },
            [&] { return service->unregisterListener(listener); },
            [&] { return service->profile("start", {"a"}); },
    };
    for (const auto& method : methods) ASSERT_TRUE(method().isOk());
    ASSERT_EQ(41u, recorder->calls.size());
    for (uint32_t n = 0; n < 41; ++n) {
        EXPECT_EQ(n + 1, recorder->calls[n].code);
        EXPECT_EQ(0u, recorder->calls[n].flags);
    }

    const Bytes head = token("lumen.preferences.IPreferencesService");
    const Bytes key = string16("k");
    EXPECT_EQ(concat({head, key, le32({5})}), recorder->calls[0].data);
    EXPECT_EQ(concat({head, key, le32({0, 0x3fe00000u})}), recorder->calls[1].data);
    EXPECT_EQ(concat({head, key, string16("v")}), recorder->calls[2].data);
    EXPECT_EQ(concat({head, key, le32({0xfffffffeu, 0xffffffffu})}), recorder->calls[3].data);
    EXPECT_EQ(concat({head, key, le32({1})}), recorder->calls[4].data);
    EXPECT_EQ(concat({head, key, le32({0x3fc00000u})}), recorder->calls[5].data);
    EXPECT_EQ(concat({head, key}), recorder->calls[6].data);
    EXPECT_EQ(concat({head, key, string16("v"), le32({3})}), recorder->calls[27].data);
    EXPECT_EQ(concat({head, key, le32({10})}), recorder->calls[31].data);
    EXPECT_EQ(concat({head, string16("start"), le32({1}), string16("a")}),
              recorder->calls[40].data);
    // registerListener: the listener's object record and stability word, the keys, the flag.
    const Bytes& registration = recorder->calls[38].data;
    ASSERT_EQ(head.size() + 28 + 4 + 8 + 8 + 4, registration.size());
    EXPECT_EQ(concat({le32({2}), string16("a"), string16("b"), le32({1})}),
              Bytes(registration.begin() + head.size() + 28, registration.end()));
}

TEST(BinderWireTest, ListenerAndAppInfoInterfacesUseTheirCodesAndOnewayFlags) {
    sp<RecordingBinder> recorder = new RecordingBinder();
    sp<IPreferencesListener> listener = android::interface_cast<IPreferencesListener>(recorder);
    ASSERT_TRUE(listener->onChanged({String16("x")}).isOk());
    ASSERT_EQ(1u, recorder->calls.size());
    EXPECT_EQ(1u, recorder->calls[0].code);
    EXPECT_EQ(static_cast<uint32_t>(IBinder::FLAG_ONEWAY), recorder->calls[0].flags);
    EXPECT_EQ(concat({token("lumen.preferences.IPreferencesListener"), le32({1}), string16("x")}),
              recorder->calls[0].data);

    recorder->calls.clear();
    sp<IPreferencesAppInfoInquirer> inquirer =
            android::interface_cast<IPreferencesAppInfoInquirer>(recorder);
    std::vector<int32_t> users;
    bool ok;
    ASSERT_TRUE(inquirer->getFullPackageInfo().isOk());
    ASSERT_TRUE(inquirer->getUserList(&users).isOk());
    ASSERT_TRUE(inquirer->registerPackageInfoListener(new AppInfoListener(), &ok).isOk());
    ASSERT_TRUE(inquirer->unregisterPackageInfoListener(&ok).isOk());
    sp<IPreferencesAppInfoListener> appInfoListener =
            android::interface_cast<IPreferencesAppInfoListener>(recorder);
    ASSERT_TRUE(appInfoListener->onSchema({'{', '}'}).isOk());
    ASSERT_TRUE(appInfoListener->deleteUserData(10).isOk());
    ASSERT_TRUE(appInfoListener->currentUser(11).isOk());
    ASSERT_TRUE(appInfoListener->userList({0, 10}).isOk());
    sp<android::os::IPermissionController> permission =
            android::interface_cast<android::os::IPermissionController>(recorder);
    ASSERT_TRUE(permission->checkPermission(String16("p"), 12, 13, &ok).isOk());

    ASSERT_EQ(9u, recorder->calls.size());
    const uint32_t expectedCodes[] = {1, 2, 3, 4, 1, 2, 3, 4, 1};
    const uint32_t oneway = IBinder::FLAG_ONEWAY;
    const uint32_t expectedFlags[] = {0, 0, 0, 0, oneway, oneway, oneway, oneway, 0};
    for (size_t n = 0; n < 9; ++n) {
        EXPECT_EQ(expectedCodes[n], recorder->calls[n].code) << n;
        EXPECT_EQ(expectedFlags[n], recorder->calls[n].flags) << n;
    }
    const Bytes listenerHead = token("nimbus.internal.IPreferencesAppInfoListener");
    EXPECT_EQ(concat({listenerHead, le32({2}), {'{', '}', 0, 0}}), recorder->calls[4].data);
    EXPECT_EQ(concat({listenerHead, le32({10})}), recorder->calls[5].data);
    EXPECT_EQ(concat({listenerHead, le32({2, 0, 10})}), recorder->calls[7].data);
    EXPECT_EQ(concat({token("android.os.IPermissionController"), string16("p"), le32({12, 13})}),
              recorder->calls[8].data);
}

class BinderPreferencesWireTest : public BinderTest {};

// Answers getInteger with 99, as an older client's fallback would.
class DefaultPreferences : public lumen::preferences::IPreferencesServiceDefault {
public:
    Status getInteger(const String16&, int32_t* out) override {
        *out = 99;
        return Status::ok();
    }
};

TEST_F(BinderPreferencesWireTest, UnknownTransactionFallsBackToTheDefaultImplementation) {
    startPeer({"serve-plain", "plain"});
    sp<IBinder> plain = android::defaultServiceManager()->getService(String16("plain"));
    ASSERT_NE(nullptr, plain);
    sp<IPreferencesService> service = android::interface_cast<IPreferencesService>(plain);
    int32_t value = 0;
    Status status = service->getInteger(String16("k"), &value);
    EXPECT_EQ(android::UNKNOWN_TRANSACTION, status.transactionError());

    ASSERT_TRUE(IPreferencesService::setDefaultImpl(std::make_unique<DefaultPreferences>()));
    EXPECT_FALSE(IPreferencesService::setDefaultImpl(std::make_unique<DefaultPreferences>()));
    ASSERT_TRUE(service->getInteger(String16("k"), &value).isOk());
    EXPECT_EQ(99, value);
    // Methods the default does not override report UNKNOWN_TRANSACTION through it.
    EXPECT_EQ(android::UNKNOWN_TRANSACTION,
              service->getLong(String16("k"), nullptr).transactionError());
}

}  // namespace
}  // namespace Halo::OS::testing
