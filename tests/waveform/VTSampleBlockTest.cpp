#include "WaveformFixtures.h"

#include "support/TestMedia.h"

#include "foundation/KeyedCoding.h"
#include "media/VTDataProvider.h"
#include "waveform/VTSampleBlock.h"

#include <gtest/gtest.h>

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <vector>

using namespace brindle::test;

namespace {

// Stereo frames (100, -5), (300, 20), then (-7, 40), written in `format`
// with the values scaled by `scale` (and offset by `offset` for 8-bit media).
std::shared_ptr<VTDataProvider> threeFrames(int32_t format, double scale, double offset)
{
    const double values[3][2] = {{100, -5}, {300, 20}, {-7, 40}};
    auto value = [&](int64_t frame, int channel) { return values[frame][channel] * scale + offset; };
    QByteArray bytes;
    switch (format) {
    case 0: bytes = interleaved<uint8_t>(3, 2, value); break;
    case 1: bytes = interleaved<int16_t>(3, 2, value); break;
    case 2: bytes = interleaved<int32_t>(3, 2, value); break;
    case 3: bytes = interleaved<float>(3, 2, value); break;
    default: bytes = interleaved<double>(3, 2, value); break;
    }
    return providerWithSamples(QStringLiteral("three-frames"), format, 2, 8000, bytes);
}

// Brute force: the extremes of frames [index, index + count) of `samples`,
// starting from `start`.
void expectedExtremes(const std::vector<double>& samples, int channels, uint64_t index, uint64_t count, double start,
                      std::vector<double>& max, std::vector<double>& min)
{
    max.assign(size_t(channels), start);
    min.assign(size_t(channels), start);
    const uint64_t frames = samples.size() / size_t(channels);
    for (uint64_t frame = index; frame < std::min(frames, index + count); ++frame) {
        for (int c = 0; c < channels; ++c) {
            max[size_t(c)] = std::max(max[size_t(c)], samples[frame * uint64_t(channels) + uint64_t(c)]);
            min[size_t(c)] = std::min(min[size_t(c)], samples[frame * uint64_t(channels) + uint64_t(c)]);
        }
    }
}

QByteArray withUInt64At(QByteArray data, qsizetype offset, uint64_t value)
{
    const uint64_t little = qToLittleEndian(value);
    std::memcpy(data.data() + offset, &little, sizeof little);
    return data;
}

}  // namespace

TEST(VTSampleBlockTest, everySampleFormatIsScannedInItsOwnScaleFromTheStartingLevel)
{
    // 16-bit, 32-bit integer and both floats start from 0: a channel of only
    // positive values still reports min 0, one of only negative ones max 0.
    struct Case {
        int32_t format;
        double scale;
        double offset;
    };
    const Case cases[] = {{1, 1.0, 0.0}, {2, 1000.0, 0.0}, {3, 1.0 / 512, 0.0}, {4, 1.0 / 512, 0.0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.format);
        auto provider = threeFrames(c.format, c.scale, c.offset);
        ASSERT_TRUE(provider);
        auto firstTwo = VTSampleBlock::initWithIndexOfDataProvider(0, 2, provider);
        ASSERT_TRUE(firstTwo);
        EXPECT_EQ(firstTwo->maxSampleOfChannel(0), 300 * c.scale);
        EXPECT_EQ(firstTwo->maxSampleOfChannel(1), 20 * c.scale);
        EXPECT_EQ(firstTwo->minSampleOfChannel(0), 0.0);
        EXPECT_EQ(firstTwo->minSampleOfChannel(1), -5 * c.scale);
        EXPECT_EQ(firstTwo->maxSamples().size(), 16);

        auto last = VTSampleBlock::initWithIndexOfDataProvider(2, 1, provider);
        EXPECT_EQ(last->maxSampleOfChannel(0), 0.0);
        EXPECT_EQ(last->minSampleOfChannel(0), -7 * c.scale);
        EXPECT_EQ(last->minSampleOfChannel(1), 0.0);
    }

    // Unsigned 8-bit values are the bytes themselves, from the silence level 127.
    auto u8 = threeFrames(0, 0.25, 128.0);
    ASSERT_TRUE(u8);
    auto block = VTSampleBlock::initWithIndexOfDataProvider(0, 3, u8);
    EXPECT_EQ(block->maxSampleOfChannel(0), 203.0);  // 300 / 4 + 128
    EXPECT_EQ(block->minSampleOfChannel(0), 126.0);  // -7 / 4 + 128, truncated
    EXPECT_EQ(block->maxSampleOfChannel(1), 138.0);
    EXPECT_EQ(block->minSampleOfChannel(1), 126.0);
    auto silentByStart = VTSampleBlock::initWithIndexOfDataProvider(1, 1, u8);
    EXPECT_EQ(silentByStart->minSampleOfChannel(1), 127.0);  // 133 > 127 keeps the start
}

