#include "intake/PreferencesNativeServiceManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "StartupFixture.h"
#include "model/PreferencesSchemaBuilder.h"
#include "model/PreferencesSchemaListBuilder.h"
#include "support/LogCapture.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::sqlRows;
using testing::Type;

std::string schema(const std::string& package, const std::string& key, const char* uid = "") {
    return "{\"packageName\": \"" + package + "\"," + uid + "\"contents\": [{\"key\": \"" + key +
           "\", \"type\": \"integer\", \"default\": \"8\", \"hasWritePermission\": true}]}";
}

class PreferencesNativeServiceManagerTest : public testing::StartupTest {
protected:
    void writeNative(const std::string& name, const std::string& text) {
        testing::writeFile(mConfigDir.file("native/" + name), text);
    }
    bool inject() {
        return PreferencesNativeServiceManager(mManager, config()).injectNativeServiceKeys();
    }
    std::vector<std::string> packages() {
        return sqlRows(systemDb(),
                       "SELECT package_uid || ' ' || package_name FROM packages ORDER BY 1");
    }
};

TEST_F(PreferencesNativeServiceManagerTest, UsableDocumentsAreDeclaredUnderTheNativePrefix) {
    writeNative("audio.json", schema("nimbus.audio.daemon", "audio_step", "\"uid\": 1041,"));
    writeNative("broken.json", "{\"packageName\": \"nimbus.broken\", \"contents\": [");
    writeNative("nameless.json", "{\"version\": \"1\", \"contents\": []}");
    writeNative("deep.json", std::string(100000, '[') + std::string(100000, ']'));
    start();
    Telemetry::resetCounts();
    LogCapture log;
    ASSERT_TRUE(inject());
    EXPECT_TRUE(
            log.contains("Failed to parse string into Json: {\"packageName\": \"nimbus.broken\""));
    EXPECT_TRUE(log.contains("Failed to parse Json into PreferencesSchemaBuilder: {\"version\""));
    EXPECT_TRUE(log.contains("Failed to parse string into Json: [[[["));
    EXPECT_EQ(3u, Telemetry::count("native_service_keys_malformed"));
    EXPECT_EQ("8", value("audio_step", Type::Integer));
    EXPECT_EQ("false", value("preferences_trace_on_boot_one_shot", Type::Boolean));
    EXPECT_EQ((std::vector<std::string>{
                      "0 nimbus.preferences.native.nimbus.preferences.service.profiler",
                      "1041 nimbus.preferences.native.nimbus.audio.daemon"}),
              packages());

    PreferencesNativeServiceManager detached(nullptr, config());
    LogCapture detachedLog;
    EXPECT_FALSE(detached.injectNativeServiceKeys());
    EXPECT_TRUE(detachedLog.contains("failed to inject native service key(s)"));
    EXPECT_EQ(1u, Telemetry::count("inject_native_service_keys_failed"));
    auto list = detached.buildSchemaList(false, false, {schema("a", "k")});
    ASSERT_EQ(1u, list->size());
    EXPECT_FALSE(list->isInstalled() || list->isRestarted());
}

TEST_F(PreferencesNativeServiceManagerTest, RemovedNativePackageLosesItsKeysAtTheNextStart) {
    writeNative("audio.json", schema("nimbus.audio.daemon", "audio_step"));
    writeNative("tracking.json", schema("nimbus.tracking.service", "tracking_hz"));
    start();
    ASSERT_TRUE(inject());
    ASSERT_EQ(0, mManager->setWithoutCallback("audio_step", "12", Type::Integer));
    // An application's package, which the native list leaves alone.
    PreferencesSchemaBuilder app;
    app.uid(10057).package("com.example.weather").keyInfos({});
    std::vector<std::unique_ptr<PreferencesSchema>> schemas;
    schemas.push_back(app.build());
    PreferencesSchemaListBuilder appList;
    appList.process(true, true, std::move(schemas));
    ASSERT_TRUE(mManager->process(appList.build(), KeySourceDomain::Application));

    ASSERT_EQ(0, unlink(mConfigDir.file("native/tracking.json").c_str()));
    restart();
    ASSERT_TRUE(inject());
    EXPECT_EQ(std::nullopt, value("tracking_hz", Type::Integer));
    EXPECT_EQ("12", value("audio_step", Type::Integer));
    EXPECT_EQ((std::vector<std::string>{
                      "0 nimbus.preferences.native.nimbus.audio.daemon",
                      "0 nimbus.preferences.native.nimbus.preferences.service.profiler",
                      "10057 com.example.weather"}),
              packages());
}

}  // namespace
}  // namespace Halo::OS
