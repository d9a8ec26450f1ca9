// Micro-benchmarks of the key manager's typed access, in process, as an app with a permission
// row (OS permissions are granted to callers inside the process).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "BenchSchemas.h"
#include "MicroBenchStore.h"

namespace Halo::OS {
namespace {

using Type = PreferencesKeyInfo::Type;

class KeyManagerFixture : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State& /*state*/) override {
        mManager = MicroBenchStore::keyManager(MicroBenchStore::shared().directory(),
                                               BenchSchemas::kBenchUid);
        mKeys = BenchSchemas::readKeys();
    }
    void TearDown(const benchmark::State& /*state*/) override { mManager.reset(); }

protected:
    const std::string& key(size_t i) const { return mKeys[i % mKeys.size()]; }

    std::unique_ptr<PreferencesKeyManager> mManager;
    std::vector<std::string> mKeys;
};

BENCHMARK_F(KeyManagerFixture, Get)(benchmark::State& state) {
    size_t i = 0;
    std::string out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(mManager->get(key(i++), out, Type::Integer));
    }
}

BENCHMARK_F(KeyManagerFixture, GetDefault)(benchmark::State& state) {
    std::string out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(mManager->get(BenchSchemas::kNotifyKey, out, Type::Integer));
    }
}

BENCHMARK_F(KeyManagerFixture, GetType)(benchmark::State& state) {
    size_t i = 0;
    for (auto _ : state) {
        Type type;
        benchmark::DoNotOptimize(mManager->getType(key(i++), type));
    }
}

BENCHMARK_F(KeyManagerFixture, SetWithoutCallback)(benchmark::State& state) {
    int64_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(mManager->setWithoutCallback(BenchSchemas::kSetKey,
                                                              std::to_string(i++), Type::Integer));
    }
}

}  // namespace

}  // namespace Halo::OS
