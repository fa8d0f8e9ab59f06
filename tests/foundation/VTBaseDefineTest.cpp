#include "foundation/VTBaseDefine.h"

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <cmath>
#include <limits>

using namespace brindle;

namespace {
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
}  // namespace

// The constants are deliberate: fades and timing depend on these exact values,
// and PI is the shortened literal, not the precise one.
TEST(VTBaseDefineTest, ConstantsAreTheDocumentedLiterals)
{
    static_assert(VTBaseDefine::unitsPerSecond() == 1000);
    EXPECT_EQ(VTBaseDefine::PI(), 3.1415926);
    EXPECT_NE(VTBaseDefine::PI(), M_PI);
    EXPECT_EQ(VTBaseDefine::expression(), 1e-6);
}

TEST(VTBaseDefineTest, CurrentDateTextFitsInAFileNameAndUsesTheTwelveHourClock)
{
    const QString text = VTBaseDefine::stringFromCurrentDate();
    const QRegularExpression shape(QStringLiteral("^\\d{4}-\\d{2}-\\d{2} (0[1-9]|1[0-2])-[0-5]\\d-[0-5]\\d \\S.*$"));
    EXPECT_TRUE(shape.match(text).hasMatch()) << qPrintable(text);
    EXPECT_FALSE(text.contains(u':'));
    EXPECT_EQ(VTBaseDefine::stringFromCurrentDateWithFormat(QStringLiteral("'x'")), QStringLiteral("x"));
}

TEST(VTBaseDefineTest, TimestampsConvertToSampleIndexesByTruncation)
{
    static_assert(sampleIndexOfTimestamp(1, 44100) == 44);
    EXPECT_EQ(sampleIndexOfTimestamp(999, 44100), 44055);
    EXPECT_EQ(sampleIndexOfTimestamp(1000, 44100), 44100);
    EXPECT_EQ(sampleIndexOfTimestamp(0, 44100), 0);
    // Toward zero, not toward minus infinity.
    EXPECT_EQ(sampleIndexOfTimestamp(-1, 44100), -44);
    EXPECT_EQ(sampleIndexOfTimestamp(-999, 44100), -44055);
    // Ten hours at 384 kHz, exact.
    EXPECT_EQ(sampleIndexOfTimestamp(36'000'000, 384'000), 13'824'000'000);
}

TEST(VTBaseDefineTest, DurationsAndSpanEndsAreConvertedWhole)
{
    // 5 ms at 44100 Hz is 220 samples, although 10 ms and 5 ms convert to 441 and 220.
    EXPECT_EQ(sampleCountOfDuration(5, 44100), 220);
    EXPECT_EQ(sampleIndexOfTimestamp(10, 44100) - sampleIndexOfTimestamp(5, 44100), 221);
    EXPECT_EQ(endSampleIndexOfSpan(5, 5, 44100), 441);
    EXPECT_EQ(endSampleIndexOfSpan(kMax, 5, 44100), kMax);
}

TEST(VTBaseDefineTest, SampleCountsConvertBackToTimestampsByTruncation)
{
    EXPECT_EQ(timestampOfSampleCount(44100, 44100), 1000);
    EXPECT_EQ(timestampOfSampleCount(44099, 44100), 999);
    EXPECT_EQ(timestampOfSampleCount(-47, 48000), 0);
    EXPECT_EQ(timestampOfSampleCount(1000, 0), 0);
    EXPECT_EQ(timestampOfSampleCount(1000, -5), 0);
}

TEST(VTBaseDefineTest, ProductsBeyondSixtyFourBitsStayExactOrClamp)
{
    // The product overflows 64 bits but the quotient fits: still exact.
    const int64_t t = kMax / 100;
    EXPECT_EQ(sampleIndexOfTimestamp(t, 1000), t);
    EXPECT_EQ(sampleIndexOfTimestamp(kMax, 48000), kMax);
    EXPECT_EQ(sampleIndexOfTimestamp(kMin, 48000), kMin);
    EXPECT_EQ(timestampOfSampleCount(kMax, 1), kMax);
}
