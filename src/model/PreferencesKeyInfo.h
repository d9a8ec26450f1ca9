#pragma once

#include <cstdint>
#include <string>

namespace Halo::OS {

// Definition of one preference key: the declaring package, the key's name, value type, default
// value (as text in the type's value encoding), scope, and the declaring package's write and
// ownership flags. A plain value; built by PreferencesKeyInfoBuilder.
class PreferencesKeyInfo {
public:
    // Value type. The codes are stored as integers in the store and must never change.
    enum class Type : uint32_t {
        Integer = 0,
        Double = 1,
        String = 2,
        Long = 3,
        Boolean = 4,
        Float = 5,
        NoType = 6,  // an unrecognised schema type word, and the initial value
    };

    // Where a key's values live. Stored as integers; must never change.
    enum class PreferenceScope : uint32_t {
        System = 0,  // one value for the device, in the system database
        User = 1,    // one value per Android user, readable only within that user
        Cross = 2,   // one value per Android user, readable for any given user id
    };

    // A package's grant on a key, kept in the store's permission rows.
    enum class PreferencePermission : uint32_t {
        None = 0,
        Read = 1,
        ReadWrite = 2,
    };

    // Which of a key's two values an operation means.
    enum class PreferenceValueType : uint32_t {
        Current = 0,  // the stored current value ("current" in messages)
        Default = 1,  // the declared default value ("default" in messages)
    };

    PreferencesKeyInfo() = default;

    unsigned int getPackageUid() const { return mPackageUid; }
    std::string getPackageName() const { return mPackageName; }
    std::string getKey() const { return mKey; }
    Type getType() const { return mType; }
    std::string getDefaultValue() const { return mDefaultValue; }
    bool isReadable() const { return mReadable; }
    bool isWritable() const { return mWritable; }
    PreferenceScope getScope() const { return mScope; }
    bool isOwner() const { return mOwner; }

    // Process-wide registry from application id (uid without its user part) to package name,
    // used for log and dump texts. Thread-safe; entries are never removed.
    //
    // Records `packageName` under the application id of `uid`, replacing an earlier name.
    static void set(unsigned int uid, std::string packageName);
    // "AID_SYSTEM" for uid 1000; otherwise the name recorded for the application id of `uid`, or
    // the decimal text of that application id when none is recorded.
    static std::string get(unsigned int uid);

private:
    friend class PreferencesKeyInfoBuilder;

    unsigned int mPackageUid = 0;
    std::string mPackageName;
    std::string mKey;
    Type mType = Type::NoType;
    std::string mDefaultValue;
    bool mReadable = false;
    bool mWritable = false;
    PreferenceScope mScope = PreferenceScope::System;
    bool mOwner = false;
};

}  // namespace Halo::OS
