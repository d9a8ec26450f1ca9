// Micro-benchmarks of the store's read and write paths, one store operation per iteration.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

#include "BenchSchemas.h"
#include "MicroBenchStore.h"
#include "store/DirectoryPreferencesDb.h"

namespace Halo::OS {
namespace {

using Scope = PreferencesKeyInfo::PreferenceScope;
using Type = PreferencesKeyInfo::Type;
using Permission = PreferencesKeyInfo::PreferencePermission;

class StoreFixture : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State& /*state*/) override {
        mStore = std::make_unique<DirectoryPreferencesDb>(data().directory());
        mStore->initialize();
        mKeys = BenchSchemas::readKeys();
    }
    void TearDown(const benchmark::State& /*state*/) override { mStore.reset(); }

protected:
    static MicroBenchStore& data() { return MicroBenchStore::shared(); }
    const std::string& key(size_t i) const { return mKeys[i % mKeys.size()]; }

    std::unique_ptr<DirectoryPreferencesDb> mStore;
    std::vector<std::string> mKeys;
};

BENCHMARK_F(StoreFixture, GetPreferencePermission)(benchmark::State& state) {
    size_t i = 0;
    for (auto _ : state) {
        Permission permission;
        benchmark::DoNotOptimize(
                mStore->getPreferencePermission(key(i++), BenchSchemas::kBenchUid, permission));
    }
}

BENCHMARK_F(StoreFixture, GetPreferenceType)(benchmark::State& state) {
    size_t i = 0;
    for (auto _ : state) {
        Type type;
        benchmark::DoNotOptimize(mStore->getPreferenceType(key(i++), type));
    }
}

BENCHMARK_F(StoreFixture, GetPreferenceScope)(benchmark::State& state) {
    size_t i = 0;
    for (auto _ : state) {
        Scope scope;
        benchmark::DoNotOptimize(mStore->getPreferenceScope(key(i++), scope, false));
    }
}

// A key with a stored value: the scope, then the current value.
BENCHMARK_F(StoreFixture, GetPreferenceValueCurrent)(benchmark::State& state) {
    size_t i = 0;
    for (auto _ : state) {
        std::optional<std::string> value;
        benchmark::DoNotOptimize(mStore->getPreferenceValue(0u, 0u, key(i++), value));
    }
}

// A key without a stored value: the scope, no current value, then the default.
BENCHMARK_F(StoreFixture, GetPreferenceValueDefault)(benchmark::State& state) {
    const std::string name = BenchSchemas::kNotifyKey;
    for (auto _ : state) {
        std::optional<std::string> value;
        benchmark::DoNotOptimize(mStore->getPreferenceValue(0u, 0u, name, value));
    }
}

BENCHMARK_F(StoreFixture, SetPreferenceValue)(benchmark::State& state) {
    const std::string name = BenchSchemas::kSetKey;
    int64_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(mStore->setPreferenceValue(0u, 0u, name, std::to_string(i++)));
    }
}

// The floor of GetPreferenceValueCurrent: the value statement alone, on a second connection.
BENCHMARK_F(StoreFixture, RawValueSelect)(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open((data().directory() + "/system.db").c_str(), &db);
    sqlite3_exec(db, "PRAGMA cache_size = 256", nullptr, nullptr, nullptr);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT current_value FROM preference_values WHERE key = ?", -1, &select,
                       nullptr);
    size_t i = 0;
    std::string value;
    for (auto _ : state) {
        const std::string& name = key(i++);
        sqlite3_bind_text(select, 1, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        if (sqlite3_step(select) == SQLITE_ROW) {
            value.assign(reinterpret_cast<const char*>(sqlite3_column_text(select, 0)));
        }
        sqlite3_reset(select);
        benchmark::DoNotOptimize(value);
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
}

// The floor of SetPreferenceValue: the value update alone, its own transaction, on a second
// connection with the store's durability setting.
BENCHMARK_F(StoreFixture, RawValueUpdate)(benchmark::State& state) {
    sqlite3* db = nullptr;
    sqlite3_open((data().directory() + "/system.db").c_str(), &db);
    sqlite3_exec(db, "PRAGMA cache_size = 256", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "PRAGMA synchronous = NORMAL", nullptr, nullptr, nullptr);
    sqlite3_exec(db, "PRAGMA foreign_keys = ON", nullptr, nullptr, nullptr);
    sqlite3_stmt* update = nullptr;
    sqlite3_prepare_v2(db, "UPDATE preference_values SET current_value = ? WHERE key = ?", -1,
                       &update, nullptr);
    const std::string name = BenchSchemas::kSetKey;
    int64_t i = 0;
    for (auto _ : state) {
        const std::string value = std::to_string(i++);
        sqlite3_bind_text(update, 1, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
        sqlite3_bind_text(update, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        if (sqlite3_step(update) != SQLITE_DONE || sqlite3_changes(db) != 1) {
            state.SkipWithError("the value update changed no row");
        }
        sqlite3_reset(update);
    }
    sqlite3_finalize(update);
    sqlite3_close(db);
}

}  // namespace
}  // namespace Halo::OS