TEST(VTSampleBlockTest, aStretchIsScannedOnlyAsFarAsTheMediaGoes)
{
    for (int32_t format : {0, 1}) {
        SCOPED_TRACE(format);
        auto provider = threeFrames(format, format == 0 ? 0.25 : 1.0, format == 0 ? 128.0 : 0.0);
        ASSERT_TRUE(provider);
        const double start = format == 0 ? 127.0 : 0.0;
        auto beyond = VTSampleBlock::initWithIndexOfDataProvider(3, 100, provider);
        ASSERT_TRUE(beyond);
        EXPECT_EQ(beyond->indexOfSampleInDataProvider(), 3u);
        EXPECT_EQ(beyond->numberOfSamplesInDataProvider(), 100u);
        for (int c = 0; c < 2; ++c) {
            EXPECT_EQ(beyond->maxSampleOfChannel(c), start);
            EXPECT_EQ(beyond->minSampleOfChannel(c), start);
        }
        // A huge count past the end reads what exists and allocates nothing absurd.
        auto overhanging = VTSampleBlock::initWithIndexOfDataProvider(1, UINT64_MAX / 2, provider);
        EXPECT_EQ(overhanging->minSampleOfChannel(0), format == 0 ? 126.0 : -7.0);
    }
    EXPECT_FALSE(VTSampleBlock::initWithIndexOfDataProvider(0, 10, nullptr));
}

TEST(VTSampleBlockTest, blocksAcrossCacheFramesMatchTheSamplesAndAWalkUnpacksEachFrameOnce)
{
    ToneSpec spec;
    spec.channels = 2;
    spec.frames = 30000;
    spec.amplitude = 0.9;
    const QByteArray raw = toneSamples(spec, 1);
    std::vector<double> samples(size_t(raw.size() / 2));
    for (size_t i = 0; i < samples.size(); ++i) {
        int16_t v;
        std::memcpy(&v, raw.constData() + i * 2, 2);
        samples[i] = v;
    }
    auto provider = providerWithSamples(QStringLiteral("tone-30000"), 1, 2, 44100, raw);
    ASSERT_TRUE(provider);
    const size_t frames = provider->cacheTable().size() - 1;
    ASSERT_GT(frames, 3u) << "the media must span several cache frames";

    // Blocks of odd lengths straddle frame boundaries; each matches a scan
    // of the raw samples, and one cursor unpacks every frame exactly once.
    std::vector<double> max, min;
    auto expectBlock = [&](const VTSampleBlock& block, uint64_t index, uint64_t length) {
        expectedExtremes(samples, 2, index, length, 0.0, max, min);
        for (int c = 0; c < 2; ++c) {
            EXPECT_EQ(block.maxSampleOfChannel(c), max[size_t(c)]) << index;
            EXPECT_EQ(block.minSampleOfChannel(c), min[size_t(c)]) << index;
        }
    };
    for (uint64_t length : {1ull, 66ull, 441ull, 4099ull}) {
        SCOPED_TRACE(length);
        VTDataProvider::FrameCursor cursor;
        for (uint64_t index = 0; index < 30000; index += length)
            expectBlock(*VTSampleBlock::initWithIndexOfDataProvider(index, length, provider, cursor), index, length);
        EXPECT_EQ(cursor.framesUnpacked(), frames);
    }

    // Out of order through one cursor: backwards, far ahead, and past the
    // end, each still right (the cursor's row is a hint, never trusted blindly).
    VTDataProvider::FrameCursor cursor;
    for (uint64_t index : {20000ull, 20500ull, 100ull, 29990ull, 5000ull, 31000ull, 7000ull})
        expectBlock(*VTSampleBlock::initWithIndexOfDataProvider(index, 700, provider, cursor), index, 700);
}

