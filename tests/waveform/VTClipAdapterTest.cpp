#include "WaveformFixtures.h"

#include "media/LogCapture.h"
#include "support/TestMedia.h"

#include "media/VTDataProvider.h"
#include "model/VTClip.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTFeatureSampleCacheMgr.h"
#include "waveform/VTFeatureSamplesCache.h"
#include "waveform/VTSampleBlock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

using namespace brindle::test;

namespace {

// Ten seconds of mono silence at 8000 Hz in `format`: the clips of the point
// tests take their format and rate from it; the blocks are made by hand.
std::shared_ptr<VTClip> clipOfFormat(int32_t format)
{
    const int bytes = bytesPerSampleOfFormat(format);
    QByteArray silence(80000 * bytes, format == 0 ? char(128) : '\0');
    auto provider = providerWithSamples(QStringLiteral("silence-10s"), format, 1, 8000, silence);
    return provider ? VTClip::initWithDataProviderIDs(provider->identifier()) : nullptr;
}

// A block at the media index that lies `ms` milliseconds into the 8000 Hz media.
std::shared_ptr<VTSampleBlock> blockAt(int64_t ms, double max, double min)
{
    return VTSampleBlock::initWithFields(uint64_t(ms * 8), 441, doubles({max}), doubles({min}));
}

// Collects what a handler receives, from the adapter's queue.
struct Received {
    std::mutex mutex;
    std::vector<std::shared_ptr<VTFeatureSample>> points;
    int calls = 0;
    bool onAdapterQueue = true;
    bool oneElementPerCall = true;

    VTTimelineClip::ProcessHandler handler(VTClipAdapter& adapter, int sleepMicroseconds = 0)
    {
        return [this, &adapter, sleepMicroseconds](const VTTimelineClip::FeatureSampleList& list) {
            {
                std::lock_guard lock(mutex);
                ++calls;
                onAdapterQueue = onAdapterQueue && adapter.featureSampleQueue().isCurrent();
                oneElementPerCall = oneElementPerCall && list.size() == 1;
                points.insert(points.end(), list.begin(), list.end());
            }
            if (sleepMicroseconds > 0)
                std::this_thread::sleep_for(std::chrono::microseconds(sleepMicroseconds));
        };
    }
    int count()
    {
        std::lock_guard lock(mutex);
        return calls;
    }
};

}  // namespace

