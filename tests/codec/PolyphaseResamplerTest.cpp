#include "codec/KRAudioFrame2.h"
#include "codec/KRResampleContext2.h"
#include "codec/PolyphaseResampler.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

using brindle::PolyphaseResampler;

using namespace KRSampleFormat;

namespace {

// Interleaved float frames; channel c carries a sine of frequencies[c].
std::vector<float> sines(int64_t frames, const std::vector<double>& frequencies, int64_t rate, double amplitude)
{
    const auto channels = int64_t(frequencies.size());
    std::vector<float> out(size_t(frames * channels));
    for (int64_t i = 0; i < frames; ++i)
        for (int64_t c = 0; c < channels; ++c)
            out[size_t(i * channels + c)] =
                float(amplitude * std::sin(2.0 * std::numbers::pi * frequencies[size_t(c)] * double(i) / double(rate)));
    return out;
}

// Feeds `input` in blocks of `block` frames and drains in pieces of at most
// `capacity` frames, then flushes; answers every output sample.
template <class Out = void, class In>
auto convertAll(PolyphaseResampler& resampler, const std::vector<In>& input, int64_t channels, int64_t block,
                int64_t capacity)
{
    using Sample = std::conditional_t<std::is_void_v<Out>, In, Out>;
    const int64_t frames = int64_t(input.size()) / channels;
    std::vector<Sample> out;
    // One frame more than the capacity, which must stay untouched.
    std::vector<Sample> piece(size_t((capacity + 1) * channels), Sample(7));
    auto drain = [&](const In* samples, int64_t count) {
        int64_t made = resampler.convert(samples, count, piece.data(), capacity);
        while (true) {
            EXPECT_GE(made, 0);
            EXPECT_EQ(piece.back(), Sample(7));
            if (made <= 0)
                break;
            out.insert(out.end(), piece.begin(), piece.begin() + made * channels);
            made = resampler.convert(nullptr, 0, piece.data(), capacity);
        }
    };
    for (int64_t at = 0; at < frames; at += block)
        drain(input.data() + at * channels, std::min(block, frames - at));
    for (int64_t made = 0; (made = resampler.flush(piece.data(), capacity)) > 0;)
        out.insert(out.end(), piece.begin(), piece.begin() + made * channels);
    return out;
}

int64_t expectedOutputs(int64_t inputFrames, int64_t in, int64_t out)
{
    return (inputFrames * out + in - 1) / in;
}

}  // namespace

