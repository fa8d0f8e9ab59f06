#include "WaveformFixtures.h"

#include "media/VTDataProvider.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTProjectAdapter.h"

#include <gtest/gtest.h>

using namespace brindle::test;

TEST(VTProjectAdapterTest, oneAdapterPerClipIsHandedOutUntilTheOwnerForgetsIt)
{
    auto provider = providerWithSamples(QStringLiteral("silence-10s"), 1, 1, 8000, QByteArray(160000, '\0'));
    ASSERT_TRUE(provider);
    auto project = std::make_shared<VTProject>();
    std::vector<std::shared_ptr<VTClip>> clips;
    for (int64_t start : {0, 1500, 500}) {
        clips.push_back(VTClip::initWithDataProviderIDs(provider->identifier()));
        clips.back()->setDurationOfTrack(1000);
        clips.back()->setTimestampOfTrack(start);
    }
    for (const auto& list : {VTProject::ClipList{clips[0], clips[1]}, VTProject::ClipList{clips[2]}}) {
        auto track = std::make_shared<VTTrack>();
        track->importClips(list);
        project->importTrack(track);
    }
    project->setSelections({clips[1]->identifier()});
    auto adapter = VTProjectAdapter::initWithProject(project);
    ASSERT_TRUE(adapter);
    VTTimelineViewDataSource& source = *adapter;
    EXPECT_EQ(source.numberOfClips(nullptr, 0), 2u);
    EXPECT_EQ(source.numberOfClips(nullptr, 7), 0u);
    EXPECT_FALSE(source.clipAtIndex(2, 0, nullptr));
    EXPECT_TRUE(source.selectedClip(clips[1]->identifier(), nullptr));
    EXPECT_FALSE(source.selectedClip(clips[0]->identifier(), nullptr));
    EXPECT_EQ(source.trackIndexWithClipIdentifer(clips[2]->identifier(), nullptr), 1u);
    EXPECT_EQ(source.maxNumberOfTracksAllowed(nullptr), 8u);

    // Every path to a clip answers the same kept adapter, which reads the clip live.
    auto first = source.clipAtIndex(0, 1, nullptr);
    ASSERT_TRUE(first);
    EXPECT_EQ(source.clipWithIdentifer(clips[2]->identifier(), nullptr), first);
    EXPECT_EQ(adapter->findAdapterWithClip(*clips[2]), first);
    clips[2]->setTimestampOfTrack(250);
    EXPECT_EQ(first->timestampsOfTrack(), 250);
    EXPECT_EQ(first->description(), clips[2]->description());

    // Unknown Identifiers answer nothing and never leave an empty entry.
    EXPECT_FALSE(source.clipWithIdentifer(QStringLiteral("no-such-clip"), nullptr));
    const auto listed = source.clipsWithIdentifers({clips[1]->identifier(), QStringLiteral("gone"),
                                                     clips[2]->identifier()}, nullptr);
    ASSERT_EQ(listed.size(), 2u);
    EXPECT_EQ(listed[1], first);
    EXPECT_EQ(adapter->clipAdapters().size(), 2u);

    // A forgotten adapter is made afresh, with a fresh queue.
    auto* firstQueue = &adapter->findAdapterWithClipIds(clips[2]->identifier())->featureSampleQueue();
    adapter->removeSampleCacheWithClipID(clips[2]->identifier());
    EXPECT_FALSE(adapter->findAdapterWithClipIds(clips[2]->identifier()));
    EXPECT_TRUE(adapter->findAdapterWithClipIds(clips[1]->identifier()));
    auto remade = adapter->adapterWithClipIds(clips[2]->identifier());
    EXPECT_NE(remade, first);
    EXPECT_NE(&remade->featureSampleQueue(), firstQueue);
    adapter->removeSampleCachesWithClipIDs({clips[1]->identifier(), QStringLiteral("gone")});
    EXPECT_EQ(adapter->clipAdapters().size(), 1u);
    adapter->removeAllSampleCaches();
    EXPECT_TRUE(adapter->clipAdapters().empty());
}
