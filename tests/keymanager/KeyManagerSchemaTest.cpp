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

using testing::schemaJson;
using testing::schemaListJson;

TEST_F(KeyManagerTest, AddUpdateAndRemoveSchemas) {
    ASSERT_TRUE(
            apply(schemaListJson(true, {schemaJson(kAlpha, "com.example.alpha",
                                                   {{"alpha.volume", "integer", "5"},
                                                    {"alpha.name", "string", "a", "", false}})})));
    EXPECT_EQ("5", rootValue("alpha.volume", Type::Integer));
    EXPECT_EQ("a", rootValue("alpha.name", Type::String));

    // The package may write its writable key and only read the other one.
    mAccess->setCaller(kAlpha);
    EXPECT_EQ(0, mManager->set("alpha.volume", "7", Type::Integer));
    EXPECT_EQ(-3, mManager->set("alpha.name", "b", Type::String));
    std::string value;
    EXPECT_EQ(0, mManager->get("alpha.name", value, Type::String));
    EXPECT_EQ("a", value);

    // An update drops alpha.name, adds alpha.mode, and turns alpha.volume read-only. The value
    // written before survives.
    ASSERT_TRUE(apply(schemaListJson(true, {schemaJson(kAlpha, "com.example.alpha",
                                                       {{"alpha.volume", "integer", "5", "", false},
                                                        {"alpha.mode", "boolean", "true"}})})));
    EXPECT_EQ(-9, rootGet("alpha.name", value, Type::String));
    EXPECT_EQ("true", rootValue("alpha.mode", Type::Boolean));
    EXPECT_EQ("7", rootValue("alpha.volume", Type::Integer));
    mAccess->setCaller(kAlpha);
    EXPECT_EQ(-3, mManager->set("alpha.volume", "8", Type::Integer));
    EXPECT_EQ(0, mManager->set("alpha.mode", "false", Type::Boolean));

    // Removal takes the package's keys and values with it.
    ASSERT_TRUE(apply(
            schemaListJson(false, {R"({"uid": 10001, "packageName": "com.example.alpha"})"})));
    EXPECT_EQ(-9, rootGet("alpha.volume", value, Type::Integer));
    EXPECT_EQ(-9, rootGet("alpha.mode", value, Type::Boolean));
}

TEST_F(KeyManagerTest, RestartedListReconcilesItsDomainOnly) {
    const std::string alpha =
            schemaJson(kAlpha, "com.example.alpha", {{"alpha.k", "integer", "1"}});
    ASSERT_TRUE(apply(schemaListJson(
            true, {alpha, schemaJson(kBeta, "com.example.beta", {{"beta.k", "integer", "2"}})},
            true)));
    ASSERT_TRUE(apply(schemaListJson(true,
                                     {schemaJson(1000, "nimbus.preferences.native.audio",
                                                 {{"native.k", "integer", "3"}})},
                                     true),
                      KeySourceDomain::NativeService));
    std::string value;

    // The application domain restarts without beta: beta's keys go, native keys stay.
    ASSERT_TRUE(apply(schemaListJson(true, {alpha}, true)));
    EXPECT_EQ("1", rootValue("alpha.k", Type::Integer));
    EXPECT_EQ(-9, rootGet("beta.k", value, Type::Integer));
    EXPECT_EQ("3", rootValue("native.k", Type::Integer));

    // An empty restarted list removes every key of its domain and nothing else.
    ASSERT_TRUE(apply(schemaListJson(true, {}, true)));
    EXPECT_EQ(-9, rootGet("alpha.k", value, Type::Integer));
    EXPECT_EQ("3", rootValue("native.k", Type::Integer));
}

TEST_F(KeyManagerTest, FailingKeyGetsNoPermissionWhileItsSiblingsRegister) {
    const testing::KeyJson shared = {"shared", "integer", "1", "", true, true};
    ASSERT_TRUE(apply(schemaListJson(true, {schemaJson(kAlpha, "com.example.alpha", {shared})})));
    Telemetry::resetCounts();
    // beta asks to own a key alpha owns: refused, so beta gets no row on it; its other key is
    // registered, and the list reports the failure.
    EXPECT_FALSE(apply(schemaListJson(
            true, {schemaJson(kBeta, "com.example.beta", {shared, {"beta.own", "string", "x"}})})));
    EXPECT_EQ(1u, Telemetry::count("key_register_error"));
    EXPECT_EQ(0u, Telemetry::count("key_register_success"));
    EXPECT_EQ(1u, Telemetry::count("schema_process_success"));

    mAccess->setCaller(kBeta);
    std::string value;
    EXPECT_EQ(-3, mManager->get("shared", value, Type::Integer));
    EXPECT_EQ(0, mManager->get("beta.own", value, Type::String));
    EXPECT_EQ("x", value);
    mAccess->setCaller(kAlpha);
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
    EXPECT_FALSE(apply(schemaListJson(false, {R"({"uid": 10009, "packageName": "nobody"})"})));
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
    PreferencesKeyManager manager(std::move(db), std::make_shared<testing::TestAccess>());
    Telemetry::resetCounts();
    EXPECT_TRUE(manager.process(
            testing::schemaList(schemaListJson(
                    true, {schemaJson(kAlpha, "com.example.alpha", {{"a1", "integer", "1"}}),
                           schemaJson(kBeta, "com.example.beta", {{"b1", "long", "2"}})})),
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
