#include "prefs-attack/ProbeClient.h"

#include <binder/IServiceManager.h>
#include <lumen/preferences/IPreferencesService.h>
#include <utils/String16.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <thread>
#include <vector>

namespace Halo::OS {

namespace {

using android::sp;
using android::String16;
using lumen::preferences::IPreferencesService;
using Clock = std::chrono::steady_clock;

sp<IPreferencesService> connect() {
    sp<IPreferencesService> service;
    if (android::getService(String16("PreferencesService"), &service) != android::OK) {
        return nullptr;
    }
    return service;
}

double percentile(std::vector<double>* samples, double fraction) {
    if (samples->empty()) return 0;
    const size_t index =
            std::min(samples->size() - 1, static_cast<size_t>(fraction * samples->size()));
    std::nth_element(samples->begin(), samples->begin() + index, samples->end());
    return (*samples)[index];
}

}  // namespace

void ProbeClient::start(Clock::time_point deadline) {
    const String16 key(mKey.c_str());
    mProcess = std::make_unique<AppProcess>(mUid, [key, deadline](int report) {
        sp<IPreferencesService> service = connect();
        if (service == nullptr) return;
        std::vector<double> samples;
        long failed = 0, acknowledged = -1;
        int32_t next = 0;
        auto timed = [&](const auto& call) {
            const auto begin = Clock::now();
            const bool ok = call().isOk();
            samples.push_back(
                    std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
            failed += !ok;
            return ok;
        };
        while (Clock::now() < deadline) {
            ++next;
            if (timed([&] { return service->setInteger(key, next); })) acknowledged = next;
            int32_t value = 0;
            timed([&] { return service->getInteger(key, &value); });
        }
        const long calls = static_cast<long>(samples.size());
        dprintf(report, "%ld %ld %.1f %.1f %ld\n", calls, failed, percentile(&samples, 0.5),
                percentile(&samples, 0.99), acknowledged);
    });
}

ProbeClient::Figures ProbeClient::finish() {
    Figures figures;
    if (mProcess == nullptr) return figures;
    std::istringstream report(mProcess->finish());
    mProcess.reset();
    figures.ran = static_cast<bool>(report >> figures.calls >> figures.failed >> figures.p50Us >>
                                    figures.p99Us >> figures.lastAcknowledged);
    return figures;
}

bool ProbeClient::writesKept(const Figures& figures) const {
    if (!figures.ran) return false;
    if (figures.lastAcknowledged < 0) return true;
    const String16 key(mKey.c_str());
    AppProcess reader(mUid, [key](int report) {
        // A read refused while the app-info service (and with it `permission`) restarts says
        // nothing about the write: it is retried for a while.
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        do {
            sp<IPreferencesService> service = connect();
            int32_t value = 0;
            if (service != nullptr && service->getInteger(key, &value).isOk()) {
                dprintf(report, "%d\n", value);
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        } while (Clock::now() < deadline);
    });
    long value = -2;
    std::istringstream(reader.finish()) >> value;
    return value == figures.lastAcknowledged;
}

}  // namespace Halo::OS
