#include "ModelFixtures.h"

#include "support/TestMedia.h"

#include "model/VTClip.h"
#include "model/VTMixContext.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>

using brindle::MixSource;
using brindle::test::mediaWithSamples;
using brindle::test::samples16;

namespace {

constexpr int64_t kEnd = MixSource::kEndOfSource;

// Stereo 16-bit media at 48 kHz whose sample (frame, channel) is distinct.
QString countingMedia(int64_t frames)
{
    return mediaWithSamples(QStringLiteral("counting-%1").arg(frames), 1, 2, 48000,
                            samples16(frames, 2, [](int64_t frame, int channel) {
                                return (frame % 15000) * (channel ? -2 : 2) + 1;
                            }));
}

int16_t countingValue(int64_t frame, int channel)
{
    return static_cast<int16_t>((frame % 15000) * (channel ? -2 : 2) + 1);
}

struct PullResult {
    int64_t result = 0;
    bool flag = false;
    QByteArray bytes;
};

PullResult pull(MixSource& source, VTMixContext& context, int64_t frames)
{
    PullResult out;
    out.bytes = QByteArray(static_cast<qsizetype>(frames * context.bytesPerSample()), char(0x5a));
    out.result = source.nextSample(out.bytes.data(), frames, &out.flag, context);
    return out;
}

int16_t sample16(const QByteArray& bytes, int64_t frame, int channel)
{
    int16_t value;
    std::memcpy(&value, bytes.constData() + (frame * 2 + channel) * 2, 2);
    return value;
}

// Everything a clip delivers from a seek to `from`, in buffers of `frames`,
// up to (not including) its end marker; counts answers in `results`.
QByteArray mixClip(VTClip& clip, VTMixContext& context, int64_t frames, int64_t from = 0,
                   std::vector<int64_t>* results = nullptr)
{
    clip.startMixWithContext(context);
    clip.seekToTimestamp(from, context);
    QByteArray all;
    for (int guard = 0; guard < 100000; ++guard) {
        const PullResult piece = pull(clip, context, frames);
        if (piece.result == kEnd)
            break;
        if (results)
            results->push_back(piece.result);
        all += piece.bytes;
    }
    clip.endMixWithContext(context);
    return all;
}

}  // namespace

TEST(VTClipMixTest, aClipStartingInsideABufferAnswersSilenceThenItsLastFramesWithTheFlag)
{
    auto clip = VTClip::initWithDataProviderIDs(countingMedia(96000));
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(1000);
    VTMixContext context(48000, 2, 1);
    clip->startMixWithContext(context);
    clip->seekToTimestamp(0, context);

    for (int index = 0; index < 46; ++index) {
        const PullResult silent = pull(*clip, context, 1024);
        ASSERT_EQ(silent.result, 0) << index;
        EXPECT_FALSE(silent.flag);
        EXPECT_EQ(silent.bytes, QByteArray(1024 * 4, '\0'));
    }
    const PullResult first = pull(*clip, context, 1024);
    EXPECT_EQ(first.result, 128);
    EXPECT_TRUE(first.flag);
    EXPECT_EQ(sample16(first.bytes, 895, 0), 0);
    EXPECT_EQ(sample16(first.bytes, 896, 0), countingValue(0, 0));
    EXPECT_EQ(sample16(first.bytes, 1023, 1), countingValue(127, 1));

    const PullResult next = pull(*clip, context, 1024);
    EXPECT_EQ(next.result, 1024);
    EXPECT_FALSE(next.flag);
    EXPECT_EQ(sample16(next.bytes, 0, 0), countingValue(128, 0));
    EXPECT_FALSE(clip->isEndOfSource(context));
}

TEST(VTClipMixTest, aClipWithoutStateAnswersSilenceAndLeavesTheBufferAlone)
{
    auto clip = VTClip::initWithDataProviderIDs(countingMedia(96000));
    VTMixContext context(48000, 2, 1);
    const PullResult untouched = pull(*clip, context, 16);
    EXPECT_EQ(untouched.result, 0);
    EXPECT_EQ(untouched.bytes, QByteArray(16 * 4, char(0x5a)));
    EXPECT_TRUE(clip->isEndOfSource(context));
}