TEST(PolyphaseResamplerTest, sinesComeOutAtTheirTimesWithinTheFiltersPrecisionForEveryDirection)
{
    struct Case {
        int64_t in;
        int64_t out;
        std::vector<double> frequencies;  // one per channel
    };
    const Case cases[] = {
        {44100, 48000, {1000.0, 5000.0}},
        {48000, 44100, {440.0, 9000.0}},
        {22050, 48000, {300.0}},
        {48000, 22050, {3000.0, 700.0}},
        {8000, 44100, {1000.0}},
        {96000, 44100, {12000.0, 250.0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.in << " -> " << c.out << ", " << c.frequencies.size() << " channel(s)");
        const auto channels = int64_t(c.frequencies.size());
        auto resampler = PolyphaseResampler::make(kFloat, kFloat, channels, c.in, c.out);
        ASSERT_TRUE(resampler);
        const int64_t frames = c.in / 2;
        const auto output = convertAll(*resampler, sines(frames, c.frequencies, c.in, 0.5), channels, 1000, 4096);
        ASSERT_EQ(int64_t(output.size()) / channels, expectedOutputs(frames, c.in, c.out));
        // Away from the two ends, where the filter sees the silence around
        // the stream, every sample is the ideal sine at its own time.
        const auto outFrames = int64_t(output.size()) / channels;
        double worst = 0.0;
        for (int64_t k = 200; k < outFrames - 200; ++k)
            for (int64_t ch = 0; ch < channels; ++ch) {
                const double ideal = 0.5 * std::sin(2.0 * std::numbers::pi * c.frequencies[size_t(ch)] * double(k) /
                                                    double(c.out));
                worst = std::max(worst, std::fabs(double(output[size_t(k * channels + ch)]) - ideal));
            }
        EXPECT_LT(worst, 1e-3);
    }
}

TEST(PolyphaseResamplerTest, downsamplingRemovesWhatTheNewRateCannotCarry)
{
    auto rms = [](const std::vector<float>& signal) {
        double sum = 0.0;
        for (size_t i = 400; i < signal.size() - 400; ++i)
            sum += double(signal[i]) * signal[i];
        return std::sqrt(sum / double(signal.size() - 800));
    };
    // 15 kHz lies above 22.05 kHz's Nyquist frequency and would fold down to
    // 7.05 kHz; 4 kHz is well inside the band.
    for (const auto& [frequency, expected, tolerance] :
         {std::tuple{15000.0, 0.0, 0.5e-3}, std::tuple{4000.0, 0.5 / std::sqrt(2.0), 0.005}}) {
        SCOPED_TRACE(frequency);
        auto resampler = PolyphaseResampler::make(kFloat, kFloat, 1, 48000, 22050);
        ASSERT_TRUE(resampler);
        const auto output = convertAll(*resampler, sines(48000, {frequency}, 48000, 0.5), 1, 48000, 48000);
        EXPECT_NEAR(rms(output), expected, tolerance);
    }
}

// Runs of one output at a time take another path through the kernels than
// long runs (and, where the processor has it, another instruction set), so
// this also checks that every path sums an output the same way: stereo and
// mono, with the 32 taps of a rate increase and the longer filter of a
// decrease.
TEST(PolyphaseResamplerTest, blockSizesOutputCapacitiesAndResetsDoNotChangeTheStream)
{
    struct Conversion {
        int64_t channels, in, out;
    };
    for (const auto& [channels, in, out] : {Conversion{2, 44100, 48000}, Conversion{1, 44100, 48000},
                                            Conversion{2, 48000, 44100}}) {
        for (const int64_t frames : {int64_t(0), int64_t(1), int64_t(5), int64_t(31), int64_t(1000), int64_t(44101)}) {
            SCOPED_TRACE(testing::Message() << channels << " channels " << in << " to " << out << ", " << frames);
            const auto input = sines(frames, channels == 2 ? std::vector{440.0, 660.0} : std::vector{440.0}, in, 0.8);
            auto reference = PolyphaseResampler::make(kFloat, kFloat, channels, in, out);
            ASSERT_TRUE(reference);
            const auto expected = convertAll(*reference, input, channels, std::max<int64_t>(frames, 1), 1 << 16);
            EXPECT_EQ(int64_t(expected.size()) / channels, expectedOutputs(frames, in, out));

            auto resampler = PolyphaseResampler::make(kFloat, kFloat, channels, in, out);
            using Piece = std::pair<int64_t, int64_t>;  // input block, output capacity
            for (const auto& [block, capacity] : {Piece{1, 3}, Piece{7, 1}, Piece{333, 5}, Piece{941, 1024}}) {
                SCOPED_TRACE(testing::Message() << "blocks of " << block << ", capacity " << capacity);
                // A stream abandoned half way and reset leaves nothing behind.
                std::vector<float> scratch(64);
                resampler->reset();
                resampler->convert(input.data(), frames / 2, scratch.data(), 32);
                resampler->reset();
                // Bit for bit: every output is summed the same way wherever a call ends.
                EXPECT_EQ(convertAll(*resampler, input, channels, block, capacity), expected);
            }
        }
    }
}

TEST(PolyphaseResamplerTest, integerFormatsKeepALevelExactlyAndSaturateOvershootWithoutWrapping)
{
    // A constant level comes out unchanged in every integer format.
    auto expectSteady = [](const auto& input, auto level, int32_t from, int32_t to, int64_t channels, int64_t in,
                           int64_t out) {
        auto resampler = PolyphaseResampler::make(from, to, channels, in, out);
        ASSERT_TRUE(resampler);
        const auto output = convertAll<decltype(level)>(*resampler, input, channels, 512, 512);
        for (size_t i = size_t(40 * channels); i < output.size() - size_t(40 * channels); ++i)
            ASSERT_NEAR(double(output[i]), double(level), 1e-6) << i;
    };
    expectSteady(std::vector<int16_t>(2 * 5000, -12345), int16_t(-12345), kS16, kS16, 2, 44100, 48000);
    expectSteady(std::vector<uint8_t>(3000, 200), uint8_t(200), kU8, kU8, 1, 32000, 44100);
    expectSteady(std::vector<int32_t>(3000, 1 << 30), 0.5, kS32, kDouble, 1, 48000, 44100);
    // A full-scale square wave rings past full scale at its edges; the
    // overshoot is clamped, never wrapped to the other sign.
    std::vector<float> square(8000);
    for (size_t i = 0; i < square.size(); ++i)
        square[i] = (i / 100) % 2 == 0 ? 1.0f : -1.0f;
    auto resampler = PolyphaseResampler::make(kFloat, kS16, 1, 44100, 48000);
    ASSERT_TRUE(resampler);
    std::vector<int16_t> out(9000);
    const int64_t made = resampler->convert(square.data(), int64_t(square.size()), out.data(), 9000);
    ASSERT_GT(made, 8000);
    int plateauHighs = 0;
    for (int64_t k = 20; k < made - 20; ++k) {
        const int64_t source = k * 44100 / 48000;
        if (source % 100 < 10 || source % 100 > 90)
            continue;  // near an edge
        ASSERT_EQ(out[size_t(k)] > 0, (source / 100) % 2 == 0) << k;
        plateauHighs += out[size_t(k)] == 32767;
    }
    EXPECT_GT(plateauHighs, 0);
    // Float media may hold values far beyond full scale; they saturate too.
    resampler->reset();
    const std::vector<float> huge(4000, 1e10f);
    const int64_t hugeMade = resampler->convert(huge.data(), int64_t(huge.size()), out.data(), 9000);
    ASSERT_GT(hugeMade, 4000);
    for (int64_t k = 40; k < hugeMade - 40; ++k)
        ASSERT_EQ(out[size_t(k)], 32767) << k;
}

TEST(PolyphaseResamplerTest, conversionsItDeclinesAreLeftToTheGeneralConverter)
{
    EXPECT_FALSE(PolyphaseResampler::make(kFloat, kFloat, 2, 48000, 48000));  // no change of rate
    EXPECT_FALSE(PolyphaseResampler::make(kFloat, kFloat, 6, 44100, 48000));  // more than two channels
    EXPECT_FALSE(PolyphaseResampler::make(5, kFloat, 2, 44100, 48000));       // a planar format
    EXPECT_FALSE(PolyphaseResampler::make(kFloat, kFloat, 2, 44100, 44099));  // 44,099 phases
    // The general converter still takes the ratio the filter declined.
    const uint64_t stereo = KRAudioFrame2::defaultChannelLayoutByChannel(2);
    auto general = KRResampleContext2::initWithSampleFormat(kFloat, kFloat, stereo, stereo, 44100, 44099);
    ASSERT_TRUE(general);
    const auto input = sines(44100, {1000.0, 1000.0}, 44100, 0.5);
    std::vector<uint8_t> output;
    EXPECT_GT(general->resampleInto(input.data(), 44100, output), 43000);
}
