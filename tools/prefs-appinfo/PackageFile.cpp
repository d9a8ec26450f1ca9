#include "prefs-appinfo/PackageFile.h"

#include <utility>

#include "model/JsonParsing.h"

namespace Halo::OS {

bool PackageFile::parse(const std::string& text, PackageFile* out, std::string* error) {
    Json::Value document;
    if (!parseJsonText(text, document, error, kMaxJsonFileDepth)) return false;
    return fromDocument(std::move(document), out, error);
}

bool PackageFile::load(const std::string& path, PackageFile* out, std::string* error) {
    Json::Value document;
    if (!readJsonFile(path, kMaxFileSize, kMaxJsonFileDepth, document, error)) return false;
    return fromDocument(std::move(document), out, error);
}

bool PackageFile::fromDocument(Json::Value document, PackageFile* out, std::string* error) {
    if (!document.isObject()) {
        *error = "not a JSON object";
        return false;
    }
    const Json::Value& uid = document["uid"];
    if (!uid.isInt() || uid.asInt() < 0) {
        *error = "\"uid\" must be a non-negative integer";
        return false;
    }
    const Json::Value& name = document["packageName"];
    if (!name.isString() || name.asString().empty()) {
        *error = "\"packageName\" must be a non-empty string";
        return false;
    }
    if (document.isMember("contents") && !document["contents"].isArray()) {
        *error = "\"contents\" must be an array";
        return false;
    }
    std::set<std::string> permissions;
    if (document.isMember("permissions")) {
        const Json::Value& list = document["permissions"];
        if (!list.isArray()) {
            *error = "\"permissions\" must be an array of permission names";
            return false;
        }
        for (const Json::Value& permission : list) {
            if (!permission.isString()) {
                *error = "\"permissions\" must be an array of permission names";
                return false;
            }
            permissions.insert(permission.asString());
        }
    }
    out->mUid = uid.asInt();
    out->mPackageName = name.asString();
    out->mPermissions = std::move(permissions);
    out->mDocument = std::move(document);
    return true;
}

Json::Value PackageFile::removalDocument() const {
    Json::Value removal(Json::objectValue);
    removal["uid"] = mUid;
    removal["packageName"] = mPackageName;
    removal["version"] = mDocument.get("version", "");
    removal["date"] = mDocument.get("date", "");
    return removal;
}

}  // namespace Halo::OS
