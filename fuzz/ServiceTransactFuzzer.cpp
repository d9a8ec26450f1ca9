// Parcels into PreferencesService::onTransact, as a Binder thread delivers them, from callers of
// several kinds: root, the system uid, a privileged application id, the application that declares
// the keys (in user 0 and in user 10) and an application that declares nothing. The parcel is
// built from the input: a transaction code, optionally the interface token, a listener object and
// one of the declared keys, then raw bytes. Besides not crashing, the service must never let the
// application that declares nothing read or write a key.
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <lumen/preferences/BnPreferencesListener.h>
#include <utils/String16.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "FuzzTempDir.h"
#include "keymanager/PreferencesKeyManager.h"
#include "model/JsonParsing.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "service/PreferencesService.h"
#include "store/DirectoryPreferencesDb.h"

namespace {

using namespace Halo::OS;
using android::Parcel;
using android::sp;
using android::String16;

constexpr uint32_t kMethodCount = 41;
constexpr uint32_t kRegisterListener = 39;
constexpr uint32_t kGetInteger = 7;
constexpr uint32_t kGetType = 25;
constexpr uid_t kDeclaringUid = 10123;
constexpr uid_t kBareUid = 10456;
constexpr uid_t kCallers[] = {0, 1000, 1041, kDeclaringUid, 1010123, kBareUid, 100000};
const char* const kKeys[] = {"sys_integer", "sys_string", "cross_long", "user_boolean",
                             "ro_float",    "sys_double", "missing",    ""};

constexpr const char* kSchemas = R"({"add": true, "schemas": [{"uid": 10123,
    "packageName": "com.example.fuzz", "contents": [
    {"key": "sys_integer", "type": "integer", "default": "5", "scope": "system",
     "hasWritePermission": true, "isOwner": true},
    {"key": "sys_string", "type": "string", "default": "d", "scope": "system",
     "hasWritePermission": true},
    {"key": "sys_double", "type": "double", "default": "0.5", "scope": "system",
     "hasWritePermission": true},
    {"key": "cross_long", "type": "long", "default": "7", "scope": "crossUser",
     "hasWritePermission": true},
    {"key": "user_boolean", "type": "boolean", "default": "true", "scope": "user",
     "hasWritePermission": true},
    {"key": "ro_float", "type": "float", "default": "1.5", "scope": "system",
     "hasWritePermission": false}]}]})";

// The key manager answers for the caller the fuzzer chose.
class ChosenCallerKeyManager : public PreferencesKeyManager {
public:
    using PreferencesKeyManager::PreferencesKeyManager;
    ~ChosenCallerKeyManager() override { stopCallbacks(); }
    uid_t getCallingUid() const override { return mCaller.load(); }
    void setCaller(uid_t uid) { mCaller = uid; }

private:
    std::atomic<uid_t> mCaller{0};
};

class Listener : public lumen::preferences::BnPreferencesListener {
public:
    android::binder::Status onChanged(const std::vector<String16>&) override {
        return android::binder::Status::ok();
    }
};

struct Harness {
    fuzzing::FuzzTempDir dir{"service-transact-fuzzer"};
    std::shared_ptr<ChosenCallerKeyManager> keyManager;
    sp<PreferencesService> service;

    Harness() {
        setenv("BINDER_DIR", dir.file("binder", true).c_str(), 1);
        keyManager = std::make_shared<ChosenCallerKeyManager>(
                std::make_unique<DirectoryPreferencesDb>(dir.file("data", true)));
        Json::Value document;
        if (!parseJsonText(kSchemas, document)) abort();
        PreferencesSchemaListBuilder list;
        list.process(document);
        if (!keyManager->process(list.build(), KeySourceDomain::Application)) abort();
        if (keyManager->userList({0, 10}) != 0) abort();
        service = new PreferencesService(keyManager);
    }
};

Harness* harness() {
    static Harness* instance = new Harness();
    return instance;
}

uint8_t take(const uint8_t*& data, size_t& size) {
    if (size == 0) return 0;
    --size;
    return *data++;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness* h = harness();
    const uint8_t codeByte = take(data, size);
    const uid_t caller = kCallers[take(data, size) % std::size(kCallers)];
    const uint8_t flags = take(data, size);
    const char* key = kKeys[take(data, size) % std::size(kKeys)];

    uint32_t code;
    if (codeByte < 246) {
        code = 1 + codeByte % kMethodCount;
    } else {
        const uint32_t others[] = {android::IBinder::PING_TRANSACTION,
                                   android::IBinder::INTERFACE_TRANSACTION,
                                   android::IBinder::DUMP_TRANSACTION,
                                   0,
                                   kMethodCount + 1,
                                   0x00ffffff};
        code = others[(codeByte - 246) % std::size(others)];
    }
    const bool oneway = (flags & 0x10) != 0;

    Parcel parcel;
    if (flags & 0x01) {
        parcel.writeInterfaceToken(PreferencesService::descriptor);
    } else if (flags & 0x02) {
        parcel.writeInterfaceToken(String16("lumen.preferences.IPreferencesListener"));
    }
    sp<Listener> listener;
    if (flags & 0x04) {
        listener = new Listener();
        parcel.writeStrongBinder(listener);
    }
    if (flags & 0x08) {
        if (code == kRegisterListener) parcel.writeInt32(1);
        parcel.writeString16(String16(key));
    }
    parcel.write(data, size);
    parcel.setDataPosition(0);

    h->keyManager->setCaller(caller);
    Parcel reply;
    const android::status_t status =
            h->service->transact(code, parcel, &reply, oneway ? android::IBinder::FLAG_ONEWAY : 0);

    // An application that declares nothing is refused every read and write. (The plain integer
    // getter and getType answer from an override property without asking the key manager; no
    // override is set here, but they are left out to keep the check exact.)
    if (caller == kBareUid && !oneway && status == android::OK && code >= 1 && code <= 38 &&
        code != kGetInteger && code != kGetType) {
        reply.setDataPosition(0);
        int32_t exception = 0;
        if (reply.readInt32(&exception) == android::OK && exception == 0) abort();
    }

    if (listener != nullptr) h->service->unregisterListener(listener);
    h->keyManager->setCaller(0);
    return 0;
}
