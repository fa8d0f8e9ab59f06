#include "codec/KRAudioFrame2.h"
#include "codec/KRZlibCompression.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <functional>
#include <memory>

namespace {

struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

// A decoded-style frame whose byte b of sample i of channel c is a pattern of (c, i, b).
FramePtr makeFrame(AVSampleFormat format, int channels, int samples)
{
    FramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->nb_samples = samples;
    frame->sample_rate = 44100;
    av_channel_layout_default(&frame->ch_layout, channels);
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return nullptr;
    const int width = av_get_bytes_per_sample(format);
    const bool planar = av_sample_fmt_is_planar(format);
    for (int c = 0; c < channels; ++c) {
        for (int i = 0; i < samples; ++i) {
            uint8_t* sample = planar ? frame->extended_data[c] + i * width
                                     : frame->extended_data[0] + (i * channels + c) * width;
            for (int b = 0; b < width; ++b)
                sample[b] = uint8_t(c * 37 + i * 11 + b * 101);
        }
    }
    return frame;
}

QByteArray expectedInterleaved(int width, int channels, int samples)
{
    QByteArray out;
    for (int i = 0; i < samples; ++i)
        for (int c = 0; c < channels; ++c)
            for (int b = 0; b < width; ++b)
                out.append(char(uint8_t(c * 37 + i * 11 + b * 101)));
    return out;
}

// Writes an archive recorded as class KRAudioFrame2 with whatever fields a test wants.
class ForgedFrame final : public brindle::KeyedCoding {
public:
    explicit ForgedFrame(std::function<void(brindle::KeyedArchiver&)> write)
        : m_write(std::move(write))
    {
    }
    QString classNameForArchive() const override { return QStringLiteral("KRAudioFrame2"); }
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override { m_write(coder); }

private:
    std::function<void(brindle::KeyedArchiver&)> m_write;
};

struct Fields {
    int32_t format = 1;
    int64_t channels = 2;
    int64_t rate = 44100;
    int32_t samples = 4;
    qsizetype bytes = 16;
};

std::shared_ptr<KRAudioFrame2> decodeForged(const Fields& f,
                                            std::function<void(brindle::KeyedArchiver&)> extra = nullptr)
{
    ForgedFrame forged([&](brindle::KeyedArchiver& coder) {
        coder.encodeInt32(f.format, QStringLiteral("kKRSampleFormat"));
        coder.encodeInt64(f.channels, QStringLiteral("kKRNumberOfChannel"));
        coder.encodeInt64(f.rate, QStringLiteral("kKRSampleRate"));
        coder.encodeInt32(f.samples, QStringLiteral("kKRNumberOfSamples"));
        coder.encodeBytes(QByteArray(f.bytes, '\x01'), QStringLiteral("kKRPackedSamples"));
        if (extra)
            extra(coder);
    });
    QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(forged);
    return brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(archive);
}

}  // namespace

TEST(KRAudioFrame2, sampleFormatTablesMatchFfmpegsNumbering)
{
    const int32_t bytes[] = {1, 2, 4, 4, 8, 1, 2, 4, 4, 8};
    for (int32_t format = 0; format < 10; ++format) {
        EXPECT_EQ(KRAudioFrame2::bytesForSampleFormat(format), bytes[format]) << format;
        EXPECT_EQ(KRAudioFrame2::packedSampleFormat(format), format % 5) << format;
    }
    EXPECT_EQ(KRAudioFrame2::bytesForSampleFormat(-1), 0);
    EXPECT_EQ(KRAudioFrame2::bytesForSampleFormat(1000), 0);
    EXPECT_EQ(KRAudioFrame2::packedSampleFormat(42), 42);
    EXPECT_EQ(KRAudioFrame2::defaultChannelLayoutByChannel(2), uint64_t(AV_CH_LAYOUT_STEREO));
    EXPECT_EQ(KRAudioFrame2::defaultChannelLayoutByChannel(0), 0u);
}

TEST(KRAudioFrame2, planarAndPackedDecoderFramesAreInterleavedExactly)
{
    for (int format = AV_SAMPLE_FMT_U8; format <= AV_SAMPLE_FMT_DBLP; ++format) {
        for (int channels : {1, 2, 3, 6, 9}) {  // nine channels use extended_data beyond data[]
            for (int samples : {1, 1152}) {
                FramePtr avFrame = makeFrame(AVSampleFormat(format), channels, samples);
                ASSERT_TRUE(avFrame);
                auto frame = KRAudioFrame2::initWithAVFrame(avFrame.get());
                ASSERT_TRUE(frame) << format << " " << channels;
                int width = av_get_bytes_per_sample(AVSampleFormat(format));
                EXPECT_EQ(frame->sampleFormat(), format % 5);
                EXPECT_EQ(frame->numberOfChannel(), channels);
                EXPECT_EQ(frame->numberOfSamples(), samples);
                EXPECT_EQ(frame->sampleRate(), 44100);
                EXPECT_TRUE(frame->dataOfPackedSamples() == expectedInterleaved(width, channels, samples))
                    << "format " << format << ", " << channels << " channels";
                EXPECT_EQ(frame->bytesAtPlanerIndex(0),
                          reinterpret_cast<const uint8_t*>(frame->dataOfPackedSamples().constData()));
                EXPECT_EQ(frame->bytesAtPlanerIndex(1), nullptr);
            }
        }
    }
}