TEST(VTSampleBlockTest, theBinaryFormRoundTripsAndEveryShortOrInconsistentInputIsRefused)
{
    const double maxValues[2] = {300.0, 20.0};
    const double minValues[2] = {0.0, -5.0};
    auto block = VTSampleBlock::initWithFields(44100, 441, QByteArray(reinterpret_cast<const char*>(maxValues), 16),
                                               QByteArray(reinterpret_cast<const char*>(minValues), 16));
    const QByteArray data = block->encodeToData();
    ASSERT_EQ(uint64_t(data.size()), block->encodeSize());
    ASSERT_EQ(data.size(), 64);
    auto decoded = VTSampleBlock::initWithData(data);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->indexOfSampleInDataProvider(), 44100u);
    EXPECT_EQ(decoded->numberOfSamplesInDataProvider(), 441u);
    EXPECT_EQ(decoded->maxSamples(), block->maxSamples());
    EXPECT_EQ(decoded->minSamples(), block->minSamples());

    // Every prefix is refused, down to the empty input.
    for (qsizetype size = 0; size < data.size(); ++size)
        EXPECT_FALSE(VTSampleBlock::initWithData(data.left(size))) << size;
    // Empty buffers are refused.
    const QByteArray noMax = VTSampleBlock::initWithFields(0, 1, QByteArray(), QByteArray(8, '\0'))->encodeToData();
    EXPECT_FALSE(VTSampleBlock::initWithData(noMax));
    const QByteArray noMin = VTSampleBlock::initWithFields(0, 1, QByteArray(8, '\0'), QByteArray())->encodeToData();
    EXPECT_FALSE(VTSampleBlock::initWithData(noMin));
    // Lengths that would wrap around when added to the offsets.
    for (uint64_t absurd : {UINT64_MAX, UINT64_MAX - 23, UINT64_MAX - 31, uint64_t(1) << 63}) {
        EXPECT_FALSE(VTSampleBlock::initWithData(withUInt64At(data, 16, absurd)));
        EXPECT_FALSE(VTSampleBlock::initWithData(withUInt64At(data, 40, absurd)));
    }
    // A max length that runs into the min buffer leaves no room for its length field.
    EXPECT_FALSE(VTSampleBlock::initWithData(withUInt64At(data, 16, 40)));
}

TEST(VTSampleBlockTest, keyedCodingKeepsAllFourFields)
{
    const double maxValues[1] = {0.5};
    const double minValues[1] = {-0.25};
    auto block = VTSampleBlock::initWithFields(7, 9, QByteArray(reinterpret_cast<const char*>(maxValues), 8),
                                               QByteArray(reinterpret_cast<const char*>(minValues), 8));
    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(*block);
    auto decoded = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTSampleBlock>(archive);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->indexOfSampleInDataProvider(), 7u);
    EXPECT_EQ(decoded->numberOfSamplesInDataProvider(), 9u);
    EXPECT_EQ(decoded->maxSampleOfChannel(0), 0.5);
    EXPECT_EQ(decoded->minSampleOfChannel(0), -0.25);
}
