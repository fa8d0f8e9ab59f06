#include "codec/KRAudioFrame2.h"
#include "codec/KRResampleContext2.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

using namespace KRSampleFormat;

namespace {


uint64_t layout(int channels)
{
    return KRAudioFrame2::defaultChannelLayoutByChannel(channels);
}

std::shared_ptr<KRResampleContext2> converter(int32_t srcFormat, int32_t destFormat, int srcChannels,
                                              int destChannels, int64_t srcRate, int64_t destRate)
{
    return KRResampleContext2::initWithSampleFormat(srcFormat, destFormat, layout(srcChannels), layout(destChannels),
                                                    srcRate, destRate);
}

// Interleaved 16-bit frames; every channel carries value(frame, channel).
template <class Value>
std::vector<int16_t> frames16(int64_t frames, int channels, Value value)
{
    std::vector<int16_t> out(static_cast<size_t>(frames * channels));
    for (int64_t i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            out[static_cast<size_t>(i * channels + c)] = static_cast<int16_t>(value(i, c));
    return out;
}

std::vector<int16_t> sine16(int64_t frames, int channels, double frequency, int64_t rate, double amplitude)
{
    return frames16(frames, channels, [&](int64_t i, int) {
        return std::lround(amplitude * std::sin(2.0 * M_PI * frequency * double(i) / double(rate)));
    });
}

// Converts `input` block by block, then flushes; answers the destination samples as doubles.
std::vector<double> convertStream(KRResampleContext2& resampler, const std::vector<int16_t>& input, int channels,
                                  int64_t block)
{
    const int64_t frames = int64_t(input.size()) / channels;
    std::vector<uint8_t> bytes;
    std::vector<double> out;
    auto append = [&](int64_t made) {
        ASSERT_GE(made, 0);
        const int64_t count = made * resampler.destChannels();
        for (int64_t i = 0; i < count; ++i) {
            if (resampler.destSampleFormat() == kS16) {
                int16_t v;
                std::memcpy(&v, bytes.data() + i * 2, 2);
                out.push_back(v / 32768.0);
            } else {
                float v;
                std::memcpy(&v, bytes.data() + i * 4, 4);
                out.push_back(v);
            }
        }
    };
    for (int64_t at = 0; at < frames; at += block) {
        const int64_t count = std::min(block, frames - at);
        append(resampler.resampleInto(input.data() + at * channels, count, bytes));
    }
    append(resampler.flushInto(bytes));
    return out;
}

// Channel `channel` of interleaved samples.
std::vector<double> channelOf(const std::vector<double>& samples, int channels, int channel)
{
    std::vector<double> out;
    for (size_t i = size_t(channel); i < samples.size(); i += size_t(channels))
        out.push_back(samples[i]);
    return out;
}

// Frequency from the rising zero crossings between `from` and `to`, interpolated.
double measuredFrequency(const std::vector<double>& signal, size_t from, size_t to, int64_t rate)
{
    double first = -1;
    double last = -1;
    int crossings = 0;
    for (size_t i = from + 1; i < to && i < signal.size(); ++i) {
        if (signal[i - 1] < 0 && signal[i] >= 0) {
            const double at = double(i - 1) + signal[i - 1] / (signal[i - 1] - signal[i]);
            if (first < 0)
                first = at;
            last = at;
            ++crossings;
        }
    }
    if (crossings < 2)
        return 0;
    return double(crossings - 1) * double(rate) / (last - first);
}

double peak(const std::vector<double>& signal, size_t from, size_t to)
{
    double top = 0;
    for (size_t i = from; i < to && i < signal.size(); ++i)
        top = std::max(top, std::fabs(signal[i]));
    return top;
}

TEST(KRResampleContext2Test, aSineKeepsItsFrequencyLevelAndLengthAcross44100To48000)
{
    for (int32_t destFormat : {kS16, kFloat}) {
        SCOPED_TRACE(destFormat);
        auto resampler = converter(kS16, destFormat, 2, 2, 44100, 48000);
        ASSERT_TRUE(resampler);
        const int64_t frames = 44100 * 2;
        const auto input = sine16(frames, 2, 1000.0, 44100, 16384.0);
        const auto output = convertStream(*resampler, input, 2, 1021);

        const int64_t expected = frames * 48000 / 44100;
        EXPECT_NEAR(double(output.size() / 2), double(expected), 4.0);
        for (int channel = 0; channel < 2; ++channel) {
            const auto signal = channelOf(output, 2, channel);
            EXPECT_NEAR(measuredFrequency(signal, 1000, signal.size() - 1000, 48000), 1000.0, 0.5);
            EXPECT_NEAR(peak(signal, 1000, signal.size() - 1000), 0.5, 0.01);
        }
    }
}

TEST(KRResampleContext2Test, aStreamConvertedInBlocksEqualsOneConversionOfTheWhole)
{
    const auto input = sine16(20000, 2, 440.0, 44100, 12000.0);
    auto whole = converter(kS16, kFloat, 2, 2, 44100, 48000);
    auto blocks = converter(kS16, kFloat, 2, 2, 44100, 48000);
    ASSERT_TRUE(whole && blocks);
    const auto expected = convertStream(*whole, input, 2, 20000);
    const auto actual = convertStream(*blocks, input, 2, 333);
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_NEAR(actual[i], expected[i], 1e-6) << i;
}

TEST(KRResampleContext2Test, framesInAndOutCarryTheDestinationDescriptionAndFlushEndsTheStream)
{
    auto resampler = converter(kS16, kFloat, 1, 2, 22050, 44100);
    ASSERT_TRUE(resampler);
    const auto input = sine16(4410, 1, 500.0, 22050, 10000.0);
    auto frame = KRAudioFrame2::initWithSampleFormat(kS16, 1, 22050, 4410, input.data());
    ASSERT_TRUE(frame);

    auto out = resampler->resampleFrame(*frame);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->sampleFormat(), kFloat);
    EXPECT_EQ(out->numberOfChannel(), 2);
    EXPECT_EQ(out->sampleRate(), 44100);
    auto tail = resampler->flush();
    ASSERT_TRUE(tail);
    EXPECT_NEAR(out->numberOfSamples() + tail->numberOfSamples(), 8820, 2);
    EXPECT_FALSE(resampler->flush()) << "nothing is held back after a flush";

    // After the flush the converter starts a new stream from scratch.
    auto again = resampler->resampleFrame(*frame);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->dataOfPackedSamples(), out->dataOfPackedSamples());
}

