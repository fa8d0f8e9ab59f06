#include "foundation/Dispatch.h"

#include "FoundationTestSupport.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

using namespace brindle;
using namespace std::chrono_literals;

namespace {
constexpr int64_t kGenerousTimeout = 20000;
}  // namespace

TEST(SerialQueueTest, RunsWorkOneAtATimeInOrderAndSyncRunsOnTheWorkerAfterItOrInlineFromItsOwnWork)
{
    test::LogCapture capture;
    SerialQueue queue(QStringLiteral("order"));
    std::vector<int> order;
    std::atomic<int> running {0};
    std::atomic<bool> overlapped {false};
    for (int i = 0; i < 500; ++i) {
        queue.async([&, i] {
            if (i == 0)
                std::this_thread::sleep_for(20ms);  // so that the sync below is submitted behind waiting work
            if (running.fetch_add(1) != 0)
                overlapped = true;
            order.push_back(i);
            running.fetch_sub(1);
        });
    }
    bool wasCurrent = false;
    size_t seen = 0;
    queue.sync([&] {
        wasCurrent = queue.isCurrent();
        seen = order.size();
    });
    EXPECT_TRUE(wasCurrent);
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(seen, 500u);
    ASSERT_EQ(order.size(), 500u);
    for (int i = 0; i < 500; ++i)
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_FALSE(overlapped);
    EXPECT_TRUE(capture.lines().isEmpty());

    // Waiting for itself would deadlock: the inner work runs at once, with a log line.
    bool innerRan = false;
    queue.sync([&] { queue.sync([&] { innerRan = true; }); });
    EXPECT_TRUE(innerRan);
    EXPECT_EQ(capture.lines().size(), 1);
}

TEST(SerialQueueTest, DestructionRunsEverythingSubmittedBeforeOrDuringTheDrainAlsoFromItsOwnWork)
{
    std::atomic<int> ran {0};
    {
        SerialQueue queue(QStringLiteral("drain"));
        queue.async([&] {
            std::this_thread::sleep_for(50ms);
            ++ran;
            queue.async([&] { ++ran; });  // submitted while the destructor waits
        });
        for (int i = 0; i < 100; ++i)
            queue.async([&] { ++ran; });
    }
    EXPECT_EQ(ran.load(), 102);

    test::LogCapture capture;
    auto queue = std::make_unique<SerialQueue>(QStringLiteral("self-destroy"));
    std::atomic<bool> later {false};
    std::atomic<bool> bothSubmitted {false};
    DispatchGroup group;
    group.enter();
    queue->async([&] {
        while (!bothSubmitted)
            std::this_thread::yield();
        queue.reset();
    });
    // Pending when the queue is destroyed.
    queue->async([&] {
        later = true;
        group.leave();
    });
    bothSubmitted = true;
    ASSERT_TRUE(group.waitFor(kGenerousTimeout));
    EXPECT_TRUE(later);
}

TEST(MainQueueTest, DeliversInOrderPerSubmitterFromSeveralThreads)
{
    constexpr int kThreads = 4;
    constexpr int kItems = 200;
    std::vector<std::vector<int>> received(kThreads);
    std::atomic<int> offMain {0};
    std::atomic<int> delivered {0};
    std::vector<std::thread> submitters;
    for (int t = 0; t < kThreads; ++t) {
        submitters.emplace_back([&, t] {
            for (int i = 0; i < kItems; ++i) {
                mainQueue().async([&, t, i] {
                    if (!isMainThread())
                        ++offMain;
                    received[static_cast<size_t>(t)].push_back(i);
                    ++delivered;
                });
            }
        });
    }
    for (auto& thread : submitters)
        thread.join();
    ASSERT_TRUE(runMainQueueUntil([&] { return delivered == kThreads * kItems; }, kGenerousTimeout));
    EXPECT_EQ(offMain.load(), 0);
    for (const auto& list : received) {
        ASSERT_EQ(list.size(), static_cast<size_t>(kItems));
        for (int i = 0; i < kItems; ++i)
            EXPECT_EQ(list[static_cast<size_t>(i)], i);
    }
}

