#include "keyvaluestore/KeyValueStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/SqlRows.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::sqlRows;
using testing::TempDir;

std::string readAll(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void writeAll(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

TEST(KeyValueStoreTest, ValuesRoundTripAndSurviveReopening) {
    TempDir dir;
    const std::string path = dir.file("user10.db");
    {
        KeyValueStore store(path, "user_settings");
        ASSERT_TRUE(store.isValid());
        EXPECT_EQ(std::nullopt, store.get("sleep_timer"));
        EXPECT_TRUE(store.set("sleep_timer", "15"));
        EXPECT_TRUE(store.set("sleep_timer", "30"));
        EXPECT_TRUE(store.set("quote'key\"", "Noto \xe2\x9c\x93"));
        EXPECT_TRUE(store.set("empty", ""));
    }
    KeyValueStore store(path, "user_settings");
    ASSERT_TRUE(store.isValid());
    EXPECT_EQ("30", store.get("sleep_timer"));
    EXPECT_EQ("Noto \xe2\x9c\x93", store.get("quote'key\""));
    EXPECT_EQ("", store.get("empty"));
    EXPECT_EQ(std::nullopt, store.get("SLEEP_TIMER"));

    KeyValueStore readOnly(path, "user_settings", KeyValueStore::kReadOnly);
    EXPECT_EQ("30", readOnly.get("sleep_timer"));
    EXPECT_FALSE(readOnly.set("sleep_timer", "45"));
    EXPECT_EQ("30", store.get("sleep_timer"));
}

TEST(KeyValueStoreTest, ReadsAndUpdatesTablesOfTheLegacyWriter) {
    TempDir dir;
    const std::string path = dir.file("system.db");
    // No uniqueness on the key, an integer value and a NULL value, as older writers left them.
    sqlRows(path,
            "CREATE TABLE system_settings (key TEXT, value TEXT); CREATE TABLE other (x);"
            "INSERT INTO system_settings VALUES ('brightness', 15), ('wake_word', NULL);");
    {
        KeyValueStore store(path, "system_settings");
        ASSERT_TRUE(store.isValid());
        EXPECT_EQ("15", store.get("brightness"));
        EXPECT_EQ(std::nullopt, store.get("wake_word"));
        EXPECT_TRUE(store.set("brightness", "20"));
        EXPECT_TRUE(store.set("new_key", "1"));
    }
    EXPECT_EQ(std::vector<std::string>({"brightness|20", "new_key|1", "wake_word|NULL"}),
              sqlRows(path, "SELECT * FROM system_settings ORDER BY key"));
}

TEST(KeyValueStoreTest, CorruptOrForeignFilesAreInvalidAndLeftAlone) {
    TempDir dir;
    writeAll(dir.file("text.db"), "not a database, just settings=1\n");
    writeAll(dir.file("header.db"),
             std::string("SQLite format 3\0", 16) + std::string(8192, '\xab'));
    sqlRows(dir.file("foreign.db"), "CREATE TABLE contacts (name TEXT, phone TEXT);");
    {
        KeyValueStore store(dir.file("damaged.db"), "user_settings");
        for (int i = 0; i < 300; ++i) ASSERT_TRUE(store.set("key" + std::to_string(i), "value"));
    }
    std::string pages = readAll(dir.file("damaged.db"));
    ASSERT_GT(pages.size(), 3 * 4096u);
    writeAll(dir.file("damaged.db"), pages.replace(4096, 4096, std::string(4096, '\xff')));

    struct Case {
        std::string file, table;
        int flags;
    };
    const Case cases[] = {
            {"text.db", "user_settings", 0},
            {"header.db", "user_settings", 0},
            {"damaged.db", "user_settings", 0},
            {"foreign.db", "user_settings", 0},
            {"foreign.db", "contacts", 0},
            {"", "user_settings", 0},
            {"no/user0.db", "user_settings", 0},
            {"ro.db", "user_settings", KeyValueStore::kReadOnly},
            {"bad.db", "t; DROP TABLE x", 0},
    };
    LogCapture log;
    for (const Case& c : cases) {
        const std::string path = dir.file(c.file);
        const std::string before = readAll(path);
        KeyValueStore store(path, c.table, c.flags);
        EXPECT_FALSE(store.isValid()) << c.file << " " << c.table;
        EXPECT_EQ(std::nullopt, store.get("key1")) << c.file;
        EXPECT_FALSE(store.set("k", "v")) << c.file;
        EXPECT_EQ(before, readAll(path)) << c.file;
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("ro.db")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("bad.db")));
    EXPECT_TRUE(log.contains("is not a usable database: *** in database main *** Page 2"));
    EXPECT_TRUE(log.contains("foreign.db has no table user_settings"));

    writeAll(dir.file("empty.db"), "");  // an empty file is a new database
    KeyValueStore empty(dir.file("empty.db"), "user_settings");
    EXPECT_TRUE(empty.set("a", "1"));
    EXPECT_EQ("1", empty.get("a"));
}

TEST(KeyValueStoreTest, ConcurrentWritersLoseNothing) {
    TempDir dir;
    KeyValueStore store(dir.file("user0.db"), "user_settings");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 50; ++i) {
                const std::string key = std::to_string(t) + "_" + std::to_string(i);
                EXPECT_TRUE(store.set(key, std::to_string(i)));
                EXPECT_EQ(std::to_string(i), store.get(key));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 50; ++i) {
            EXPECT_EQ(std::to_string(i), store.get(std::to_string(t) + "_" + std::to_string(i)));
        }
    }
}

}  // namespace
}  // namespace Halo::OS