TEST(KRResampleContext2Test, aFrameThatDoesNotMatchTheSourceIsRefused)
{
    auto resampler = converter(kS16, kFloat, 2, 2, 44100, 48000);
    ASSERT_TRUE(resampler);
    const auto input = sine16(100, 1, 500.0, 44100, 1000.0);
    auto mono = KRAudioFrame2::initWithSampleFormat(kS16, 1, 44100, 100, input.data());
    auto otherRate = KRAudioFrame2::initWithSampleFormat(kS16, 2, 48000, 50, input.data());
    ASSERT_TRUE(mono && otherRate);
    EXPECT_FALSE(resampler->resampleFrame(*mono));
    EXPECT_FALSE(resampler->resampleFrame(*otherRate));
}

TEST(KRResampleContext2Test, monoReachesBothStereoChannelsEqually)
{
    auto resampler = converter(kS16, kS16, 1, 2, 48000, 48000);
    ASSERT_TRUE(resampler);
    const auto input = sine16(4800, 1, 1000.0, 48000, 20000.0);
    const auto output = convertStream(*resampler, input, 1, 4800);
    ASSERT_EQ(output.size(), 9600u);
    const auto left = channelOf(output, 2, 0);
    const auto right = channelOf(output, 2, 1);
    EXPECT_EQ(left, right);
    // The default matrix places the centre at −3 dB in each channel.
    EXPECT_NEAR(peak(left, 0, left.size()), 20000.0 / 32768.0 * M_SQRT1_2, 0.002);
}

TEST(KRResampleContext2Test, surroundFoldsDownToStereoByChannelPosition)
{
    // 5.1 order: FL FR FC LFE BL BR. A tone on one channel only.
    auto toneOn = [](int channel) {
        return frames16(4800, 6, [channel](int64_t i, int c) {
            return c == channel ? std::lround(16000.0 * std::sin(2.0 * M_PI * 1000.0 * double(i) / 48000.0)) : 0;
        });
    };
    auto convert = [](const std::vector<int16_t>& input) {
        auto resampler = converter(kS16, kFloat, 6, 2, 48000, 48000);
        EXPECT_TRUE(resampler);
        return resampler ? convertStream(*resampler, input, 6, 1000) : std::vector<double>{};
    };

    const auto frontLeft = convert(toneOn(0));
    ASSERT_EQ(frontLeft.size(), 9600u);
    EXPECT_GT(peak(channelOf(frontLeft, 2, 0), 0, 4800), 0.2);
    EXPECT_EQ(peak(channelOf(frontLeft, 2, 1), 0, 4800), 0.0);

    const auto backRight = convert(toneOn(5));
    EXPECT_EQ(peak(channelOf(backRight, 2, 0), 0, 4800), 0.0);
    EXPECT_GT(peak(channelOf(backRight, 2, 1), 0, 4800), 0.1);

    const auto centre = convert(toneOn(2));
    EXPECT_GT(peak(channelOf(centre, 2, 0), 0, 4800), 0.1);
    EXPECT_EQ(channelOf(centre, 2, 0), channelOf(centre, 2, 1));
}

