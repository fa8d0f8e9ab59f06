#include "ModelFixtures.h"

#include "foundation/KeyedCoding.h"
#include "model/VTClip.h"

#include <gtest/gtest.h>

#include <cmath>

using brindle::test::LogCapture;
using brindle::test::silentMediaOfDuration;

namespace {

const QString kFadeWarning = QStringLiteral("Warning: duration of fade out out of range. The value will be trucated.");
const QString kOffsetWarning =
    QStringLiteral("Warning: timestamp out of data providers range.This action will be tructed.");

// A clip over a fresh media of `mediaMs`, cut to `durationMs`.
std::shared_ptr<VTClip> clipOver(int64_t mediaMs, int64_t durationMs)
{
    auto clip = VTClip::initWithDataProviderIDs(silentMediaOfDuration(mediaMs));
    if (clip)
        clip->setDurationOfTrack(durationMs);
    return clip;
}

}  // namespace

TEST(VTClipTest, aNewClipCoversTheWholeMediaWithNeutralSettings)
{
    const QString media = silentMediaOfDuration(10000);
    auto clip = VTClip::initWithDataProviderIDs(media);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->dataProviderIds(), media);
    EXPECT_EQ(clip->durationOfTrack(), 10000);
    EXPECT_EQ(clip->timestampOfTrack(), 0);
    EXPECT_EQ(clip->timestampOfDataProvider(), 0);
    EXPECT_EQ(clip->volume(), 1.0);
    EXPECT_FALSE(clip->enableFadeIn());
    EXPECT_FALSE(clip->fadeOutValidate());
    EXPECT_EQ(clip->identifier().size(), 36);
    EXPECT_NE(clip->identifier(), VTClip::initWithDataProviderIDs(media)->identifier());
    EXPECT_EQ(clip->samplerate(), 8000);
    EXPECT_EQ(clip->numberOfChannel(), 1);
    EXPECT_EQ(clip->bytesPerSample(), 1);
    EXPECT_EQ(clip->description(), QStringLiteral("silence-10000ms-f0-c1-r8000"));

    EXPECT_FALSE(VTClip::initWithDataProviderIDs(QStringLiteral("/no/such/media.mp3")));
    EXPECT_EQ(VTClip::minDurationAllowed(), 500);
}

TEST(VTClipTest, settersCorrectOutOfRangeValuesAndWarnWhereTheRulesSaySo)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    LogCapture log;

    clip->setTimestampOfTrack(-5);
    EXPECT_EQ(clip->timestampOfTrack(), 0);
    clip->setVolume(5.0);
    EXPECT_EQ(clip->volume(), 3.0);
    clip->setVolume(-1.0);
    EXPECT_EQ(clip->volume(), 0.0);
    clip->setVolume(std::nan(""));
    EXPECT_EQ(clip->volume(), 0.0);
    EXPECT_TRUE(log.lines().isEmpty());

    clip->setTimestampOfDataProvider(3000);
    EXPECT_EQ(clip->timestampOfDataProvider(), 3000);
    EXPECT_TRUE(log.lines().isEmpty());
    clip->setTimestampOfDataProvider(7000);  // 7000 + 4000 runs past the 10 s media
    EXPECT_EQ(clip->timestampOfDataProvider(), 6000);
    clip->setTimestampOfDataProvider(-5);
    EXPECT_EQ(clip->timestampOfDataProvider(), 0);
    EXPECT_EQ(log.lines().count(kOffsetWarning), 2);

    // A non-negative length past the media's end is kept as it is.
    clip->setDurationOfTrack(20000);
    EXPECT_EQ(clip->durationOfTrack(), 20000);
    EXPECT_EQ(log.lines().size(), 2);
}

TEST(VTClipTest, fadeLengthsAreKeptWithinTheClipTogether)
{
    auto clip = clipOver(10000, 10000);
    ASSERT_TRUE(clip);
    LogCapture log;
    clip->setDurationOfFadeOut(4000);
    clip->setDurationOfFadeIn(7000);
    EXPECT_EQ(clip->durationOfFadeIn(), 6000);
    EXPECT_TRUE(log.contains(kFadeWarning));
    clip->setDurationOfFadeIn(-1);
    EXPECT_EQ(clip->durationOfFadeIn(), 0);
    clip->setDurationOfFadeIn(2000);
    clip->setDurationOfFadeOut(9000);
    EXPECT_EQ(clip->durationOfFadeOut(), 8000);
    EXPECT_EQ(log.lines().count(kFadeWarning), 3);
}

