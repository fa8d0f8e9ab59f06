#include "codec/KRAudioFrame2.h"
#include "codec/KRResampleContext2.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

using namespace KRSampleFormat;

namespace {

std::shared_ptr<KRResampleContext2> converter(int32_t srcFormat, int32_t destFormat, int srcChannels,
                                              int destChannels, int64_t srcRate, int64_t destRate)
{
    return KRResampleContext2::initWithSampleFormat(srcFormat, destFormat,
                                                    KRAudioFrame2::defaultChannelLayoutByChannel(srcChannels),
                                                    KRAudioFrame2::defaultChannelLayoutByChannel(destChannels),
                                                    srcRate, destRate);
}

// Interleaved 16-bit frames; a sine on the channels `onChannel` accepts.
std::vector<int16_t> sine16(int64_t frames, int channels, double frequency, int64_t rate, double amplitude,
                            int onlyChannel = -1)
{
    std::vector<int16_t> out(static_cast<size_t>(frames * channels));
    for (int64_t i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            if (onlyChannel < 0 || c == onlyChannel)
                out[size_t(i * channels + c)] =
                    int16_t(std::lround(amplitude * std::sin(2.0 * M_PI * frequency * double(i) / double(rate))));
    return out;
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
        for (int64_t i = 0; i < made * resampler.destChannels(); ++i) {
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
    for (int64_t at = 0; at < frames; at += block)
        append(resampler.resampleInto(input.data() + at * channels, std::min(block, frames - at), bytes));
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

double peak(const std::vector<double>& signal)
{
    double top = 0;
    for (double value : signal)
        top = std::max(top, std::fabs(value));
    return top;
}

// Blocks, then a flush, make one stream: across 44100 → 48000 Hz a sine
// keeps its length, and away from the ends every output is the ideal sine at
// its own time. (The filter's own precision is PolyphaseResamplerTest's.)
TEST(KRResampleContext2Test, aSineConvertedInBlocksKeepsItsShapeAndLength)
{
    auto resampler = converter(kS16, kFloat, 2, 2, 44100, 48000);
    ASSERT_TRUE(resampler);
    const int64_t frames = 44100;
    const auto output = convertStream(*resampler, sine16(frames, 2, 1000.0, 44100, 16384.0), 2, 1021);
    EXPECT_NEAR(double(output.size() / 2), double(frames * 48000 / 44100), 4.0);
    double worst = 0;
    for (size_t i = 2000; i + 2000 < output.size(); ++i)
        worst = std::max(worst, std::fabs(output[i] - 0.5 * std::sin(2.0 * M_PI * 1000.0 * double(i / 2) / 48000.0)));
    EXPECT_LT(worst, 2e-3);
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

// Mono reaches both stereo channels equally, the centre at −3 dB; 5.1 (FL FR
// FC LFE BL BR) folds down to stereo by channel position.
TEST(KRResampleContext2Test, channelsAreMappedToStereoByPosition)
{
    struct Case {
        int channels;
        int toneOn;
        double leftPeak;  // 0: silent; negative: at least its magnitude
        double rightPeak;
        bool sameOnBoth;
    };
    for (const Case& c : {Case{1, 0, 20000.0 / 32768.0 * M_SQRT1_2, 20000.0 / 32768.0 * M_SQRT1_2, true},
                          Case{6, 0, -0.2, 0.0, false}, Case{6, 5, 0.0, -0.1, false}, Case{6, 2, -0.1, -0.1, true}}) {
        SCOPED_TRACE(testing::Message() << c.channels << " channels, tone on " << c.toneOn);
        auto resampler = converter(kS16, c.channels == 1 ? kS16 : kFloat, c.channels, 2, 48000, 48000);
        ASSERT_TRUE(resampler);
        const auto output = convertStream(*resampler, sine16(4800, c.channels, 1000.0, 48000, c.channels == 1 ? 20000.0 : 16000.0, c.toneOn),
                                          c.channels, 1000);
        ASSERT_EQ(output.size(), 9600u);
        const auto left = channelOf(output, 2, 0);
        const auto right = channelOf(output, 2, 1);
        for (const auto& [signal, expected] : {std::pair{left, c.leftPeak}, std::pair{right, c.rightPeak}}) {
            if (expected > 0) {
                EXPECT_NEAR(peak(signal), expected, 0.002);
            } else if (expected < 0) {
                EXPECT_GT(peak(signal), -expected);
            } else {
                EXPECT_EQ(peak(signal), 0.0);
            }
        }
        if (c.sameOnBoth) {
            EXPECT_EQ(left, right);
        }
    }
}

TEST(KRResampleContext2Test, sixteenBitToFloatAndBackIsLossless)
{
    auto toFloat = converter(kS16, kFloat, 1, 1, 44100, 44100);
    auto back = converter(kFloat, kS16, 1, 1, 44100, 44100);
    ASSERT_TRUE(toFloat && back);
    std::vector<int16_t> input(65536);
    for (int i = 0; i < 65536; ++i)
        input[size_t(i)] = int16_t(i - 32768);
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

// A fixed buffer takes what fits and the rest follows on the next calls; a
// reused output vector stops growing once it fits a block.
TEST(KRResampleContext2Test, outputBuffersAreFilledToCapacityAndReused)
{
    const auto input = sine16(2048 * 8, 2, 1000.0, 44100, 10000.0);
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

    auto blocks = converter(kS16, kS16, 2, 2, 44100, 48000);
    std::vector<uint8_t> output;
    ASSERT_GT(blocks->resampleInto(input.data(), 2048, output), 0);
    const uint8_t* first = output.data();
    for (int block = 1; block < 8; ++block)
        ASSERT_GT(blocks->resampleInto(input.data() + block * 2048 * 2, 2048, output), 0);
    EXPECT_EQ(output.data(), first);
}

// Unusable descriptions, frames that do not match the source and invalid
// blocks are refused; assertSampleFormat matches only the exact description.
TEST(KRResampleContext2Test, onlyTheExactDescriptionIsAcceptedAndUnusableOnesAreRefused)
{
    EXPECT_FALSE(converter(6, kS16, 2, 2, 44100, 48000)) << "planar";
    EXPECT_FALSE(converter(kS16, -1, 2, 2, 44100, 48000));
    EXPECT_FALSE(converter(kS16, kS16, 2, 2, 0, 48000));
    EXPECT_FALSE(converter(kS16, kS16, 2, 2, 44100, int64_t(1) << 40));
    EXPECT_FALSE(KRResampleContext2::initWithSampleFormat(kS16, kS16, 0, KRAudioFrame2::defaultChannelLayoutByChannel(2), 44100, 48000));
    EXPECT_TRUE(converter(kU8, kFloat, 8, 2, 22500, 96000));

    auto described = converter(kDouble, kS16, 6, 2, 96000, 44100);
    ASSERT_TRUE(described);
    EXPECT_TRUE(described->assertSampleFormat(kDouble, kS16, 6, 2, 96000, 44100));
    const int64_t others[][6] = {{kFloat, kS16, 6, 2, 96000, 44100}, {kDouble, kFloat, 6, 2, 96000, 44100},
                                 {kDouble, kS16, 2, 2, 96000, 44100}, {kDouble, kS16, 6, 1, 96000, 44100},
                                 {kDouble, kS16, 6, 2, 48000, 44100}, {kDouble, kS16, 6, 2, 96000, 48000}};
    for (const auto& o : others)
        EXPECT_FALSE(described->assertSampleFormat(int32_t(o[0]), int32_t(o[1]), o[2], o[3], o[4], o[5]));

    auto resampler = converter(kS16, kFloat, 2, 2, 44100, 48000);
    ASSERT_TRUE(resampler);
    const auto input = sine16(100, 1, 500.0, 44100, 1000.0);
    auto mono = KRAudioFrame2::initWithSampleFormat(kS16, 1, 44100, 100, input.data());
    auto otherRate = KRAudioFrame2::initWithSampleFormat(kS16, 2, 48000, 50, input.data());
    ASSERT_TRUE(mono && otherRate);
    EXPECT_FALSE(resampler->resampleFrame(*mono));
    EXPECT_FALSE(resampler->resampleFrame(*otherRate));
    std::vector<uint8_t> output;
    EXPECT_EQ(resampler->resampleInto(nullptr, 10, output), -1);
    EXPECT_EQ(resampler->resampleInto(output.data(), -1, output), -1);
}

}  // namespace
