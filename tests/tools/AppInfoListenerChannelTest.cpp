#include "prefs-appinfo/AppInfoListenerChannel.h"

#include <gtest/gtest.h>
#include <nimbus/internal/BnPreferencesAppInfoListener.h>
#include <utils/Errors.h>

#include <deque>
#include <mutex>

#include "support/ChildProcess.h"
#include "support/LogCapture.h"

namespace Halo::OS {
namespace {

using android::binder::Status;

// Records every call and answers it with the next status of its script (OK once used up).
class ScriptedListener : public nimbus::internal::BnPreferencesAppInfoListener {
public:
    explicit ScriptedListener(std::deque<android::status_t> script) : mScript(script) {}
    Status onSchema(const std::vector<uint8_t>&) override { return answer("schema"); }
    Status deleteUserData(int32_t) override { return answer("deleteUserData"); }
    Status currentUser(int32_t) override { return answer("currentUser"); }
    Status userList(const std::vector<int32_t>&) override { return answer("userList"); }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }

private:
    Status answer(const char* call) {
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back(call);
        const android::status_t next = mScript.empty() ? android::OK : mScript.front();
        if (!mScript.empty()) mScript.pop_front();
        return Status::fromStatusT(next);
    }

    std::mutex mMutex;
    std::deque<android::status_t> mScript;
    std::vector<std::string> mCalls;
};

TEST(AppInfoListenerChannelTest, FailedSendsAreRetriedAndLoggedAndDeadListenersDropped) {
    using android::FAILED_TRANSACTION;
    const struct {
        std::deque<android::status_t> script;
        std::vector<std::string> calls;
        const char* logged;
    } cases[] = {
            {{FAILED_TRANSACTION, android::UNKNOWN_ERROR},
             {"schema", "schema", "schema", "currentUser"},
             "did not take the schema list (2 bytes): "},
            {{FAILED_TRANSACTION, FAILED_TRANSACTION, FAILED_TRANSACTION},
             {"schema", "schema", "schema", "currentUser"},
             "given up after 3 attempts"},
            {{android::DEAD_OBJECT}, {"schema"}, "the listener is gone"},
    };
    for (const auto& c : cases) {
        testing::LogCapture log;
        const android::sp<ScriptedListener> listener = new ScriptedListener(c.script);
        const bool listening = c.calls.size() > 1;
        {
            AppInfoListenerChannel channel(
                    {std::chrono::milliseconds(1), std::chrono::milliseconds(4), 3});
            std::vector<AppInfoEvent> first;
            first.push_back(AppInfoEvent::schema("{}"));
            first.push_back(AppInfoEvent::currentUser(10));
            channel.attach(listener, std::move(first));
            EXPECT_TRUE(testing::eventually([&] {
                return listener->calls().size() >= c.calls.size() &&
                       channel.hasListener() == listening;
            }));
        }
        EXPECT_EQ(c.calls, listener->calls()) << c.logged;
        EXPECT_TRUE(log.contains(c.logged)) << log.text();
        // A retry says which attempt failed and when the next one comes (the delay doubles).
        EXPECT_EQ(listening, log.contains("; attempt 2 of 3, next in 2 ms")) << log.text();
    }
}

}  // namespace
}  // namespace Halo::OS
