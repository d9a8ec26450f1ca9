// A client process for the read-cache tests (BINDER_DIR set). Modes: "differential SEED
// STOP_FILE" compares cached and uncached typed gets amid random sets and resets (prints "tick"
// every 100 gets, "mismatch ..." for an answer that stays different, "done hits=H" once STOP_FILE
// exists); "hostile" attacks the generation table (one "<attempt> refused|ALLOWED" line each);
// "relay" reads through a relay that has no extension, and checks that two clients of the
// service in one process share one cache. Exit status 0 when all agreed or was
// refused, 1 otherwise, 2 for bad usage.

#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ParcelFileDescriptor.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "client/PreferencesClient.h"

namespace {

using Halo::OS::PreferencesClient;
using Halo::OS::PreferencesStatus;
using Halo::OS::PreferencesTarget;
using Halo::OS::PreferenceValue;
using Type = PreferenceValue::Type;

struct Key {
    const char* name;
    Type type;
};

const Key kKeys[] = {
        {"alpha_count", Type::Integer},   {"alpha_total", Type::Long},
        {"alpha_ratio", Type::Float},     {"alpha_distance", Type::Double},
        {"alpha_enabled", Type::Boolean}, {"alpha_label", Type::String},
        {"alpha_locked", Type::Integer},  {"gamma_level", Type::Integer},
        {"gamma_extra", Type::Boolean},   {"alpha_count", Type::Long},
};

struct Answer {
    PreferencesStatus status;
    PreferenceValue value;
    bool operator==(const Answer& other) const {
        return status == other.status && (!status.isOk() || value == other.value);
    }
};

Answer read(PreferencesClient& client, const Key& key, const PreferencesTarget& target) {
    Answer answer;
    answer.status = client.get(key.name, key.type, target, &answer.value);
    return answer;
}

PreferenceValue randomValue(Type type, std::mt19937& random) {
    PreferenceValue value;
    PreferenceValue::parse(type, std::to_string(random() % 2), &value);
    return value;
}

PreferencesTarget randomTarget(std::mt19937& random) {
    const PreferencesTarget targets[] = {PreferencesTarget::caller(), PreferencesTarget::current(),
                                         PreferencesTarget::user(0), PreferencesTarget::user(10)};
    return targets[random() % 4];
}

std::string describe(const Key& key, const PreferencesTarget& target, const Answer& answer) {
    return std::string(key.name) + "/" + PreferenceValue::typeName(key.type) + " flavour " +
           std::to_string(static_cast<int>(target.flavour())) + " user " +
           std::to_string(target.userId()) + ": " +
           (answer.status.isOk() ? answer.value.toString() : answer.status.toString());
}

int differential(unsigned seed, const std::string& stopFile) {
    PreferencesClient::setCacheEntries(0);
    std::unique_ptr<PreferencesClient> plain = PreferencesClient::connect();
    PreferencesClient::setCacheEntries(PreferencesClient::kDefaultCacheEntries);
    std::unique_ptr<PreferencesClient> cached = PreferencesClient::connect();
    if (plain == nullptr || cached == nullptr || cached->cacheStatistics().capacity == 0) {
        printf("no cached client\n");
        return 1;
    }
    std::mt19937 random(seed);
    for (long gets = 0;;) {
        const Key& key = kKeys[random() % (sizeof(kKeys) / sizeof(kKeys[0]))];
        const PreferencesTarget target = randomTarget(random);
        const unsigned op = random() % 10;
        if (op == 0) {
            plain->set(key.name, randomValue(key.type, random), target);
            continue;
        }
        if (op == 1) {
            plain->reset(key.name);
            continue;
        }
        Answer fromCache = read(*cached, key, target);
        Answer fromService = read(*plain, key, target);
        // A change between the two reads is a passing difference; a stale entry stays (10 s).
        for (int retry = 0; !(fromCache == fromService) && retry < 1000; ++retry) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            fromCache = read(*cached, key, target);
            fromService = read(*plain, key, target);
        }
        if (!(fromCache == fromService)) {
            printf("mismatch seed %u cached %s service %s\n", seed,
                   describe(key, target, fromCache).c_str(),
                   describe(key, target, fromService).c_str());
            return 1;
        }
        if (++gets % 100 == 0) {
            printf("tick\n");
            fflush(stdout);
            if (access(stopFile.c_str(), F_OK) == 0) break;
        }
    }
    printf("done hits=%llu\n", static_cast<unsigned long long>(cached->cacheStatistics().hits));
    return 0;
}

