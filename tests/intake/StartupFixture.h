#pragma once

#include <cutils/multiuser.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "intake/PreferencesDeviceConfig.h"
#include "keymanager/KeyManagerFixture.h"
#include "keyvaluestore/KeyValueStore.h"
#include "store/DirectoryPreferencesDb.h"
#include "support/SqlRows.h"
#include "support/TempDir.h"

namespace Halo::OS::testing {

using Type = PreferencesKeyInfo::Type;

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

inline bool fileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// The test device's legacy keys (legacy-keys.json entries): every location, scope and several
// types; the indexes have gaps.
struct LegacyKey {
    int index;
    const char* name;
    const char* type;
    const char* defaultValue;
    const char* scope;
    int location;
    Type valueType;
};
inline const std::vector<LegacyKey> kLegacyKeys = {
        {0, "screen_off_timeout_seconds", "integer", "60", "user", 2, Type::Integer},
        {2, "sleep_timer_minutes", "integer", "30", "system", 1, Type::Integer},
        {3, "font_name", "string", "Roboto", "user", 2, Type::String},
        {4, "hand_tracking_enabled", "boolean", "true", "crossUser", 2, Type::Boolean},
        {5, "volume_ratio", "float", "0.500000", "system", 1, Type::Float},
        {9, "last_sync_millis", "long", "0", "system", 1, Type::Long},
};

inline Type typeOf(const std::string& name) {
    for (const LegacyKey& key : kLegacyKeys) {
        if (name == key.name) return key.valueType;
    }
    return Type::NoType;
}

// legacy-keys.json for kLegacyKeys and `extra` (more entries, comma-separated).
inline std::string legacyKeysJson(const std::string& extra = "") {
    std::string json = "{\"keys\": [" + extra;
    for (const LegacyKey& key : kLegacyKeys) {
        json += std::string(json.back() == '[' ? "" : ",") +
                "{\"index\": " + std::to_string(key.index) + ", \"key\": \"" + key.name +
                "\", \"type\": \"" + key.type + "\", \"default\": \"" + key.defaultValue +
                "\", \"scope\": \"" + key.scope +
                "\", \"hasWritePermission\": true, \"isOwner\": true, " +
                "\"location\": " + std::to_string(key.location) + "}";
    }
    return json + "]}";
}

// A value in a legacy database: the system database (no user) or a user's.
struct LegacyValue {
    std::optional<int> user;
    const char* key;
    const char* value;
};
// Values that the migration copies, and values it must not copy (their keys keep the value
// given here, the default).
inline const std::vector<LegacyValue> kMigrated = {
        {{}, "sleep_timer_minutes", "15"},
        {{}, "volume_ratio", "0.75"},
        {{}, "last_sync_millis", "1700000000000"},
        {0, "screen_off_timeout_seconds", "120"},
        {0, "font_name", "Serif"},
        {10, "font_name", "Mono"},
        {10, "hand_tracking_enabled", "false"},
};
inline const std::vector<LegacyValue> kKeptDefaults = {
        {0, "hand_tracking_enabled", "true"},      // empty, and set in the system database
        {10, "screen_off_timeout_seconds", "60"},  // set for user 0 only
};

inline std::string legacyDbPath(const TempDir& dir, std::optional<int> user) {
    return dir.file(user ? "user" + std::to_string(*user) + ".db" : "system.db");
}

// Legacy databases of the system and users 0 and 10 holding kMigrated, an empty value, values
// in the other location's database and a key that is not a legacy key.
inline void writeLegacyDatabases(const TempDir& dir) {
    auto put = [&dir](std::optional<int> user, const char* key, const char* value) {
        KeyValueStore store(legacyDbPath(dir, user), user ? "user_settings" : "system_settings");
        EXPECT_TRUE(store.set(key, value));
    };
    for (const LegacyValue& value : kMigrated) put(value.user, value.key, value.value);
    put({}, "hand_tracking_enabled", "false");
    put({}, "retired_setting", "7");
    put(0, "hand_tracking_enabled", "");
    put(10, "sleep_timer_minutes", "99");
}

// The uid under which a root caller reads the value of `user` (the system value when none).
inline uid_t readerUid(std::optional<int> user) {
    return user ? multiuser_get_uid(static_cast<userid_t>(*user), 0) : 0;
}

// One device (store, legacy databases, configuration) and at most one key manager on it.
class StartupTest : public ::testing::Test {
protected:
    void SetUp() override {
        // No permission service is published here.
        setenv("BINDER_DIR", mData.path().c_str(), 1);
        mkdir(mConfigDir.file("native").c_str(), 0755);
        writeFile(mConfigDir.file("legacy-keys.json"), legacyKeysJson());
    }
    void TearDown() override { mManager.reset(); }

    void start() {
        mManager = std::make_shared<PreferencesKeyManager>(
                std::make_unique<DirectoryPreferencesDb>(mData.path()), mAccess);
    }
    void restart() {
        mManager.reset();
        start();
    }
    std::shared_ptr<const PreferencesDeviceConfig> config() const {
        return std::make_shared<PreferencesDeviceConfig>(mConfigDir.path());
    }
    std::string systemDb() const { return mData.file("system.db"); }

    // The value of `key` for the user of `uid`, read as root; nullopt when the read fails.
    std::optional<std::string> value(const std::string& key, Type type, uid_t uid = 0) {
        const uid_t caller = mManager->getCallingUid();
        mAccess->setCaller(0);
        std::string out;
        const int status = mManager->getWithoutPermissionCheck(key, out, type, uid);
        mAccess->setCaller(caller);
        return status == 0 ? std::optional<std::string>(out) : std::nullopt;
    }
    std::optional<std::string> value(const LegacyValue& legacy) {
        return value(legacy.key, typeOf(legacy.key), readerUid(legacy.user));
    }
    // Every kMigrated value is in the store in its user (when `migrated`, else the key reads
    // its default), and the kKeptDefaults keys read their defaults.
    void expectLegacyValues(bool migrated = true) {
        for (const LegacyValue& legacy : kMigrated) {
            std::string expected = legacy.value;
            for (const LegacyKey& key : kLegacyKeys) {
                if (!migrated && legacy.key == std::string(key.name)) expected = key.defaultValue;
            }
            EXPECT_EQ(expected, value(legacy)) << legacy.key << " of " << legacy.user.value_or(-1);
        }
        for (const LegacyValue& legacy : kKeptDefaults) {
            EXPECT_EQ(legacy.value, value(legacy)) << legacy.key;
        }
    }
    bool anyLegacyFile() const {
        return fileExists(mLegacy.file("system.db")) || fileExists(mLegacy.file("user0.db")) ||
               fileExists(mLegacy.file("user10.db"));
    }

    TempDir mData;
    TempDir mLegacy;
    TempDir mConfigDir;
    std::shared_ptr<TestAccess> mAccess = std::make_shared<TestAccess>();
    std::shared_ptr<PreferencesKeyManager> mManager;
};

}  // namespace Halo::OS::testing
