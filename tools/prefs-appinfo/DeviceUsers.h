#pragma once

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Halo::OS {

// The users of the simulated device, from the packages folder's users.json:
// {"users": [0, 10], "current": 0}. Without the file the device has user 0 only, current.
class DeviceUsers {
public:
    // The largest users.json read; a larger file is refused before it is read.
    static constexpr size_t kMaxFileSize = 1 << 20;

    // Users [0], current 0.
    DeviceUsers() = default;

    // Parses the text of users.json. "users" (an array of distinct non-negative integers) is
    // required; "current" (one of them) defaults to the first. Returns false with a one-line
    // reason in `error` otherwise, or when the text is not JSON or nests deeper than
    // kMaxJsonFileDepth (model/JsonParsing.h). Never throws.
    static bool parse(const std::string& text, DeviceUsers* out, std::string* error);
    // Reads and parses the file at `path`. A missing file gives the default users; a file that
    // cannot be read, is larger than kMaxFileSize or does not parse gives false with a reason in
    // `error`.
    static bool load(const std::string& path, DeviceUsers* out, std::string* error);

    // In the order of the file.
    const std::vector<int32_t>& users() const { return mUsers; }
    int32_t current() const { return mCurrent; }

    // The users of this list that `next` no longer has, in this list's order.
    std::vector<int32_t> removedIn(const DeviceUsers& next) const;

    // "[0, 10], current 0".
    std::string toString() const;

private:
    // Checks a parsed users document and takes it into `out`; as parse().
    static bool fromDocument(const Json::Value& document, DeviceUsers* out, std::string* error);

    std::vector<int32_t> mUsers{0};
    int32_t mCurrent = 0;
};

}  // namespace Halo::OS
