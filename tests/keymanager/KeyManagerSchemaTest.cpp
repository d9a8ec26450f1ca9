#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "keymanager/KeyManagerFixture.h"
#include "store/IPreferencesDb.h"
#include "telemetry/Telemetry.h"

namespace Halo::OS {
namespace {

using testing::KeyManagerTest;
using Type = PreferencesKeyInfo::Type;
using ::testing::_;
using ::testing::Return;

constexpr uid_t kAlpha = 10001;
constexpr uid_t kBeta = 10002;

std::string entry(const std::string& key, const std::string& type, const std::string& def,
                  bool writable = true, const std::string& scope = "system", bool owner = false) {
    return R"({"key": ")" + key + R"(", "type": ")" + type + R"(", "default": ")" + def +
           R"(", "hasWritePermission": )" + (writable ? "true" : "false") + R"(, "scope": ")" +
           scope + R"(", "isOwner": )" + (owner ? "true" : "false") + "}";
}

std::string schema(uid_t uid, const std::string& package, const std::string& contents) {
    return R"({"uid": )" + std::to_string(uid) + R"(, "packageName": ")" + package +
           R"(", "version": "1", "contents": [)" + contents + "]}";
}

std::string list(bool add, bool restart, const std::string& schemas) {
    return std::string(R"({"add": )") + (add ? "true" : "false") + R"(, "restart": )" +
           (restart ? "true" : "false") + R"(, "schemas": [)" + schemas + "]}";
}

TEST_F(KeyManagerTest, AddUpdateAndRemoveSchemas) {
    ASSERT_TRUE(apply(list(true, false,
                           schema(kAlpha, "com.example.alpha",
                                  entry("alpha.volume", "integer", "5") + "," +
                                          entry("alpha.name", "string", "a", false)))));
    EXPECT_EQ("5", rootValue("alpha.volume", Type::Integer));
    EXPECT_EQ("a", rootValue("alpha.name", Type::String));

    // The package may write its writable key and only read the other one.
    mManager->setCaller(kAlpha);
    EXPECT_EQ(0, mManager->set("alpha.volume", "7", Type::Integer));
    EXPECT_EQ(-3, mManager->set("alpha.name", "b", Type::String));
    std::string value;
    EXPECT_EQ(0, mManager->get("alpha.name", value, Type::String));
    EXPECT_EQ("a", value);

    // An update drops alpha.name, adds alpha.mode, and turns alpha.volume read-only. The value
    // written before survives.
    ASSERT_TRUE(apply(list(true, false,
                           schema(kAlpha, "com.example.alpha",
                                  entry("alpha.volume", "integer", "5", false) + "," +
                                          entry("alpha.mode", "boolean", "true")))));
    EXPECT_EQ(-9, rootGet("alpha.name", value, Type::String));
    EXPECT_EQ("true", rootValue("alpha.mode", Type::Boolean));
    EXPECT_EQ("7", rootValue("alpha.volume", Type::Integer));
    mManager->setCaller(kAlpha);
    EXPECT_EQ(-3, mManager->set("alpha.volume", "8", Type::Integer));
    EXPECT_EQ(0, mManager->set("alpha.mode", "false", Type::Boolean));

    // Removal takes the package's keys and values with it.
    ASSERT_TRUE(apply(list(false, false, R"({"uid": 10001, "packageName": "com.example.alpha"})")));
    EXPECT_EQ(-9, rootGet("alpha.volume", value, Type::Integer));
    EXPECT_EQ(-9, rootGet("alpha.mode", value, Type::Boolean));
}

TEST_F(KeyManagerTest, RestartedListReconcilesItsDomainOnly) {
    ASSERT_TRUE(apply(
            list(true, true,
                 schema(kAlpha, "com.example.alpha", entry("alpha.k", "integer", "1")) + "," +
                         schema(kBeta, "com.example.beta", entry("beta.k", "integer", "2")))));
    ASSERT_TRUE(apply(list(true, true,
                           schema(1000, "nimbus.preferences.native.audio",
                                  entry("native.k", "integer", "3"))),
                      KeySourceDomain::NativeService));
    std::string value;

    // The application domain restarts without beta: beta's keys go, native keys stay.
    ASSERT_TRUE(apply(list(true, true,
                           schema(kAlpha, "com.example.alpha", entry("alpha.k", "integer", "1")))));
    EXPECT_EQ("1", rootValue("alpha.k", Type::Integer));
    EXPECT_EQ(-9, rootGet("beta.k", value, Type::Integer));
    EXPECT_EQ("3", rootValue("native.k", Type::Integer));

    // An empty restarted list removes every key of its domain and nothing else.
    ASSERT_TRUE(apply(list(true, true, "")));
    EXPECT_EQ(-9, rootGet("alpha.k", value, Type::Integer));
    EXPECT_EQ("3", rootValue("native.k", Type::Integer));
}

