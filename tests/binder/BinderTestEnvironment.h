#pragma once

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "threads/Mutex.h"

namespace Halo::OS::testing {

// A Binder test peer (BinderTestPeer.cpp) of a test.
class PeerProcess : public ChildProcess {
public:
    using ChildProcess::ChildProcess;
    // The next line of output; empty at its end or when none arrives within 20 s.
    std::string readLine() { return ChildProcess::readLine(std::chrono::seconds(20)).value_or(""); }
};

// Gives every test its own service directory (BINDER_DIR, searchable by other uids) and a
// running thread pool, and owns the peer processes it starts (killed before the directory goes).
class BinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(mDir.path().empty());
        ASSERT_EQ(0, chmod(mDir.path().c_str(), 0755));
        ASSERT_EQ(0, setenv("BINDER_DIR", mDir.path().c_str(), 1));
        android::ProcessState::self()->startThreadPool();
    }

    // Starts the peer with `args` as `uid` (see asUid).
    PeerProcess& startPeer(const std::vector<std::string>& args, uid_t uid = 0) {
        std::vector<std::string> argv = {BINDER_TEST_PEER};
        argv.insert(argv.end(), args.begin(), args.end());
        mPeers.push_back(std::make_unique<PeerProcess>(asUid(uid, argv)));
        return *mPeers.back();
    }

    // Starts a peer serving `mode` under `name` and returns the service (null if it never
    // appears).
    template <typename INTERFACE>
    android::sp<INTERFACE> startService(const std::string& mode, const std::string& name) {
        startPeer({mode, name});
        android::sp<INTERFACE> service;
        android::getService(android::String16(name.c_str()), &service);
        return service;
    }

    TempDir mDir;
    std::vector<std::unique_ptr<PeerProcess>> mPeers;
};

// Counts binderDied calls; wait() blocks until at least `count` arrived (or 20 s passed).
class DeathCounter : public android::IBinder::DeathRecipient {
public:
    void binderDied(const android::wp<android::IBinder>& who) override {
        Mutex::Autolock lock(mLock);
        ++mCount;
        mWho = who;
        mChanged.notify_all();
    }

    int wait(int count) {
        Mutex::Autolock lock(mLock);
        mChanged.wait_for(lock.unique(), std::chrono::seconds(20),
                          [&]() NO_THREAD_SAFETY_ANALYSIS { return mCount >= count; });
        return mCount;
    }

    int count() {
        Mutex::Autolock lock(mLock);
        return mCount;
    }

    android::wp<android::IBinder> who() {
        Mutex::Autolock lock(mLock);
        return mWho;
    }

private:
    Mutex mLock;
    std::condition_variable mChanged;
    int mCount GUARDED_BY(mLock) = 0;
    android::wp<android::IBinder> mWho GUARDED_BY(mLock);
};

}  // namespace Halo::OS::testing
