#include "prefs-appinfo/DeviceUsers.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "model/JsonParsing.h"

namespace Halo::OS {

bool DeviceUsers::parse(const std::string& text, DeviceUsers* out, std::string* error) {
    Json::Value document;
    return parseJsonText(text, document, error, kMaxJsonFileDepth) &&
           fromDocument(document, out, error);
}

bool DeviceUsers::fromDocument(const Json::Value& document, DeviceUsers* out, std::string* error) {
    if (!document.isObject() || !document["users"].isArray() || document["users"].empty()) {
        *error = "\"users\" must be a non-empty array of user ids";
        return false;
    }
    std::vector<int32_t> users;
    for (const Json::Value& user : document["users"]) {
        if (!user.isInt() || user.asInt() < 0) {
            *error = "\"users\" must be a non-empty array of user ids";
            return false;
        }
        if (std::find(users.begin(), users.end(), user.asInt()) != users.end()) {
            *error = "user " + std::to_string(user.asInt()) + " is listed twice";
            return false;
        }
        users.push_back(user.asInt());
    }
    int32_t current = users.front();
    if (document.isMember("current")) {
        const Json::Value& value = document["current"];
        if (!value.isInt() || std::find(users.begin(), users.end(), value.asInt()) == users.end()) {
            *error = "\"current\" must be one of the users";
            return false;
        }
        current = value.asInt();
    }
    out->mUsers = std::move(users);
    out->mCurrent = current;
    return true;
}

bool DeviceUsers::load(const std::string& path, DeviceUsers* out, std::string* error) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 && errno == ENOENT) {
        *out = DeviceUsers();
        return true;
    }
    Json::Value document;
    return readJsonFile(path, kMaxFileSize, kMaxJsonFileDepth, document, error) &&
           fromDocument(document, out, error);
}

std::vector<int32_t> DeviceUsers::removedIn(const DeviceUsers& next) const {
    std::vector<int32_t> removed;
    for (int32_t user : mUsers) {
        if (std::find(next.mUsers.begin(), next.mUsers.end(), user) == next.mUsers.end()) {
            removed.push_back(user);
        }
    }
    return removed;
}

std::string DeviceUsers::toString() const {
    std::string text = "[";
    for (size_t i = 0; i < mUsers.size(); ++i) {
        if (i > 0) text += ", ";
        text += std::to_string(mUsers[i]);
    }
    return text + "], current " + std::to_string(mCurrent);
}

}  // namespace Halo::OS
