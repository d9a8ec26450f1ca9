#define LOG_TAG "PreferencesService"

#include "intake/PreferencesDeviceConfig.h"

#include <dirent.h>
#include <fcntl.h>
#include <json/writer.h>
#include <log/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "model/JsonParsing.h"
#include "threads/Mutex.h"

namespace Halo::OS {

const char* const PreferencesDeviceConfig::kProfilerSchema = R"json({
    "version": "1",
    "packageName": "nimbus.preferences.service.profiler",
    "date": "05/11/2023",
    "contents": [
        {
            "key": "preferences_profile_on_boot_one_shot",
            "type": "boolean",
            "default": "false",
            "hasWritePermission": true,
            "scope": "system",
            "isOwner": true,
            "description": "Specifies if profiling starts automatically on next boot (one-shot)"
        },
        {
            "key": "preferences_trace_on_boot_one_shot",
            "type": "boolean",
            "default": "false",
            "hasWritePermission": true,
            "scope": "system",
            "isOwner": true,
            "description": "Specifies if tracing starts automatically on next boot (one-shot)"
        }
    ]
})json";

namespace {
using Type = PreferencesKeyInfo::Type;

struct TypeWord {
    const char* word;
    Type type;
};

constexpr TypeWord kTypeWords[] = {
        {"integer", Type::Integer}, {"double", Type::Double},   {"string", Type::String},
        {"long", Type::Long},       {"boolean", Type::Boolean}, {"float", Type::Float},
};

constexpr const char* kScopeWords[] = {"system", "user", "crossUser"};

std::string joinPath(const std::string& directory, const std::string& name) {
    if (directory.empty() || directory.back() == '/') return directory + name;
    return directory + "/" + name;
}

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Reads the regular file at `path` into `text`. On failure returns false and says why in
// `error`.
bool readFile(const std::string& path, std::string* text, std::string* error) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = strerror(errno);
        return false;
    }
    struct stat st;
    bool ok = false;
    if (fstat(fd, &st) != 0) {
        *error = strerror(errno);
    } else if (!S_ISREG(st.st_mode)) {
        *error = "not a regular file";
    } else if (static_cast<size_t>(st.st_size) > PreferencesDeviceConfig::kMaxFileSize) {
        *error = "larger than " + std::to_string(PreferencesDeviceConfig::kMaxFileSize) + " bytes";
    } else {
        text->clear();
        char buffer[8192];
        ssize_t n;
        while ((n = TEMP_FAILURE_RETRY(read(fd, buffer, sizeof(buffer)))) > 0) {
            text->append(buffer, static_cast<size_t>(n));
            if (text->size() > PreferencesDeviceConfig::kMaxFileSize) break;
        }
        if (n < 0) {
            *error = strerror(errno);
        } else if (text->size() > PreferencesDeviceConfig::kMaxFileSize) {
            *error = "larger than " + std::to_string(PreferencesDeviceConfig::kMaxFileSize) +
                     " bytes";
        } else {
            ok = true;
        }
    }
    close(fd);
    return ok;
}

const TypeWord* findTypeWord(const Json::Value& value) {
    if (!value.isString()) return nullptr;
    const std::string word = value.asString();
    for (const TypeWord& entry : kTypeWords) {
        if (word == entry.word) return &entry;
    }
    return nullptr;
}

bool isScopeWord(const Json::Value& value) {
    if (!value.isString()) return false;
    const std::string word = value.asString();
    return std::find(std::begin(kScopeWords), std::end(kScopeWords), word) != std::end(kScopeWords);
}

// One checked legacy-keys.json entry.
struct LegacyEntry {
    int index = -1;
    std::string name;
    Type type = Type::NoType;
    int location = 0;
    std::string legacyDefault;
    Json::Value schemaEntry;
};

