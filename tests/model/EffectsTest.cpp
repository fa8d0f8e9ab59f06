// The gain and fade effects, on buffers that are misaligned for every sample
// type and followed by guard bytes that must never change.
#include "codec/KRAudioFrame2.h"
#include "model/VTFadeInEffect.h"
#include "model/VTFadeOutEffect.h"
#include "model/VTVolumeEffect.h"

#include "ModelFixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using brindle::test::LogCapture;
using namespace KRSampleFormat;

namespace {

constexpr uint8_t kGuard = 0xA5;
constexpr int64_t kTop = std::numeric_limits<int64_t>::max();

// A sample buffer one byte into its storage, followed by 64 guard bytes.
class GuardedBuffer {
public:
    GuardedBuffer(int32_t format, int64_t frames, int64_t channels)
        : m_bytes(size_t(frames * channels * KRAudioFrame2::bytesForSampleFormat(format))),
          m_storage(1 + m_bytes + 64, kGuard)
    {
    }
    uint8_t* data() { return m_storage.data() + 1; }
    size_t size() const { return m_bytes; }
    std::vector<uint8_t> contents() const { return {m_storage.begin() + 1, m_storage.begin() + 1 + long(m_bytes)}; }
    void fillRandom(unsigned seed)
    {
        std::mt19937 random(seed);
        std::generate_n(data(), m_bytes, [&] { return uint8_t(random()); });
    }
    template <class T>
    void set(int64_t index, T value)
    {
        std::memcpy(data() + index * int64_t(sizeof(T)), &value, sizeof(T));
    }
    template <class T>
    T get(int64_t index)
    {
        T value;
        std::memcpy(&value, data() + index * int64_t(sizeof(T)), sizeof(T));
        return value;
    }
    // Sample `index` of an integer format or of doubles, through a double.
    void put(int32_t format, int64_t index, double value)
    {
        format == kU8 ? set(index, uint8_t(value)) : format == kS16 ? set(index, int16_t(value))
            : format == kS32 ? set(index, int32_t(value)) : set(index, value);
    }
    double at(int32_t format, int64_t index)
    {
        return format == kU8 ? get<uint8_t>(index) : format == kS16 ? get<int16_t>(index)
            : format == kS32 ? get<int32_t>(index) : get<double>(index);
    }
    bool guardIntact() const
    {
        return m_storage[0] == kGuard && std::all_of(m_storage.begin() + 1 + long(m_bytes), m_storage.end(),
                                                     [](uint8_t b) { return b == kGuard; });
    }

private:
    size_t m_bytes;
    std::vector<uint8_t> m_storage;
};

enum class Fade { In, Out };

// Applies one fade to `frames` frames whose first sits at track index `atIndex`.
void applyFade(Fade fade, int64_t start, int64_t length, int32_t format, int64_t channels, uint8_t* samples,
               int64_t frames, int64_t atIndex)
{
    if (fade == Fade::In) {
        auto effect = VTFadeInEffect::initWithIndexOfSample(start, length, format, channels);
        ASSERT_TRUE(effect);
        effect->fadeInSample(samples, frames, atIndex);
    } else {
        auto effect = VTFadeOutEffect::initWithIndexOfSample(start, length, format, channels);
        ASSERT_TRUE(effect);
        effect->fadeOutSample(samples, frames, atIndex);
    }
}

// Each row's input, alone (the plain loop) and three times over (the
// vectorised loop as well), processed with the row's gain.
TEST(VTVolumeEffectTest, eachFormatScalesTruncatesAndClampsByItsOwnRule)
{
    constexpr double kMax32 = std::numeric_limits<int32_t>::max();
    constexpr double kMin32 = std::numeric_limits<int32_t>::min();
    const std::vector<double> u8{0, 126, 127, 200, 254, 255, 128};
    const std::vector<double> s16{30000, -30000, 1001, -1001, 32767, -32768};
    const std::vector<double> s32{100000, -100000, -7, -16000, kMax32, kMin32};
    struct Case {
        int32_t format;
        double gain;
        std::vector<double> input, expected;
    };
    const Case cases[] = {
        // u8 is first quantised to (x − 127) / 127 in integers: −1, 0 or 1.
        {kU8, 0.5, u8, {63, 127, 127, 127, 190, 190, 127}},
        {kU8, 3.0, u8, {0, 127, 127, 127, 254, 254, 127}},
        {kS16, 2.0, s16, {32767, -32768, 2002, -2002, 32767, -32768}},
        {kS16, 0.5, s16, {15000, -15000, 500, -500, 16383, -16384}},
        // s32 has no upper clamp but its own range, and a lower one at −32768.
        {kS32, 2.0, s32, {200000, -32768, -14, -32000, kMax32, -32768}},
        {kS32, 0.5, s32, {50000, -32768, -3, -8000, 1073741823, -32768}},
        {kDouble, 2.0, {0.4, 0.7, -0.7, -0.25}, {0.8, 1.0, -1.0, -0.5}},
    };
    for (const Case& c : cases) {
        for (int64_t copies : {1, 3}) {
            SCOPED_TRACE(testing::Message() << "format " << c.format << " gain " << c.gain << " x" << copies);
            const int64_t count = int64_t(c.input.size());
            GuardedBuffer buffer(c.format, copies * count, 1);
            for (int64_t i = 0; i < copies * count; ++i)
                buffer.put(c.format, i, c.input[size_t(i % count)]);
            VTVolumeEffect::initWithSampleFormat(c.format, 1)->effectVolume(c.gain, buffer.data(), copies * count);
            for (int64_t i = 0; i < copies * count; ++i)
                EXPECT_DOUBLE_EQ(buffer.at(c.format, i), c.expected[size_t(i % count)]) << "sample " << i;
            EXPECT_TRUE(buffer.guardIntact());
        }
    }
}

TEST(VTVolumeEffectTest, aGainWithinTheToleranceOfOneLeavesEveryFormatBitIdentical)
{
    for (int32_t format = 0; format <= 4; ++format) {
        for (double gain : {1.0, 1.0000005, 0.9999995}) {
            GuardedBuffer buffer(format, 257, 2);
            buffer.fillRandom(unsigned(format));
            const auto before = buffer.contents();
            VTVolumeEffect::initWithSampleFormat(format, 2)->effectVolume(gain, buffer.data(), 257);
            EXPECT_EQ(buffer.contents(), before) << "format " << format << " gain " << gain;
        }
    }
}

// Float buffers are read as 8-byte doubles, frame k channel ch being double
// k × channels + ch; only the whole doubles inside the buffer's bytes change.
TEST(VTEffectsTest, floatBuffersAreProcessedAsTheWholeDoublesInsideThem)
{
    enum Effect { Gain, FadeIn, FadeOut };
    for (Effect effect : {Gain, FadeIn, FadeOut}) {
        for (int64_t channels : {1, 2, 3}) {
            for (int64_t frames : {1, 3, 5}) {
                SCOPED_TRACE(testing::Message() << "effect " << effect << ", " << frames << "x" << channels);
                GuardedBuffer buffer(kFloat, frames, channels);
                buffer.fillRandom(unsigned(frames * channels));
                const auto before = buffer.contents();
                if (effect == Gain)
                    VTVolumeEffect::initWithSampleFormat(kFloat, channels)->effectVolume(0.5, buffer.data(), frames);
                else
                    applyFade(effect == FadeIn ? Fade::In : Fade::Out, 0, 4, kFloat, channels, buffer.data(), frames, 1);
                const size_t doubles = buffer.size() / 8;
                for (size_t d = 0; d < doubles; ++d) {
                    // A ramp of 4 from index 0; the buffer starts at index 1.
                    const double ramp = std::min(1.0, double(1 + int64_t(d) / channels) / 4.0);
                    double original;
                    std::memcpy(&original, before.data() + d * 8, 8);
                    const double expected = effect == Gain ? std::clamp(original * 0.5, -1.0, 1.0)
                                                           : original * (effect == FadeIn ? ramp : 1.0 - ramp);
                    const double actual = buffer.get<double>(int64_t(d));
                    EXPECT_EQ(std::memcmp(&actual, &expected, 8), 0) << d;
                }
                const auto after = buffer.contents();
                EXPECT_TRUE(std::equal(after.begin() + long(doubles * 8), after.end(), before.begin() + long(doubles * 8)));
                EXPECT_TRUE(buffer.guardIntact());
            }
        }
    }
}

TEST(VTEffectsTest, formatsFiveAndAboveAndNegativeOnesAreRefusedWithTheirMessages)
{
    LogCapture log;
    for (int32_t format : {5, -1}) {
        EXPECT_FALSE(VTVolumeEffect::initWithSampleFormat(format, 2));
        EXPECT_FALSE(VTFadeInEffect::initWithIndexOfSample(0, 10, format, 2));
        EXPECT_FALSE(VTFadeOutEffect::initWithIndexOfSample(0, 10, format, 2));
        EXPECT_TRUE(log.contains(QStringLiteral("Can not support such smaple format(%1) volume effect").arg(format)));
        // The fade-out logs the fade-in's text.
        EXPECT_EQ(log.lines().count(QStringLiteral("Can not support such smaple format(%1) fade in effect").arg(format)), 2);
    }
}

TEST(VTEffectsTest, emptyOrImpossibleBuffersAndExtremeTrackIndexesTouchNothingOutsideTheBuffer)
{
    GuardedBuffer buffer(kS16, 8, 2);
    buffer.fillRandom(3);
    const auto before = buffer.contents();
    auto gain = VTVolumeEffect::initWithSampleFormat(kS16, 2);
    for (int64_t frames : {int64_t(0), int64_t(-4), kTop})
        gain->effectVolume(2.0, buffer.data(), frames);
    gain->effectVolume(2.0, nullptr, 4);
    VTVolumeEffect::initWithSampleFormat(kS16, 0)->effectVolume(2.0, buffer.data(), 4);
    EXPECT_EQ(buffer.contents(), before);
    // Ramps at the ends of the 64-bit range or of negative length: no
    // overflow (the sanitizer builds check) and nothing written past the buffer.
    for (Fade fade : {Fade::In, Fade::Out}) {
        applyFade(fade, kTop - 4, kTop, kS16, 2, buffer.data(), 8, kTop - 8);
        applyFade(fade, -kTop, kTop, kS16, 2, buffer.data(), 8, kTop - 3);
        applyFade(fade, 10, -5, kS16, 2, buffer.data(), 8, 4);
    }
    EXPECT_TRUE(buffer.guardIntact());
}

// Rows of stereo frames with both channels alike. The ramps lie on the
// track's sample axis: the fade-in rises linearly from 0 at its start to full
// level at its end, the fade-out falls, and the rest of an overlapping buffer
// keeps the level the ramp ends at. A fade leaves alone a buffer wholly
// before its ramp and any buffer for an empty ramp; at the ramp's end the
// fade-in still processes a buffer (gain 1, which is no identity in u8: 128
// comes back as 127) while the fade-out does not. u8 fades around 127.
TEST(VTFadeEffectsTest, aFadeFollowsItsRampOnEveryChannelInTheBuffersItReaches)
{
    struct Case {
        Fade fade;
        int32_t format;
        int64_t start, length, atIndex;
        std::vector<double> input, expected;
    };
    const std::vector<double> s16(4, 5000);
    const std::vector<double> u8(4, 128);
    const Case cases[] = {
        {Fade::In, kS16, 0, 8, 0, std::vector<double>(10, 8000), {0, 1000, 2000, 3000, 4000, 5000, 6000, 7000, 8000, 8000}},
        {Fade::Out, kS16, 2, 4, 0, std::vector<double>(8, -8000), {-8000, -8000, -8000, -6000, -4000, -2000, 0, 0}},
        {Fade::In, kS16, 100, 50, 96, s16, s16},  // ends exactly where the ramp starts
        {Fade::Out, kS16, 100, 50, 96, s16, s16},
        {Fade::In, kS16, 0, 0, 0, s16, s16},
        {Fade::Out, kS16, 2, 0, 0, s16, s16},
        {Fade::In, kU8, 0, 100, 101, u8, u8},
        {Fade::In, kU8, 0, 100, 100, u8, {127, 127, 127, 127}},
        {Fade::Out, kS16, 0, 100, 100, s16, s16},
        {Fade::Out, kS16, 0, 100, 99, s16, {50, 0, 0, 0}},
        {Fade::In, kU8, 0, 2, 0, {0, 127, 0}, {127, 127, 0}},
        // (x − 127) / 127 in single precision, then truncated: 0 at gain 0.5 is 63.5, 2 at gain 1
        // is 1.999999.
        {Fade::In, kU8, 0, 2, 1, {0, 2}, {63, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << (c.fade == Fade::In ? "in " : "out ") << c.start << "+" << c.length
                                        << " at " << c.atIndex << " format " << c.format);
        const int64_t frames = int64_t(c.input.size());
        GuardedBuffer buffer(c.format, frames, 2);
        for (int64_t i = 0; i < 2 * frames; ++i)
            buffer.put(c.format, i, c.input[size_t(i / 2)]);
        applyFade(c.fade, c.start, c.length, c.format, 2, buffer.data(), frames, c.atIndex);
        for (int64_t i = 0; i < 2 * frames; ++i)
            EXPECT_EQ(buffer.at(c.format, i), c.expected[size_t(i / 2)]) << "frame " << i / 2 << " channel " << i % 2;
        EXPECT_TRUE(buffer.guardIntact());
    }
}

}  // namespace
