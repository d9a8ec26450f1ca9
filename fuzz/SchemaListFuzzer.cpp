// Schema-list bytes into the package manager, as the app-info service delivers them through
// onSchema: parsed, built and, when accepted, applied to a key manager on a real store by one turn
// of the package manager's worker. The store starts with a package whose keys the lists can
// replace, remove or leave; whatever the bytes, onSchema answers ok or EX_BAD_PARCELABLE and the
// key manager keeps answering.
#include <binder/Status.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "FuzzTempDir.h"
#include "intake/PreferencesPackageManager.h"
#include "keymanager/PreferencesKeyManager.h"
#include "store/DirectoryPreferencesDb.h"

namespace {

using namespace Halo::OS;

constexpr const char* kBaseline = R"({"add": true, "schemas": [{"uid": 10123,
    "packageName": "com.example.base", "contents": [
    {"key": "base_integer", "type": "integer", "default": "5", "scope": "system",
     "hasWritePermission": true, "isOwner": true},
    {"key": "base_string", "type": "string", "default": "d", "scope": "user",
     "hasWritePermission": true, "isOwner": true}]}]})";

struct Harness {
    fuzzing::FuzzTempDir dir{"schema-list-fuzzer"};
    std::shared_ptr<PreferencesKeyManager> keyManager;
    std::unique_ptr<PreferencesPackageManager> packageManager;

    Harness() {
        setenv("BINDER_DIR", dir.file("binder", true).c_str(), 1);
        keyManager = std::make_shared<PreferencesKeyManager>(
                std::make_unique<DirectoryPreferencesDb>(dir.file("data", true)));
        // Not started: no app-info connection and no worker thread; the fuzzer turns the worker
        // by hand, so every list is applied before the next input comes.
        packageManager = std::make_unique<PreferencesPackageManager>(keyManager, false);
        apply(std::string(kBaseline));
    }

    android::binder::Status apply(const std::string& bytes) {
        const android::binder::Status status =
                packageManager->onSchema(std::vector<uint8_t>(bytes.begin(), bytes.end()));
        if (status.isOk()) packageManager->process();
        return status;
    }
};

Harness* harness() {
    static Harness* instance = new Harness();
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    harness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Harness* h = harness();
    const android::binder::Status status =
            h->apply(std::string(reinterpret_cast<const char*>(data), size));
    if (!status.isOk() && status.exceptionCode() != android::binder::Status::EX_BAD_PARCELABLE) {
        abort();
    }
    // Root may read any declared key; whether base_integer is still declared depends on the
    // lists so far, but the answer must be one of the key manager's codes.
    std::string value;
    const int result = h->keyManager->get("base_integer", value, PreferencesKeyInfo::Type::Integer);
    if (result != KeyManagerStatus::Ok && result != KeyManagerStatus::ReadRefused) abort();
    return 0;
}