// Checks one entry of the "keys" array. Returns an empty text when the entry is usable (and
// fills `out`), otherwise the reason it is not.
std::string checkLegacyEntry(const Json::Value& entry, LegacyEntry* out) {
    if (!entry.isObject()) return "not an object";
    const Json::Value& index = entry["index"];
    if (!index.isInt() || index.asInt() < 0) return "\"index\" must be a non-negative integer";
    const Json::Value& key = entry["key"];
    if (!key.isString() || key.asString().empty()) return "\"key\" must be a non-empty string";
    const TypeWord* type = findTypeWord(entry["type"]);
    if (type == nullptr) {
        return "\"type\" must be one of integer, long, float, double, boolean, string";
    }
    const Json::Value& defaultValue = entry["default"];
    if (!defaultValue.isString() && !defaultValue.isNumeric() && !defaultValue.isBool()) {
        return "\"default\" must be a string, a number or a boolean";
    }
    if (!isScopeWord(entry["scope"])) return "\"scope\" must be one of system, user, crossUser";
    for (const char* flag : {"hasWritePermission", "isOwner"}) {
        if (entry.isMember(flag) && !entry[flag].isBool()) {
            return std::string("\"") + flag + "\" must be a boolean";
        }
    }
    if (entry.isMember("description") && !entry["description"].isString()) {
        return "\"description\" must be a string";
    }
    const Json::Value& location = entry["location"];
    if (!location.isInt() || (location.asInt() != PreferencesLegacyKeyTables::kSystemLocation &&
                              location.asInt() != PreferencesLegacyKeyTables::kUserLocation)) {
        return "\"location\" must be 1 (the system database) or 2 (the user databases)";
    }
    const bool hasLegacyDefault = entry.isMember("legacyDefault");
    if (hasLegacyDefault && !entry["legacyDefault"].isString()) {
        return "\"legacyDefault\" must be a string";
    }

    out->index = index.asInt();
    out->name = key.asString();
    out->type = type->type;
    out->location = location.asInt();
    out->legacyDefault = (hasLegacyDefault ? entry["legacyDefault"] : defaultValue).asString();
    Json::Value& schemaEntry = out->schemaEntry;
    schemaEntry = Json::Value(Json::objectValue);
    schemaEntry["key"] = key;
    schemaEntry["type"] = type->word;
    schemaEntry["default"] = defaultValue;
    schemaEntry["scope"] = entry["scope"];
    schemaEntry["hasWritePermission"] = entry.get("hasWritePermission", false);
    schemaEntry["isOwner"] = entry.get("isOwner", false);
    if (entry.isMember("description")) schemaEntry["description"] = entry["description"];
    return std::string();
}

struct ProcessConfig {
    Mutex mutex;
    std::shared_ptr<const PreferencesDeviceConfig> config GUARDED_BY(mutex);
};

// Leaked on purpose: start-up steps may still read it while static objects are destroyed.
ProcessConfig& processConfig() {
    static ProcessConfig* holder = new ProcessConfig;
    return *holder;
}

}  // namespace

PreferencesDeviceConfig::PreferencesDeviceConfig(const std::string& directory)
    : mDirectory(directory) {
    mNativeServiceSchemas.insert(kProfilerSchema);
    setLegacyKeySchemaList(Json::Value(Json::arrayValue));
    if (!isDirectory(mDirectory)) {
        ALOGW("device configuration directory %s is missing: no native-service schemas and no "
              "legacy keys",
              mDirectory.c_str());
        return;
    }
    loadNativeServiceSchemas(joinPath(mDirectory, kNativeDirectory));
    loadLegacyKeys(joinPath(mDirectory, kLegacyKeysFile));
}

void PreferencesDeviceConfig::loadNativeServiceSchemas(const std::string& nativeDirectory) {
    DIR* dir = opendir(nativeDirectory.c_str());
    if (dir == nullptr) {
        if (errno == ENOENT) {
            ALOGD("%s is missing: no native-service schemas", nativeDirectory.c_str());
        } else {
            ALOGE("%s: cannot read: %s; no native-service schemas", nativeDirectory.c_str(),
                  strerror(errno));
        }
        return;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name[0] != '.' && endsWith(name, ".json")) names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        const std::string path = joinPath(nativeDirectory, name);
        std::string text;
        std::string error;
        if (!readFile(path, &text, &error)) {
            ALOGE("%s: cannot read native-service schema: %s; skipped", path.c_str(),
                  error.c_str());
            continue;
        }
        mNativeServiceSchemas.insert(std::move(text));
    }
}

