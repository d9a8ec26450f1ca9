#include "FakePreferencesService.h"

#include <unistd.h>

namespace Halo::OS::testing {

using android::String16;
using android::binder::Status;

namespace {

constexpr int32_t kFailure = -9;

bool fails(const String16& key) {
    return key == String16("fail");
}

Status setResult(const String16& key) {
    return fails(key) ? Status::fromServiceSpecificError(kFailure) : Status::ok();
}

template <typename T>
Status getResult(const String16& key, T value, T* out) {
    if (fails(key)) return Status::fromServiceSpecificError(kFailure);
    *out = value;
    return Status::ok();
}

String16 stringValue(const String16& key) {
    String16 value("v:");
    value.append(key);
    return value;
}

}  // namespace

#define FAKE_PREFS_TYPE(NAME, TYPE, IN, PLAIN, CURRENT, USER)                           \
    Status FakePreferencesService::set##NAME(const String16& key, IN) {                 \
        return setResult(key);                                                          \
    }                                                                                   \
    Status FakePreferencesService::get##NAME(const String16& key, TYPE* out) {          \
        return getResult<TYPE>(key, PLAIN, out);                                        \
    }                                                                                   \
    Status FakePreferencesService::set##NAME##Current(const String16& key, IN) {        \
        return setResult(key);                                                          \
    }                                                                                   \
    Status FakePreferencesService::get##NAME##Current(const String16& key, TYPE* out) { \
        return getResult<TYPE>(key, CURRENT, out);                                      \
    }                                                                                   \
    Status FakePreferencesService::set##NAME##User(const String16& key, IN, int32_t) {  \
        return setResult(key);                                                          \
    }                                                                                   \
    Status FakePreferencesService::get##NAME##User(const String16& key, int32_t userId, \
                                                   TYPE* out) {                         \
        return getResult<TYPE>(key, USER, out);                                         \
    }

FAKE_PREFS_TYPE(Integer, int32_t, int32_t, 42, 43, 1000 + userId)
FAKE_PREFS_TYPE(Double, double, double, 42.5, 43.5, 1000.5 + userId)
FAKE_PREFS_TYPE(String, String16, const String16&, stringValue(key), String16("current"),
                String16(std::to_string(userId).c_str()))
FAKE_PREFS_TYPE(Long, int64_t, int64_t, 42, 43, 1000 + userId)
FAKE_PREFS_TYPE(Boolean, bool, bool, true, false, userId != 0)
FAKE_PREFS_TYPE(Float, float, float, 42.25f, 43.25f, 1000.25f + static_cast<float>(userId))
#undef FAKE_PREFS_TYPE

Status FakePreferencesService::getType(const String16& key, int32_t* out) {
    return getResult<int32_t>(key, 3, out);
}

Status FakePreferencesService::reset(const String16& key) {
    return setResult(key);
}

Status FakePreferencesService::registerListener(
        const android::sp<lumen::preferences::IPreferencesListener>& listener,
        const std::vector<String16>& keys, bool /*flag*/) {
    return listener->onChanged(keys);
}

Status FakePreferencesService::unregisterListener(
        const android::sp<lumen::preferences::IPreferencesListener>& /*listener*/) {
    return Status::ok();
}

Status FakePreferencesService::profile(const std::string& command,
                                       const std::vector<std::string>& /*args*/) {
    if (command == "bad") return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT);
    return Status::ok();
}

android::status_t FakePreferencesService::dump(int fd, const android::Vector<String16>& args) {
    const std::string text = "prefs dump " + std::to_string(args.size()) + "\n";
    return write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size())
                   ? android::OK
                   : android::UNKNOWN_ERROR;
}

}  // namespace Halo::OS::testing