TEST(MainQueueTest, SyncWaitsForTheMainThreadAndRunUntilStopsAtItsLimitUnlessItIsTheLargest)
{
    bool ranInline = false;
    mainQueue().sync([&] { ranInline = true; });
    EXPECT_TRUE(ranInline);

    std::atomic<int> ranOnMain {0};
    auto callSync = [&] {
        bool onMain = false;
        mainQueue().sync([&] { onMain = isMainThread(); });
        ranOnMain += onMain ? 1 : 0;
    };
    std::thread caller(callSync);
    globalQueue().async(callSync);
    EXPECT_TRUE(runMainQueueUntil([&] { return ranOnMain == 2; }, kGenerousTimeout));
    caller.join();

    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(runMainQueueUntil([] { return false; }, 50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
    std::atomic<bool> done {false};
    std::thread worker([&] {
        std::this_thread::sleep_for(30ms);
        mainQueue().async([&] { done = true; });
    });
    EXPECT_TRUE(runMainQueueUntil([&] { return done.load(); }, INT64_MAX));
    worker.join();
}

TEST(GlobalQueueTest, RunsWorkOffTheMainThreadAndReplacesWorkersThatBlockWhileWorkWaits)
{
    std::atomic<bool> offMain {false};
    std::atomic<bool> innerOnSameThread {false};
    DispatchGroup first;
    first.async(globalQueue(), [&] {
        offMain = !isMainThread();
        const auto outer = std::this_thread::get_id();
        globalQueue().sync([&] { innerOnSameThread = std::this_thread::get_id() == outer; });
    });
    ASSERT_TRUE(first.waitFor(kGenerousTimeout));
    EXPECT_TRUE(offMain);
    EXPECT_TRUE(innerOnSameThread);

    // As many waiters as the pool runs at once, and behind them the work they
    // wait for. The waiters block only once everything is queued, so only a
    // worker started when they block can run that work.
    const int waiters = static_cast<int>(std::max(2u, std::thread::hardware_concurrency()));
    std::atomic<bool> allQueued {false};
    DispatchGroup released;
    released.enter();
    DispatchGroup waiting;
    for (int i = 0; i < waiters; ++i) {
        waiting.async(globalQueue(), [&] {
            while (!allQueued)
                std::this_thread::yield();
            released.wait();
        });
    }
    globalQueue().async([&] { released.leave(); });
    allQueued = true;
    ASSERT_TRUE(waiting.waitFor(kGenerousTimeout));
}

TEST(DispatchGroupTest, WaitCoversEveryEnterAndWorkFromSeveralThreadsAndAnUnbalancedLeaveIsLoggedAndIgnored)
{
    test::LogCapture capture;
    DispatchGroup group;
    group.leave();
    EXPECT_TRUE(group.waitFor(0));
    group.enter();
    EXPECT_FALSE(group.waitFor(0));
    EXPECT_FALSE(group.waitFor(30));
    std::thread leaver([&] {
        std::this_thread::sleep_for(20ms);
        group.leave();
    });
    EXPECT_TRUE(group.waitFor(kGenerousTimeout));
    leaver.join();
    EXPECT_TRUE(group.waitFor(0));
    EXPECT_EQ(capture.lines().size(), 1);

    std::atomic<int> count {0};
    std::vector<std::thread> submitters;
    for (int t = 0; t < 4; ++t) {
        submitters.emplace_back([&] {
            for (int i = 0; i < 100; ++i)
                group.async(globalQueue(), [&] { ++count; });
        });
    }
    for (auto& thread : submitters)
        thread.join();
    group.wait();
    EXPECT_EQ(count.load(), 400);
}

TEST(DispatchGroupTest, NotifyRunsOnceOnTheGivenQueueAfterAllWorkOrAtOnceForAnEmptyGroup)
{
    DispatchGroup group;
    SerialQueue target(QStringLiteral("notify-target"));
    std::atomic<int> count {0};
    std::atomic<int> seenAtNotify {-1};
    std::atomic<int> notifications {0};
    std::atomic<bool> onTarget {false};
    group.enter();
    for (int i = 0; i < 50; ++i)
        group.async(globalQueue(), [&] { ++count; });
    group.notify(target, [&] {
        seenAtNotify = count.load();
        onTarget = target.isCurrent();
        ++notifications;
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(notifications.load(), 0) << "notified while a piece of work was still entered";
    group.leave();
    group.wait();
    target.sync([] {});
    EXPECT_EQ(notifications.load(), 1);
    EXPECT_EQ(seenAtNotify.load(), 50);
    EXPECT_TRUE(onTarget);

    // Empty again: a notification runs at once; main queue work counts too.
    bool immediate = false;
    group.notify(mainQueue(), [&] { immediate = true; });
    ASSERT_TRUE(runMainQueueUntil([&] { return immediate; }, kGenerousTimeout));
    int onMain = 0;
    bool notified = false;
    for (int i = 0; i < 10; ++i)
        group.async(mainQueue(), [&] { ++onMain; });
    group.notify(mainQueue(), [&] { notified = onMain == 10; });
    EXPECT_TRUE(runMainQueueUntil([&] { return notified; }, kGenerousTimeout));
}

// These run in a child process (a fresh copy of the test program), because
// they end it. The child leaves before its test environment is destroyed, so
// it removes its temporary folder itself.
namespace {
void removeChildTestFolder()
{
    QDir(test::TestEnvironment::current().root()).removeRecursively();
}
}  // namespace

TEST(DispatchShutdownDeathTest, ExitDoesNotWaitForBusyOrIdlePoolThreads)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            globalQueue().async([] {
                for (;;)
                    std::this_thread::sleep_for(10ms);
            });
            DispatchGroup group;
            group.async(globalQueue(), [] {});
            group.wait();
            removeChildTestFolder();
            std::exit(3);
        },
        testing::ExitedWithCode(3), "");
}

TEST(DispatchShutdownDeathTest, DestroyingTheApplicationReleasesThreadsWaitingOnTheMainQueue)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::atomic<bool> ran {false};
            std::thread waiter([&] { mainQueue().sync([&] { ran = true; }); });
            // Let the waiter queue its work; the main thread never runs it.
            std::this_thread::sleep_for(50ms);
            QCoreApplication* application = QCoreApplication::instance();
            application->~QCoreApplication();
            waiter.join();
            // Work submitted after the application has gone is dropped, not queued.
            std::thread late([] { mainQueue().sync([] {}); });
            late.join();
            removeChildTestFolder();
            std::_Exit(ran ? 1 : 4);
        },
        testing::ExitedWithCode(4), "dropped");
}
