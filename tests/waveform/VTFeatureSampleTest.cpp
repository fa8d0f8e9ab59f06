#include "WaveformFixtures.h"

#include "waveform/VTFeatureSample.h"

#include <gtest/gtest.h>

using namespace brindle::test;

TEST(VTFeatureSampleTest, theBinaryFormRoundTripsAcceptsEmptyBuffersAndRefusesShortOrInconsistentInput)
{
    auto point = VTFeatureSample::initWithTimestampOfDp(-1500, 10);
    auto empty = VTFeatureSample::initWithData(point->encodeToData());
    ASSERT_TRUE(empty);  // unlike a sample block, empty buffers are fine
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

    for (qsizetype size = 0; size < data.size(); ++size)
        EXPECT_FALSE(VTFeatureSample::initWithData(data.left(size))) << size;
    // Lengths that run past the end, or wrap around when added to their offsets.
    for (uint64_t absurd : {uint64_t(33), UINT64_MAX, UINT64_MAX - 31, UINT64_MAX - 39, uint64_t(1) << 63}) {
        EXPECT_FALSE(VTFeatureSample::initWithData(withUInt64At(data, 24, absurd))) << absurd;
        EXPECT_FALSE(VTFeatureSample::initWithData(withUInt64At(data, 48, absurd))) << absurd;
    }
}
