#include "service/ServiceFixture.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "properties/SystemProperties.h"
#include "store/DirectoryPreferencesDb.h"
#include "support/SchemaList.h"
#include "support/SqlRows.h"

namespace Halo::OS::testing {

std::string appSchemaList() {
    std::vector<KeyJson> keys = {{"ro_integer", "integer", "3", "system", false}};
    for (const std::string type : {"integer", "double", "string", "long", "boolean", "float"}) {
        const std::string def = type == "string" ? "d" : type == "boolean" ? "true" : "5";
        keys.push_back({"sys_" + type, type, def, "system"});
        keys.push_back({"cross_" + type, type, def, "crossUser"});
    }
    return schemaListJson(true, {schemaJson(kAppUid, "com.example.app", keys),
                                 schemaJson(10200, "com.example.other",
                                            {{"other_integer", "integer", "1", "system"}})});
}

std::string autosleepSchemaList() {
    return schemaListJson(true, {schemaJson(kAppUid, "com.example.sleep",
                                            {{"autosleep_time", "integer", "7", "system"}})});
}

namespace {

// One service directory for the whole test process: Binder threads outlive single tests. It is
// never destroyed (threads may still look at it), only removed from disk at exit.
TempDir* processBinderDir() {
    static TempDir* dir = [] {
        auto* made = new TempDir();
        chmod(made->path().c_str(), 0755);
        setenv("BINDER_DIR", made->path().c_str(), 1);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(processBinderDir()->path(), ignored);
        });
        return made;
    }();
    return dir;
}

}  // namespace

const std::string& binderDir() {
    return processBinderDir()->path();
}

void ServiceTest::SetUp() {
    binderDir();
    SystemProperties::set(kAutosleepProperty, "");
    mManager = std::make_shared<PreferencesKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(mDataDir.path()), mAccess);
    ASSERT_TRUE(apply(appSchemaList()));
    mService = new PreferencesService(mManager);
}

void ServiceTest::TearDown() {
    SystemProperties::set(kAutosleepProperty, "");
}

bool ServiceTest::apply(const std::string& json) {
    return mManager->process(schemaList(json), KeySourceDomain::Application);
}

std::optional<std::string> ServiceTest::storedText(const std::string& dbName,
                                                   const std::string& key) {
    const std::vector<std::string> rows = sqlRows(
            mDataDir.file(dbName), "SELECT current_value FROM preference_values WHERE key = '" +
                                           key + "' AND current_value IS NOT NULL");
    return rows.empty() ? std::nullopt : std::optional<std::string>(rows[0]);
}

}  // namespace Halo::OS::testing
