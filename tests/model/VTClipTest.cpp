#include "ModelFixtures.h"

#include "foundation/KeyedCoding.h"
#include "model/VTClip.h"

#include <gtest/gtest.h>

#include <cmath>

using brindle::test::clipAt;
using brindle::test::LogCapture;
using brindle::test::silentMediaOfDuration;

namespace {

const QString kFadeWarning = QStringLiteral("Warning: duration of fade out out of range. The value will be trucated.");
const QString kOffsetWarning =
    QStringLiteral("Warning: timestamp out of data providers range.This action will be tructed.");

}  // namespace

TEST(VTClipTest, aNewClipCoversTheWholeMediaWithNeutralSettings)
{
    const QString media = silentMediaOfDuration(10000);
    auto clip = VTClip::initWithDataProviderIDs(media);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->dataProviderIds(), media);
    EXPECT_EQ(clip->durationOfTrack(), 10000);
    EXPECT_EQ(clip->timestampOfTrack() + clip->timestampOfDataProvider(), 0);
    EXPECT_EQ(clip->volume(), 1.0);
    EXPECT_FALSE(clip->enableFadeIn() || clip->enableFadeOut() || clip->durationOfFadeIn() || clip->durationOfFadeOut());
    EXPECT_EQ(clip->identifier().size(), 36);
    EXPECT_NE(clip->identifier(), VTClip::initWithDataProviderIDs(media)->identifier());
    EXPECT_EQ(QList<int64_t>({clip->samplerate(), clip->numberOfChannel(), clip->bytesPerSample()}),
              QList<int64_t>({8000, 1, 1}));
    EXPECT_EQ(clip->description(), QStringLiteral("silence-10000ms-f0-c1-r8000"));
    EXPECT_FALSE(VTClip::initWithDataProviderIDs(QStringLiteral("/no/such/media.mp3")));
}

TEST(VTClipTest, settersCorrectOutOfRangeValuesAndWarnWhereTheRulesSaySo)
{
    auto clip = clipAt(0, 4000);
    LogCapture log;
    clip->setTimestampOfTrack(-5);
    EXPECT_EQ(clip->timestampOfTrack(), 0);
    for (auto [set, read] : {std::pair{5.0, 3.0}, {-1.0, 0.0}, {std::nan(""), 0.0}, {2.5, 2.5}}) {
        clip->setVolume(set);
        EXPECT_EQ(clip->volume(), read) << set;
    }
    clip->setTimestampOfDataProvider(3000);
    EXPECT_EQ(clip->timestampOfDataProvider(), 3000);
    EXPECT_TRUE(log.lines().isEmpty());
    clip->setTimestampOfDataProvider(7000);  // 7000 + 4000 runs past the 10 s media
    EXPECT_EQ(clip->timestampOfDataProvider(), 6000);
    clip->setTimestampOfDataProvider(-5);
    EXPECT_EQ(clip->timestampOfDataProvider(), 0);
    EXPECT_EQ(log.lines(), QStringList({kOffsetWarning, kOffsetWarning}));
    // A non-negative length past the media's end is kept as it is.
    clip->setDurationOfTrack(20000);
    EXPECT_EQ(clip->durationOfTrack(), 20000);
    EXPECT_EQ(log.lines().size(), 2);

    // The two fade lengths together stay within the clip.
    clip->setDurationOfTrack(10000);
    clip->setDurationOfFadeOut(4000);
    clip->setDurationOfFadeIn(7000);
    EXPECT_EQ(clip->durationOfFadeIn(), 6000);
    clip->setDurationOfFadeIn(-1);
    EXPECT_EQ(clip->durationOfFadeIn(), 0);
    clip->setDurationOfFadeIn(2000);
    clip->setDurationOfFadeOut(9000);
    EXPECT_EQ(clip->durationOfFadeOut(), 8000);
    EXPECT_EQ(log.lines().count(kFadeWarning), 3);
}

TEST(VTClipTest, switchingAFadeOnGivesTheDefaultLengthOnlyWhenItHasNone)
{
    // 3000 ms for clips longer than 3 s, else half the clip.
    for (auto [duration, expected] : {std::pair<int64_t, int64_t>{4000, 3000}, {10000, 3000}, {3000, 1500},
                                      {3001, 3000}, {999, 499}}) {
        auto clip = clipAt(0, duration);
        EXPECT_EQ(clip->defaultDurationOfFadeEffect(), expected) << duration;
        clip->setEnableFadeIn(true);
        EXPECT_EQ(clip->durationOfFadeIn(), expected) << duration;
        EXPECT_TRUE(clip->fadeInValidate());
    }
    auto clip = clipAt(0, 10000);
    clip->setDurationOfFadeOut(800);
    clip->setEnableFadeOut(true);
    EXPECT_EQ(clip->durationOfFadeOut(), 800);
    clip->setEnableFadeOut(false);
    EXPECT_EQ(clip->durationOfFadeOut(), 800);
    EXPECT_FALSE(clip->fadeOutValidate());
}

