#include "ModelFixtures.h"

#include "model/VTClip.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

using brindle::test::clipAt;

namespace {

QStringList identifiersOf(const VTTrack::ClipList& clips)
{
    return VTProject::identifiersWithClips(clips);
}

}  // namespace

TEST(VTTrackTest, clipsKeepInsertionOrderAndAPublishedListNeverChangesUnderItsReader)
{
    VTTrack track;
    EXPECT_EQ(track.duration(), 0);
    EXPECT_EQ(track.identifier().size(), 36);
    auto late = clipAt(5000, 1000);
    auto early = clipAt(0, 2000);
    auto overlapping = clipAt(1000, 3000);
    track.importClip(late);
    const auto snapshot = track.clips();
    track.importClips({early, overlapping});
    track.importClip(nullptr);
    EXPECT_EQ(identifiersOf(*track.clips()), identifiersOf({late, early, overlapping}));
    EXPECT_EQ(track.duration(), 6000);  // the latest end
    track.removeClip(late);
    EXPECT_EQ(identifiersOf(*snapshot), identifiersOf({late}));
    EXPECT_EQ(track.numberOfClips(), 2);
}

TEST(VTTrackTest, clipsAreRemovedByObjectOrIdentifierReplacedInPlaceAndFoundInTrackOrder)
{
    VTTrack track;
    auto a = clipAt(0, 1000);
    auto b = clipAt(1000, 1000);
    auto c = clipAt(2000, 1000);
    auto d = clipAt(3000, 1000);
    track.importClips({a, b, c, d});
    EXPECT_EQ(track.clipWithIdentifier(b->identifier()), b);
    EXPECT_FALSE(track.clipWithIdentifier(QStringLiteral("nothing")));
    EXPECT_EQ(identifiersOf(track.clipsWithIdentifiers({d->identifier(), a->identifier(), QStringLiteral("x")})),
              identifiersOf({a, d}));

    track.removeClip(b);
    track.removeClipWithIdentifier(d->identifier());
    EXPECT_EQ(identifiersOf(*track.clips()), identifiersOf({a, c}));
    auto replacement = clipAt(7000, 500);
    track.replaceClip(a, replacement);
    track.replaceClip(b, clipAt(0, 500));  // not on the track: nothing happens
    EXPECT_EQ(identifiersOf(*track.clips()), identifiersOf({replacement, c}));
    track.importClips({a, b});
    track.removeClipsWithIdentifier({c->identifier(), replacement->identifier()});
    EXPECT_EQ(identifiersOf(*track.clips()), identifiersOf({a, b}));
    track.removeClips({a, b});
    EXPECT_EQ(track.numberOfClips(), 0);
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
    track.importClips({a, clipAt(500, 1000)});
    auto copy = track.clone();
    ASSERT_EQ(copy->numberOfClips(), 2);
    EXPECT_NE(copy->identifier(), track.identifier());
    EXPECT_NE((*copy->clips())[0]->identifier(), a->identifier());
    EXPECT_EQ((*copy->clips())[0]->timestampOfTrack(), 3000);
    EXPECT_EQ((*copy->clips())[1]->timestampOfTrack(), 500);
}