TEST(KRResampleContext2Test, sixteenBitToFloatAndBackIsLossless)
{
    auto toFloat = converter(kS16, kFloat, 1, 1, 44100, 44100);
    auto back = converter(kFloat, kS16, 1, 1, 44100, 44100);
    ASSERT_TRUE(toFloat && back);
    const auto input = frames16(65536, 1, [](int64_t i, int) { return i - 32768; });
    std::vector<uint8_t> floats;
    std::vector<uint8_t> shorts;
    ASSERT_EQ(toFloat->resampleInto(input.data(), 65536, floats), 65536);
    float smallest;
    std::memcpy(&smallest, floats.data(), 4);
    EXPECT_EQ(smallest, -1.0f);
    ASSERT_EQ(back->resampleInto(floats.data(), 65536, shorts), 65536);
    EXPECT_EQ(std::memcmp(shorts.data(), input.data(), input.size() * 2), 0);
    EXPECT_FALSE(back->flush()) << "a format-only conversion holds nothing back";
}

TEST(KRResampleContext2Test, aFixedBufferTakesWhatFitsAndTheRestFollowsOnTheNextCall)
{
    const auto input = sine16(4410, 2, 1000.0, 44100, 10000.0);
    auto reference = converter(kS16, kS16, 2, 2, 44100, 48000);
    auto limited = converter(kS16, kS16, 2, 2, 44100, 48000);
    ASSERT_TRUE(reference && limited);
    std::vector<uint8_t> expected;
    const int64_t all = reference->resampleInto(input.data(), 4410, expected);
    ASSERT_GT(all, 4700);

    std::vector<int16_t> out(size_t(all) * 2 + 64, 0x5a5a);
    int64_t made = limited->resampleInto(input.data(), 4410, out.data(), 1000);
    EXPECT_EQ(made, 1000);
    EXPECT_EQ(out[2000], 0x5a5a) << "nothing is written past the capacity";
    while (made < all) {
        const int64_t more = limited->resampleInto(nullptr, 0, out.data() + made * 2, 1000);
        ASSERT_GT(more, 0);
        made += more;
    }
    EXPECT_EQ(made, all);
    EXPECT_EQ(std::memcmp(out.data(), expected.data(), size_t(all) * 4), 0);
}

TEST(KRResampleContext2Test, aReusedOutputVectorStopsGrowingOnceItFitsTheBlock)
{
    auto resampler = converter(kS16, kS16, 2, 2, 44100, 48000);
    ASSERT_TRUE(resampler);
    const auto input = sine16(2048 * 8, 2, 1000.0, 44100, 10000.0);
    std::vector<uint8_t> output;
    ASSERT_GT(resampler->resampleInto(input.data(), 2048, output), 0);
    const uint8_t* first = output.data();
    for (int block = 1; block < 8; ++block)
        ASSERT_GT(resampler->resampleInto(input.data() + block * 2048 * 2, 2048, output), 0);
    EXPECT_EQ(output.data(), first);
}

TEST(KRResampleContext2Test, assertSampleFormatMatchesOnlyTheExactDescription)
{
    auto resampler = converter(kDouble, kS16, 6, 2, 96000, 44100);
    ASSERT_TRUE(resampler);
    EXPECT_TRUE(resampler->assertSampleFormat(kDouble, kS16, 6, 2, 96000, 44100));
    EXPECT_FALSE(resampler->assertSampleFormat(kFloat, kS16, 6, 2, 96000, 44100));
    EXPECT_FALSE(resampler->assertSampleFormat(kDouble, kFloat, 6, 2, 96000, 44100));
    EXPECT_FALSE(resampler->assertSampleFormat(kDouble, kS16, 2, 2, 96000, 44100));
    EXPECT_FALSE(resampler->assertSampleFormat(kDouble, kS16, 6, 1, 96000, 44100));
    EXPECT_FALSE(resampler->assertSampleFormat(kDouble, kS16, 6, 2, 48000, 44100));
    EXPECT_FALSE(resampler->assertSampleFormat(kDouble, kS16, 6, 2, 96000, 48000));
}

TEST(KRResampleContext2Test, unusableDescriptionsAreRefused)
{
    EXPECT_FALSE(converter(6, kS16, 2, 2, 44100, 48000)) << "planar";
    EXPECT_FALSE(converter(kS16, -1, 2, 2, 44100, 48000));
    EXPECT_FALSE(converter(kS16, kS16, 2, 2, 0, 48000));
    EXPECT_FALSE(converter(kS16, kS16, 2, 2, 44100, int64_t(1) << 40));
    EXPECT_FALSE(KRResampleContext2::initWithSampleFormat(kS16, kS16, 0, layout(2), 44100, 48000));
    EXPECT_TRUE(converter(kU8, kFloat, 8, 2, 22500, 96000));

    auto resampler = converter(kS16, kS16, 2, 2, 44100, 48000);
    ASSERT_TRUE(resampler);
    std::vector<uint8_t> output;
    EXPECT_EQ(resampler->resampleInto(nullptr, 10, output), -1);
    EXPECT_EQ(resampler->resampleInto(output.data(), -1, output), -1);
}

}  // namespace