TEST_F(KeyManagerTest, FailingKeyGetsNoPermissionWhileItsSiblingsRegister) {
    ASSERT_TRUE(apply(list(true, false,
                           schema(kAlpha, "com.example.alpha",
                                  entry("shared", "integer", "1", true, "system", true)))));
    Telemetry::resetCounts();
    // beta asks to own a key alpha owns: refused, so beta gets no row on it; its other key is
    // registered, and the list reports the failure.
    EXPECT_FALSE(apply(list(true, false,
                            schema(kBeta, "com.example.beta",
                                   entry("shared", "integer", "1", true, "system", true) + "," +
                                           entry("beta.own", "string", "x")))));
    EXPECT_EQ(1u, Telemetry::count("key_register_error"));
    EXPECT_EQ(0u, Telemetry::count("key_register_success"));
    EXPECT_EQ(1u, Telemetry::count("schema_process_success"));

    mManager->setCaller(kBeta);
    std::string value;
    EXPECT_EQ(-3, mManager->get("shared", value, Type::Integer));
    EXPECT_EQ(0, mManager->get("beta.own", value, Type::String));
    EXPECT_EQ("x", value);
    mManager->setCaller(kAlpha);
    EXPECT_EQ(0, mManager->set("shared", "2", Type::Integer));
}

TEST_F(KeyManagerTest, EmptyPointerAndEmptyListsSucceed) {
    Telemetry::resetCounts();
    EXPECT_TRUE(mManager->process(nullptr, KeySourceDomain::Application));
    EXPECT_EQ(0u, Telemetry::count("schema_process_success"));  // nothing was done
    EXPECT_TRUE(apply("{}"));
    EXPECT_EQ(1u, Telemetry::count("begin_transaction_success"));
    EXPECT_EQ(1u, Telemetry::count("commit_transaction_success"));
    // Removing a package that was never there still runs the sweep.
    EXPECT_FALSE(apply(list(false, false, R"({"uid": 10009, "packageName": "nobody"})")));
    EXPECT_EQ(1u, Telemetry::count("remove_schema_error"));
}

// A store that fails where a real one rarely does, forwarding everything else to a real store.
class FailingBatchDb : public DirectoryPreferencesDb {
public:
    using DirectoryPreferencesDb::DirectoryPreferencesDb;
    int32_t beginBatch() override {
        ++beginCalls;
        return -1;
    }
    int32_t commitBatch() override {
        ++commitCalls;
        return DirectoryPreferencesDb::commitBatch();
    }
    int beginCalls = 0;
    int commitCalls = 0;
};

TEST(KeyManagerBatchTest, FailingBeginBatchStillAppliesEverySchemaAndCommits) {
    testing::TempDir dir;
    setenv("BINDER_DIR", dir.path().c_str(), 1);
    auto db = std::make_unique<FailingBatchDb>(dir.path());
    FailingBatchDb* raw = db.get();
    testing::TestKeyManager manager(std::move(db));
    Telemetry::resetCounts();
    EXPECT_TRUE(manager.process(
            testing::schemaList(
                    list(true, false,
                         schema(kAlpha, "com.example.alpha", entry("a1", "integer", "1")) + "," +
                                 schema(kBeta, "com.example.beta", entry("b1", "long", "2")))),
            KeySourceDomain::Application));
    EXPECT_EQ(1, raw->beginCalls);
    EXPECT_EQ(1, raw->commitCalls);
    EXPECT_EQ(1u, Telemetry::count("begin_transaction_error:-1"));
    // Without a transaction the lone COMMIT fails and is only reported.
    EXPECT_EQ(1u, Telemetry::countPrefix("commit_transaction_error:"));
    std::string value;
    EXPECT_EQ(0, manager.getWithoutPermissionCheck("a1", value, Type::Integer, 0));
    EXPECT_EQ("1", value);
    EXPECT_EQ(0, manager.getWithoutPermissionCheck("b1", value, Type::Long, 0));
    EXPECT_EQ("2", value);
}

}  // namespace
}  // namespace Halo::OS
