#include "keyvaluestore/KeyValueStore.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace Halo::OS {
namespace {

using testing::LogCapture;
using testing::TempDir;

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeAll(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Runs SQL on a file directly, the way a legacy writer (or a foreign program) would.
void execSql(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
    char* error = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error))
            << (error != nullptr ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
}

void expectUnusable(KeyValueStore& store, const std::string& what) {
    EXPECT_FALSE(store.isValid()) << what;
    EXPECT_EQ(std::nullopt, store.get("k")) << what;
    EXPECT_FALSE(store.set("k", "v")) << what;
}

TEST(KeyValueStoreTest, ValuesRoundTripAndSurviveReopening) {
    TempDir dir;
    const std::string path = dir.file("user10.db");
    {
        KeyValueStore store(path, "user_settings");
        ASSERT_TRUE(store.isValid());
        EXPECT_EQ(std::nullopt, store.get("sleep_timer"));
        EXPECT_TRUE(store.set("sleep_timer", "15"));
        EXPECT_TRUE(store.set("font", "Noto Sans \xe2\x9c\x93"));
        EXPECT_TRUE(store.set("empty", ""));
        EXPECT_TRUE(store.set("sleep_timer", "30"));  // replaces, no second row
        EXPECT_TRUE(store.set("quote'key\"", "it's"));
        EXPECT_EQ("30", store.get("sleep_timer"));
        EXPECT_EQ("", store.get("empty"));
    }
    ASSERT_TRUE(exists(path));
    {
        KeyValueStore store(path, "user_settings");
        ASSERT_TRUE(store.isValid());
        EXPECT_EQ("30", store.get("sleep_timer"));
        EXPECT_EQ("Noto Sans \xe2\x9c\x93", store.get("font"));
        EXPECT_EQ("", store.get("empty"));
        EXPECT_EQ("it's", store.get("quote'key\""));
        EXPECT_EQ(std::nullopt, store.get("SLEEP_TIMER"));
    }
    {
        KeyValueStore readOnly(path, "user_settings", KeyValueStore::kReadOnly);
        ASSERT_TRUE(readOnly.isValid());
        EXPECT_EQ("30", readOnly.get("sleep_timer"));
        LogCapture log;
        EXPECT_FALSE(readOnly.set("sleep_timer", "45"));
        EXPECT_TRUE(log.contains("not writable"));
    }
    KeyValueStore again(path, "user_settings");
    EXPECT_EQ("30", again.get("sleep_timer"));
}

TEST(KeyValueStoreTest, ReadsTablesWrittenByTheLegacyWriter) {
    TempDir dir;
    const std::string path = dir.file("system.db");
    // No uniqueness on the key, an integer value and a NULL value, as older writers left them.
    execSql(path,
            "CREATE TABLE system_settings (key TEXT, value TEXT);"
            "CREATE TABLE unrelated (x INTEGER);"
            "INSERT INTO system_settings VALUES ('brightness', 15);"
            "INSERT INTO system_settings VALUES ('wake_word', NULL);"
            "INSERT INTO system_settings VALUES ('ratio', '0.5');");
    KeyValueStore store(path, "system_settings");
    ASSERT_TRUE(store.isValid());
    EXPECT_EQ("15", store.get("brightness"));
    EXPECT_EQ(std::nullopt, store.get("wake_word"));
    EXPECT_EQ("0.5", store.get("ratio"));
    EXPECT_TRUE(store.set("brightness", "20"));
    EXPECT_TRUE(store.set("wake_word", "hey"));
    EXPECT_TRUE(store.set("new_key", "1"));
    EXPECT_EQ("20", store.get("brightness"));
    EXPECT_EQ("hey", store.get("wake_word"));
    EXPECT_EQ("1", store.get("new_key"));

    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
    sqlite3_stmt* count = nullptr;
    ASSERT_EQ(SQLITE_OK,
              sqlite3_prepare_v2(db, "SELECT count(*) FROM system_settings", -1, &count, nullptr));
    ASSERT_EQ(SQLITE_ROW, sqlite3_step(count));
    EXPECT_EQ(4, sqlite3_column_int(count, 0));  // updated in place, one row added
    sqlite3_finalize(count);
    sqlite3_close(db);
}

TEST(KeyValueStoreTest, CorruptOrForeignFilesAreInvalidAndLeftAlone) {
    TempDir dir;
    LogCapture log;

    const std::string text = dir.file("text.db");
    writeAll(text, "this is not a database, just some settings=1\n");
    {
        KeyValueStore store(text, "user_settings");
        expectUnusable(store, "text file");
    }
    EXPECT_EQ("this is not a database, just some settings=1\n", readAll(text));

    // A real SQLite header followed by garbage.
    const std::string header = dir.file("header.db");
    std::string bytes("SQLite format 3\0", 16);
    bytes.append(8192, '\xab');
    writeAll(header, bytes);
    {
        KeyValueStore store(header, "user_settings");
        expectUnusable(store, "garbage after header");
    }
    EXPECT_EQ(bytes, readAll(header));

    // A sound database whose pages were overwritten afterwards.
    const std::string damaged = dir.file("damaged.db");
    {
        KeyValueStore store(damaged, "user_settings");
        ASSERT_TRUE(store.isValid());
        for (int i = 0; i < 300; ++i) {
            ASSERT_TRUE(store.set("key_" + std::to_string(i), std::string(40, 'x')));
        }
    }
    std::string pages = readAll(damaged);
    ASSERT_GT(pages.size(), 3 * 4096u);
    pages.replace(4096, 4096, std::string(4096, '\xff'));
    writeAll(damaged, pages);
    {
        KeyValueStore store(damaged, "user_settings");
        expectUnusable(store, "damaged pages");
    }

    // Another program's database: other tables, not ours; nothing is added to it.
    const std::string foreign = dir.file("foreign.db");
    execSql(foreign, "CREATE TABLE contacts (name TEXT, phone TEXT);");
    {
        KeyValueStore store(foreign, "user_settings");
        expectUnusable(store, "foreign database");
    }
    {
        KeyValueStore store(foreign, "contacts");  // the table exists but has no key/value
        expectUnusable(store, "table without the columns");
    }
    {
        // The file must still lack the settings table.
        KeyValueStore readOnly(foreign, "user_settings", KeyValueStore::kReadOnly);
        EXPECT_FALSE(readOnly.isValid());
    }

    {
        KeyValueStore store(dir.path(), "user_settings");  // a directory
        expectUnusable(store, "directory");
    }
    {
        KeyValueStore store(dir.file("missing/user0.db"), "user_settings");
        expectUnusable(store, "missing parent directory");
    }
    {
        KeyValueStore store(dir.file("ro.db"), "user_settings", KeyValueStore::kReadOnly);
        expectUnusable(store, "read-only open of a missing file");
    }
    EXPECT_FALSE(exists(dir.file("ro.db")));
    {
        KeyValueStore store(dir.file("bad.db"), "user_settings; DROP TABLE x");
        expectUnusable(store, "table name that is not an identifier");
    }
    EXPECT_FALSE(exists(dir.file("bad.db")));
    EXPECT_TRUE(log.contains("is not a usable database: *** in database main *** Page 2"));
    EXPECT_TRUE(log.contains("foreign.db has no table user_settings"));
}

TEST(KeyValueStoreTest, EmptyFileBecomesANewDatabase) {
    TempDir dir;
    const std::string path = dir.file("user0.db");
    writeAll(path, "");
    KeyValueStore store(path, "user_settings");
    ASSERT_TRUE(store.isValid());
    EXPECT_TRUE(store.set("a", "1"));
    EXPECT_EQ("1", store.get("a"));
}

TEST(KeyValueStoreTest, ConcurrentWritersLoseNothing) {
    TempDir dir;
    KeyValueStore store(dir.file("user0.db"), "user_settings");
    ASSERT_TRUE(store.isValid());
    constexpr int kPerThread = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const std::string key = "t" + std::to_string(t) + "_" + std::to_string(i);
                EXPECT_TRUE(store.set(key, std::to_string(i)));
                EXPECT_EQ(std::to_string(i), store.get(key));
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < kPerThread; ++i) {
            EXPECT_EQ(std::to_string(i),
                      store.get("t" + std::to_string(t) + "_" + std::to_string(i)));
        }
    }
}

}  // namespace
}  // namespace Halo::OS
