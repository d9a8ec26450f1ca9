#include "service/ServiceFixture.h"

#include <android-base/properties.h>
#include <json/reader.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "model/PreferencesSchemaListBuilder.h"
#include "store/DirectoryPreferencesDb.h"

namespace Halo::OS::testing {

const std::vector<std::string> kTypeWords = {"integer", "double",  "string",
                                             "long",    "boolean", "float"};

namespace {

std::string entry(const std::string& key, const std::string& type, const std::string& def,
                  const std::string& scope, bool writable) {
    return R"({"key": ")" + key + R"(", "type": ")" + type + R"(", "default": ")" + def +
           R"(", "scope": ")" + scope + R"(", "hasWritePermission": )" +
           (writable ? "true" : "false") + "}";
}

std::string schema(uid_t uid, const std::string& package, const std::string& contents) {
    return R"({"uid": )" + std::to_string(uid) + R"(, "packageName": ")" + package +
           R"(", "contents": [)" + contents + "]}";
}

}  // namespace

std::string appSchemaList() {
    std::string contents = entry("ro_integer", "integer", "3", "system", false);
    for (const std::string& type : kTypeWords) {
        const std::string def = type == "string" ? "d" : type == "boolean" ? "true" : "5";
        contents += ", " + entry("sys_" + type, type, def, "system", true);
        contents += ", " + entry("cross_" + type, type, def, "crossUser", true);
    }
    return R"({"add": true, "schemas": [)" + schema(kAppUid, "com.example.app", contents) + ", " +
           schema(10200, "com.example.other",
                  entry("other_integer", "integer", "1", "system", true)) +
           "]}";
}

std::string autosleepSchemaList() {
    return R"({"add": true, "schemas": [)" +
           schema(kAppUid, "com.example.sleep",
                  entry("autosleep_time", "integer", "7", "system", true)) +
           "]}";
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
    android::base::SetProperty(kAutosleepProperty, "");
    mManager = std::make_shared<CountingKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(mDataDir.path()));
    ASSERT_TRUE(apply(appSchemaList()));
    mService = new PreferencesService(mManager);
}

void ServiceTest::TearDown() {
    android::base::SetProperty(kAutosleepProperty, "");
}

bool ServiceTest::apply(const std::string& json) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    EXPECT_TRUE(reader->parse(json.data(), json.data() + json.size(), &value, &errors)) << errors;
    PreferencesSchemaListBuilder list;
    list.process(value);
    return mManager->process(list.build(), KeySourceDomain::Application);
}

std::optional<std::string> ServiceTest::storedText(const std::string& dbName,
                                                   const std::string& key) {
    sqlite3* db = nullptr;
    std::optional<std::string> text;
    if (sqlite3_open_v2(mDataDir.file(dbName).c_str(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
        ADD_FAILURE() << "cannot open " << dbName << ": " << sqlite3_errmsg(db);
        sqlite3_close(db);
        return text;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT current_value FROM preference_values WHERE key = ?", -1,
                           &stmt, nullptr) != SQLITE_OK) {
        ADD_FAILURE() << "cannot query " << dbName << ": " << sqlite3_errmsg(db);
    } else {
        sqlite3_bind_text(stmt, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(stmt) == SQLITE_ROW && sqlite3_column_type(stmt, 0) != SQLITE_NULL) {
            text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        }
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return text;
}

}  // namespace Halo::OS::testing
