#include "client/PreferencesStatus.h"

#include <gtest/gtest.h>

#include <string>

namespace Halo::OS {
namespace {

// Every status in words names its kind and code, so that a reader can still look the code up.
TEST(PreferencesStatusTest, EveryStatusInWordsNamesItsKindAndCode) {
    using S = PreferencesStatus;
    const struct {
        PreferencesStatus status;
        const char* text;
    } kCases[] = {
            {S::ok(), "ok"},
            {S::serviceSpecific(-3),
             "no permission for this key (service-specific error -3): the app's permission for "
             "this key does not allow the operation"},
            {S::serviceSpecific(-6),
             "listener not found (service-specific error -6): no listener of this app is "
             "registered"},
            {S::serviceSpecific(-7),
             "OS permission missing (service-specific error -7): the app lacks "
             "com.nimbus.permission.READ_SETTINGS or WRITE_SETTINGS"},
            {S::serviceSpecific(-8),
             "write refused (service-specific error -8): unknown key, wrong type, a user key of "
             "another user, or the store write failed"},
            {S::serviceSpecific(-9),
             "key not readable (service-specific error -9): unknown key, wrong type, a user key "
             "of another user, or the store read failed"},
            {S::serviceSpecific(-10),
             "no place for the result (service-specific error -10): the call gave no out-value"},
            {S::serviceSpecific(-13),
             "listener not registered (service-specific error -13): the store could not "
             "register the listener"},
            {S::serviceSpecific(-42), "service-specific error -42"},
            {S::exception(-3),
             "exception -3 (illegal argument): the service does not know this argument (a "
             "profile word)"},
            {S::exception(-7),
             "exception -7 (unsupported operation): only root may do this (profile commands)"},
            {S::exception(-5), "exception -5 (illegal state)"},
            {S::exception(-77), "exception -77"},
            {S::failed(-1),
             "status -1 (permission denied): the caller lacks "
             "com.nimbus.permission.READ_SETTINGS"},
            {S::failed(-22), "status -22 (bad value)"},
            {S::unreachable(-2),
             "service unreachable: status -2 (no such service): nothing is published under "
             "that name"},
            {S::unreachable(-32),
             "service unreachable: status -32 (dead object): the service's process went away"},
            {S::unreachable(-1000), "service unreachable: status -1000 (error)"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(c.text, c.status.toString());
        const PreferencesStatus::Description description = c.status.describe();
        EXPECT_EQ(0u, std::string(c.text).find(description.name));
    }
}

}  // namespace
}  // namespace Halo::OS
