#include "ModelFixtures.h"

#include "foundation/KeyedCoding.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

using brindle::test::clipAt;
using brindle::test::projectWith;

namespace {

int64_t clipsOnTrack(const VTProject& project, int64_t index)
{
    return project.trackAtIndex(index)->numberOfClips();
}

}  // namespace

TEST(VTProjectTest, theTitleComesFromTheUrlAndThePositionStaysWithinTheProject)
{
    VTProject empty;
    EXPECT_EQ(empty.title(), QStringLiteral("Untiltled"));
    EXPECT_EQ(empty.duration(), 0);
    EXPECT_EQ(empty.numberOfTracks(), 0);
    EXPECT_FALSE(empty.needSaved());
    EXPECT_EQ(VTProject::documentType(), QStringList{QStringLiteral("loomwick")});
    empty.setUrl(QUrl::fromLocalFile(QStringLiteral("/music/Song.loomwick")));
    EXPECT_EQ(empty.title(), QStringLiteral("Song"));

    auto project = projectWith({{clipAt(1000, 2000)}, {clipAt(0, 4000)}});
    EXPECT_EQ(project->duration(), 4000);
    for (auto [set, read] : {std::pair<int64_t, int64_t>{-5, 0}, {9000, 4000}, {1234, 1234}}) {
        project->setTimePosition(set);
        EXPECT_EQ(project->timePosition(), read) << set;
    }
}

TEST(VTProjectTest, lookUpsFindClipsAndTheirTracksOrAnswerNotFound)
{
    auto a = clipAt(0, 1000);
    auto b = clipAt(0, 1000);
    auto c = clipAt(0, 1000);
    auto project = projectWith({{a}, {b, c}});
    EXPECT_EQ(project->clipWithIdentifier(c->identifier()), c);
    EXPECT_EQ(project->trackIndexWithClipIds(c->identifier()), 1);
    EXPECT_EQ(project->trackIndexWithClip(*b), 1);
    EXPECT_EQ(project->trackIndexWithClipIds(QStringLiteral("none")), VTProject::kNotFound);
    EXPECT_FALSE(project->trackWithClipIds(QStringLiteral("none")));
    EXPECT_FALSE(project->trackAtIndex(2));
    const auto found = project->clipsWithIdentifiers({c->identifier(), QStringLiteral("none"), a->identifier()});
    EXPECT_EQ(found, (VTProject::ClipList{c, a}));
}

TEST(VTProjectTest, placingAClipAddsATrackOnlyWhenItsIndexIsMissing)
{
    auto project = projectWith({{}, {}});
    // Any missing index adds exactly one track.
    EXPECT_TRUE(project->importClipAtTrackIndex(clipAt(0, 1000), 5));
    EXPECT_EQ(project->numberOfTracks(), 3);
    EXPECT_EQ(clipsOnTrack(*project, 2), 1);
    EXPECT_TRUE(project->importClipsAtTrackIndex({clipAt(0, 1000), clipAt(0, 1000)}, 0));
    EXPECT_EQ(clipsOnTrack(*project, 0), 2);
    EXPECT_FALSE(project->importClipAtTrackIndex(clipAt(0, 1000), VTProject::kNotFound));
    EXPECT_EQ(project->numberOfTracks(), 3);
    EXPECT_TRUE(project->importClipAtTrack(clipAt(0, 1000), project->trackAtIndex(1)));
    EXPECT_EQ(clipsOnTrack(*project, 1), 1);

    // Moving a clip creates the tracks up to its new one, never a ninth.
    auto clip = clipAt(2500, 1000);
    project->importClipAtTrackIndex(clip, 0);
    project->moveClip(clip, 7);
    ASSERT_EQ(project->numberOfTracks(), 8);
    EXPECT_EQ(project->trackIndexWithClip(*clip), 7);
    EXPECT_EQ(clipsOnTrack(*project, 0), 2);
    EXPECT_EQ(clip->timestampOfTrack(), 2500);
    project->moveClip(clip, 7);  // already there
    EXPECT_EQ(clipsOnTrack(*project, 7), 1);
    project->moveClip(clip, 8);
    EXPECT_EQ(project->numberOfTracks(), 8);
    EXPECT_EQ(project->trackIndexWithClip(*clip), 7);
}

