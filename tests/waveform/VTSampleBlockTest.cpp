#include "WaveformFixtures.h"

#include "support/TestMedia.h"

#include "foundation/KeyedCoding.h"
#include "media/VTDataProvider.h"
#include "waveform/VTSampleBlock.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <cstring>
#include <vector>

using namespace brindle::test;

namespace {

// Stereo frames (100, -5), (300, 20), (-7, 40) in `format`, scaled by
// `scale` and offset by `offset`.
std::shared_ptr<VTDataProvider> threeFrames(int32_t format, double scale, double offset)
{
    const double values[3][2] = {{100, -5}, {300, 20}, {-7, 40}};
    auto value = [&](int64_t frame, int channel) { return values[frame][channel] * scale + offset; };
    const QByteArray bytes = format == 0   ? interleaved<uint8_t>(3, 2, value)
                             : format == 1 ? interleaved<int16_t>(3, 2, value)
                             : format == 2 ? interleaved<int32_t>(3, 2, value)
                             : format == 3 ? interleaved<float>(3, 2, value)
                                           : interleaved<double>(3, 2, value);
    return providerWithSamples(QStringLiteral("three-frames"), format, 2, 8000, bytes);
}

}  // namespace

TEST(VTSampleBlockTest, everySampleFormatIsScannedInItsOwnScaleFromTheStartingLevelAsFarAsTheMediaGoes)
{
    // Signed formats start from 0: a channel of only positive values still
    // reports min 0, one of only negative values max 0.
    const double scales[] = {0, 1.0, 1000.0, 1.0 / 512, 1.0 / 512};
    for (int32_t format = 1; format <= 4; ++format) {
        SCOPED_TRACE(format);
        const double scale = scales[format];
        auto provider = threeFrames(format, scale, 0.0);
        ASSERT_TRUE(provider);
        auto firstTwo = VTSampleBlock::initWithIndexOfDataProvider(0, 2, provider);
        EXPECT_EQ(firstTwo->maxSampleOfChannel(0), 300 * scale);
        EXPECT_EQ(firstTwo->maxSampleOfChannel(1), 20 * scale);
        EXPECT_EQ(firstTwo->minSampleOfChannel(0), 0.0);
        EXPECT_EQ(firstTwo->minSampleOfChannel(1), -5 * scale);
        auto last = VTSampleBlock::initWithIndexOfDataProvider(2, 1, provider);
        EXPECT_EQ(last->maxSampleOfChannel(0), 0.0);
        EXPECT_EQ(last->minSampleOfChannel(0), -7 * scale);
        // Past the end: nothing read, the starting extremes; a huge count
        // reads what exists and allocates nothing absurd.
        auto beyond = VTSampleBlock::initWithIndexOfDataProvider(3, 100, provider);
        EXPECT_EQ(beyond->numberOfSamplesInDataProvider(), 100u);
        EXPECT_EQ(beyond->maxSampleOfChannel(0), 0.0);
        EXPECT_EQ(beyond->minSampleOfChannel(1), 0.0);
        EXPECT_EQ(VTSampleBlock::initWithIndexOfDataProvider(1, UINT64_MAX / 2, provider)->minSampleOfChannel(0), -7 * scale);
    }

    // Unsigned 8-bit values are the bytes themselves, from the silence level 127.
    auto u8 = threeFrames(0, 0.25, 128.0);  // bytes (153, 126), (203, 133), (126, 138)
    ASSERT_TRUE(u8);
    auto all = VTSampleBlock::initWithIndexOfDataProvider(0, 3, u8);
    EXPECT_EQ(all->maxSampleOfChannel(0), 203.0);
    EXPECT_EQ(all->minSampleOfChannel(0), 126.0);
    EXPECT_EQ(all->maxSampleOfChannel(1), 138.0);
    EXPECT_EQ(VTSampleBlock::initWithIndexOfDataProvider(1, 1, u8)->minSampleOfChannel(1), 127.0);
    EXPECT_EQ(VTSampleBlock::initWithIndexOfDataProvider(3, 10, u8)->maxSampleOfChannel(0), 127.0);

    EXPECT_FALSE(VTSampleBlock::initWithIndexOfDataProvider(0, 10, nullptr));
}

