#include "InProcessBench.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "BenchSchemas.h"
#include "BenchTempDir.h"
#include "LatencySamples.h"
#include "SqliteFloor.h"
#include "keymanager/PreferencesKeyManager.h"
#include "store/DirectoryPreferencesDb.h"

namespace Halo::OS {
namespace {

using Type = PreferencesKeyInfo::Type;

constexpr size_t kRounds = 20;

// A key manager whose caller is always the same app.
class AppKeyManager : public PreferencesKeyManager {
public:
    AppKeyManager(std::unique_ptr<IPreferencesDb> db, uid_t uid)
        : PreferencesKeyManager(std::move(db)), mUid(uid) {}
    ~AppKeyManager() override { stopCallbacks(); }
    uid_t getCallingUid() const override { return mUid; }

private:
    const uid_t mUid;
};

double millisSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count();
}

}  // namespace

bool InProcessBench::measureReads(size_t fillers, size_t samples, ReadFigures* out) {
    BenchTempDir dir("prefs-bench-reads");
    auto manager = std::make_unique<AppKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(dir.path()), BenchSchemas::kBenchUid);
    if (!manager->process(BenchSchemas::restartList(BenchSchemas::devicePackages(fillers)),
                          KeySourceDomain::Application)) {
        fprintf(stderr, "prefs-bench: the bench packages were not applied\n");
        return false;
    }
    const std::vector<std::string> keys = BenchSchemas::readKeys();
    const std::string value = std::to_string(BenchSchemas::kReadValue);
    for (const std::string& key : keys) {
        if (manager->set(key, value, Type::Integer) != 0) {
            fprintf(stderr, "prefs-bench: cannot set %s\n", key.c_str());
            return false;
        }
    }
    if (manager->set(BenchSchemas::kSetKey, "0", Type::Integer) != 0) {
        fprintf(stderr, "prefs-bench: cannot set %s\n", BenchSchemas::kSetKey);
        return false;
    }

    bool ok = true;
    {
        SqliteFloor floor(dir.file("system.db"));
        if (!floor.ok()) return false;
        LatencySamples floorSamples;
        LatencySamples getSamples;
        const size_t block = std::max<size_t>(1, samples / kRounds);
        std::string text;
        for (size_t round = 0; ok && round < kRounds; ++round) {
            ok = floor.measureSelect(keys, block, &floorSamples);
            for (size_t i = 0; ok && i < block; ++i) {
                const std::string& key = keys[i % keys.size()];
                const LatencySamples::Clock::time_point start = LatencySamples::Clock::now();
                const int result = manager->get(key, text, Type::Integer);
                getSamples.add(LatencySamples::Clock::now() - start);
                if (result != 0 || text != value) {
                    fprintf(stderr, "prefs-bench: get %s returned %d, '%s'\n", key.c_str(), result,
                            text.c_str());
                    ok = false;
                }
            }
        }
        LatencySamples writeSamples;
        ok = ok && floor.measureWrite(BenchSchemas::kSetKey, samples / 4, &writeSamples);
        out->floorSelectMicros = floorSamples.medianMicros();
        out->getMicros = getSamples.medianMicros();
        out->floorWriteMicros = writeSamples.medianMicros();
    }
    manager.reset();
    return ok;
}

bool InProcessBench::measureSchema(size_t packages, size_t keysPerPackage, SchemaFigures* out) {
    std::vector<Json::Value> documents;
    for (size_t i = 0; i < packages; ++i) {
        documents.push_back(BenchSchemas::fillerPackage(i, keysPerPackage));
    }
    const std::unique_ptr<PreferencesSchemaList> list = BenchSchemas::restartList(documents);

    BenchTempDir dir("prefs-bench-schema");
    auto manager = std::make_unique<AppKeyManager>(
            std::make_unique<DirectoryPreferencesDb>(dir.path()), 1000);
    auto start = std::chrono::steady_clock::now();
    const bool cold = manager->process(list, KeySourceDomain::Application);
    out->coldMillis = millisSince(start);
    start = std::chrono::steady_clock::now();
    const bool warm = manager->process(list, KeySourceDomain::Application);
    out->warmMillis = millisSince(start);
    manager.reset();
    if (!cold || !warm) {
        fprintf(stderr, "prefs-bench: the schema list was not applied (cold %d, warm %d)\n", cold,
                warm);
        return false;
    }
    return true;
}

}  // namespace Halo::OS
