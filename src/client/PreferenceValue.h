#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace Halo::OS {

// One typed preference value as a client sees it: an integer (32-bit), long (64-bit), float,
// double, boolean or string. Values are plain data; copy them freely.
class PreferenceValue {
public:
    // The type codes of the service (IPreferencesService.getType answers these numbers).
    enum class Type : int32_t {
        Integer = 0,
        Double = 1,
        String = 2,
        Long = 3,
        Boolean = 4,
        Float = 5,
    };

    // Integer 0.
    PreferenceValue() = default;

    static PreferenceValue fromInteger(int32_t value);
    static PreferenceValue fromLong(int64_t value);
    static PreferenceValue fromFloat(float value);
    static PreferenceValue fromDouble(double value);
    static PreferenceValue fromBoolean(bool value);
    static PreferenceValue fromString(std::string value);

    // Parses the text form of a value of `type` into `out`. Integers and longs: decimal, the
    // whole text, within the type's range. Floats and doubles: a finite decimal number (as
    // strtod reads it), the whole text. Booleans: "true", "false", "1" or "0". Strings: the text
    // as it is. Returns false, leaving `out` untouched, when the text is not such a value.
    static bool parse(Type type, const std::string& text, PreferenceValue* out);

    // The schema word of a type ("integer", "long", "float", "double", "boolean", "string").
    static const char* typeName(Type type);
    // The type named by a schema word (exact, lower case); false for any other word.
    static bool typeFromName(const std::string& name, Type* type);
    // The type of a service type code; false for a code that names no value type.
    static bool typeFromCode(int32_t code, Type* type);

    Type type() const { return mType; }

    // The value when it has the accessor's type; otherwise 0, false or the empty string.
    int32_t asInteger() const;
    int64_t asLong() const;
    float asFloat() const;
    double asDouble() const;
    bool asBoolean() const;
    const std::string& asString() const;

    // The text form: integers and longs in decimal, floats and doubles with six decimals
    // ("0.850000"), booleans "true"/"false", strings as they are.
    std::string toString() const;

    bool operator==(const PreferenceValue& other) const {
        return mType == other.mType && mValue == other.mValue;
    }
    bool operator!=(const PreferenceValue& other) const { return !(*this == other); }

private:
    using Storage = std::variant<int32_t, int64_t, float, double, bool, std::string>;

    PreferenceValue(Type type, Storage value) : mType(type), mValue(std::move(value)) {}

    Type mType = Type::Integer;
    Storage mValue = int32_t{0};
};

}  // namespace Halo::OS