TEST(VTClipMixTest, readingPastTheMediasEndPadsWithSilenceUntilTheClipsEnd)
{
    auto clip = VTClip::initWithDataProviderIDs(countingMedia(48000));
    ASSERT_TRUE(clip);
    clip->setDurationOfTrack(1500);  // half a second past the media's end
    VTMixContext context(48000, 2, 1);
    std::vector<int64_t> results;
    const QByteArray all = mixClip(*clip, context, 1000, 0, &results);
    // Buffers start at 0, 1000, … 72000: the one at the end index is still read.
    ASSERT_EQ(results.size(), 73u);
    for (int64_t result : results)
        EXPECT_EQ(result, 1000);
    EXPECT_EQ(sample16(all, 47999, 0), countingValue(47999, 0));
    EXPECT_EQ(sample16(all, 48000, 0), 0);
    EXPECT_EQ(sample16(all, 72999, 1), 0);
}

TEST(VTClipMixTest, theMediaEndingInsideALateStartingBufferClearsTheFlag)
{
    auto clip = VTClip::initWithDataProviderIDs(countingMedia(100));
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(10);  // frame 480
    clip->setDurationOfTrack(1000);
    VTMixContext context(48000, 2, 1);
    clip->startMixWithContext(context);
    clip->seekToTimestamp(0, context);
    const PullResult piece = pull(*clip, context, 1024);
    EXPECT_EQ(piece.result, 1024 - 480);
    EXPECT_FALSE(piece.flag);
    EXPECT_EQ(sample16(piece.bytes, 480, 0), countingValue(0, 0));
    EXPECT_EQ(sample16(piece.bytes, 579, 0), countingValue(99, 0));
    EXPECT_EQ(sample16(piece.bytes, 580, 0), 0);
}

TEST(VTClipMixTest, theLastBufferCarriesMediaBeyondTheClipsEndThenTheClipEnds)
{
    auto clip = VTClip::initWithDataProviderIDs(countingMedia(48000));
    ASSERT_TRUE(clip);
    clip->setDurationOfTrack(500);  // ends at frame 24000
    VTMixContext context(48000, 2, 1);
    std::vector<int64_t> results;
    const QByteArray all = mixClip(*clip, context, 1000, 0, &results);
    ASSERT_EQ(results.size(), 25u);
    EXPECT_EQ(sample16(all, 24999, 0), countingValue(24999, 0));
}

TEST(VTClipMixTest, aSeekIntoTheClipStartsReadingThatFarIntoTheMedia)
{
    auto clip = VTClip::initWithDataProviderIDs(countingMedia(96000));
    ASSERT_TRUE(clip);
    clip->setDurationOfTrack(1500);
    clip->setTimestampOfTrack(1000);
    clip->setTimestampOfDataProvider(100);
    VTMixContext context(48000, 2, 1);
    clip->startMixWithContext(context);
    clip->seekToTimestamp(1200, context);
    const PullResult piece = pull(*clip, context, 64);
    EXPECT_EQ(piece.result, 64);
    EXPECT_EQ(sample16(piece.bytes, 0, 0), countingValue(48000 * 300 / 1000, 0));

    clip->seekToTimestamp(600, context);  // before the clip: reading starts at its offset
    for (int index = 0; index < 6; ++index)
        pull(*clip, context, 3200);  // frames 28800 … 48000
    const PullResult atStart = pull(*clip, context, 64);
    EXPECT_EQ(sample16(atStart.bytes, 0, 0), countingValue(4800, 0));
}

