#include "ModelFixtures.h"

#include "foundation/KeyedStandard.h"
#include "model/VTClip.h"
#include "model/VTPasteboard.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

using brindle::test::silentMediaOfDuration;

namespace {

std::shared_ptr<VTClip> clipAt(int64_t start, int64_t duration)
{
    auto clip = VTClip::initWithDataProviderIDs(silentMediaOfDuration(20000));
    clip->setDurationOfTrack(duration);
    clip->setTimestampOfTrack(start);
    return clip;
}

class VTProjectCommandsTest : public testing::Test {
protected:
    void SetUp() override
    {
        // A fresh in-process pasteboard for every test.
        VTPasteboard::setGeneralPasteboard(std::make_shared<brindle::MemoryPasteboard>());
        a = clipAt(0, 1000);
        b = clipAt(10000, 2000);
        c = clipAt(500, 1000);
        for (const auto& clips : {VTProject::ClipList{a}, VTProject::ClipList{c, b}}) {
            auto track = std::make_shared<VTTrack>();
            track->importClips(clips);
            project.importTrack(track);
        }
    }
    void TearDown() override { VTPasteboard::setGeneralPasteboard(nullptr); }

    VTProject project;
    std::shared_ptr<VTClip> a, b, c;
};

}  // namespace

TEST_F(VTProjectCommandsTest, copyNeedsASelectionAndPutsOneEntryPerClipOnThePasteboard)
{
    EXPECT_FALSE(project.canPaste());
    EXPECT_FALSE(project.copy());
    EXPECT_FALSE(project.canPaste());

    project.setSelections({b->identifier(), a->identifier(), QStringLiteral("gone")});
    EXPECT_TRUE(project.copy());
    EXPECT_TRUE(project.canPaste());
    auto pasteboard = VTPasteboard::generalPasteboard();
    EXPECT_EQ(pasteboard->types(), QStringList{VTProject::kPasteboardType});

    // The data: an array of {clip archive, unsigned track index} dictionaries.
    const auto data = pasteboard->dataForType(VTProject::kPasteboardType);
    ASSERT_TRUE(data);
    auto list = brindle::KeyedUnarchiver::unarchivedObjectOfClass<brindle::KeyedArray>(*data);
    ASSERT_TRUE(list);
    ASSERT_EQ(list->objects().size(), 2u);
    auto first = std::dynamic_pointer_cast<const brindle::KeyedDictionary>(list->objects()[0]);
    ASSERT_TRUE(first);
    auto index = std::dynamic_pointer_cast<const brindle::KeyedNumber>(first->objectForKey(VTProject::kClipTrackIndexKey));
    ASSERT_TRUE(index);
    EXPECT_EQ(index->unsignedValue(), 1u);
    auto clipData = std::dynamic_pointer_cast<const brindle::KeyedData>(first->objectForKey(VTProject::kClipDataKey));
    ASSERT_TRUE(clipData);
    auto clip = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(clipData->data());
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->identifier(), b->identifier());
}

TEST_F(VTProjectCommandsTest, pastePutsNewClipsAtThePlayPositionOnTheirTracksAndSelectsThem)
{
    project.setSelections({a->identifier(), b->identifier()});
    ASSERT_TRUE(project.copy());
    project.setTimePosition(3000);
    EXPECT_TRUE(project.paste());

    const QStringList pasted = project.selections();
    ASSERT_EQ(pasted.size(), 2);
    EXPECT_FALSE(pasted.contains(a->identifier()));
    auto first = project.clipWithIdentifier(pasted[0]);
    auto second = project.clipWithIdentifier(pasted[1]);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->timestampOfTrack(), 3000);
    EXPECT_EQ(second->timestampOfTrack(), 3000);  // relative offsets are not kept
    EXPECT_EQ(first->durationOfTrack(), 1000);
    EXPECT_EQ(second->durationOfTrack(), 2000);
    EXPECT_EQ(project.trackIndexWithClip(*first), 0);
    EXPECT_EQ(project.trackIndexWithClip(*second), 1);
    EXPECT_EQ((*project.tracks())[1]->numberOfClips(), 3);

    // The clipboard stays: a second paste makes further new clips.
    EXPECT_TRUE(project.paste());
    EXPECT_EQ((*project.tracks())[0]->numberOfClips(), 3);
}

TEST_F(VTProjectCommandsTest, pasteWithoutOurTypeDoesNothingAndATypeWithoutDataChangesNothing)
{
    auto pasteboard = VTPasteboard::generalPasteboard();
    pasteboard->declareTypes({QStringLiteral("public.text")});
    pasteboard->setData("hello", QStringLiteral("public.text"));
    EXPECT_FALSE(project.canPaste());
    EXPECT_FALSE(project.paste());

    project.setSelections({a->identifier()});
    pasteboard->declareTypes({VTProject::kPasteboardType});
    EXPECT_TRUE(project.paste());
    EXPECT_EQ(project.selections(), QStringList{a->identifier()});

    pasteboard->setData("not an archive", VTProject::kPasteboardType);
    EXPECT_TRUE(project.paste());
    EXPECT_TRUE(project.selections().isEmpty());
    EXPECT_EQ((*project.tracks())[0]->numberOfClips(), 1);
}

TEST_F(VTProjectCommandsTest, cutCopiesThenRemovesTheSelection)
{
    EXPECT_FALSE(project.cut());
    project.setSelections({c->identifier()});
    EXPECT_TRUE(project.cut());
    EXPECT_TRUE(project.selections().isEmpty());
    EXPECT_FALSE(project.clipWithIdentifier(c->identifier()));
    EXPECT_TRUE(project.canPaste());
    project.setTimePosition(0);
    EXPECT_TRUE(project.paste());
    ASSERT_EQ(project.selections().size(), 1);
    EXPECT_EQ(project.trackIndexWithClipIds(project.selections()[0]), 1);
}

TEST_F(VTProjectCommandsTest, deleteRemovesTheSelectionWithoutTouchingThePasteboard)
{
    EXPECT_FALSE(project.delete_());
    project.setSelections({a->identifier(), b->identifier()});
    EXPECT_TRUE(project.delete_());
    EXPECT_TRUE(project.selections().isEmpty());
    EXPECT_EQ((*project.tracks())[0]->numberOfClips(), 0);
    EXPECT_EQ((*project.tracks())[1]->numberOfClips(), 1);
    EXPECT_FALSE(project.canPaste());
}

TEST_F(VTProjectCommandsTest, selectAllAddsTheUnselectedClipsInTrackOrder)
{
    project.setSelections({b->identifier()});
    EXPECT_TRUE(project.selectAll());
    EXPECT_EQ(project.selections(), (QStringList{b->identifier(), a->identifier(), c->identifier()}));
    EXPECT_FALSE(project.selectAll());
}
