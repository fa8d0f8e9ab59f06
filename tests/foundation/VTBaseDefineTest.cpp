#include "foundation/VTBaseDefine.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <limits>

using namespace brindle;

TEST(VTBaseDefineTest, CurrentDateTextFitsInAFileNameAndUsesTheTwelveHourClock)
{
    const QString text = VTBaseDefine::stringFromCurrentDate();
    const QRegularExpression shape(QStringLiteral("^\\d{4}-\\d{2}-\\d{2} (0[1-9]|1[0-2])-[0-5]\\d-[0-5]\\d \\S.*$"));
    EXPECT_TRUE(shape.match(text).hasMatch()) << qPrintable(text);
    EXPECT_FALSE(text.contains(u':'));
    EXPECT_EQ(VTBaseDefine::stringFromCurrentDateWithFormat(QStringLiteral("'x'")), QStringLiteral("x"));
}

// Product first, quotient truncated toward zero; a product beyond 64 bits
// stays exact when the quotient fits and clamps when it does not.
TEST(VTBaseDefineTest, TimestampsAndSampleCountsConvertByTruncationAndClampBeyondSixtyFourBits)
{
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    static_assert(sampleIndexOfTimestamp(1, 44100) == 44);
    const std::tuple<int64_t (*)(int64_t, int64_t), int64_t, int64_t, int64_t> conversions[] = {
        {sampleIndexOfTimestamp, 999, 44100, 44055},
        {sampleIndexOfTimestamp, 1000, 44100, 44100},
        {sampleIndexOfTimestamp, 0, 44100, 0},
        {sampleIndexOfTimestamp, -1, 44100, -44},
        {sampleIndexOfTimestamp, -999, 44100, -44055},
        {sampleIndexOfTimestamp, 36'000'000, 384'000, 13'824'000'000},  // ten hours at 384 kHz
        {sampleIndexOfTimestamp, kMax / 100, 1000, kMax / 100},
        {sampleIndexOfTimestamp, kMax, 48000, kMax},
        {sampleIndexOfTimestamp, kMin, 48000, kMin},
        // 5 ms at 44100 Hz is 220 samples, although 10 ms and 5 ms convert to 441 and 220.
        {sampleCountOfDuration, 5, 44100, 220},
        {sampleIndexOfTimestamp, 10, 44100, 441},
        {timestampOfSampleCount, 44100, 44100, 1000},
        {timestampOfSampleCount, 44099, 44100, 999},
        {timestampOfSampleCount, -47, 48000, 0},
        {timestampOfSampleCount, 1000, 0, 0},
        {timestampOfSampleCount, 1000, -5, 0},
        {timestampOfSampleCount, kMax, 1, kMax},
    };
    for (const auto& [convert, value, rate, expected] : conversions)
        EXPECT_EQ(convert(value, rate), expected) << value << " at " << rate;
    EXPECT_EQ(endSampleIndexOfSpan(5, 5, 44100), 441);
    EXPECT_EQ(endSampleIndexOfSpan(kMax, 5, 44100), kMax);
}
