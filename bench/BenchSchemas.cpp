#include "BenchSchemas.h"

#include <json/writer.h>

#include <cstdio>
#include <fstream>

#include "model/PreferencesSchemaListBuilder.h"

namespace Halo::OS {
namespace {

constexpr uid_t kFillerFirstUid = 10400;
constexpr size_t kFillerKeys = 20;

// An integer key that the declaring package owns and may write, or (`owner` false) only reads.
Json::Value keyEntry(const std::string& key, const char* scope, const std::string& defaultValue,
                     bool owner = true) {
    Json::Value entry(Json::objectValue);
    entry["key"] = key;
    entry["type"] = "integer";
    entry["default"] = defaultValue;
    entry["hasWritePermission"] = owner;
    entry["scope"] = scope;
    entry["isOwner"] = owner;
    return entry;
}

Json::Value document(uid_t uid, const std::string& package) {
    Json::Value doc(Json::objectValue);
    doc["uid"] = static_cast<Json::UInt>(uid);
    doc["packageName"] = package;
    doc["version"] = "1";
    doc["date"] = "01/01/2024";
    doc["contents"] = Json::Value(Json::arrayValue);
    return doc;
}

}  // namespace

std::string BenchSchemas::readKey(size_t index) {
    char name[32];
    snprintf(name, sizeof(name), "bench_get_%02zu", index);
    return name;
}

std::vector<std::string> BenchSchemas::readKeys() {
    std::vector<std::string> keys;
    for (size_t i = 0; i < kReadKeyCount; ++i) keys.push_back(readKey(i));
    return keys;
}

Json::Value BenchSchemas::benchPackage() {
    Json::Value doc = document(kBenchUid, kBenchPackage);
    for (const std::string& key : readKeys()) {
        doc["contents"].append(keyEntry(key, "system", "7"));
    }
    doc["contents"].append(keyEntry(kSetKey, "system", "0"));
    doc["contents"].append(keyEntry(kNotifyKey, "system", "0"));
    return doc;
}

Json::Value BenchSchemas::privilegedPackage() {
    Json::Value doc = document(kPrivilegedUid, kPrivilegedPackage);
    for (const std::string& key : readKeys()) {
        doc["contents"].append(keyEntry(key, "system", "7", /*owner=*/false));
    }
    return doc;
}

Json::Value BenchSchemas::fillerPackage(size_t index, size_t keyCount) {
    char package[64];
    snprintf(package, sizeof(package), "com.halo.bench.filler%03zu", index);
    Json::Value doc = document(kFillerFirstUid + static_cast<uid_t>(index), package);
    for (size_t k = 0; k < keyCount; ++k) {
        char key[64];
        snprintf(key, sizeof(key), "filler%03zu_key%02zu", index, k);
        doc["contents"].append(keyEntry(key, k % 2 == 0 ? "user" : "system", std::to_string(k)));
    }
    return doc;
}

std::vector<Json::Value> BenchSchemas::devicePackages(size_t fillers) {
    std::vector<Json::Value> documents{benchPackage(), privilegedPackage()};
    for (size_t i = 0; i < fillers; ++i) documents.push_back(fillerPackage(i, kFillerKeys));
    return documents;
}

std::unique_ptr<PreferencesSchemaList> BenchSchemas::restartList(
        const std::vector<Json::Value>& documents) {
    Json::Value list(Json::objectValue);
    list["add"] = true;
    list["restart"] = true;
    list["schemas"] = Json::Value(Json::arrayValue);
    for (const Json::Value& doc : documents) list["schemas"].append(doc);
    PreferencesSchemaListBuilder builder;
    builder.process(list);
    return builder.build();
}

bool BenchSchemas::writePackageFiles(const std::string& directory,
                                     const std::vector<Json::Value>& documents) {
    Json::StreamWriterBuilder writer;
    for (Json::Value doc : documents) {
        const std::string package = doc["packageName"].asString();
        doc["permissions"] = Json::Value(Json::arrayValue);
        if (package == kBenchPackage) {
            doc["permissions"].append("com.nimbus.permission.READ_SETTINGS");
            doc["permissions"].append("com.nimbus.permission.WRITE_SETTINGS");
        }
        std::ofstream out(directory + "/" + package + ".json");
        out << Json::writeString(writer, doc) << "\n";
        if (!out) return false;
    }
    return true;
}

}  // namespace Halo::OS
