#include "WaveformFixtures.h"

#include "media/VTDataProvider.h"
#include "waveform/VTSampleBlock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

using namespace brindle::test;

// A block gives the extremes of a plain sample-by-sample scan, in the
// format's own scale and starting from its silence level (127 for unsigned
// 8-bit, 0 for the others, so a channel of only positive values reports min
// 0), for every channel count, start and length, as far as the media goes.
// Long stretches are scanned many samples at a time; NaN is never an extreme.
TEST(VTSampleBlockTest, blocksGiveTheExtremesOfEverySampleInTheFormatsScaleFromItsSilenceLevel)
{
    constexpr int64_t kFrames = 1000;
    auto value = [](int64_t frame, int channel) -> double {
        const int64_t mixed = (frame * 7919 + channel * 104729) % 2001;
        return double(mixed - 1000) / 8.0;  // -125 … 125
    };
    for (int32_t format = 0; format <= 4; ++format) {
        for (int channels : {1, 2, 3, 8}) {
            SCOPED_TRACE(QStringLiteral("format %1, %2 channels").arg(format).arg(channels).toStdString());
            const bool floating = format >= 3;
            auto sample = [&](int64_t frame, int channel) -> double {
                if (floating && frame % 97 == 13)
                    return std::numeric_limits<double>::quiet_NaN();
                const double v = value(frame, channel);
                return format == 0 ? std::floor(v) + 128 : format <= 2 ? std::floor(v * (format == 1 ? 200 : 8e6)) : v;
            };
            const QByteArray bytes = format == 0   ? interleaved<uint8_t>(kFrames, channels, sample)
                                     : format == 1 ? interleaved<int16_t>(kFrames, channels, sample)
                                     : format == 2 ? interleaved<int32_t>(kFrames, channels, sample)
                                     : format == 3 ? interleaved<float>(kFrames, channels, sample)
                                                   : interleaved<double>(kFrames, channels, sample);
            auto provider = providerWithSamples(QStringLiteral("long-%1ch").arg(channels), format, channels, 8000, bytes);
            ASSERT_TRUE(provider);
            // Whole, inside, single frames, past the end, and a count far beyond
            // the media, which reads what exists and allocates nothing absurd.
            for (auto [start, count] : {std::pair<int64_t, int64_t>{0, kFrames}, {5, 37}, {17, 1}, {18, 1}, {3, 500},
                                        {990, 50}, {kFrames, 100}, {1, INT64_MAX}}) {
                auto block = VTSampleBlock::initWithIndexOfDataProvider(uint64_t(start), uint64_t(count), provider);
                ASSERT_EQ(block->numberOfSamplesInDataProvider(), uint64_t(count));
                for (int c = 0; c < channels; ++c) {
                    double max = format == 0 ? 127.0 : 0.0;
                    double min = max;
                    for (int64_t f = start; f < start + std::min(count, kFrames - start); ++f) {
                        const double v = format == 3 ? double(float(sample(f, c))) : sample(f, c);
                        max = v > max ? v : max;
                        min = min > v ? v : min;
                    }
                    ASSERT_EQ(block->maxSampleOfChannel(c), max) << start << "+" << count << " channel " << c;
                    ASSERT_EQ(block->minSampleOfChannel(c), min) << start << "+" << count << " channel " << c;
                }
            }
        }
    }
    EXPECT_FALSE(VTSampleBlock::initWithIndexOfDataProvider(0, 10, nullptr));
}

TEST(VTSampleBlockTest, blocksAcrossCacheFramesMatchTheSamplesAndAWalkUnpacksEachFrameOnce)
{
    const Tone& tone = toneMedia();
    ASSERT_TRUE(tone.provider);
    const size_t frames = tone.provider->cacheTable().size() - 1;
    ASSERT_GT(frames, 3u) << "the media must span several cache frames";
    auto expectBlock = [&](const VTSampleBlock& block, uint64_t index, uint64_t length) {
        for (int c = 0; c < 2; ++c) {
            const auto [max, min] = tone.extremes(index, length, c);
            EXPECT_EQ(block.maxSampleOfChannel(c), max) << index;
            EXPECT_EQ(block.minSampleOfChannel(c), min) << index;
        }
    };
    // Blocks of odd lengths straddle frame boundaries; one cursor unpacks every frame once.
    for (uint64_t length : {1ull, 66ull, 441ull, 4099ull}) {
        SCOPED_TRACE(length);
        VTDataProvider::FrameCursor cursor;
        for (uint64_t index = 0; index < tone.samples.size() / 2; index += length)
            expectBlock(*VTSampleBlock::initWithIndexOfDataProvider(index, length, tone.provider, cursor), index, length);
        EXPECT_EQ(cursor.framesUnpacked(), frames);
    }
    // Out of order through one cursor: its row is a hint, never trusted blindly.
    VTDataProvider::FrameCursor cursor;
    for (uint64_t index : {100000ull, 100500ull, 100ull, 132290ull, 5000ull, 140000ull, 7000ull})
        expectBlock(*VTSampleBlock::initWithIndexOfDataProvider(index, 700, tone.provider, cursor), index, 700);
}
