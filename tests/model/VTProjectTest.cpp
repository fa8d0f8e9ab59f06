#include "ModelFixtures.h"

#include "foundation/KeyedCoding.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

using brindle::test::silentMediaOfDuration;

namespace {

std::shared_ptr<VTClip> clipAt(int64_t start, int64_t duration, const QString& media = silentMediaOfDuration(10000))
{
    auto clip = VTClip::initWithDataProviderIDs(media);
    clip->setDurationOfTrack(duration);
    clip->setTimestampOfTrack(start);
    return clip;
}

// A project with `tracks` tracks, each holding the given clips in order.
std::shared_ptr<VTProject> projectWith(const std::vector<VTProject::ClipList>& tracks)
{
    auto project = std::make_shared<VTProject>();
    for (const auto& clips : tracks) {
        auto track = std::make_shared<VTTrack>();
        track->importClips(clips);
        project->importTrack(track);
    }
    return project;
}

}  // namespace

TEST(VTProjectTest, aNewProjectIsEmptyAndUntitled)
{
    VTProject project;
    EXPECT_EQ(project.title(), QStringLiteral("Untiltled"));
    EXPECT_EQ(project.duration(), 0);
    EXPECT_EQ(project.numberOfTracks(), 0);
    EXPECT_FALSE(project.needSaved());
    EXPECT_EQ(VTProject::supportMaxNumberOfTracks(), 8);
    EXPECT_EQ(VTProject::documentType(), QStringList{QStringLiteral("loomwick")});
    project.setUrl(QUrl::fromLocalFile(QStringLiteral("/music/Song.loomwick")));
    EXPECT_EQ(project.title(), QStringLiteral("Song"));
}

TEST(VTProjectTest, theTimePositionStaysWithinTheProject)
{
    auto project = projectWith({{clipAt(1000, 2000)}, {clipAt(0, 4000)}});
    EXPECT_EQ(project->duration(), 4000);
    project->setTimePosition(-5);
    EXPECT_EQ(project->timePosition(), 0);
    project->setTimePosition(9000);
    EXPECT_EQ(project->timePosition(), 4000);
    project->setTimePosition(1234);
    EXPECT_EQ(project->timePosition(), 1234);
}

TEST(VTProjectTest, lookUpsFindClipsAndTheirTracksOrAnswerNotFound)
{
    auto a = clipAt(0, 1000);
    auto b = clipAt(0, 1000);
    auto c = clipAt(0, 1000);
    auto project = projectWith({{a}, {b, c}});
    EXPECT_EQ(project->clipWithIdentifier(c->identifier()), c);
    EXPECT_EQ(project->trackIndexWithClipIds(c->identifier()), 1);
    EXPECT_EQ(project->trackWithClip(*a), (*project->tracks())[0]);
    EXPECT_EQ(project->trackIndexWithClip(*b), 1);
    EXPECT_EQ(project->trackIndexWithClipIds(QStringLiteral("none")), VTProject::kNotFound);
    EXPECT_FALSE(project->trackWithClipIds(QStringLiteral("none")));
    const auto found = project->clipsWithIdentifiers({c->identifier(), QStringLiteral("none"), a->identifier()});
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0], c);
    EXPECT_EQ(found[1], a);
    EXPECT_EQ(VTProject::identifiersWithClips({a, b}), (QStringList{a->identifier(), b->identifier()}));
}

TEST(VTProjectTest, importingAtAMissingTrackIndexAddsExactlyOneTrack)
{
    auto project = projectWith({{}, {}});
    EXPECT_TRUE(project->importClipAtTrackIndex(clipAt(0, 1000), 5));
    EXPECT_EQ(project->numberOfTracks(), 3);
    EXPECT_EQ((*project->tracks())[2]->numberOfClips(), 1);
    EXPECT_TRUE(project->importClipsAtTrackIndex({clipAt(0, 1000), clipAt(0, 1000)}, 0));
    EXPECT_EQ((*project->tracks())[0]->numberOfClips(), 2);
    EXPECT_FALSE(project->importClipAtTrackIndex(clipAt(0, 1000), VTProject::kNotFound));
    EXPECT_EQ(project->numberOfTracks(), 3);
    EXPECT_TRUE(project->importClipAtTrack(clipAt(0, 1000), (*project->tracks())[1]));
    EXPECT_EQ((*project->tracks())[1]->numberOfClips(), 1);
}

TEST(VTProjectTest, movingAClipToALaterTrackCreatesTheTracksUpToIt)
{
    auto clip = clipAt(2500, 1000);
    auto project = projectWith({{clip}, {}});
    project->moveClip(clip, 7);
    ASSERT_EQ(project->numberOfTracks(), 8);
    EXPECT_EQ(project->trackIndexWithClip(*clip), 7);
    EXPECT_EQ((*project->tracks())[0]->numberOfClips(), 0);
    EXPECT_EQ(clip->timestampOfTrack(), 2500);

    project->moveClip(clip, 7);  // already there
    EXPECT_EQ((*project->tracks())[7]->numberOfClips(), 1);
    project->moveClip(clip, 8);  // beyond the supported tracks
    EXPECT_EQ(project->numberOfTracks(), 8);
    EXPECT_EQ(project->trackIndexWithClip(*clip), 7);
}

