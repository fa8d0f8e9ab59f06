#include "WaveformFixtures.h"

#include "media/VTDataProvider.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTProjectAdapter.h"

#include <gtest/gtest.h>

using namespace brindle::test;

namespace {

std::shared_ptr<VTClip> clipAt(int64_t start, int64_t duration)
{
    auto provider = providerWithSamples(QStringLiteral("silence-10s"), 1, 1, 8000, QByteArray(160000, '\0'));
    auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
    clip->setDurationOfTrack(duration);
    clip->setTimestampOfTrack(start);
    return clip;
}

}  // namespace

TEST(VTProjectAdapterTest, theDataSourceAnswersFromTheProject)
{
    auto project = std::make_shared<VTProject>();
    auto a = clipAt(0, 1000);
    auto b = clipAt(1500, 2000);
    auto c = clipAt(500, 6000);
    for (const auto& clips : {VTProject::ClipList{a, b}, VTProject::ClipList{c}}) {
        auto track = std::make_shared<VTTrack>();
        track->importClips(clips);
        project->importTrack(track);
    }
    project->setSelections({b->identifier()});
    project->setTimePosition(1234);
    auto adapter = VTProjectAdapter::initWithProject(project);
    ASSERT_TRUE(adapter);
    EXPECT_FALSE(VTProjectAdapter::init());
    VTTimelineViewDataSource& source = *adapter;

    EXPECT_EQ(source.numberOfTracks(nullptr), 2u);
    EXPECT_EQ(source.numberOfClips(nullptr, 0), 2u);
    EXPECT_EQ(source.numberOfClips(nullptr, 1), 1u);
    EXPECT_EQ(source.numberOfClips(nullptr, 7), 0u);
    EXPECT_EQ(source.clipAtIndex(1, 0, nullptr)->identifier(), b->identifier());
    EXPECT_EQ(source.clipAtIndex(0, 1, nullptr)->timestampsOfTrack(), 500);
    EXPECT_FALSE(source.clipAtIndex(3, 0, nullptr));
    EXPECT_EQ(source.duration(nullptr), 6500);
    EXPECT_EQ(source.currentPosition(nullptr), 1234);
    EXPECT_EQ(source.selections(nullptr), QStringList{b->identifier()});
    EXPECT_TRUE(source.selectedClip(b->identifier(), nullptr));
    EXPECT_FALSE(source.selectedClip(a->identifier(), nullptr));
    EXPECT_EQ(source.trackIndexWithClipIdentifer(c->identifier(), nullptr), 1u);
    EXPECT_EQ(source.maxNumberOfTracksAllowed(nullptr), 8u);

    // The clip side reads the model clip on every call.
    auto clip = source.clipWithIdentifer(a->identifier(), nullptr);
    a->setTimestampOfTrack(250);
    a->setDurationOfFadeIn(300);
    a->setEnableFadeIn(true);
    EXPECT_EQ(clip->timestampsOfTrack(), 250);
    EXPECT_TRUE(clip->fadeInValidate());
    EXPECT_EQ(clip->durationOfFadeIn(), 300);
    EXPECT_EQ(clip->durationOfTrack(), 1000);
    EXPECT_EQ(clip->description(), a->description());
}

TEST(VTProjectAdapterTest, oneAdapterPerClipIsKeptUntilTheOwnerForgetsIt)
{
    auto project = std::make_shared<VTProject>();
    auto a = clipAt(0, 1000);
    auto b = clipAt(2000, 1000);
    auto track = std::make_shared<VTTrack>();
    track->importClips({a, b});
    project->importTrack(track);
    auto adapter = VTProjectAdapter::initWithProject(project);

    auto first = adapter->adapterWithClipIds(a->identifier());
    ASSERT_TRUE(first);
    EXPECT_EQ(adapter->adapterWithClipIds(a->identifier()), first);
    EXPECT_EQ(adapter->clipWithIdentifer(a->identifier(), nullptr), first);
    EXPECT_EQ(adapter->findAdapterWithClip(*a), first);
    EXPECT_FALSE(adapter->findAdapterWithClipIds(b->identifier()));

    // Unknown Identifiers answer nothing and never leave an empty entry.
    EXPECT_FALSE(adapter->adapterWithClipIds(QStringLiteral("no-such-clip")));
    EXPECT_FALSE(adapter->clipWithIdentifer(QStringLiteral("no-such-clip"), nullptr));
    const auto both = adapter->clipsWithIdentifers({b->identifier(), QStringLiteral("gone"), a->identifier()}, nullptr);
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[0]->identifier(), b->identifier());
    EXPECT_EQ(both[1], first);
    EXPECT_EQ(adapter->clipAdapters().size(), 2u);

    adapter->removeSampleCacheWithClipID(a->identifier());
    EXPECT_FALSE(adapter->findAdapterWithClipIds(a->identifier()));
    EXPECT_TRUE(adapter->findAdapterWithClipIds(b->identifier()));
    auto remade = adapter->adapterWithClipIds(a->identifier());
    EXPECT_NE(remade, first);
    EXPECT_NE(&remade->featureSampleQueue(), &first->featureSampleQueue());

    adapter->removeSampleCachesWithClipIDs({b->identifier(), QStringLiteral("gone")});
    EXPECT_EQ(adapter->clipAdapters().size(), 1u);
    adapter->removeAllSampleCaches();
    EXPECT_TRUE(adapter->clipAdapters().empty());
}