TEST(VTProjectTest, replacementPutsClipStatesBackOnTheirTracks)
{
    auto a = clipAt(0, 1000);
    auto b = clipAt(0, 1000);
    auto c = clipAt(0, 1000);
    auto project = projectWith({{a, b, c}, {}});
    auto before = [](const VTClip& clip) {
        return brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(
            brindle::KeyedArchiver::archivedDataWithRootObject(clip));
    };
    auto aBefore = before(*a);
    auto bBefore = before(*b);
    auto stranger = clipAt(0, 1000);
    aBefore->setTimestampOfTrack(4000);

    project->replacementWithClips({aBefore, bBefore, stranger},
                                  {{a->identifier(), 0}, {b->identifier(), 3}, {stranger->identifier(), 1}});
    EXPECT_EQ(*project->trackAtIndex(0)->clips(), (VTProject::ClipList{aBefore, c}));  // replaced in place
    EXPECT_EQ(project->clipWithIdentifier(a->identifier())->timestampOfTrack(), 4000);
    ASSERT_EQ(project->numberOfTracks(), 3);  // one new track for an index past the last
    EXPECT_EQ(project->trackAtIndex(2)->clips()->front(), bBefore);
    EXPECT_FALSE(project->clipWithIdentifier(stranger->identifier()));
}

TEST(VTProjectTest, removingSplittingAndMovingActOnTheSelectedClips)
{
    auto a = clipAt(0, 4000);
    auto b = clipAt(3000, 4000);
    auto c = clipAt(0, 1000);
    auto project = projectWith({{a, c}, {b}});
    project->setSelections({a->identifier(), b->identifier(), c->identifier()});
    const auto parts = project->splitSelectionAtTimestamp(3500);
    ASSERT_EQ(parts.size(), 2);  // not c, which ends before
    EXPECT_EQ(project->trackAtIndex(0)->clips()->back(), parts.value(a->identifier()));
    EXPECT_EQ(project->trackAtIndex(1)->clips()->back(), parts.value(b->identifier()));
    EXPECT_EQ(parts.value(b->identifier())->timestampOfTrack(), 3500);
    EXPECT_EQ(a->durationOfTrack(), 3500);
    EXPECT_EQ(project->selections().size(), 3);

    EXPECT_TRUE(project->removeClipsWithIdentifer({c->identifier()}));
    EXPECT_EQ(project->selections(), (QStringList{a->identifier(), b->identifier()}));
    EXPECT_EQ(clipsOnTrack(*project, 0), 2);
    // Each selected clip moves by itself and stops at 0.
    EXPECT_TRUE(project->moveLeftWithDelta(2000));
    EXPECT_EQ(a->timestampOfTrack(), 0);
    EXPECT_EQ(b->timestampOfTrack(), 1000);
    EXPECT_TRUE(project->moveRightWithDelta(500));
    EXPECT_EQ(a->timestampOfTrack(), 500);
    EXPECT_EQ(b->timestampOfTrack(), 1500);
    EXPECT_TRUE(project->moveSelectionWithDelta(-4000));
    EXPECT_EQ(a->timestampOfTrack() + b->timestampOfTrack(), 0);
    EXPECT_TRUE(project->removeClips({a}));
    EXPECT_EQ(project->selections(), QStringList{b->identifier()});
    project->setSelections({});
    EXPECT_FALSE(project->moveLeftWithDelta(2000));
}

TEST(VTProjectTest, anArchivedProjectComesBackWithoutTheClipsWhoseMediaIsGone)
{
    const QString lost = brindle::test::mediaWithSamples(QStringLiteral("lost"), 0, 1, 8000, QByteArray(8000, char(128)));
    auto a = clipAt(1000, 500);
    auto b = clipAt(0, 500, lost);
    auto c = clipAt(2000, 500);
    auto project = projectWith({{a, b, c}, {}});
    project->setUrl(QUrl::fromLocalFile(QStringLiteral("/music/Song.loomwick")));
    project->setSelections({b->identifier(), c->identifier()});
    project->setTimePosition(1500);
    project->setNeedSaved(true);

    const QByteArray data = brindle::KeyedArchiver::archivedDataWithRootObject(*project);
    for (const char* key : {"_url", "_tracks", "_selections", "_timePosition", "_clips"})
        EXPECT_TRUE(data.contains(key)) << key;
    VTDataProviderMgr::shareDataProviderMgr().removeDataProviderWithIdentifier(lost);
    brindle::test::LogCapture log;
    auto decoded = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTProject>(data);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: Clip data provider not found. It will be removed automatically.")));
    EXPECT_EQ(decoded->url(), project->url());
    EXPECT_EQ(decoded->timePosition(), 1500);
    EXPECT_FALSE(decoded->needSaved());
    EXPECT_EQ(decoded->selections(), project->selections());
    ASSERT_EQ(decoded->numberOfTracks(), 2);
    EXPECT_EQ(decoded->trackAtIndex(0)->identifier(), project->trackAtIndex(0)->identifier());
    EXPECT_EQ(VTProject::identifiersWithClips(*decoded->trackAtIndex(0)->clips()),
              (QStringList{a->identifier(), c->identifier()}));
    // The selection still names the dropped clip; look-ups skip it.
    EXPECT_EQ(decoded->clipsWithIdentifiers(decoded->selections()).size(), 1u);
}