TEST(VTProjectTest, replacementPutsClipStatesBackOnTheirTracks)
{
    auto a = clipAt(0, 1000);
    auto b = clipAt(0, 1000);
    auto project = projectWith({{a, b}, {}});

    auto aBefore = std::shared_ptr<VTClip>(
        brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(brindle::KeyedArchiver::archivedDataWithRootObject(*a)));
    auto bBefore = std::shared_ptr<VTClip>(
        brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(brindle::KeyedArchiver::archivedDataWithRootObject(*b)));
    auto stranger = clipAt(0, 1000);
    aBefore->setTimestampOfTrack(4000);

    project->replacementWithClips({aBefore, bBefore, stranger}, {{a->identifier(), 0}, {b->identifier(), 3},
                                                               {stranger->identifier(), 1}});
    const auto first = (*project->tracks())[0]->clips();
    ASSERT_EQ(first->size(), 1u);
    EXPECT_EQ(first->front(), aBefore);  // replaced in place
    EXPECT_EQ(project->clipWithIdentifier(a->identifier())->timestampOfTrack(), 4000);
    ASSERT_EQ(project->numberOfTracks(), 3);  // one new track for an index past the last
    EXPECT_EQ((*project->tracks())[2]->clips()->front(), bBefore);
    EXPECT_FALSE(project->clipWithIdentifier(stranger->identifier()));
}

TEST(VTProjectTest, removingClipsDropsThemFromTheirTracksAndTheSelection)
{
    auto a = clipAt(0, 1000);
    auto b = clipAt(0, 1000);
    auto project = projectWith({{a}, {b}});
    project->setSelections({a->identifier(), b->identifier()});
    EXPECT_TRUE(project->removeClipsWithIdentifer({b->identifier()}));
    EXPECT_EQ(project->selections(), QStringList{a->identifier()});
    EXPECT_EQ((*project->tracks())[1]->numberOfClips(), 0);
    EXPECT_TRUE(project->removeClips({a}));
    EXPECT_TRUE(project->selections().isEmpty());
}

TEST(VTProjectTest, splittingTheSelectionAppendsTheRightPartsToTheSameTracks)
{
    auto a = clipAt(0, 4000);
    auto b = clipAt(3000, 4000);
    auto c = clipAt(0, 1000);
    auto project = projectWith({{a, c}, {b}});
    project->setSelections({a->identifier(), b->identifier(), c->identifier()});
    const auto parts = project->splitSelectionAtTimestamp(3500);
    ASSERT_EQ(parts.size(), 2);
    EXPECT_EQ((*project->tracks())[0]->clips()->back(), parts.value(a->identifier()));
    EXPECT_EQ((*project->tracks())[1]->clips()->back(), parts.value(b->identifier()));
    EXPECT_EQ(parts.value(b->identifier())->timestampOfTrack(), 3500);
    EXPECT_EQ(a->durationOfTrack(), 3500);
    EXPECT_EQ(project->selections().size(), 3);
}

TEST(VTProjectTest, movingASelectionStopsEachClipAtZero)
{
    auto a = clipAt(1000, 500);
    auto b = clipAt(3000, 500);
    auto project = projectWith({{a}, {b}});
    EXPECT_FALSE(project->moveLeftWithDelta(2000));
    project->setSelections({a->identifier(), b->identifier()});
    EXPECT_TRUE(project->moveLeftWithDelta(2000));
    EXPECT_EQ(a->timestampOfTrack(), 0);
    EXPECT_EQ(b->timestampOfTrack(), 1000);
    EXPECT_TRUE(project->moveRightWithDelta(500));
    EXPECT_EQ(a->timestampOfTrack(), 500);
    EXPECT_EQ(b->timestampOfTrack(), 1500);
    EXPECT_TRUE(project->moveSelectionWithDelta(-4000));
    EXPECT_EQ(a->timestampOfTrack(), 0);
    EXPECT_EQ(b->timestampOfTrack(), 0);
}

TEST(VTProjectTest, anArchivedProjectComesBackWithoutTheClipsWhoseMediaIsGone)
{
    const QString kept = silentMediaOfDuration(10000);
    const QString lost = brindle::test::mediaWithSamples(QStringLiteral("lost"), 0, 1, 8000, QByteArray(8000, char(128)));
    auto a = clipAt(1000, 500, kept);
    auto b = clipAt(0, 500, lost);
    auto c = clipAt(2000, 500, kept);
    auto project = projectWith({{a, b, c}, {}});
    project->setUrl(QUrl::fromLocalFile(QStringLiteral("/music/Song.loomwick")));
    project->setSelections({b->identifier(), c->identifier()});
    project->setTimePosition(1500);
    project->setNeedSaved(true);

    const QByteArray data = brindle::KeyedArchiver::archivedDataWithRootObject(*project);
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
    EXPECT_EQ((*decoded->tracks())[0]->identifier(), (*project->tracks())[0]->identifier());
    const auto clips = (*decoded->tracks())[0]->clips();
    ASSERT_EQ(clips->size(), 2u);
    EXPECT_EQ((*clips)[0]->identifier(), a->identifier());
    EXPECT_EQ((*clips)[1]->identifier(), c->identifier());
    // The selection still names the dropped clip; look-ups skip it.
    EXPECT_EQ(decoded->clipsWithIdentifiers(decoded->selections()).size(), 1u);
}
