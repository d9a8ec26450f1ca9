#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "model/PreferencesSchemaList.h"

namespace Halo::OS {

// The packages the benchmarks declare, as schema documents.
//
// The bench package (uid kBenchUid, an ordinary app of user 0) declares the keys that the
// measured calls use, all integers of system scope that it owns and may write, and holds the OS
// permissions READ_SETTINGS and WRITE_SETTINGS. The privileged package (uid kPrivilegedUid, the
// audio server's application id, which the service exempts from the OS permission checks)
// declares the read keys read-only. Filler packages give the store the size of a device with many
// apps: 20 keys each, alternately of user and system scope.
class BenchSchemas {
public:
    static constexpr uid_t kBenchUid = 10321;
    static constexpr const char* kBenchPackage = "com.halo.bench";
    static constexpr uid_t kPrivilegedUid = 1041;
    static constexpr const char* kPrivilegedPackage = "com.halo.bench.privileged";
    // Keys read by the get measurements, in turn.
    static constexpr size_t kReadKeyCount = 16;
    static constexpr const char* kSetKey = "bench_set";
    static constexpr const char* kNotifyKey = "bench_notify";
    static constexpr int kReadValue = 42;

    static std::string readKey(size_t index);
    static std::vector<std::string> readKeys();

    static Json::Value benchPackage();
    static Json::Value privilegedPackage();
    // Package number `index` with `keyCount` keys: uid 10400 + index, "com.halo.bench.fillerNNN".
    static Json::Value fillerPackage(size_t index, size_t keyCount);
    // The bench package, the privileged package and `fillers` filler packages of 20 keys.
    static std::vector<Json::Value> devicePackages(size_t fillers);

    // A list that adds every document and replaces whatever its domain held before
    // ("add": true, "restart": true), as the app-info service sends at start-up.
    static std::unique_ptr<PreferencesSchemaList> restartList(
            const std::vector<Json::Value>& documents);
    // Writes each document as a package file of prefs-appinfo into `directory`; the bench
    // package also lists its OS permissions. False when a file cannot be written.
    static bool writePackageFiles(const std::string& directory,
                                  const std::vector<Json::Value>& documents);
};

}  // namespace Halo::OS