TEST(VTClipMixTest, gainAndFadesGiveTheSameResultInSmallBuffersAsInOneBigBuffer)
{
    const QString media = mediaWithSamples(QStringLiteral("loud-noise"), 1, 2, 48000,
                                           samples16(96000, 2, [](int64_t frame, int channel) {
                                               return static_cast<int16_t>(((frame * 7919 + channel * 104729) % 60001) - 30000);
                                           }));
    auto clip = VTClip::initWithDataProviderIDs(media);
    ASSERT_TRUE(clip);
    clip->setDurationOfTrack(1500);
    clip->setTimestampOfTrack(103);
    clip->setTimestampOfDataProvider(200);
    clip->setVolume(1.7);
    clip->setDurationOfFadeIn(300);
    clip->setEnableFadeIn(true);
    clip->setDurationOfFadeOut(400);
    clip->setEnableFadeOut(true);

    VTMixContext small(48000, 2, 1);
    const QByteArray pieces = mixClip(*clip, small, 1000);
    VTMixContext big(48000, 2, 1);
    const QByteArray whole = mixClip(*clip, big, 100000);
    const int64_t endIndex = (103 + 1500) * 48;
    ASSERT_GE(pieces.size(), endIndex * 4);
    ASSERT_GE(whole.size(), endIndex * 4);
    EXPECT_EQ(pieces.left(endIndex * 4), whole.left(endIndex * 4));

    // Spot checks: silence before the clip, the ramp's middle, full gain with clamping.
    EXPECT_EQ(sample16(whole, 103 * 48 - 1, 0), 0);
    const int64_t middleOfFadeIn = 103 * 48 + 150 * 48;
    const int16_t source = static_cast<int16_t>(((( 200 * 48 + 150 * 48) * 7919) % 60001) - 30000);
    const double gained = std::clamp(std::trunc(source * 1.7), -32768.0, 32767.0);
    EXPECT_EQ(sample16(whole, middleOfFadeIn, 0), static_cast<int16_t>(std::trunc(gained * 0.5)));
}

// Every packed media format at several rates, converted to 16-bit and float
// output at 48 and 44.1 kHz: the tone keeps its shape, level and timing.
TEST(VTClipMixTest, mediaOfEveryFormatAndRateIsConvertedToTheMixFormat)
{
    for (int32_t mediaFormat = 0; mediaFormat <= 4; ++mediaFormat) {
        for (int mediaRate : {22050, 44100, 48000}) {
            brindle::test::ToneSpec spec;
            spec.channels = 2;
            spec.sampleRate = mediaRate;
            spec.frames = mediaRate / 2;
            spec.noise = 0.0;
            const QString media = mediaWithSamples(QStringLiteral("tone"), mediaFormat, 2, mediaRate,
                                                   brindle::test::toneSamples(spec, mediaFormat));
            auto clip = VTClip::initWithDataProviderIDs(media);
            ASSERT_TRUE(clip);
            ASSERT_EQ(clip->durationOfTrack(), 500);
            for (int32_t mixFormat : {1, 3}) {
                for (int mixRate : {48000, 44100}) {
                    SCOPED_TRACE(testing::Message() << "media format " << mediaFormat << " at " << mediaRate
                                                    << ", mix format " << mixFormat << " at " << mixRate);
                    VTMixContext context(mixRate, 2, mixFormat);
                    std::vector<int64_t> results;
                    const QByteArray all = mixClip(*clip, context, 1024, 0, &results);
                    const int64_t frames = all.size() / context.bytesPerSample();
                    ASSERT_GE(frames, mixRate / 2);
                    ASSERT_LT(frames, mixRate / 2 + 1024 * 2);
                    double worst = 0.0;
                    for (int64_t frame = 64; frame < mixRate / 2 - 256; ++frame) {
                        for (int channel = 0; channel < 2; ++channel) {
                            double value;
                            if (mixFormat == 1) {
                                value = sample16(all, frame, channel) / 32768.0;
                            } else {
                                float sample;
                                std::memcpy(&sample, all.constData() + (frame * 2 + channel) * 4, 4);
                                value = sample;
                            }
                            const double expected = 0.5 * std::sin(2.0 * std::numbers::pi * (200.0 + 150.0 * channel) *
                                                                    double(frame) / mixRate);
                            worst = std::max(worst, std::abs(value - expected));
                        }
                    }
                    EXPECT_LT(worst, mediaFormat == 0 ? 0.03 : 0.01);
                }
            }
        }
    }
}
