#include "codec/KRAudioFrame2.h"
#include "model/VTFadeInEffect.h"
#include "model/VTFadeOutEffect.h"
#include "model/VTVolumeEffect.h"

#include "model/ModelFixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using brindle::test::LogCapture;

using namespace KRSampleFormat;

namespace {

constexpr uint8_t kGuard = 0xA5;
constexpr size_t kGuardBytes = 64;

int64_t widthOf(int32_t format)
{
    static const int64_t widths[] = {1, 2, 4, 4, 8};
    return widths[format];
}

// A sample buffer placed one byte into its storage (so it is misaligned for
// every sample type) and followed by a guard region that must never change.
class GuardedBuffer {
public:
    GuardedBuffer(int32_t format, int64_t frames, int64_t channels)
        : m_bytes(static_cast<size_t>(frames * channels * widthOf(format))),
          m_storage(1 + m_bytes + kGuardBytes, kGuard)
    {
    }
    uint8_t* data() { return m_storage.data() + 1; }
    size_t size() const { return m_bytes; }
    std::vector<uint8_t> contents() const { return {m_storage.begin() + 1, m_storage.begin() + 1 + long(m_bytes)}; }
    void fillRandom(unsigned seed)
    {
        std::mt19937 random(seed);
        for (size_t i = 0; i < m_bytes; ++i)
            data()[i] = static_cast<uint8_t>(random());
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
    bool guardIntact() const
    {
        return m_storage[0] == kGuard &&
               std::all_of(m_storage.begin() + 1 + long(m_bytes), m_storage.end(), [](uint8_t b) { return b == kGuard; });
    }

private:
    size_t m_bytes;
    std::vector<uint8_t> m_storage;
};

std::shared_ptr<VTVolumeEffect> gainFor(int32_t format, int64_t channels = 1)
{
    auto effect = VTVolumeEffect::initWithSampleFormat(format, channels);
    EXPECT_TRUE(effect);
    return effect;
}

// ---- Gain ----------------------------------------------------------------

TEST(VTVolumeEffectTest, aGainWithinTheToleranceOfOneLeavesEveryFormatBitIdentical)
{
    for (int32_t format = 0; format <= 4; ++format) {
        for (double gain : {1.0, 1.0000005, 0.9999995}) {
            GuardedBuffer buffer(format, 257, 2);
            buffer.fillRandom(unsigned(format));
            const auto before = buffer.contents();
            gainFor(format, 2)->effectVolume(gain, buffer.data(), 257);
            EXPECT_EQ(buffer.contents(), before) << "format " << format << " gain " << gain;
        }
    }
}

TEST(VTVolumeEffectTest, unsigned8BitIsQuantisedToMinusOneZeroOrOneBeforeTheGain)
{
    GuardedBuffer buffer(kU8, 7, 1);
    const uint8_t input[] = {0, 126, 127, 200, 254, 255, 128};
    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kU8)->effectVolume(0.5, buffer.data(), 7);
    // (x − 127) / 127 is −1, 0, 0, 0, 1, 1, 0; then × 0.5 × 127 + 127, truncated.
    const std::vector<uint8_t> halved = {63, 127, 127, 127, 190, 190, 127};
    EXPECT_EQ(buffer.contents(), halved);

    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kU8)->effectVolume(3.0, buffer.data(), 7);
    const std::vector<uint8_t> clamped = {0, 127, 127, 127, 254, 254, 127};
    EXPECT_EQ(buffer.contents(), clamped);
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(VTVolumeEffectTest, sixteenBitTruncatesTowardZeroAndClampsToItsRange)
{
    GuardedBuffer buffer(kS16, 3, 2);
    const int16_t input[] = {30000, -30000, 1001, -1001, 32767, -32768};
    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kS16, 2)->effectVolume(2.0, buffer.data(), 3);
    EXPECT_EQ(buffer.get<int16_t>(0), 32767);
    EXPECT_EQ(buffer.get<int16_t>(1), -32768);
    EXPECT_EQ(buffer.get<int16_t>(2), 2002);
    EXPECT_EQ(buffer.get<int16_t>(3), -2002);

    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kS16, 2)->effectVolume(0.5, buffer.data(), 3);
    EXPECT_EQ(buffer.get<int16_t>(2), 500);
    EXPECT_EQ(buffer.get<int16_t>(3), -500);
    EXPECT_EQ(buffer.get<int16_t>(4), 16383);
    EXPECT_EQ(buffer.get<int16_t>(5), -16384);
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(VTVolumeEffectTest, thirtyTwoBitClampsOnlyBelowAtTheSixteenBitBoundAndSaturatesItsOwnRange)
{
    GuardedBuffer buffer(kS32, 6, 1);
    const int32_t input[] = {100000, -100000, -7, -16000, std::numeric_limits<int32_t>::max(),
                             std::numeric_limits<int32_t>::min()};
    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kS32)->effectVolume(2.0, buffer.data(), 6);
    EXPECT_EQ(buffer.get<int32_t>(0), 200000) << "no upper clamp";
    EXPECT_EQ(buffer.get<int32_t>(1), -32768) << "lower clamp at the 16-bit bound";
    EXPECT_EQ(buffer.get<int32_t>(2), -14);
    EXPECT_EQ(buffer.get<int32_t>(3), -32000);
    EXPECT_EQ(buffer.get<int32_t>(4), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(buffer.get<int32_t>(5), -32768);

    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kS32)->effectVolume(0.5, buffer.data(), 6);
    EXPECT_EQ(buffer.get<int32_t>(2), -3);
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(VTVolumeEffectTest, doublesAreScaledAndClampedToTheUnitRange)
{
    GuardedBuffer buffer(kDouble, 2, 2);
    const double input[] = {0.4, 0.7, -0.7, -0.25};
    std::memcpy(buffer.data(), input, sizeof input);
    gainFor(kDouble, 2)->effectVolume(2.0, buffer.data(), 2);
    EXPECT_DOUBLE_EQ(buffer.get<double>(0), 0.8);
    EXPECT_DOUBLE_EQ(buffer.get<double>(1), 1.0);
    EXPECT_DOUBLE_EQ(buffer.get<double>(2), -1.0);
    EXPECT_DOUBLE_EQ(buffer.get<double>(3), -0.5);
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(VTVolumeEffectTest, floatBuffersAreProcessedAsTheWholeDoublesInsideThem)
{
    // 3 mono float frames are 12 bytes: one double, then 4 bytes left alone.
    for (int64_t channels : {1, 2}) {
        GuardedBuffer buffer(kFloat, 3, channels);
        buffer.fillRandom(7);
        const auto before = buffer.contents();
        gainFor(kFloat, channels)->effectVolume(0.5, buffer.data(), 3);
        const size_t doubles = buffer.size() / 8;
        for (size_t i = 0; i < doubles; ++i) {
            double original;
            std::memcpy(&original, before.data() + i * 8, 8);
            const double expected = std::clamp(original * 0.5, -1.0, 1.0);
            const double actual = buffer.get<double>(int64_t(i));
            EXPECT_EQ(std::memcmp(&actual, &expected, 8), 0) << i;
        }
        const auto after = buffer.contents();
        EXPECT_TRUE(std::equal(after.begin() + long(doubles * 8), after.end(), before.begin() + long(doubles * 8)));
        EXPECT_TRUE(buffer.guardIntact()) << channels;
    }
}

TEST(VTVolumeEffectTest, formatsFiveAndAboveAreRefusedWithTheirMessage)
{
    LogCapture log;
    EXPECT_FALSE(VTVolumeEffect::initWithSampleFormat(5, 2));
    EXPECT_FALSE(VTVolumeEffect::initWithSampleFormat(-1, 2));
    EXPECT_TRUE(log.contains("Can not support such smaple format(5) volume effect"));
    EXPECT_TRUE(log.contains("Can not support such smaple format(-1) volume effect"));
}

TEST(VTVolumeEffectTest, emptyOrImpossibleBuffersAreLeftAlone)
{
    GuardedBuffer buffer(kS16, 4, 2);
    buffer.fillRandom(3);
    const auto before = buffer.contents();
    auto gain = gainFor(kS16, 2);
    gain->effectVolume(2.0, buffer.data(), 0);
    gain->effectVolume(2.0, buffer.data(), -4);
    gain->effectVolume(2.0, nullptr, 4);
    gain->effectVolume(2.0, buffer.data(), std::numeric_limits<int64_t>::max());
    EXPECT_EQ(buffer.contents(), before);
    auto noChannels = VTVolumeEffect::initWithSampleFormat(kS16, 0);
    ASSERT_TRUE(noChannels);
    noChannels->effectVolume(2.0, buffer.data(), 4);
    EXPECT_EQ(buffer.contents(), before);
}

// ---- Fades ---------------------------------------------------------------

enum class Fade { In, Out };

// Applies one fade to `frames` frames starting at track index `atIndex`.
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

GuardedBuffer constant16(int64_t frames, int64_t channels, int16_t value)
{
    GuardedBuffer buffer(kS16, frames, channels);
    for (int64_t i = 0; i < frames * channels; ++i)
        buffer.set<int16_t>(i, value);
    return buffer;
}

TEST(VTFadeEffectsTest, aThousandFrameFadeInRisesLinearlyOnEveryChannel)
{
    auto buffer = constant16(1100, 2, 10000);
    applyFade(Fade::In, 0, 1000, kS16, 2, buffer.data(), 1100, 0);
    EXPECT_EQ(buffer.get<int16_t>(0), 0);
    EXPECT_EQ(buffer.get<int16_t>(2 * 1), 10);
    EXPECT_EQ(buffer.get<int16_t>(2 * 500), 5000);
    EXPECT_EQ(buffer.get<int16_t>(2 * 999), 9990);
    EXPECT_EQ(buffer.get<int16_t>(2 * 1000), 10000);
    EXPECT_EQ(buffer.get<int16_t>(2 * 1099), 10000);
    for (int64_t frame = 0; frame < 1100; ++frame)
        ASSERT_EQ(buffer.get<int16_t>(2 * frame), buffer.get<int16_t>(2 * frame + 1)) << frame;
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(VTFadeEffectsTest, aFadeOutFallsLinearlyAndSilencesTheRestOfAnOverlappingBuffer)
{
    auto buffer = constant16(300, 1, -8000);
    applyFade(Fade::Out, 100, 100, kS16, 1, buffer.data(), 300, 0);
    EXPECT_EQ(buffer.get<int16_t>(50), -8000);
    EXPECT_EQ(buffer.get<int16_t>(100), -8000);
    EXPECT_EQ(buffer.get<int16_t>(125), -6000);
    EXPECT_EQ(buffer.get<int16_t>(150), -4000);
    EXPECT_EQ(buffer.get<int16_t>(200), 0);
    EXPECT_EQ(buffer.get<int16_t>(299), 0);
    EXPECT_TRUE(buffer.guardIntact());

    auto fade = VTFadeOutEffect::initWithIndexOfSample(100, 100, kS16, 2);
    ASSERT_TRUE(fade);
    EXPECT_EQ(fade->bytesPerSample(), 4);
    EXPECT_EQ(fade->totalSamples(), 200);
}

TEST(VTFadeEffectsTest, fadesAppliedBufferByBufferEqualOneBufferProcessedAtOnce)
{
    // Float (3) is read as doubles per buffer, so it has no whole-buffer
    // equivalent. A piece wholly before or after the ramp would be left alone
    // where one large buffer overlapping the ramp is faded, so every piece
    // overlaps it.
    const int64_t sizes[] = {7, 1, 100, 333, 2, 64, 600};
    for (Fade fade : {Fade::In, Fade::Out}) {
        for (int32_t format : {kU8, kS16, kS32, kDouble}) {
            SCOPED_TRACE(testing::Message() << "format " << format << (fade == Fade::In ? " in" : " out"));
            const int64_t frames = 7 + 1 + 100 + 333 + 2 + 64 + 600;
            GuardedBuffer whole(format, frames, 2);
            whole.fillRandom(11);
            if (format == kDouble) {
                for (int64_t i = 0; i < frames * 2; ++i)
                    whole.set<double>(i, std::sin(double(i)));
            }
            GuardedBuffer pieces(format, frames, 2);
            std::memcpy(pieces.data(), whole.data(), whole.size());

            // Every piece overlaps the ramp (first + 3 .. first + 703).
            const int64_t first = 5000;
            applyFade(fade, first + 3, 700, format, 2, whole.data(), frames, first);
            int64_t at = 0;
            for (int64_t size : sizes) {
                applyFade(fade, first + 3, 700, format, 2, pieces.data() + at * 2 * widthOf(format), size,
                          first + at);
                at += size;
            }
            EXPECT_EQ(pieces.contents(), whole.contents());
            EXPECT_TRUE(pieces.guardIntact());
        }
    }
}

TEST(VTFadeEffectsTest, buffersWhollyBeforeTheRampOrWithAnEmptyRampAreUntouched)
{
    for (Fade fade : {Fade::In, Fade::Out}) {
        auto buffer = constant16(100, 1, 1234);
        const auto before = buffer.contents();
        applyFade(fade, 100, 50, kS16, 1, buffer.data(), 100, 0);  // ends exactly where the ramp starts
        applyFade(fade, 0, 0, kS16, 1, buffer.data(), 100, 0);
        applyFade(fade, 10, 0, kS16, 1, buffer.data(), 100, 0);
        EXPECT_EQ(buffer.contents(), before);
    }
}

TEST(VTFadeEffectsTest, theFadeInStillProcessesABufferStartingAtItsEndButTheFadeOutDoesNot)
{
    // Gain 1 in unsigned 8-bit is not an identity: 128 comes back as 127.
    GuardedBuffer buffer(kU8, 4, 1);
    std::memset(buffer.data(), 128, 4);
    applyFade(Fade::In, 0, 100, kU8, 1, buffer.data(), 4, 101);
    EXPECT_EQ(buffer.get<uint8_t>(0), 128) << "after the end: untouched";
    applyFade(Fade::In, 0, 100, kU8, 1, buffer.data(), 4, 100);
    EXPECT_EQ(buffer.get<uint8_t>(0), 127) << "at the end: processed with gain 1";

    auto out = constant16(4, 1, 5000);
    applyFade(Fade::Out, 0, 100, kS16, 1, out.data(), 4, 100);
    EXPECT_EQ(out.get<int16_t>(0), 5000) << "a fade-out that ended before the buffer leaves it unchanged";
    applyFade(Fade::Out, 0, 100, kS16, 1, out.data(), 4, 99);
    EXPECT_EQ(out.get<int16_t>(0), 50);
    EXPECT_EQ(out.get<int16_t>(1), 0);
}

TEST(VTFadeEffectsTest, unsigned8BitFadesAroundTheMidpoint)
{
    GuardedBuffer buffer(kU8, 3, 1);
    const uint8_t input[] = {0, 127, 0};
    std::memcpy(buffer.data(), input, 3);
    applyFade(Fade::In, 0, 2, kU8, 1, buffer.data(), 3, 0);
    EXPECT_EQ(buffer.get<uint8_t>(0), 127) << "gain 0 gives the midpoint";
    EXPECT_EQ(buffer.get<uint8_t>(1), 127);
    EXPECT_EQ(buffer.get<uint8_t>(2), 0) << "gain 1 keeps full scale";

    std::memcpy(buffer.data(), input, 3);
    applyFade(Fade::In, 0, 2, kU8, 1, buffer.data(), 1, 1);
    EXPECT_EQ(buffer.get<uint8_t>(0), 63) << "(−1 × 0.5) × 127 + 127 = 63.5, truncated";
    EXPECT_TRUE(buffer.guardIntact());
}

TEST(VTFadeEffectsTest, floatBuffersWithOddFrameCountsAreFadedAsDoublesWithinTheirBytes)
{
    for (Fade fade : {Fade::In, Fade::Out}) {
        for (int64_t channels : {1, 2, 3}) {
            for (int64_t frames : {1, 3, 5}) {
                GuardedBuffer buffer(kFloat, frames, channels);
                buffer.fillRandom(unsigned(frames * channels));
                const auto before = buffer.contents();
                applyFade(fade, 0, 4, kFloat, channels, buffer.data(), frames, 1);
                // The double at index d belongs to frame d / channels, track index 1 + d / channels.
                const size_t doubles = buffer.size() / 8;
                for (size_t d = 0; d < doubles; ++d) {
                    const int64_t index = 1 + int64_t(d) / channels;
                    const double ramp = std::min(1.0, index / 4.0);
                    const double gain = fade == Fade::In ? ramp : 1.0 - ramp;
                    double original;
                    std::memcpy(&original, before.data() + d * 8, 8);
                    const double expected = original * gain;
                    const double actual = buffer.get<double>(int64_t(d));
                    EXPECT_EQ(std::memcmp(&actual, &expected, 8), 0) << d;
                }
                const auto after = buffer.contents();
                EXPECT_TRUE(std::equal(after.begin() + long(doubles * 8), after.end(),
                                       before.begin() + long(doubles * 8)));
                EXPECT_TRUE(buffer.guardIntact());
            }
        }
    }
}

TEST(VTFadeEffectsTest, formatsFiveAndAboveAreRefusedWithTheSharedFadeInMessage)
{
    LogCapture log;
    EXPECT_FALSE(VTFadeInEffect::initWithIndexOfSample(0, 10, 5, 2));
    EXPECT_FALSE(VTFadeOutEffect::initWithIndexOfSample(0, 10, 5, 2));
    EXPECT_FALSE(VTFadeOutEffect::initWithIndexOfSample(0, 10, -3, 2));
    EXPECT_EQ(log.lines().count("Can not support such smaple format(5) fade in effect"), 2);
    EXPECT_TRUE(log.contains("Can not support such smaple format(-3) fade in effect"));
}

TEST(VTFadeEffectsTest, extremeTrackIndexesNeitherOverflowNorTouchTheGuard)
{
    const int64_t top = std::numeric_limits<int64_t>::max();
    for (Fade fade : {Fade::In, Fade::Out}) {
        auto buffer = constant16(8, 2, 1000);
        applyFade(fade, top - 4, top, kS16, 2, buffer.data(), 8, top - 8);
        applyFade(fade, -top, top, kS16, 2, buffer.data(), 8, top - 3);
        applyFade(fade, 10, -5, kS16, 2, buffer.data(), 8, 4);
        EXPECT_TRUE(buffer.guardIntact());
    }
}

}  // namespace