TEST(VTClipAdapterTest, pointsCarryTheClipsVolumeAndFadesBeforeNormalising)
{
    auto clip = clipOfFormat(1);
    ASSERT_TRUE(clip);
    auto adapter = VTClipAdapter::initWithClip(clip);
    ASSERT_TRUE(adapter);

    // Neutral clip: only normalised; media time and span from the block.
    auto plain = adapter->calcFeatureSamplesWithTimestamp(0, 10000, *blockAt(5000, 16000, -8000), 20);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->timestampOfDataProvider(), 5000);
    EXPECT_EQ(plain->durationOfTrack(), 55);  // 441 samples at 8000 Hz
    EXPECT_EQ(plain->numberOfChannel(), 1);
    EXPECT_DOUBLE_EQ(plain->maxSampleOfChannel(0), 16000 / 32767.5);
    EXPECT_DOUBLE_EQ(plain->minSampleOfChannel(0), -8000 / 32767.5);

    // The bounds are strict at both ends.
    EXPECT_FALSE(adapter->calcFeatureSamplesWithTimestamp(5000, 1000, *blockAt(5000, 1, -1), 20));
    EXPECT_FALSE(adapter->calcFeatureSamplesWithTimestamp(4000, 1000, *blockAt(5000, 1, -1), 20));
    EXPECT_TRUE(adapter->calcFeatureSamplesWithTimestamp(4999, 1000, *blockAt(5000, 1, -1), 20));

    // A volume within 1e-6 of 1 is not applied; a real one is.
    clip->setVolume(1.0000005);
    EXPECT_DOUBLE_EQ(adapter->calcFeatureSamplesWithTimestamp(0, 10000, *blockAt(5000, 16000, 0), 20)->maxSampleOfChannel(0),
                     16000 / 32767.5);
    clip->setVolume(2.0);
    EXPECT_DOUBLE_EQ(adapter->calcFeatureSamplesWithTimestamp(0, 10000, *blockAt(5000, 16000, 0), 20)->maxSampleOfChannel(0),
                     32000 / 32767.5);
    clip->setVolume(1.0);

    // Fade-in of 1000 ms, 250 ms in: a quarter. Fade-out of 2000 ms, 500 ms
    // before the end: a quarter. Both on a moved clip, whose block places
    // shift with it, and the shared block itself stays as it was.
    clip->setDurationOfFadeIn(1000);
    clip->setEnableFadeIn(true);
    clip->setDurationOfFadeOut(2000);
    clip->setEnableFadeOut(true);
    clip->setTimestampOfTrack(3000);
    auto fadedInBlock = blockAt(250, 16000, -8000);
    auto fadedIn = adapter->calcFeatureSamplesWithTimestamp(0, 20000, *fadedInBlock, 20);
    EXPECT_DOUBLE_EQ(fadedIn->maxSampleOfChannel(0), 4000 / 32767.5);
    EXPECT_DOUBLE_EQ(fadedIn->minSampleOfChannel(0), -2000 / 32767.5);
    EXPECT_EQ(fadedInBlock->maxSampleOfChannel(0), 16000.0);
    auto fadedOut = adapter->calcFeatureSamplesWithTimestamp(0, 20000, *blockAt(9500, 16000, -8000), 20);
    EXPECT_DOUBLE_EQ(fadedOut->maxSampleOfChannel(0), 4000 / 32767.5);
    auto middle = adapter->calcFeatureSamplesWithTimestamp(0, 20000, *blockAt(5000, 16000, -8000), 20);
    EXPECT_DOUBLE_EQ(middle->maxSampleOfChannel(0), 16000 / 32767.5);

    // Unsigned 8-bit media scale about the silence level: 254 at volume 0.5
    // is 190.5, which normalises to 0.5.
    auto u8 = clipOfFormat(0);
    ASSERT_TRUE(u8);
    u8->setVolume(0.5);
    auto u8Point = VTClipAdapter::initWithClip(u8)->calcFeatureSamplesWithTimestamp(0, 10000, *blockAt(100, 254, 127), 20);
    EXPECT_DOUBLE_EQ(u8Point->maxSampleOfChannel(0), 0.5);
    EXPECT_DOUBLE_EQ(u8Point->minSampleOfChannel(0), 0.0);
}

TEST(VTClipAdapterTest, normalisationFollowsTheSampleFormatAndStaysInsideTheBuffers)
{
    // (format, value, normalised): 32-bit integers are multiplied by -2, as always shown.
    const double cases[][3] = {{0, 254, 1.0}, {0, 0, -1.0}, {1, -16383.75, -0.5}, {2, 3, -6.0},
                               {3, 0.75, 0.75}, {4, -0.5, -0.5}, {5, 5.0, 5.0}};
    LogCapture log;
    for (const auto& c : cases) {
        QByteArray max = doubles({c[1]});
        QByteArray min = doubles({c[1]});
        // A channel count beyond the buffers touches only what they hold.
        VTClipAdapter::normalizeSamples(max, min, 1000, int32_t(c[0]));
        EXPECT_EQ(max, doubles({c[2]})) << c[0];
        EXPECT_EQ(min, doubles({c[2]})) << c[0];
    }
    EXPECT_TRUE(log.contains(QStringLiteral("Can't support such sample format(5) normalize.")));
}

