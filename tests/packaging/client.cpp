// A client of an installed prefix: prints what the library says of a service that is not there.
#include <client/PreferencesClient.h>

#include <cstdio>

int main() {
    Halo::OS::PreferencesStatus status;
    Halo::OS::PreferencesClient::tryConnect("PreferencesService", &status);
    printf("%s\n", status.toString().c_str());
}
