#include "client/PreferencesWatch.h"

#include <utility>

#include "client/PreferencesConnection.h"

namespace Halo::OS {

PreferencesWatch::PreferencesWatch(std::shared_ptr<PreferencesConnection> connection,
                                   uint64_t token)
    : mConnection(std::move(connection)), mToken(token) {}

PreferencesWatch::~PreferencesWatch() {
    mConnection->unregisterListener(mToken);
}

}  // namespace Halo::OS