TEST(VTClipTest, switchingAFadeOnGivesTheDefaultLengthOnlyWhenItHasNone)
{
    struct Case {
        int64_t duration;
        int64_t expected;
    };
    for (const Case& c : {Case{4000, 3000}, Case{10000, 3000}, Case{3000, 1500}, Case{3001, 3000}, Case{999, 499}}) {
        auto clip = clipOver(10000, c.duration);
        ASSERT_TRUE(clip);
        EXPECT_EQ(clip->defaultDurationOfFadeEffect(), c.expected) << c.duration;
        clip->setEnableFadeIn(true);
        EXPECT_EQ(clip->durationOfFadeIn(), c.expected) << c.duration;
        EXPECT_TRUE(clip->fadeInValidate());
    }

    auto clip = clipOver(10000, 10000);
    clip->setDurationOfFadeOut(800);
    clip->setEnableFadeOut(true);
    EXPECT_EQ(clip->durationOfFadeOut(), 800);
    clip->setEnableFadeOut(false);
    EXPECT_EQ(clip->durationOfFadeOut(), 800);
    EXPECT_FALSE(clip->fadeOutValidate());
}

TEST(VTClipTest, fadePositionsAreOnTheTracksAxisAndTruncated)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(1000);
    clip->setDurationOfFadeIn(1000);
    clip->setDurationOfFadeOut(500);
    EXPECT_EQ(clip->indexOfFadeInSampleWithSamplerate(44100), 44100);
    EXPECT_EQ(clip->numberOfFadeInSamplesWithSamplerate(44100), 44100);
    EXPECT_EQ(clip->indexOfFadeOutSampleWithSamplerate(44100), 198450);
    EXPECT_EQ(clip->numberOfFadeOutSamplesWithSamplerate(44100), 22050);

    clip->setTimestampOfTrack(1);
    EXPECT_EQ(clip->indexOfFadeInSampleWithSamplerate(44100), 44);
    clip->setTimestampOfTrack(999);
    EXPECT_EQ(clip->indexOfFadeInSampleWithSamplerate(44100), 44055);
    clip->setDurationOfFadeIn(1);
    EXPECT_EQ(clip->numberOfFadeInSamplesWithSamplerate(22050), 22);
}

TEST(VTClipTest, aCloneHasANewIdentifierAndTheSettingsAppliedInOrder)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(2500);
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

TEST(VTClipTest, splittingOutsideTheClipDoesNothing)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(1000);
    EXPECT_FALSE(clip->splitAtTimestamp(1000));
    EXPECT_FALSE(clip->splitAtTimestamp(5000));
    EXPECT_FALSE(clip->splitAtTimestamp(200));
    EXPECT_EQ(clip->durationOfTrack(), 4000);
}

TEST(VTClipTest, splittingGivesTheRightPartAOneMillisecondFadeOutAndKeepsTheFadeInLeft)
{
    auto clip = clipOver(10000, 6000);
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(1000);
    clip->setTimestampOfDataProvider(500);
    clip->setVolume(2.0);
    clip->setEnableFadeIn(true);
    clip->setDurationOfFadeIn(1000);
    clip->setEnableFadeOut(true);
    clip->setDurationOfFadeOut(2000);

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

TEST(VTClipTest, trimmingTheStartStopsAtTheMediasStartAndTheMinimumLength)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(5000);
    clip->setTimestampOfDataProvider(1000);

    clip->cutStartWithTimestamp(2000);  // asks for 3 s more, the media has 1 s before
    EXPECT_EQ(clip->timestampOfDataProvider(), 0);
    EXPECT_EQ(clip->timestampOfTrack(), 4000);
    EXPECT_EQ(clip->durationOfTrack(), 5000);

    clip->cutStartWithTimestamp(8800);  // would leave 200 ms
    EXPECT_EQ(clip->timestampOfTrack(), 8500);
    EXPECT_EQ(clip->durationOfTrack(), 500);
    EXPECT_EQ(clip->timestampOfDataProvider(), 4500);
}

TEST(VTClipTest, trimmingTheEndKeepsTheMinimumUnlessTheMediaEndsFirst)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    clip->cutEndWithDuration(100);
    EXPECT_EQ(clip->durationOfTrack(), 500);
    clip->cutEndWithDuration(12000);
    EXPECT_EQ(clip->durationOfTrack(), 10000);

    clip->setDurationOfTrack(100);
    clip->setTimestampOfDataProvider(9800);
    clip->cutEndWithDuration(100);
    EXPECT_EQ(clip->durationOfTrack(), 200);
}

TEST(VTClipTest, anArchivedClipComesBackWithItsFieldsAndAGainNarrowedToFloat)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(1234);
    clip->setTimestampOfDataProvider(567);
    clip->setVolume(0.1);
    clip->setEnableFadeOut(true);
    clip->setDurationOfFadeIn(300);

    const QByteArray data = brindle::KeyedArchiver::archivedDataWithRootObject(*clip);
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
    EXPECT_EQ(decoded->volume(), static_cast<double>(0.1f));
}

TEST(VTClipTest, aClipWhoseProviderIsMissingDecodesAsNothing)
{
    auto clip = clipOver(10000, 4000);
    ASSERT_TRUE(clip);
    QByteArray data = brindle::KeyedArchiver::archivedDataWithRootObject(*clip);
    const QByteArray path = clip->dataProviderIds().toUtf8();
    QByteArray other = path;
    other.replace("silence", "missing");  // same length: the property list stays well-formed
    data.replace(path, other);

    LogCapture log;
    EXPECT_FALSE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(data));
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: Clip data provider not found. It will be removed automatically.")));
}
