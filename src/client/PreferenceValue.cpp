#include "client/PreferenceValue.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace Halo::OS {

namespace {

struct TypeWord {
    PreferenceValue::Type type;
    const char* name;
};

constexpr TypeWord kTypeWords[] = {
        {PreferenceValue::Type::Integer, "integer"}, {PreferenceValue::Type::Double, "double"},
        {PreferenceValue::Type::String, "string"},   {PreferenceValue::Type::Long, "long"},
        {PreferenceValue::Type::Boolean, "boolean"}, {PreferenceValue::Type::Float, "float"},
};

// A decimal 64-bit integer filling the whole text (an optional sign, then digits).
bool parseWholeInteger(const std::string& text, int64_t* out) {
    if (text.empty() || isspace(static_cast<unsigned char>(text[0]))) return false;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end != text.c_str() + text.size()) return false;
    *out = value;
    return true;
}

bool parseWholeDouble(const std::string& text, double* out) {
    if (text.empty() || isspace(static_cast<unsigned char>(text[0]))) return false;
    errno = 0;
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(value)) return false;
    *out = value;
    return true;
}

std::string sixDecimals(double value) {
    char text[400];
    snprintf(text, sizeof(text), "%f", value);
    return text;
}

}  // namespace

PreferenceValue PreferenceValue::fromInteger(int32_t value) {
    return PreferenceValue(Type::Integer, value);
}

PreferenceValue PreferenceValue::fromLong(int64_t value) {
    return PreferenceValue(Type::Long, value);
}

PreferenceValue PreferenceValue::fromFloat(float value) {
    return PreferenceValue(Type::Float, value);
}

PreferenceValue PreferenceValue::fromDouble(double value) {
    return PreferenceValue(Type::Double, value);
}

PreferenceValue PreferenceValue::fromBoolean(bool value) {
    return PreferenceValue(Type::Boolean, value);
}

PreferenceValue PreferenceValue::fromString(std::string value) {
    return PreferenceValue(Type::String, std::move(value));
}

bool PreferenceValue::parse(Type type, const std::string& text, PreferenceValue* out) {
    int64_t integer = 0;
    double real = 0;
    switch (type) {
        case Type::Integer:
            if (!parseWholeInteger(text, &integer) ||
                integer < std::numeric_limits<int32_t>::min() ||
                integer > std::numeric_limits<int32_t>::max()) {
                return false;
            }
            *out = fromInteger(static_cast<int32_t>(integer));
            return true;
        case Type::Long:
            if (!parseWholeInteger(text, &integer)) return false;
            *out = fromLong(integer);
            return true;
        case Type::Float:
            if (!parseWholeDouble(text, &real) ||
                std::fabs(real) > std::numeric_limits<float>::max()) {
                return false;
            }
            *out = fromFloat(static_cast<float>(real));
            return true;
        case Type::Double:
            if (!parseWholeDouble(text, &real)) return false;
            *out = fromDouble(real);
            return true;
        case Type::Boolean:
            if (text == "true" || text == "1") {
                *out = fromBoolean(true);
            } else if (text == "false" || text == "0") {
                *out = fromBoolean(false);
            } else {
                return false;
            }
            return true;
        case Type::String:
            *out = fromString(text);
            return true;
    }
    return false;
}

const char* PreferenceValue::typeName(Type type) {
    for (const TypeWord& word : kTypeWords) {
        if (word.type == type) return word.name;
    }
    return "unknown";
}

bool PreferenceValue::typeFromName(const std::string& name, Type* type) {
    for (const TypeWord& word : kTypeWords) {
        if (name == word.name) {
            *type = word.type;
            return true;
        }
    }
    return false;
}

bool PreferenceValue::typeFromCode(int32_t code, Type* type) {
    for (const TypeWord& word : kTypeWords) {
        if (static_cast<int32_t>(word.type) == code) {
            *type = word.type;
            return true;
        }
    }
    return false;
}

int32_t PreferenceValue::asInteger() const {
    const auto* value = std::get_if<int32_t>(&mValue);
    return value != nullptr ? *value : 0;
}

int64_t PreferenceValue::asLong() const {
    const auto* value = std::get_if<int64_t>(&mValue);
    return value != nullptr ? *value : 0;
}

float PreferenceValue::asFloat() const {
    const auto* value = std::get_if<float>(&mValue);
    return value != nullptr ? *value : 0.0f;
}

double PreferenceValue::asDouble() const {
    const auto* value = std::get_if<double>(&mValue);
    return value != nullptr ? *value : 0.0;
}

bool PreferenceValue::asBoolean() const {
    const auto* value = std::get_if<bool>(&mValue);
    return value != nullptr && *value;
}

const std::string& PreferenceValue::asString() const {
    static const std::string kEmpty;
    const auto* value = std::get_if<std::string>(&mValue);
    return value != nullptr ? *value : kEmpty;
}

std::string PreferenceValue::toString() const {
    switch (mType) {
        case Type::Integer:
            return std::to_string(asInteger());
        case Type::Long:
            return std::to_string(asLong());
        case Type::Float:
            return sixDecimals(static_cast<double>(asFloat()));
        case Type::Double:
            return sixDecimals(asDouble());
        case Type::Boolean:
            return asBoolean() ? "true" : "false";
        case Type::String:
            return asString();
    }
    return "";
}

}  // namespace Halo::OS
