#pragma once

#include <utils/String16.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "model/PreferencesKeyInfo.h"
#include "service/String16Utils.h"

namespace Halo::OS {

// The stored text of each interface value type and its reading back. These encodings are what
// the databases hold: changing one changes how every existing value reads.
template <typename T>
struct ValueCodec;

template <>
struct ValueCodec<int32_t> {
    static constexpr PreferencesKeyInfo::Type kType = PreferencesKeyInfo::Type::Integer;
    static std::string toText(int32_t value) { return std::to_string(value); }
    static int32_t fromText(const std::string& text) {
        return static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
    }
};

template <>
struct ValueCodec<int64_t> {
    static constexpr PreferencesKeyInfo::Type kType = PreferencesKeyInfo::Type::Long;
    static std::string toText(int64_t value) { return std::to_string(value); }
    static int64_t fromText(const std::string& text) {
        return static_cast<int64_t>(std::strtol(text.c_str(), nullptr, 10));
    }
};

template <>
struct ValueCodec<double> {
    static constexpr PreferencesKeyInfo::Type kType = PreferencesKeyInfo::Type::Double;
    static std::string toText(double value) { return std::to_string(value); }
    static double fromText(const std::string& text) { return std::strtod(text.c_str(), nullptr); }
};

template <>
struct ValueCodec<float> {
    static constexpr PreferencesKeyInfo::Type kType = PreferencesKeyInfo::Type::Float;
    static std::string toText(float value) { return std::to_string(value); }
    static float fromText(const std::string& text) { return std::strtof(text.c_str(), nullptr); }
};

template <>
struct ValueCodec<bool> {
    static constexpr PreferencesKeyInfo::Type kType = PreferencesKeyInfo::Type::Boolean;
    static std::string toText(bool value) { return std::to_string(value ? 1 : 0); }
    static bool fromText(const std::string& text) { return text == "1" || text == "true"; }
};

template <>
struct ValueCodec<android::String16> {
    static constexpr PreferencesKeyInfo::Type kType = PreferencesKeyInfo::Type::String;
    static std::string toText(const android::String16& value) { return toString(value); }
    static android::String16 fromText(const std::string& text) {
        return android::String16(text.c_str(), text.size());
    }
};

}  // namespace Halo::OS
