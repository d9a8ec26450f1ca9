#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <utils/StrongPointer.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "keymanager/KeyManagerFixture.h"
#include "service/PreferencesService.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {

// Application uids of the tests: kAppUid declares the test keys and holds READ_SETTINGS and
// WRITE_SETTINGS; kBareUid declares nothing and holds no permission.
constexpr uid_t kAppUid = 10123;
constexpr uid_t kBareUid = 10456;

// Package of kAppUid: for every type word T the keys "sys_T" (system scope) and "cross_T"
// (cross-user scope), writable, defaults "5" ("d" for strings, "true" for booleans); and
// "ro_integer", readable only. Another package (uid 10200) declares "other_integer".
std::string appSchemaList();
// Package of kAppUid declaring "autosleep_time": integer, system scope, writable, default 7.
std::string autosleepSchemaList();

// A directory for published Binder services, shared by the whole test process and set as
// $BINDER_DIR; searchable by every uid.
const std::string& binderDir();

// A service on a key manager whose caller and OS permissions come from mAccess (root, holding
// every permission, unless a test changes it) and whose store lives in a fresh directory, with the schemas of appSchemaList() applied. Empties the
// autosleep_time override property before and after.
class ServiceTest : public ::testing::Test {
protected:
    static constexpr const char* kAutosleepProperty = "persist.halo.prefs_overrides.autosleep_time";

    void SetUp() override;
    void TearDown() override;

    bool apply(const std::string& json);
    // The current value text of `key` in the database file `dbName` ("system.db", "user10.db"),
    // read through a read-only connection of its own; nothing when no current value is stored.
    std::optional<std::string> storedText(const std::string& dbName, const std::string& key);

    TempDir mDataDir;
    std::shared_ptr<TestAccess> mAccess = std::make_shared<TestAccess>();
    std::shared_ptr<PreferencesKeyManager> mManager;
    android::sp<PreferencesService> mService;
};

}  // namespace Halo::OS::testing
