#pragma once

#include <lumen/preferences/BnPreferencesService.h>

namespace Halo::OS::testing {

// A stand-in for the preferences service with fixed answers, for checking the interface's wire
// format through the generated stubs:
// - every method fails with the service-specific error -9 when the key is "fail";
// - getters of the plain flavour return 42 (strings "v:<key>"), Current 43, User 1000 + userId;
// - getType returns 3; profile("bad") fails with EX_ILLEGAL_ARGUMENT;
// - registerListener calls the listener's onChanged with the keys at once.
class FakePreferencesService : public lumen::preferences::BnPreferencesService {
public:
    using Status = android::binder::Status;
    using String16 = android::String16;

#define FAKE_PREFS_TYPE(NAME, TYPE, IN)                                             \
    Status set##NAME(const String16& key, IN value) override;                       \
    Status get##NAME(const String16& key, TYPE* out) override;                      \
    Status set##NAME##Current(const String16& key, IN value) override;              \
    Status get##NAME##Current(const String16& key, TYPE* out) override;             \
    Status set##NAME##User(const String16& key, IN value, int32_t userId) override; \
    Status get##NAME##User(const String16& key, int32_t userId, TYPE* out) override;

    FAKE_PREFS_TYPE(Integer, int32_t, int32_t)
    FAKE_PREFS_TYPE(Double, double, double)
    FAKE_PREFS_TYPE(String, String16, const String16&)
    FAKE_PREFS_TYPE(Long, int64_t, int64_t)
    FAKE_PREFS_TYPE(Boolean, bool, bool)
    FAKE_PREFS_TYPE(Float, float, float)
#undef FAKE_PREFS_TYPE

    Status getType(const String16& key, int32_t* out) override;
    Status reset(const String16& key) override;
    Status registerListener(const android::sp<lumen::preferences::IPreferencesListener>& listener,
                            const std::vector<String16>& keys, bool flag) override;
    Status unregisterListener(
            const android::sp<lumen::preferences::IPreferencesListener>& listener) override;
    Status profile(const std::string& command, const std::vector<std::string>& args) override;
    android::status_t dump(int fd, const android::Vector<String16>& args) override;
};

}  // namespace Halo::OS::testing
