#include "export/MixAheadQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

using brindle::MixAheadQueue;

namespace {

constexpr qsizetype kBlockBytes = 64;

// Fills block n with the byte n and places its content at an offset of n
// bytes, so that a block taken out of order, overwritten or cut wrongly shows.
MixAheadQueue::Produce countingProducer(std::atomic<int>& made, int last)
{
    return [&made, last](char* block) -> std::optional<MixAheadQueue::Content> {
        const int n = made.load();
        if (n == last)
            return std::nullopt;
        std::memset(block, n, kBlockBytes);
        made = n + 1;
        return MixAheadQueue::Content{n % 8, kBlockBytes - n % 8};
    };
}

}  // namespace

TEST(MixAheadQueueTest, blocksArriveInOrderAndStayUntouchedWhileHeldThenTheEndIsReported)
{
    std::atomic<int> made{0};
    std::atomic<int> finishedCalls{0};
    MixAheadQueue queue(kBlockBytes, 2, countingProducer(made, 40), [&] { ++finishedCalls; });
    for (int n = 0; n < 40; ++n) {
        const auto view = queue.take();
        ASSERT_TRUE(view) << n;
        // Give the producer time to refill every block it may write.
        if (n % 10 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(view->toByteArray(), QByteArray(kBlockBytes - n % 8, char(n))) << n;
        EXPECT_LE(made.load(), n + 2);  // never more than the queue's depth ahead
    }
    EXPECT_FALSE(queue.take());
    EXPECT_FALSE(queue.take());
    EXPECT_EQ(made.load(), 40);
    // `finished` runs on the queue's thread after the last block.
    for (int wait = 0; wait < 500 && finishedCalls.load() == 0; ++wait)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_EQ(finishedCalls.load(), 1);
}

TEST(MixAheadQueueTest, aConsumerThatGivesUpStopsTheProducerWaitingOnAFullQueue)
{
    std::atomic<int> made{0};
    std::atomic<int> finishedCalls{0};
    {
        MixAheadQueue queue(kBlockBytes, 4, countingProducer(made, 1000000), [&] { ++finishedCalls; });
        ASSERT_TRUE(queue.take());
        for (int wait = 0; wait < 500 && made.load() < 4; ++wait)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        queue.stop();
        EXPECT_FALSE(queue.take());
    }  // the destructor waits for the thread, which must have ended
    EXPECT_EQ(made.load(), 4);
    EXPECT_EQ(finishedCalls.load(), 1);

    // Destroying a queue nobody took from ends its thread too.
    std::atomic<int> untouched{0};
    { MixAheadQueue queue(kBlockBytes, 3, countingProducer(untouched, 1000000), {}); }
    EXPECT_LE(untouched.load(), 3);
}
