#include "waveform/VTFeatureSample.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <cstring>

namespace {

QByteArray doubles(std::initializer_list<double> values)
{
    QByteArray bytes;
    for (double value : values)
        bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
    return bytes;
}

QByteArray withUInt64At(QByteArray data, qsizetype offset, uint64_t value)
{
    const uint64_t little = qToLittleEndian(value);
    std::memcpy(data.data() + offset, &little, sizeof little);
    return data;
}

}  // namespace

TEST(VTFeatureSampleTest, theBinaryFormRoundTripsWithAndWithoutValues)
{
    auto point = VTFeatureSample::initWithTimestampOfDp(-1500, 10);
    EXPECT_EQ(point->numberOfChannel(), 0);
    EXPECT_TRUE(point->maxSamples().isEmpty());
    // Empty buffers are accepted, unlike in a sample block.
    auto empty = VTFeatureSample::initWithData(point->encodeToData());
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->timestampOfDataProvider(), -1500);
    EXPECT_EQ(empty->durationOfTrack(), 10);
    EXPECT_EQ(point->encodeToData().size(), 40);

    point->setNumberOfChannel(2);
    point->setMaxSamples(doubles({0.5, 0.25}));
    point->setMinSamples(doubles({-0.5, 0.0}));
    const QByteArray data = point->encodeToData();
    ASSERT_EQ(data.size(), 72);
    auto decoded = VTFeatureSample::initWithData(data);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->timestampOfDataProvider(), -1500);
    EXPECT_EQ(decoded->numberOfChannel(), 2);
    EXPECT_EQ(decoded->maxSampleOfChannel(1), 0.25);
    EXPECT_EQ(decoded->minSampleOfChannel(0), -0.5);
    EXPECT_EQ(decoded->minSampleOfChannel(2), 0.0);  // out of range reads 0
}

TEST(VTFeatureSampleTest, shortOrInconsistentInputIsRefusedWithoutReadingPastIt)
{
    auto point = VTFeatureSample::initWithTimestampOfDp(20, 10);
    point->setNumberOfChannel(1);
    point->setMaxSamples(doubles({1.0}));
    point->setMinSamples(doubles({-1.0}));
    const QByteArray data = point->encodeToData();
    for (qsizetype size = 0; size < data.size(); ++size)
        EXPECT_FALSE(VTFeatureSample::initWithData(data.left(size))) << size;
    for (uint64_t absurd : {UINT64_MAX, UINT64_MAX - 31, UINT64_MAX - 39, uint64_t(1) << 63, uint64_t(17)}) {
        EXPECT_FALSE(VTFeatureSample::initWithData(withUInt64At(data, 24, absurd))) << absurd;
        EXPECT_FALSE(VTFeatureSample::initWithData(withUInt64At(data, 40, absurd))) << absurd;
    }
}
