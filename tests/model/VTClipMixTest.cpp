// A clip as a pull source on its own: without state, and over media that
// must be converted to the mix format. Its direct reads are checked against
// an independent computation in VTProjectMixTest.
#include "ModelFixtures.h"

#include "support/TestMedia.h"

#include "model/VTClip.h"
#include "model/VTMixContext.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

using brindle::MixSource;
using brindle::test::mediaWithSamples;

TEST(VTClipMixTest, aClipWithoutStateAnswersSilenceAndLeavesTheBufferAlone)
{
    auto clip = brindle::test::clipAt(0);
    VTMixContext context(48000, 2, 1);
    QByteArray buffer(16 * 4, char(0x5a));
    bool flag = false;
    EXPECT_EQ(clip->nextSample(buffer.data(), 16, &flag, context), 0);
    EXPECT_EQ(buffer, QByteArray(16 * 4, char(0x5a)));
    EXPECT_TRUE(clip->isEndOfSource(context));
}

// Every packed media format at several rates, converted to 16-bit and float
// output at 48 and 44.1 kHz: the tone keeps its shape, level and timing.
TEST(VTClipMixTest, mediaOfEveryFormatAndRateIsConvertedToTheMixFormat)
{
    for (int32_t mediaFormat = 0; mediaFormat <= 4; ++mediaFormat) {
        for (int mediaRate : {22050, 44100, 48000}) {
            brindle::test::ToneSpec signal;
            signal.sampleRate = mediaRate;
            signal.frames = mediaRate / 2;
            signal.noise = 0.0;
            auto clip = VTClip::initWithDataProviderIDs(mediaWithSamples(
                QStringLiteral("tone"), mediaFormat, 2, mediaRate, brindle::test::toneSamples(signal, mediaFormat)));
            ASSERT_TRUE(clip);
            ASSERT_EQ(clip->durationOfTrack(), 500);
            for (int32_t mixFormat : {1, 3}) {
                for (int mixRate : {48000, 44100}) {
                    SCOPED_TRACE(testing::Message() << "media format " << mediaFormat << " at " << mediaRate
                                                    << ", mix format " << mixFormat << " at " << mixRate);
                    VTMixContext context(mixRate, 2, mixFormat);
                    clip->startMixWithContext(context);
                    clip->seekToTimestamp(0, context);
                    QByteArray all;
                    QByteArray buffer(1024 * context.bytesPerSample(), '\0');
                    for (int pulls = 0; pulls < 100; ++pulls) {
                        if (clip->nextSample(buffer.data(), 1024, nullptr, context) == MixSource::kEndOfSource)
                            break;
                        all += buffer;
                    }
                    clip->endMixWithContext(context);
                    const int64_t frames = all.size() / context.bytesPerSample();
                    ASSERT_GE(frames, mixRate / 2);
                    ASSERT_LT(frames, mixRate / 2 + 1024 * 2);
                    double worst = 0.0;
                    for (int64_t at = 64 * 2; at < (mixRate / 2 - 256) * 2; ++at) {
                        const double value = mixFormat == 1 ? reinterpret_cast<const int16_t*>(all.constData())[at] / 32768.0
                                                            : reinterpret_cast<const float*>(all.constData())[at];
                        const double expected =
                            0.5 * std::sin(2.0 * std::numbers::pi * (200.0 + 150.0 * double(at % 2)) * double(at / 2) / mixRate);
                        worst = std::max(worst, std::abs(value - expected));
                    }
                    EXPECT_LT(worst, mediaFormat == 0 ? 0.03 : 0.01);
                }
            }
        }
    }
}
