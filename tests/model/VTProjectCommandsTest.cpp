#include "ModelFixtures.h"

#include "foundation/KeyedStandard.h"
#include "model/VTClip.h"
#include "model/VTPasteboard.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <gtest/gtest.h>

using brindle::test::clipAt;

namespace {

class VTProjectCommandsTest : public testing::Test {
protected:
    void SetUp() override
    {
        // A fresh in-process pasteboard for every test.
        VTPasteboard::setGeneralPasteboard(std::make_shared<brindle::MemoryPasteboard>());
        project = brindle::test::projectWith({{a}, {c, b}});
    }
    void TearDown() override { VTPasteboard::setGeneralPasteboard(nullptr); }
    int64_t clipsOnTrack(int64_t index) const { return project->trackAtIndex(index)->numberOfClips(); }

    std::shared_ptr<VTClip> a = clipAt(0, 1000), b = clipAt(10000, 2000), c = clipAt(500, 1000);
    std::shared_ptr<VTProject> project;
};

}  // namespace

TEST(VTPasteboardTest, declaringTypesClearsTheContentsAndOnlyDeclaredTypesTakeData)
{
    brindle::MemoryPasteboard pasteboard;
    EXPECT_TRUE(pasteboard.types().isEmpty());
    pasteboard.declareTypes({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("a")});
    EXPECT_EQ(pasteboard.types(), (QStringList{QStringLiteral("a"), QStringLiteral("b")}));
    EXPECT_TRUE(pasteboard.setData("one", QStringLiteral("a")));
    EXPECT_FALSE(pasteboard.setData("two", QStringLiteral("c")));
    EXPECT_EQ(pasteboard.dataForType(QStringLiteral("a")), QByteArray("one"));
    EXPECT_FALSE(pasteboard.dataForType(QStringLiteral("b")));
    pasteboard.declareTypes({QStringLiteral("b")});
    EXPECT_FALSE(pasteboard.dataForType(QStringLiteral("a")));

    // The general pasteboard is the installed one, or a process default.
    auto mine = std::make_shared<brindle::MemoryPasteboard>();
    VTPasteboard::setGeneralPasteboard(mine);
    EXPECT_EQ(VTPasteboard::generalPasteboard(), mine);
    VTPasteboard::setGeneralPasteboard(nullptr);
    auto fallback = VTPasteboard::generalPasteboard();
    ASSERT_TRUE(fallback);
    EXPECT_NE(fallback, mine);
    EXPECT_EQ(VTPasteboard::generalPasteboard(), fallback);
}

TEST_F(VTProjectCommandsTest, copyNeedsASelectionAndPutsOneEntryPerClipOnThePasteboard)
{
    EXPECT_FALSE(project->copy());
    EXPECT_FALSE(project->canPaste());
    project->setSelections({b->identifier(), a->identifier(), QStringLiteral("gone")});
    EXPECT_TRUE(project->copy());
    EXPECT_TRUE(project->canPaste());
    auto pasteboard = VTPasteboard::generalPasteboard();
    EXPECT_EQ(pasteboard->types(), QStringList{VTProject::kPasteboardType});

    // The data: an array of {clip archive, unsigned track index} dictionaries.
    auto list = brindle::KeyedUnarchiver::unarchivedObjectOfClass<brindle::KeyedArray>(
        pasteboard->dataForType(VTProject::kPasteboardType).value_or(QByteArray()));
    ASSERT_TRUE(list);
    ASSERT_EQ(list->objects().size(), 2u);
    auto first = std::dynamic_pointer_cast<const brindle::KeyedDictionary>(list->objects()[0]);
    ASSERT_TRUE(first);
    auto index = std::dynamic_pointer_cast<const brindle::KeyedNumber>(first->objectForKey(QStringLiteral("com.clip.track.index")));
    ASSERT_TRUE(index);
    EXPECT_EQ(index->unsignedValue(), 1u);
    auto clipData = std::dynamic_pointer_cast<const brindle::KeyedData>(first->objectForKey(QStringLiteral("com.clip.data")));
    ASSERT_TRUE(clipData);
    auto clip = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(clipData->data());
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->identifier(), b->identifier());
}

