#include "WaveformFixtures.h"

#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "waveform/VTFeatureSampleCacheMgr.h"
#include "waveform/VTFeatureSamplesCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace brindle::test;

namespace {

// Three seconds of a mono 16-bit ramp at 44100 Hz (132300 frames).
QString threeSecondMedia()
{
    auto provider = providerWithSamples(QStringLiteral("ramp-3s"), 1, 1, 44100,
                                        interleaved<int16_t>(132300, 1, [](int64_t frame, int) { return frame % 20000; }));
    return provider ? provider->identifier() : QString();
}

std::vector<uint64_t> walkIndexes(VTFeatureSamplesCache& cache, int64_t from, int64_t to)
{
    std::vector<uint64_t> indexes;
    cache.calcSampleBlockAtTimestamp(from, to, [&](const std::shared_ptr<VTSampleBlock>& block, bool*) {
        indexes.push_back(block->indexOfSampleInDataProvider());
        EXPECT_EQ(block->numberOfSamplesInDataProvider(), cache.numberOfSamplesPerBlockAtSamplerate(44100));
    });
    return indexes;
}

}  // namespace

TEST(VTFeatureSamplesCacheTest, blocksStartAtMultiplesOfTheBlockLengthAndTheWalkEndsOneBlockPastTheEnd)
{
    const QString media = threeSecondMedia();
    ASSERT_FALSE(media.isEmpty());
    auto cache = VTFeatureSamplesCache::initWithDataProviderIDs(media, 20);
    ASSERT_TRUE(cache);
    EXPECT_EQ(cache->numberOfSamplesPerBlockAtSamplerate(44100), 441u);  // 10 ms per block

    // From 1000 ms and from 1005 ms alike: the block holding the start.
    for (int64_t from : {1000, 1005}) {
        const std::vector<uint64_t> indexes = walkIndexes(*cache, from, 2000);
        ASSERT_EQ(indexes.size(), 101u) << from;
        EXPECT_EQ(indexes.front(), 44100u);
        EXPECT_EQ(indexes.back(), 88200u);  // the end position's block is still walked
        for (size_t i = 1; i < indexes.size(); ++i)
            ASSERT_EQ(indexes[i] - indexes[i - 1], 441u);
    }
    // A start before the media begins at its first block.
    EXPECT_EQ(walkIndexes(*cache, -500, 5).front(), 0u);

    // Zoom levels too fine for whole samples per block still walk one sample at a time.
    auto finest = VTFeatureSamplesCache::initWithDataProviderIDs(media, 1);
    EXPECT_EQ(finest->numberOfSamplesPerBlockAtSamplerate(44100), 1u);
    EXPECT_EQ(walkIndexes(*finest, 1000, 1001).size(), 45u);  // 44100 … 44144

    // An absurd zoom neither wraps around nor reads past the media: one block holds it all.
    auto coarsest = VTFeatureSamplesCache::initWithDataProviderIDs(media, UINT64_MAX);
    EXPECT_EQ(coarsest->numberOfSamplesPerBlockAtSamplerate(44100), uint64_t(INT64_MAX));
    coarsest->calcSampleBlockAtTimestamp(0, 3000, [](const std::shared_ptr<VTSampleBlock>& block, bool*) {
        EXPECT_EQ(block->maxSampleOfChannel(0), 19999.0);
    });

    EXPECT_FALSE(VTFeatureSamplesCache::initWithDataProviderIDs(QString(), 20));
}

TEST(VTFeatureSamplesCacheTest, aWalkStopsOnItsStopFlagOrOnCancellationAndACancelledCacheStaysCancelled)
{
    const QString media = threeSecondMedia();
    ASSERT_FALSE(media.isEmpty());
    auto cache = VTFeatureSamplesCache::initWithDataProviderIDs(media, 20);
    int seen = 0;
    cache->calcSampleBlockAtTimestamp(0, 3000, [&](const std::shared_ptr<VTSampleBlock>&, bool* stop) {
        ++seen;
        *stop = true;
    });
    EXPECT_EQ(seen, 1);

    // An asynchronous walk on the cache's own queue reaches the media's end.
    std::atomic<int> delivered{0};
    cache->enumSamplesBlocksWithProcess([&](const std::shared_ptr<VTSampleBlock>&, bool*) { ++delivered; });
    cache->cancelEnumSampleBlocksInQueue(&cache->startSearchQueue());
    EXPECT_EQ(delivered.load(), 301);  // 0 … 132300 in steps of 441

    // Cancelling a running walk: on return nothing runs any more.
    std::atomic<int> slow{0};
    std::atomic<bool> started{false};
    cache->enumSampleBlocksWithTimestamps(0, [&](const std::shared_ptr<VTSampleBlock>&, bool*) {
        started = true;
        ++slow;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    });
    while (!started)
        std::this_thread::yield();
    cache->cancelSearchProcessAnyway();
    const int atCancel = slow.load();
    EXPECT_LT(atCancel, 301);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(slow.load(), atCancel);
    EXPECT_TRUE(cache->cancelSearch());

    // Later walks of the cancelled cache deliver at most one block.
    std::atomic<int> after{0};
    cache->enumSampleBlocksWithTimestamps(1000, [&](const std::shared_ptr<VTSampleBlock>&, bool*) { ++after; });
    cache->cancelSearchProcessAnyway();
    EXPECT_LE(after.load(), 1);
}

TEST(VTFeatureSamplesCacheTest, theManagerKeepsOneCachePerMediaAndCancelsWhatItDrops)
{
    const QString media = threeSecondMedia();
    ASSERT_FALSE(media.isEmpty());
    VTFeatureSampleCacheMgr& manager = VTFeatureSampleCacheMgr::shareFeatureSampleCacheMgr();
    const QString id = QStringLiteral("manager-test-id");
    EXPECT_FALSE(manager.featureSamplesWithDataProviderIDs(id));

    auto first = VTFeatureSamplesCache::initWithDataProviderIDs(id, 20);
    manager.setFeaturesamples(first, id);
    EXPECT_EQ(manager.featureSamplesWithDataProviderIDs(id), first);  // the change is seen at once
    manager.removeCacheWithDataProviderIDs(QStringLiteral("no-such-id"));
    EXPECT_EQ(manager.featureSamplesWithDataProviderIDs(id), first);
    manager.removeCacheWithDataProviderIDs(id);
    EXPECT_FALSE(manager.featureSamplesWithDataProviderIDs(id));
    EXPECT_TRUE(first->cancelSearch());

    // One step: reuse at the same zoom, replace at another.
    std::shared_ptr<VTFeatureSamplesCache> replaced;
    auto at20 = manager.cacheWithDataProviderIDs(media, 20, &replaced);
    EXPECT_EQ(manager.cacheWithDataProviderIDs(media, 20, &replaced), at20);
    EXPECT_FALSE(replaced);
    auto at45 = manager.cacheWithDataProviderIDs(media, 45, &replaced);
    EXPECT_NE(at45, at20);
    EXPECT_EQ(replaced, at20);
    EXPECT_EQ(manager.featureSamplesWithDataProviderIDs(media), at45);
    // Removing a cache that is no longer registered leaves the newer one.
    manager.removeCache(at20, media);
    EXPECT_EQ(manager.featureSamplesWithDataProviderIDs(media), at45);

    manager.clearCaches();
    EXPECT_FALSE(manager.featureSamplesWithDataProviderIDs(media));
    EXPECT_TRUE(at45->cancelSearch());
}
