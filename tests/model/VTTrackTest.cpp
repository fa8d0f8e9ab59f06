#include "ModelFixtures.h"

#include "model/VTClip.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

using brindle::test::silentMediaOfDuration;

namespace {

std::shared_ptr<VTClip> clipAt(int64_t start, int64_t duration)
{
    auto clip = VTClip::initWithDataProviderIDs(silentMediaOfDuration(10000));
    clip->setDurationOfTrack(duration);
    clip->setTimestampOfTrack(start);
    return clip;
}

QStringList identifiersOf(const VTTrack::ClipList& clips)
{
    QStringList identifiers;
    for (const auto& clip : clips)
        identifiers.append(clip->identifier());
    return identifiers;
}

}  // namespace

TEST(VTTrackTest, clipsKeepInsertionOrderAndTheDurationIsTheLatestEnd)
{
    VTTrack track;
    EXPECT_EQ(track.duration(), 0);
    EXPECT_EQ(track.identifier().size(), 36);
    auto late = clipAt(5000, 1000);
    auto early = clipAt(0, 2000);
    auto overlapping = clipAt(1000, 3000);
    track.importClip(late);
    track.importClips({early, overlapping});
    track.importClip(nullptr);
    ASSERT_EQ(track.numberOfClips(), 3);
    EXPECT_EQ(identifiersOf(*track.clips()),
              (QStringList{late->identifier(), early->identifier(), overlapping->identifier()}));
    EXPECT_EQ(track.duration(), 6000);
}

TEST(VTTrackTest, aPublishedClipListDoesNotChangeUnderItsReader)
{
    VTTrack track;
    auto first = clipAt(0, 1000);
    track.importClip(first);
    auto snapshot = track.clips();
    track.importClip(clipAt(2000, 1000));
    track.removeClip(first);
    EXPECT_EQ(snapshot->size(), 1u);
    EXPECT_EQ(snapshot->front(), first);
    EXPECT_EQ(track.numberOfClips(), 1);
}

TEST(VTTrackTest, clipsAreRemovedByObjectOrByIdentifierAndReplacedInPlace)
{
    VTTrack track;
    auto a = clipAt(0, 1000);
    auto b = clipAt(1000, 1000);
    auto c = clipAt(2000, 1000);
    auto d = clipAt(3000, 1000);
    track.importClips({a, b, c, d});

    track.removeClip(b);
    track.removeClipWithIdentifier(d->identifier());
    EXPECT_EQ(identifiersOf(*track.clips()), (QStringList{a->identifier(), c->identifier()}));

    auto replacement = clipAt(7000, 500);
    track.replaceClip(a, replacement);
    track.replaceClip(b, clipAt(0, 500));  // not on the track: nothing happens
    EXPECT_EQ(identifiersOf(*track.clips()), (QStringList{replacement->identifier(), c->identifier()}));

    track.removeClipsWithIdentifier({c->identifier(), replacement->identifier()});
    EXPECT_EQ(track.numberOfClips(), 0);
    track.importClips({a, b});
    track.removeClips({a, b});
    EXPECT_EQ(track.numberOfClips(), 0);
}

TEST(VTTrackTest, lookUpsAnswerInTrackOrderOrNothing)
{
    VTTrack track;
    auto a = clipAt(0, 1000);
    auto b = clipAt(1000, 1000);
    auto c = clipAt(2000, 1000);
    track.importClips({a, b, c});
    EXPECT_EQ(track.clipWithIdentifier(b->identifier()), b);
    EXPECT_FALSE(track.clipWithIdentifier(QStringLiteral("nothing")));
    EXPECT_EQ(identifiersOf(track.clipsWithIdentifiers({c->identifier(), a->identifier(), QStringLiteral("x")})),
              (QStringList{a->identifier(), c->identifier()}));
}

TEST(VTTrackTest, snappingTargetsStartWithZeroAndLeaveTheDraggedClipOut)
{
    VTTrack track;
    auto a = clipAt(3000, 1000);
    auto b = clipAt(500, 1000);
    auto c = clipAt(500, 2000);
    track.importClips({a, b, c});
    EXPECT_EQ(track.attractAfterTimestampsWithClip(*b), (std::vector<int64_t>{0, 3000, 500}));
    EXPECT_EQ(track.attractBeforeTimestampsWithClip(*a), (std::vector<int64_t>{0, 1500, 2500}));
}

TEST(VTTrackTest, aCloneHasNewIdentifiersAndClonedClipsInOrder)
{
    VTTrack track;
    auto a = clipAt(3000, 1000);
    auto b = clipAt(500, 1000);
    track.importClips({a, b});
    auto copy = track.clone();
    ASSERT_EQ(copy->numberOfClips(), 2);
    EXPECT_NE(copy->identifier(), track.identifier());
    EXPECT_NE((*copy->clips())[0]->identifier(), a->identifier());
    EXPECT_EQ((*copy->clips())[0]->timestampOfTrack(), 3000);
    EXPECT_EQ((*copy->clips())[1]->timestampOfTrack(), 500);
}