TEST(VTClipAdapterTest, aRequestStreamsTheStretchsPointsOnTheAdaptersQueueInMediaOrder)
{
    const Tone& tone = toneMedia();
    ASSERT_TRUE(tone.provider);
    auto clip = VTClip::initWithDataProviderIDs(tone.provider->identifier());
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(2000);
    clip->cutStartWithTimestamp(2500);  // track 2500 shows media 500
    ASSERT_EQ(clip->timestampOfDataProvider(), 500);
    auto adapter = VTClipAdapter::initWithClip(clip);

    Received received;
    adapter->featureSamplesAtTimestamps(3000, 1000, 20, received.handler(*adapter));
    adapter->featureSampleQueue().sync([] {});

    // Media 1000 ms onwards in 441-sample blocks; the block at track 3000
    // and those from track 4000 on fall outside the strict bounds.
    ASSERT_EQ(received.points.size(), 99u);
    EXPECT_TRUE(received.onAdapterQueue);
    EXPECT_TRUE(received.oneElementPerCall);
    for (size_t i = 0; i < received.points.size(); ++i) {
        const VTFeatureSample& point = *received.points[i];
        const uint64_t index = 44100 + 441 * (i + 1);
        ASSERT_EQ(point.timestampOfDataProvider(), int64_t(1000 * index / 44100)) << i;
        ASSERT_EQ(point.numberOfChannel(), 2);
        for (int c = 0; c < 2; ++c) {
            const auto [max, min] = tone.extremes(index, 441, c);
            ASSERT_DOUBLE_EQ(point.maxSampleOfChannel(c), max / 32767.5) << i;
            ASSERT_DOUBLE_EQ(point.minSampleOfChannel(c), min / 32767.5) << i;
        }
    }
    EXPECT_EQ(VTFeatureSampleCacheMgr::shareFeatureSampleCacheMgr()
                  .featureSamplesWithDataProviderIDs(tone.provider->identifier())
                  ->durationPerPixel(),
              20u);
}

TEST(VTClipAdapterTest, aNewRequestSupersedesTheClipsEarlierOneAndAZoomChangeStopsEveryClipOfTheMedia)
{
    const Tone& tone = toneMedia();
    ASSERT_TRUE(tone.provider);
    auto first = VTClipAdapter::initWithClip(VTClip::initWithDataProviderIDs(tone.provider->identifier()));
    auto second = VTClipAdapter::initWithClip(VTClip::initWithDataProviderIDs(tone.provider->identifier()));

    // Two quick requests of one clip: the first delivers nothing after the second returns.
    Received early;
    Received late;
    first->featureSamplesAtTimestamps(0, 3000, 3, early.handler(*first, 200));
    while (early.count() == 0)
        std::this_thread::yield();
    first->featureSamplesAtTimestamps(0, 3000, 3, late.handler(*first));
    const int earlyAtSupersession = early.count();
    first->featureSampleQueue().sync([] {});
    EXPECT_EQ(early.count(), earlyAtSupersession);
    EXPECT_LT(earlyAtSupersession, 1000);
    // Blocks of 44 samples: the k-th lies at track 1000 × 44k / 44100 ms;
    // k = 1 truncates to 0 and k = 3007 reaches 3000, so k = 2 … 3006.
    EXPECT_EQ(late.count(), 3005);

    // Another clip of the same media at another zoom replaces the shared
    // cache, and the walk of the first clip at the old zoom stops too.
    Received slow;
    first->featureSamplesAtTimestamps(0, 3000, 3, slow.handler(*first, 200));
    while (slow.count() == 0)
        std::this_thread::yield();
    auto old = VTFeatureSampleCacheMgr::shareFeatureSampleCacheMgr().featureSamplesWithDataProviderIDs(
        tone.provider->identifier());
    Received other;
    second->featureSamplesAtTimestamps(0, 3000, 45, other.handler(*second));
    const int slowAtZoomChange = slow.count();
    second->featureSampleQueue().sync([] {});
    first->featureSampleQueue().sync([] {});
    EXPECT_EQ(slow.count(), slowAtZoomChange);
    EXPECT_TRUE(old->cancelSearch());
    auto current = VTFeatureSampleCacheMgr::shareFeatureSampleCacheMgr().featureSamplesWithDataProviderIDs(
        tone.provider->identifier());
    EXPECT_EQ(current->durationPerPixel(), 45u);
    // Blocks of 970 samples (22 ms): k = 1 … 136 lie strictly inside (0, 3000).
    EXPECT_EQ(other.count(), 136);
}
