#pragma once

#include <cstdint>
#include <memory>

namespace Halo::OS {

class PreferencesConnection;

// A listener registered with the preferences service (made by PreferencesClient::watch). While
// the object lives, its callback is called with the names of the watched keys that changed.
// Destroying it unregisters the listener: once the destructor has returned, the callback is not
// running and is never called again. The destructor must not run inside the callback itself.
class PreferencesWatch {
public:
    PreferencesWatch(std::shared_ptr<PreferencesConnection> connection, uint64_t token);
    ~PreferencesWatch();
    PreferencesWatch(const PreferencesWatch&) = delete;
    PreferencesWatch& operator=(const PreferencesWatch&) = delete;

private:
    std::shared_ptr<PreferencesConnection> mConnection;
    uint64_t mToken;
};

}  // namespace Halo::OS