// Long stretches are scanned many samples at a time; the extremes must be
// those of a plain sample-by-sample scan for every format and channel count,
// at any start and length, with NaN never taken as an extreme.
TEST(VTSampleBlockTest, longStretchesOfAnyChannelCountGiveTheExtremesOfEverySample)
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
            for (auto [start, count] : {std::pair<int64_t, int64_t>{0, kFrames}, {5, 37}, {17, 1}, {3, 500}, {990, 50}}) {
                auto block = VTSampleBlock::initWithIndexOfDataProvider(uint64_t(start), uint64_t(count), provider);
                for (int c = 0; c < channels; ++c) {
                    double max = format == 0 ? 127.0 : 0.0;
                    double min = max;
                    for (int64_t f = start; f < std::min(start + count, kFrames); ++f) {
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
}

TEST(VTSampleBlockTest, blocksAcrossCacheFramesMatchTheSamplesAndAWalkUnpacksEachFrameOnce)
{
    ToneSpec spec;
    spec.frames = 30000;
    spec.amplitude = 0.9;
    const QByteArray raw = toneSamples(spec, 1);
    std::vector<int16_t> samples(size_t(raw.size() / 2));
    std::memcpy(samples.data(), raw.constData(), size_t(raw.size()));
    auto provider = providerWithSamples(QStringLiteral("tone-30000"), 1, 2, 44100, raw);
    ASSERT_TRUE(provider);
    const size_t frames = provider->cacheTable().size() - 1;
    ASSERT_GT(frames, 3u) << "the media must span several cache frames";

    auto expectBlock = [&](const VTSampleBlock& block, uint64_t index, uint64_t length) {
        for (int c = 0; c < 2; ++c) {
            double max = 0, min = 0;
            for (uint64_t f = index; f < std::min<uint64_t>(index + length, 30000); ++f) {
                max = std::max<double>(max, samples[f * 2 + uint64_t(c)]);
                min = std::min<double>(min, samples[f * 2 + uint64_t(c)]);
            }
            EXPECT_EQ(block.maxSampleOfChannel(c), max) << index;
            EXPECT_EQ(block.minSampleOfChannel(c), min) << index;
        }
    };
    // Blocks of odd lengths straddle frame boundaries; one cursor unpacks every frame once.
    for (uint64_t length : {1ull, 66ull, 441ull, 4099ull}) {
        SCOPED_TRACE(length);
        VTDataProvider::FrameCursor cursor;
        for (uint64_t index = 0; index < 30000; index += length)
            expectBlock(*VTSampleBlock::initWithIndexOfDataProvider(index, length, provider, cursor), index, length);
        EXPECT_EQ(cursor.framesUnpacked(), frames);
    }
    // Out of order through one cursor: its row is a hint, never trusted blindly.
    VTDataProvider::FrameCursor cursor;
    for (uint64_t index : {20000ull, 20500ull, 100ull, 29990ull, 5000ull, 31000ull, 7000ull})
        expectBlock(*VTSampleBlock::initWithIndexOfDataProvider(index, 700, provider, cursor), index, 700);
}

TEST(VTSampleBlockTest, theEncodingsRoundTripAndEveryShortOrInconsistentBinaryFormIsRefused)
{
    auto block = VTSampleBlock::initWithFields(44100, 441, doubles({300, 20}), doubles({0, -5}));
    const QByteArray data = block->encodeToData();
    ASSERT_EQ(uint64_t(data.size()), block->encodeSize());
    ASSERT_EQ(data.size(), 64);
    auto decoded = VTSampleBlock::initWithData(data);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->indexOfSampleInDataProvider(), 44100u);
    EXPECT_EQ(decoded->numberOfSamplesInDataProvider(), 441u);
    EXPECT_EQ(decoded->maxSamples(), block->maxSamples());
    EXPECT_EQ(decoded->minSamples(), block->minSamples());

    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(*block);
    auto unarchived = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTSampleBlock>(archive);
    ASSERT_TRUE(unarchived);
    EXPECT_EQ(unarchived->indexOfSampleInDataProvider(), 44100u);
    EXPECT_EQ(unarchived->numberOfSamplesInDataProvider(), 441u);
    EXPECT_EQ(unarchived->maxSamples(), block->maxSamples());
    EXPECT_EQ(unarchived->minSamples(), block->minSamples());

    for (qsizetype size = 0; size < data.size(); ++size)
        EXPECT_FALSE(VTSampleBlock::initWithData(data.left(size))) << size;
    EXPECT_FALSE(VTSampleBlock::initWithData(VTSampleBlock::initWithFields(0, 1, {}, doubles({1}))->encodeToData()));
    EXPECT_FALSE(VTSampleBlock::initWithData(VTSampleBlock::initWithFields(0, 1, doubles({1}), {})->encodeToData()));
    // Lengths that run past the end, or wrap around when added to their offsets.
    for (uint64_t absurd : {uint64_t(33), UINT64_MAX, UINT64_MAX - 23, UINT64_MAX - 31, uint64_t(1) << 63}) {
        EXPECT_FALSE(VTSampleBlock::initWithData(withUInt64At(data, 16, absurd))) << absurd;
        EXPECT_FALSE(VTSampleBlock::initWithData(withUInt64At(data, 40, absurd))) << absurd;
    }
}