void attempt(const char* what, bool allowed, bool* anyAllowed) {
    printf("%s %s\n", what, allowed ? "ALLOWED" : "refused");
    *anyAllowed = *anyAllowed || allowed;
}

int hostile() {
    android::sp<android::IBinder> binder =
            android::defaultServiceManager()->getService(android::String16("PreferencesService"));
    android::sp<android::IBinder> extension;
    if (binder == nullptr || binder->getExtension(&extension) != android::OK ||
        extension == nullptr) {
        return 1;
    }
    // getGenerationTable, the extension's first call, made by hand: this process links no stubs.
    android::Parcel data;
    android::Parcel reply;
    android::binder::Status status;
    android::os::ParcelFileDescriptor table;
    if (data.writeInterfaceToken(android::String16("halo.preferences.IPreferencesExtension")) !=
                android::OK ||
        extension->transact(android::IBinder::FIRST_CALL_TRANSACTION, data, &reply) !=
                android::OK ||
        status.readFromParcel(reply) != android::OK || !status.isOk() ||
        reply.readParcelable(&table) != android::OK || table.get() < 0) {
        return 1;
    }
    const int fd = table.get();
    bool anyAllowed = false;
    const uint64_t bytes = ~0ull;
    attempt("write", pwrite(fd, &bytes, sizeof(bytes), 8) == sizeof(bytes), &anyAllowed);
    attempt("grow", ftruncate(fd, 1 << 20) == 0, &anyAllowed);
    void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    attempt("map-writable", shared != MAP_FAILED, &anyAllowed);
    void* readOnly = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    attempt("protect-writable",
            readOnly != MAP_FAILED && mprotect(readOnly, 4096, PROT_READ | PROT_WRITE) == 0,
            &anyAllowed);
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    attempt("reopen-writable", open(path.c_str(), O_RDWR | O_CLOEXEC) >= 0, &anyAllowed);
    attempt("unseal",
            fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE) == 0 ||
                    (fcntl(fd, F_GET_SEALS) & F_SEAL_SEAL) == 0,
            &anyAllowed);
    return anyAllowed ? 1 : 0;
}

// Forwards every call but the extension query to `target`.
class Relay : public android::BBinder {
public:
    explicit Relay(const android::sp<android::IBinder>& target) : mTarget(target) {}

protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override {
        if (code == EXTENSION_TRANSACTION) return BBinder::onTransact(code, data, reply, flags);
        return mTarget->transact(code, data, reply, flags);
    }

private:
    const android::sp<android::IBinder> mTarget;
};

int relay() {
    android::sp<android::IBinder> binder =
            android::defaultServiceManager()->getService(android::String16("PreferencesService"));
    if (binder == nullptr) return 1;
    android::ProcessState::self()->startThreadPool();
    if (android::defaultServiceManager()->addService(android::String16("PrefsRelay"),
                                                     new Relay(binder)) != android::OK) {
        return 1;
    }
    std::unique_ptr<PreferencesClient> client = PreferencesClient::connect("PrefsRelay");
    if (client == nullptr) return 1;
    std::string label;
    const bool ok = client->setString("alpha_label", "relayed").isOk() &&
                    client->getString("alpha_label", &label).isOk() && label == "relayed" &&
                    client->getString("alpha_label", &label).isOk();
    const PreferencesClient::CacheStatistics statistics = client->cacheStatistics();
    // Two clients of the service itself in one process share the process's cache: what the
    // first read is a hit for the second.
    std::unique_ptr<PreferencesClient> first = PreferencesClient::connect(),
                                       second = PreferencesClient::connect();
    if (first == nullptr || second == nullptr) return 1;
    first->getString("alpha_label", &label);
    const uint64_t hits = second->cacheStatistics().hits;
    second->getString("alpha_label", &label);
    const bool shared = second->cacheStatistics().hits == hits + 1;
    printf("relay %s caching=%zu hits=%llu shared=%d\n", ok ? "ok" : "FAILED", statistics.capacity,
           static_cast<unsigned long long>(statistics.hits), shared);
    return ok && shared && statistics.capacity == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2) return 2;
    const std::string mode = argv[1];
    if (mode == "differential" && argc == 4) {
        return differential(static_cast<unsigned>(std::stoul(argv[2])), argv[3]);
    }
    if (mode == "hostile") return hostile();
    if (mode == "relay") return relay();
    return 2;
}
