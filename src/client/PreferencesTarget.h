#pragma once

#include <cstdint>

namespace Halo::OS {

// Whose value a typed get or set reaches: the caller's own user (the plain operations), the
// device's current user (the ...Current operations) or a given user id (the ...User operations).
class PreferencesTarget {
public:
    enum class Flavour { Caller, Current, User };

    static PreferencesTarget caller() { return PreferencesTarget(Flavour::Caller, 0); }
    static PreferencesTarget current() { return PreferencesTarget(Flavour::Current, 0); }
    static PreferencesTarget user(int32_t userId) {
        return PreferencesTarget(Flavour::User, userId);
    }

    Flavour flavour() const { return mFlavour; }
    // The user id of a User target; 0 for the other flavours.
    int32_t userId() const { return mUserId; }

private:
    PreferencesTarget(Flavour flavour, int32_t userId) : mFlavour(flavour), mUserId(userId) {}

    Flavour mFlavour;
    int32_t mUserId;
};

}  // namespace Halo::OS