TEST(KRAudioFrame2, refusesFramesItCannotDescribe)
{
    FramePtr s64 = makeFrame(AV_SAMPLE_FMT_S64, 2, 10);
    ASSERT_TRUE(s64);
    EXPECT_FALSE(KRAudioFrame2::initWithAVFrame(s64.get()));
    EXPECT_FALSE(KRAudioFrame2::initWithAVFrame(nullptr));
    FramePtr empty(av_frame_alloc());
    empty->format = AV_SAMPLE_FMT_FLTP;
    EXPECT_FALSE(KRAudioFrame2::initWithAVFrame(empty.get())) << "no samples, no channels";

    const char bytes[16] = {};
    EXPECT_TRUE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, bytes));
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(6, 2, 44100, 4, bytes)) << "planar";
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(1, 0, 44100, 4, bytes));
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 0, bytes));
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, nullptr));
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, QByteArray(15, '\0')));
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, QByteArray(17, '\0')));
    EXPECT_TRUE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, QByteArray(16, '\0')));
}

TEST(KRAudioFrame2, survivesArchivingAndCompressionAsACacheRecord)
{
    FramePtr avFrame = makeFrame(AV_SAMPLE_FMT_FLTP, 2, 1152);
    ASSERT_TRUE(avFrame);
    auto frame = KRAudioFrame2::initWithAVFrame(avFrame.get());
    ASSERT_TRUE(frame);

    QByteArray record = KRZlibCompression::zlibCompressionCompress(
        brindle::KeyedArchiver::archivedDataWithRootObject(std::static_pointer_cast<const brindle::KeyedCoding>(frame)));
    std::optional<QByteArray> archive = KRZlibCompression::zlibCompressionUncompress(record);
    ASSERT_TRUE(archive);
    auto restored = brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(*archive);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->sampleFormat(), frame->sampleFormat());
    EXPECT_EQ(restored->numberOfChannel(), 2);
    EXPECT_EQ(restored->sampleRate(), 44100);
    EXPECT_EQ(restored->numberOfSamples(), 1152);
    EXPECT_TRUE(restored->dataOfPackedSamples() == frame->dataOfPackedSamples());
}

TEST(KRAudioFrame2, refusesInconsistentArchivedFrames)
{
    EXPECT_TRUE(decodeForged(Fields{})) << "the forged archive itself is well-formed";

    Fields shortData;
    shortData.bytes = 15;
    Fields longData;
    longData.bytes = 17;
    Fields planar;
    planar.format = 6;
    Fields unknownFormat;
    unknownFormat.format = 12;
    Fields noChannels;
    noChannels.channels = 0;
    noChannels.bytes = 0;
    Fields tooManyChannels;
    tooManyChannels.channels = int64_t(1) << 40;
    tooManyChannels.bytes = 0;
    Fields negativeSamples;
    negativeSamples.samples = -4;
    Fields noRate;
    noRate.rate = 0;
    for (const Fields& fields :
         {shortData, longData, planar, unknownFormat, noChannels, tooManyChannels, negativeSamples, noRate})
        EXPECT_FALSE(decodeForged(fields)) << fields.format << " " << fields.channels << " " << fields.samples;

    // A field of the wrong kind: the sample count written as a real.
    ForgedFrame realCount([](brindle::KeyedArchiver& coder) {
        coder.encodeInt32(1, QStringLiteral("kKRSampleFormat"));
        coder.encodeInt64(2, QStringLiteral("kKRNumberOfChannel"));
        coder.encodeInt64(44100, QStringLiteral("kKRSampleRate"));
        coder.encodeDouble(4.0, QStringLiteral("kKRNumberOfSamples"));
        coder.encodeBytes(QByteArray(16, '\0'), QStringLiteral("kKRPackedSamples"));
    });
    EXPECT_FALSE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(
        brindle::KeyedArchiver::archivedDataWithRootObject(realCount)));
    // Missing samples.
    ForgedFrame missing([](brindle::KeyedArchiver& coder) {
        coder.encodeInt32(1, QStringLiteral("kKRSampleFormat"));
        coder.encodeInt64(2, QStringLiteral("kKRNumberOfChannel"));
        coder.encodeInt32(4, QStringLiteral("kKRNumberOfSamples"));
    });
    EXPECT_FALSE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(
        brindle::KeyedArchiver::archivedDataWithRootObject(missing)));
}
