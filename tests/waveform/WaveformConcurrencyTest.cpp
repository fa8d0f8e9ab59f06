// Requests from several clips of one media, from several threads at once,
// with changing zoom levels and adapters forgotten mid-walk: no deadlock, no
// data race (this runs under ThreadSanitizer too), and the last request of
// each clip is served in full.
#include "WaveformFixtures.h"

#include "support/TestMedia.h"

#include "media/VTDataProvider.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTProjectAdapter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <thread>
#include <vector>

using namespace brindle::test;

TEST(WaveformConcurrencyTest, requestsFromSeveralClipsOfOneMediaAtOnceNeverDeadlock)
{
    ToneSpec signal;
    signal.frames = 88200;
    signal.seed = 9;
    auto provider = providerWithSamples(QStringLiteral("tone-2s-concurrent"), 1, 2, 44100, toneSamples(signal, 1));
    ASSERT_TRUE(provider);

    constexpr int kClips = 4;
    auto project = std::make_shared<VTProject>();
    auto track = std::make_shared<VTTrack>();
    QStringList identifiers;
    for (int i = 0; i < kClips; ++i) {
        auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
        clip->setTimestampOfTrack(i * 2500);
        identifiers.append(clip->identifier());
        track->importClip(clip);
    }
    project->importTrack(track);
    auto source = VTProjectAdapter::initWithProject(project);

    std::atomic<int64_t> points{0};
    auto storm = std::async(std::launch::async, [&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < kClips; ++t) {
            threads.emplace_back([&, t] {
                std::mt19937 random(uint32_t(t + 1));
                const int64_t zooms[] = {3, 20, 45, 300};
                for (int round = 0; round < 25; ++round) {
                    const QString& identifier = identifiers[(t + round) % kClips];
                    std::shared_ptr<VTClipAdapter> clip = source->adapterWithClipIds(identifier);
                    if (!clip)
                        continue;
                    const int64_t start = clip->timestampsOfTrack() + int64_t(random() % 1500);
                    clip->featureSamplesAtTimestamps(start, 1000, zooms[random() % 4],
                                                     [&](const VTTimelineClip::FeatureSampleList& list) {
                                                         points += int64_t(list.size());
                                                     });
                    if (round % 7 == 3)
                        source->removeSampleCacheWithClipID(identifier);
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
    });
    ASSERT_EQ(storm.wait_for(std::chrono::seconds(120)), std::future_status::ready) << "requests deadlocked";
    EXPECT_GT(points.load(), 0);

    // Afterwards, one request per clip at a common zoom, issued together, is served in full.
    std::vector<std::shared_ptr<VTClipAdapter>> clips;
    std::vector<std::shared_ptr<std::atomic<int>>> counts;
    for (const QString& identifier : identifiers) {
        clips.push_back(source->adapterWithClipIds(identifier));
        counts.push_back(std::make_shared<std::atomic<int>>(0));
    }
    for (size_t i = 0; i < clips.size(); ++i) {
        auto count = counts[i];
        clips[i]->featureSamplesAtTimestamps(clips[i]->timestampsOfTrack(), 2000, 45,
                                             [count](const VTTimelineClip::FeatureSampleList&) { ++*count; });
    }
    for (size_t i = 0; i < clips.size(); ++i) {
        clips[i]->featureSampleQueue().sync([] {});
        EXPECT_EQ(counts[i]->load(), 90) << i;  // 970-sample blocks strictly inside the clip's two seconds
    }
}
