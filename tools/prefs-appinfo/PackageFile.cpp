#include "prefs-appinfo/PackageFile.h"

#include <json/reader.h>

#include <fstream>
#include <memory>
#include <sstream>

namespace Halo::OS {

bool PackageFile::parse(const std::string& text, PackageFile* out, std::string* error) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
        *error = "not valid JSON: " + errors;
        while (!error->empty() && (error->back() == '\n' || error->back() == ' ')) {
            error->pop_back();
        }
        for (char& c : *error) {
            if (c == '\n') c = ' ';
        }
        return false;
    }
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

bool PackageFile::load(const std::string& path, PackageFile* out, std::string* error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *error = "cannot be read";
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad()) {
        *error = "cannot be read";
        return false;
    }
    return parse(text.str(), out, error);
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
