#include "client/PreferencesStatus.h"

#include <gtest/gtest.h>

#include "keymanager/KeyManagerStatus.h"
#include "service/ServiceStatus.h"

namespace Halo::OS {
namespace {

// The client's headers stand alone, so the client names the service's codes itself; each name
// must mean the number that the key manager or the service returns.
using S = PreferencesStatus;
static_assert(int32_t{S::KeyPermissionDenied} == KeyManagerStatus::KeyPermissionDenied);
static_assert(int32_t{S::ListenerNotFound} == KeyManagerStatus::ListenerNotFound);
static_assert(int32_t{S::OsPermissionDenied} == KeyManagerStatus::OsPermissionDenied);
static_assert(int32_t{S::WriteRefused} == KeyManagerStatus::WriteRefused);
static_assert(int32_t{S::ReadRefused} == KeyManagerStatus::ReadRefused);
static_assert(int32_t{S::NullOutValue} == ServiceStatus::NullOutValue);
static_assert(int32_t{S::ListenerNotStored} == KeyManagerStatus::ListenerNotStored);

// Every status in words keeps its kind and code, so that a reader can still look the code up;
// a code the service never returns has no sentence.
TEST(PreferencesStatusTest, EveryStatusInWordsNamesItsKindAndCode) {
    const struct {
        PreferencesStatus status;
        const char* name;
        bool sentence;
    } kCases[] = {
            {S::ok(), "ok", false},
            {S::serviceSpecific(-3), "no permission for this key (service-specific error -3)",
             true},
            {S::serviceSpecific(-7), "OS permission missing (service-specific error -7)", true},
            {S::serviceSpecific(-8), "write refused (service-specific error -8)", true},
            {S::serviceSpecific(-9), "key not readable (service-specific error -9)", true},
            {S::serviceSpecific(-42), "service-specific error -42", false},
            {S::exception(-3), "exception -3 (illegal argument)", true},
            {S::exception(-7), "exception -7 (unsupported operation)", true},
            {S::exception(-77), "exception -77", false},
            {S::failed(-1), "status -1 (permission denied)", true},
            {S::unreachable(-2), "service unreachable: status -2 (no such service)", true},
            {S::unreachable(-1000), "service unreachable: status -1000 (error)", false},
    };
    for (const auto& c : kCases) {
        const PreferencesStatus::Description description = c.status.describe();
        EXPECT_EQ(c.name, description.name);
        EXPECT_EQ(c.sentence, !description.sentence.empty()) << c.name;
        EXPECT_EQ(c.sentence ? description.name + ": " + description.sentence : description.name,
                  c.status.toString());
    }
}

}  // namespace
}  // namespace Halo::OS