TEST(VTClipTest, aCloneHasANewIdentifierAndTheSettingsAppliedInOrder)
{
    auto clip = clipAt(2500, 4000);
    clip->setTimestampOfDataProvider(6000);
    clip->setVolume(0.25);
    clip->setEnableFadeIn(true);
    clip->setDurationOfFadeIn(1500);
    clip->setDurationOfFadeOut(700);

    auto copy = clip->clone();
    ASSERT_TRUE(copy);
    EXPECT_NE(copy->identifier(), clip->identifier());
    EXPECT_EQ(copy->dataProviderIds(), clip->dataProviderIds());
    EXPECT_EQ(copy->timestampOfTrack(), 2500);
    // The length is set before the media offset, so 6000 + 4000 still fits.
    EXPECT_EQ(copy->timestampOfDataProvider(), 6000);
    EXPECT_EQ(copy->durationOfTrack(), 4000);
    EXPECT_EQ(copy->volume(), 0.25);
    EXPECT_TRUE(copy->enableFadeIn());
    EXPECT_FALSE(copy->enableFadeOut());
    EXPECT_EQ(copy->durationOfFadeIn(), 1500);
    EXPECT_EQ(copy->durationOfFadeOut(), 700);
}

TEST(VTClipTest, splittingInsideTheClipGivesTheRightPartAOneMillisecondFadeOutAndKeepsTheFadeInLeft)
{
    auto clip = clipAt(1000, 6000);
    clip->setTimestampOfDataProvider(500);
    clip->setVolume(2.0);
    clip->setEnableFadeIn(true);
    clip->setDurationOfFadeIn(1000);
    clip->setEnableFadeOut(true);
    clip->setDurationOfFadeOut(2000);
    for (int64_t outside : {1000, 7000, 200})
        EXPECT_FALSE(clip->splitAtTimestamp(outside)) << outside;
    EXPECT_EQ(clip->durationOfTrack(), 6000);

    auto right = clip->splitAtTimestamp(4000);
    ASSERT_TRUE(right);
    EXPECT_EQ(right->timestampOfTrack(), 4000);
    EXPECT_EQ(right->durationOfTrack(), 3000);
    EXPECT_EQ(right->timestampOfDataProvider(), 3500);
    EXPECT_EQ(right->volume(), 2.0);
    EXPECT_TRUE(right->enableFadeOut());
    EXPECT_EQ(right->durationOfFadeOut(), 1);
    EXPECT_FALSE(right->enableFadeIn());

    EXPECT_EQ(clip->durationOfTrack(), 3000);
    EXPECT_FALSE(clip->enableFadeOut());
    EXPECT_EQ(clip->durationOfFadeOut(), 0);
    EXPECT_TRUE(clip->enableFadeIn());
    EXPECT_EQ(clip->durationOfFadeIn(), 1000);
}

TEST(VTClipTest, trimmingStopsAtTheMediasEdgesAndTheMinimumLength)
{
    auto clip = clipAt(5000, 4000);
    clip->setTimestampOfDataProvider(1000);
    clip->cutStartWithTimestamp(2000);  // asks for 3 s more, the media has 1 s before
    EXPECT_EQ(clip->timestampOfDataProvider(), 0);
    EXPECT_EQ(clip->timestampOfTrack(), 4000);
    EXPECT_EQ(clip->durationOfTrack(), 5000);
    clip->cutStartWithTimestamp(8800);  // would leave 200 ms
    EXPECT_EQ(clip->timestampOfTrack(), 8500);
    EXPECT_EQ(clip->durationOfTrack(), 500);
    EXPECT_EQ(clip->timestampOfDataProvider(), 4500);

    clip = clipAt(0, 4000);
    clip->cutEndWithDuration(100);
    EXPECT_EQ(clip->durationOfTrack(), 500);
    clip->cutEndWithDuration(12000);
    EXPECT_EQ(clip->durationOfTrack(), 10000);
    // Where the media ends first, the end stops there, below the minimum.
    clip->setDurationOfTrack(100);
    clip->setTimestampOfDataProvider(9800);
    clip->cutEndWithDuration(100);
    EXPECT_EQ(clip->durationOfTrack(), 200);
}

TEST(VTClipTest, anArchivedClipComesBackUnderTheDocumentKeysOrAsNothingWithoutItsMedia)
{
    auto clip = clipAt(1234, 4000);
    clip->setTimestampOfDataProvider(567);
    clip->setVolume(0.1);
    clip->setEnableFadeOut(true);
    clip->setDurationOfFadeIn(300);

    const QByteArray data = brindle::KeyedArchiver::archivedDataWithRootObject(*clip);
    for (const char* key : {"_dataProviderIds", "_timestampOfTrack", "_timestampOfDataProviders", "_durationOfFadeOut",
                            "_durationOfFadeIn", "_durationOfTrack", "_enableFadeIn", "_enableFadeOut", "_volume",
                            "_uuidString"})
        EXPECT_TRUE(data.contains(key)) << key;
    auto decoded = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(data);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->identifier(), clip->identifier());
    EXPECT_EQ(decoded->dataProviderIds(), clip->dataProviderIds());
    EXPECT_EQ(decoded->timestampOfTrack(), 1234);
    EXPECT_EQ(decoded->timestampOfDataProvider(), 567);
    EXPECT_EQ(decoded->durationOfTrack(), 4000);
    EXPECT_EQ(decoded->durationOfFadeIn(), 300);
    EXPECT_EQ(decoded->durationOfFadeOut(), 3000);
    EXPECT_FALSE(decoded->enableFadeIn());
    EXPECT_TRUE(decoded->enableFadeOut());
    EXPECT_EQ(decoded->volume(), static_cast<double>(0.1f));  // stored as a float

    QByteArray missing = data;
    const QByteArray path = clip->dataProviderIds().toUtf8();
    missing.replace(path, QByteArray(path).replace("silence", "missing"));  // same length: still well-formed
    LogCapture log;
    EXPECT_FALSE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(missing));
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: Clip data provider not found. It will be removed automatically.")));
}
