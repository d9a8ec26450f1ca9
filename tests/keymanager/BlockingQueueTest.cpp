#include "keymanager/BlockingQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Halo::OS {
namespace {

TEST(BlockingQueueTest, ItemsQueuedBeforeTerminateAreStillDelivered) {
    BlockingQueue<std::string> queue;
    const std::string b = "b";
    queue.enqueue(std::string("a"));
    queue.enqueue(b);
    queue.enqueue(std::string("dropped"));
    queue.clear();
    queue.enqueue(std::string("c"));
    queue.enqueue(b);
    EXPECT_EQ(2u, queue.size());
    queue.terminate();
    EXPECT_TRUE(queue.isTerminated());

    std::string out;
    ASSERT_TRUE(queue.dequeue(out));
    EXPECT_EQ("c", out);
    ASSERT_TRUE(queue.dequeue(out));
    EXPECT_EQ("b", out);
    EXPECT_FALSE(queue.dequeue(out));
    EXPECT_EQ("b", out);
    EXPECT_FALSE(queue.dequeue(out));
}

// Move-only items, as the package manager queues schema lists; the consumer waits for items and
// stops only when terminate() wakes it.
TEST(BlockingQueueTest, ManyProducersOneWaitingConsumerLoseNothing) {
    constexpr int kProducers = 4;
    constexpr int kItemsEach = 5000;
    BlockingQueue<std::unique_ptr<int>> queue;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < kItemsEach; ++i) {
                queue.enqueue(std::make_unique<int>(p * kItemsEach + i));
            }
        });
    }
    std::vector<int> next(kProducers, 0);
    int received = 0;
    std::thread consumer([&] {
        for (std::unique_ptr<int> item; queue.dequeue(item); ++received) {
            // Each producer's items arrive in the order it queued them, none twice or lost.
            // (EXPECT, not ASSERT: the consumer must keep draining for the test to end.)
            if (item == nullptr) {
                ADD_FAILURE() << "null item";
                continue;
            }
            const int p = *item / kItemsEach;
            EXPECT_EQ(p * kItemsEach + next[p]++, *item);
        }
    });
    for (std::thread& producer : producers) producer.join();
    while (queue.size() != 0) std::this_thread::yield();
    queue.terminate();
    consumer.join();
    EXPECT_EQ(kProducers * kItemsEach, received);
}

using BlockingQueueDeathTest = ::testing::Test;

TEST_F(BlockingQueueDeathTest, MisuseOfATerminatedQueueAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    BlockingQueue<std::string> queue;
    queue.terminate();
    const std::string key = "k";
    EXPECT_DEATH(queue.enqueue(key), "Enqueueing an already terminated BlockingQueue");
    EXPECT_DEATH(queue.enqueue(std::string("k")), "Enqueueing an already terminated BlockingQueue");
    EXPECT_DEATH(queue.clear(), "Clearing an already terminated BlockingQueue");
    EXPECT_DEATH(queue.terminate(), "Terminating an already terminated BlockingQueue");
}

}  // namespace
}  // namespace Halo::OS