void PreferencesDeviceConfig::loadLegacyKeys(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
        ALOGD("%s is missing: no legacy keys", path.c_str());
        return;
    }
    std::string text;
    std::string error;
    if (!readFile(path, &text, &error)) {
        ALOGE("%s: cannot read: %s; no legacy keys", path.c_str(), error.c_str());
        mLegacyKeyListStatus = LegacyKeyListStatus::Malformed;
        return;
    }

    Json::Value root;
    if (!parseJsonText(text, root, &error, kMaxJsonFileDepth)) {
        ALOGE("%s: %s; no legacy keys", path.c_str(), error.c_str());
        mLegacyKeyListStatus = LegacyKeyListStatus::Malformed;
        return;
    }
    if (!root.isObject() || !root["keys"].isArray()) {
        ALOGE("%s: the document must be an object with a \"keys\" array; no legacy keys",
              path.c_str());
        mLegacyKeyListStatus = LegacyKeyListStatus::Malformed;
        return;
    }

    PreferencesLegacyKeyTables tables;
    std::vector<LegacyEntry> accepted;
    size_t skipped = 0;
    const Json::Value& keys = root["keys"];
    for (Json::ArrayIndex position = 0; position < keys.size(); ++position) {
        LegacyEntry entry;
        std::string reason = checkLegacyEntry(keys[position], &entry);
        if (reason.empty() &&
            !tables.add(entry.index, entry.name, entry.type, entry.location, entry.legacyDefault)) {
            if (auto other = tables.findName(entry.index)) {
                reason = "index " + std::to_string(entry.index) + " is already used by \"" +
                         *other + "\"";
            } else {
                reason = "key \"" + entry.name + "\" is already listed with index " +
                         std::to_string(tables.findIndex(entry.name).value_or(-1));
            }
        }
        if (!reason.empty()) {
            ALOGE("%s: legacy key entry %u skipped: %s", path.c_str(), position, reason.c_str());
            ++skipped;
            continue;
        }
        accepted.push_back(std::move(entry));
    }

    std::sort(accepted.begin(), accepted.end(),
              [](const LegacyEntry& a, const LegacyEntry& b) { return a.index < b.index; });
    Json::Value contents(Json::arrayValue);
    for (LegacyEntry& entry : accepted) contents.append(std::move(entry.schemaEntry));
    setLegacyKeySchemaList(contents);
    mLegacyKeyTables = std::move(tables);
    mLegacyKeysSkipped = skipped;
    mLegacyKeyListStatus = LegacyKeyListStatus::Loaded;
}

void PreferencesDeviceConfig::setLegacyKeySchemaList(const Json::Value& contents) {
    Json::Value schema(Json::objectValue);
    schema["version"] = kLegacySchemaVersion;
    schema["packageName"] = kLegacyPackageName;
    schema["date"] = kLegacySchemaDate;
    schema["contents"] = contents;
    Json::Value list(Json::objectValue);
    list["add"] = true;
    list["restart"] = false;
    list["schemas"].append(schema);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    mLegacyKeySchemaList = Json::writeString(writer, list);
}

std::shared_ptr<const PreferencesDeviceConfig> PreferencesDeviceConfig::instance() {
    ProcessConfig& holder = processConfig();
    Mutex::Autolock lock(holder.mutex);
    if (holder.config == nullptr) {
        holder.config = std::make_shared<const PreferencesDeviceConfig>(kDefaultDirectory);
    }
    return holder.config;
}

void PreferencesDeviceConfig::setInstance(std::shared_ptr<const PreferencesDeviceConfig> config) {
    ProcessConfig& holder = processConfig();
    Mutex::Autolock lock(holder.mutex);
    holder.config = std::move(config);
}

}  // namespace Halo::OS