TEST_F(VTProjectCommandsTest, pastePutsNewClipsAtThePlayPositionOnTheirTracksAndSelectsThem)
{
    project->setSelections({a->identifier(), b->identifier()});
    ASSERT_TRUE(project->copy());
    project->setTimePosition(3000);
    EXPECT_TRUE(project->paste());

    const QStringList pasted = project->selections();
    ASSERT_EQ(pasted.size(), 2);
    EXPECT_FALSE(pasted.contains(a->identifier()));
    auto first = project->clipWithIdentifier(pasted[0]);
    auto second = project->clipWithIdentifier(pasted[1]);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->timestampOfTrack(), 3000);
    EXPECT_EQ(second->timestampOfTrack(), 3000);  // relative offsets are not kept
    EXPECT_EQ(first->durationOfTrack(), 1000);
    EXPECT_EQ(second->durationOfTrack(), 2000);
    EXPECT_EQ(project->trackIndexWithClip(*first), 0);
    EXPECT_EQ(project->trackIndexWithClip(*second), 1);
    EXPECT_EQ(clipsOnTrack(1), 3);
    // The clipboard stays: a second paste makes further new clips.
    EXPECT_TRUE(project->paste());
    EXPECT_EQ(clipsOnTrack(0), 3);
}

TEST_F(VTProjectCommandsTest, pasteWithoutOurTypeDoesNothingAndATypeWithoutDataChangesNothing)
{
    auto pasteboard = VTPasteboard::generalPasteboard();
    pasteboard->declareTypes({QStringLiteral("public.text")});
    pasteboard->setData("hello", QStringLiteral("public.text"));
    EXPECT_FALSE(project->canPaste());
    EXPECT_FALSE(project->paste());

    project->setSelections({a->identifier()});
    pasteboard->declareTypes({VTProject::kPasteboardType});
    EXPECT_TRUE(project->paste());
    EXPECT_EQ(project->selections(), QStringList{a->identifier()});
    pasteboard->setData("not an archive", VTProject::kPasteboardType);
    EXPECT_TRUE(project->paste());
    EXPECT_TRUE(project->selections().isEmpty());
    EXPECT_EQ(clipsOnTrack(0), 1);
}

TEST_F(VTProjectCommandsTest, cutCopiesThenRemovesTheSelectionAndDeleteOnlyRemovesIt)
{
    EXPECT_FALSE(project->cut());
    EXPECT_FALSE(project->delete_());
    project->setSelections({a->identifier(), b->identifier()});
    EXPECT_TRUE(project->delete_());
    EXPECT_TRUE(project->selections().isEmpty());
    EXPECT_EQ(clipsOnTrack(0), 0);
    EXPECT_EQ(clipsOnTrack(1), 1);
    EXPECT_FALSE(project->canPaste());

    project->setSelections({c->identifier()});
    EXPECT_TRUE(project->cut());
    EXPECT_TRUE(project->selections().isEmpty());
    EXPECT_FALSE(project->clipWithIdentifier(c->identifier()));
    EXPECT_TRUE(project->paste());
    ASSERT_EQ(project->selections().size(), 1);
    EXPECT_EQ(project->trackIndexWithClipIds(project->selections()[0]), 1);
}

TEST_F(VTProjectCommandsTest, selectAllAddsTheUnselectedClipsInTrackOrder)
{
    project->setSelections({b->identifier()});
    EXPECT_TRUE(project->selectAll());
    EXPECT_EQ(project->selections(), (QStringList{b->identifier(), a->identifier(), c->identifier()}));
    EXPECT_FALSE(project->selectAll());
}
