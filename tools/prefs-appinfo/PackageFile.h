#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace Halo::OS {

// One installed package of the simulated device: a package file of the packages folder, which
// is a schema document ("uid", "packageName", "version", "date", "contents") plus a
// "permissions" array naming the OS permissions the package holds.
class PackageFile {
public:
    // The largest package file read: room for a package of 100,000 keys and then some. A larger
    // file is refused before it is read.
    static constexpr size_t kMaxFileSize = 64 << 20;

    // Parses the text of a package file. Returns false with a one-line reason in `error` when it
    // is not JSON, nests deeper than kMaxJsonFileDepth (model/JsonParsing.h), is not a JSON
    // object, lacks a non-negative integer "uid" or a non-empty string
    // "packageName", or has a "permissions" member that is not an array of strings or a
    // "contents" member that is not an array.
    static bool parse(const std::string& text, PackageFile* out, std::string* error);
    // Reads and parses the file at `path`; false with a reason in `error` when it cannot be read,
    // is larger than kMaxFileSize or does not parse. Never throws.
    static bool load(const std::string& path, PackageFile* out, std::string* error);

    int32_t uid() const { return mUid; }
    const std::string& packageName() const { return mPackageName; }
    const std::set<std::string>& permissions() const { return mPermissions; }
    bool holdsPermission(const std::string& permission) const {
        return mPermissions.count(permission) != 0;
    }

    // The document as the file has it (sent in schema lists that add the package).
    const Json::Value& document() const { return mDocument; }
    // The package's entry in a removal list: "uid", "packageName", "version" and "date".
    Json::Value removalDocument() const;

    // True when both name the same package (uid and package name).
    bool samePackage(const PackageFile& other) const {
        return mUid == other.mUid && mPackageName == other.mPackageName;
    }

private:
    // Checks a parsed package document and takes it into `out`; as parse().
    static bool fromDocument(Json::Value document, PackageFile* out, std::string* error);

    int32_t mUid = 0;
    std::string mPackageName;
    std::set<std::string> mPermissions;
    Json::Value mDocument;
};

}  // namespace Halo::OS
