// The binary forms of sample blocks and waveform points (and a block's keyed
// archive) round-trip, and every short or inconsistent binary form is refused.
#include "WaveformFixtures.h"

#include "foundation/KeyedCoding.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTSampleBlock.h"

#include <gtest/gtest.h>

using namespace brindle::test;

namespace {

// Every proper prefix of `data` is refused, and so is `data` with each buffer
// length (the 64-bit integers at `lengthOffsets`) set to a value that runs
// past the end or wraps around when added to its offset.
template <class Decode>
void expectEveryShortOrInconsistentFormRefused(const QByteArray& data, std::initializer_list<qsizetype> lengthOffsets,
                                               Decode decode)
{
    for (qsizetype size = 0; size < data.size(); ++size)
        EXPECT_FALSE(decode(data.left(size))) << size;
    for (qsizetype offset : lengthOffsets)
        for (uint64_t absurd : {uint64_t(33), UINT64_MAX, UINT64_MAX - 23, UINT64_MAX - 31, UINT64_MAX - 39, uint64_t(1) << 63})
            EXPECT_FALSE(decode(withUInt64At(data, offset, absurd))) << offset << ": " << absurd;
}

}  // namespace

TEST(WaveformEncodingsTest, sampleBlocksRoundTripAndAShortOrInconsistentFormOrAMissingBufferIsRefused)
{
    auto block = VTSampleBlock::initWithFields(44100, 441, doubles({300, 20}), doubles({0, -5}));
    const QByteArray data = block->encodeToData();
    ASSERT_EQ(uint64_t(data.size()), block->encodeSize());
    ASSERT_EQ(data.size(), 64);
    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(*block);
    for (auto decoded : {VTSampleBlock::initWithData(data),
                         brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTSampleBlock>(archive)}) {
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->indexOfSampleInDataProvider(), 44100u);
        EXPECT_EQ(decoded->numberOfSamplesInDataProvider(), 441u);
        EXPECT_EQ(decoded->maxSamples(), block->maxSamples());
        EXPECT_EQ(decoded->minSamples(), block->minSamples());
    }
    expectEveryShortOrInconsistentFormRefused(data, {16, 40}, VTSampleBlock::initWithData);
    EXPECT_FALSE(VTSampleBlock::initWithData(VTSampleBlock::initWithFields(0, 1, {}, doubles({1}))->encodeToData()));
    EXPECT_FALSE(VTSampleBlock::initWithData(VTSampleBlock::initWithFields(0, 1, doubles({1}), {})->encodeToData()));
}

TEST(WaveformEncodingsTest, pointsRoundTripWithOrWithoutBuffersAndAShortOrInconsistentFormIsRefused)
{
    auto point = VTFeatureSample::initWithTimestampOfDp(-1500, 10);
    auto empty = VTFeatureSample::initWithData(point->encodeToData());
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->timestampOfDataProvider(), -1500);
    EXPECT_EQ(empty->numberOfChannel(), 0);

    point->setNumberOfChannel(2);
    point->setMaxSamples(doubles({0.5, 0.25}));
    point->setMinSamples(doubles({-0.5, 0.0}));
    const QByteArray data = point->encodeToData();
    ASSERT_EQ(data.size(), 72);
    auto decoded = VTFeatureSample::initWithData(data);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->durationOfTrack(), 10);
    EXPECT_EQ(decoded->numberOfChannel(), 2);
    EXPECT_EQ(decoded->maxSamples(), point->maxSamples());
    EXPECT_EQ(decoded->minSamples(), point->minSamples());
    expectEveryShortOrInconsistentFormRefused(data, {24, 48}, VTFeatureSample::initWithData);
}
