#pragma once

#include <utils/String16.h>
#include <utils/String8.h>

#include <string>

namespace Halo::OS {

// The UTF-8 text of `value` up to its first NUL: keys and string values reach the service as
// UTF-16 and are stored and compared as these bytes, so "key\0rest" is the key "key".
inline std::string toString(const android::String16& value) {
    const android::String8 utf8(value);
    return std::string(utf8.c_str());
}

}  // namespace Halo::OS
