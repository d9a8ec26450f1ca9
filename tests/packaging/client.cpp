// A client program built against an installed prefix: it asks for a service that is not there
// and prints what the client library says.
#include <client/PreferencesClient.h>

#include <cstdio>

int main() {
    Halo::OS::PreferencesStatus status;
    auto client = Halo::OS::PreferencesClient::tryConnect("PreferencesService", &status);
    printf("%s\n", client == nullptr ? status.toString().c_str() : "connected");
    return 0;
}
