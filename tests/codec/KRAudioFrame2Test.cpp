// Audio frames: packing decoded frames, refusing inconsistent descriptions,
// and the compressed keyed-archive records the cache stores them as, read by
// the record reader and by the generic unarchiver.
#include "codec/KRAudioFrame2.h"
#include "codec/KRAudioFrameRecord.h"
#include "codec/KRAudioFrameRecordWriter.h"
#include "codec/KRZlibCompression.h"
#include "codec/ZlibStoredStream.h"
#include "foundation/KeyedCoding.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <memory>
#include <optional>
#include <random>
#include <vector>

using Shape = KRAudioFrameRecordReader::Shape;

namespace {

struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

// Byte b of sample i of channel c in the frames makeFrame fills.
char patternByte(int c, int i, int b)
{
    return char(uint8_t(c * 37 + i * 11 + b * 101));
}

// A decoded-style frame, planar or packed, filled with patternByte.
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
    for (int c = 0; c < channels; ++c)
        for (int i = 0; i < samples; ++i)
            for (int b = 0; b < width; ++b)
                (planar ? frame->extended_data[c] + i * width
                        : frame->extended_data[0] + (i * channels + c) * width)[b] = uint8_t(patternByte(c, i, b));
    return frame;
}

struct Description {
    int32_t format = 1;
    int64_t channels = 2;
    int64_t rate = 44100;
    int32_t samples = 4;
    qsizetype bytes = 16;       // negative: neither the rate nor the samples are archived
    bool countAsReal = false;  // the sample count archived as a real
};

// An archive recorded as class `className` holding the fields of a description.
class ForgedFrame final : public brindle::KeyedCoding {
public:
    explicit ForgedFrame(Description d, QString className = QStringLiteral("KRAudioFrame2"))
        : m_d(d), m_className(std::move(className))
    {
    }
    QString classNameForArchive() const override { return m_className; }
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override
    {
        coder.encodeInt32(m_d.format, QStringLiteral("kKRSampleFormat"));
        coder.encodeInt64(m_d.channels, QStringLiteral("kKRNumberOfChannel"));
        if (m_d.countAsReal)
            coder.encodeDouble(m_d.samples, QStringLiteral("kKRNumberOfSamples"));
        else
            coder.encodeInt32(m_d.samples, QStringLiteral("kKRNumberOfSamples"));
        if (m_d.bytes < 0)
            return;
        coder.encodeInt64(m_d.rate, QStringLiteral("kKRSampleRate"));
        coder.encodeBytes(QByteArray(m_d.bytes, '\x01'), QStringLiteral("kKRPackedSamples"));
    }

private:
    Description m_d;
    QString m_className;
};

std::shared_ptr<KRAudioFrame2> unarchive(const brindle::KeyedCoding& object)
{
    return brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(
        brindle::KeyedArchiver::archivedDataWithRootObject(object));
}

// A stereo 16-bit frame of `samples` samples, noise or silence.
std::shared_ptr<KRAudioFrame2> stereoFrame(int32_t samples, bool silent, uint32_t seed = 1)
{
    std::mt19937 random(seed);
    QByteArray bytes(samples * 4, '\0');
    for (char& byte : bytes)
        byte = silent ? '\0' : char(random());
    return KRAudioFrame2::initWithSampleFormat(1, 2, 44100, samples, bytes);
}

// The record the cache stores for a frame.
QByteArray recordOf(const brindle::KeyedCoding& frame)
{
    return KRZlibCompression::zlibCompressionCompress(brindle::KeyedArchiver::archivedDataWithRootObject(frame));
}

Shape shapeOf(const KRAudioFrame2& frame)
{
    return {frame.sampleFormat(), frame.numberOfChannel(), frame.numberOfSamples(),
            int64_t(frame.dataOfPackedSamples().size())};
}

// What the generic path (inflate, then the keyed unarchiver) finds in a
// record of `shape`; null when it refuses the record or finds another shape.
std::shared_ptr<KRAudioFrame2> genericFrame(const QByteArray& record, const Shape& shape)
{
    const auto archive = KRZlibCompression::zlibCompressionUncompress(record, shape.packedBytes + 64 * 1024);
    auto frame = archive ? brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(*archive) : nullptr;
    if (!frame || frame->sampleFormat() != shape.sampleFormat ||
        frame->numberOfChannel() != shape.numberOfChannel || frame->numberOfSamples() != shape.numberOfSamples)
        return nullptr;
    return frame;
}

// What the fixed-layout reader finds in a record: the packed samples, or
// nothing when it refuses the record. The record is copied to a buffer of
// exactly its size, so that ASan sees any read past it, and the samples are
// read where the reader leaves them, inside the inflated archive it hands over.
std::optional<QByteArray> readerSamples(KRAudioFrameRecordReader& reader, const QByteArray& record, const Shape& shape)
{
    const std::vector<char> exact(record.begin(), record.end());
    std::vector<unsigned char> holder;
    size_t at = 0;
    if (!reader.unpack(exact.data(), exact.size(), shape, holder, at))
        return std::nullopt;
    EXPECT_LE(at + size_t(shape.packedBytes), holder.size());
    return QByteArray(reinterpret_cast<const char*>(holder.data() + at), shape.packedBytes);
}

}  // namespace

TEST(KRAudioFrame2, planarAndPackedDecoderFramesAreInterleavedExactly)
{
    for (int format = AV_SAMPLE_FMT_U8; format <= AV_SAMPLE_FMT_DBLP; ++format) {
        for (int channels : {1, 2, 3, 6, 9}) {  // nine channels use extended_data beyond data[]
            for (int samples : {1, 1152}) {
                FramePtr avFrame = makeFrame(AVSampleFormat(format), channels, samples);
                ASSERT_TRUE(avFrame);
                auto frame = KRAudioFrame2::initWithAVFrame(avFrame.get());
                ASSERT_TRUE(frame) << format << " " << channels;
                QByteArray expected;
                for (int i = 0; i < samples; ++i)
                    for (int c = 0; c < channels; ++c)
                        for (int b = 0; b < av_get_bytes_per_sample(AVSampleFormat(format)); ++b)
                            expected.append(patternByte(c, i, b));
                EXPECT_EQ(frame->sampleFormat(), format % 5);
                EXPECT_EQ(frame->numberOfChannel(), channels);
                EXPECT_EQ(frame->numberOfSamples(), samples);
                EXPECT_EQ(frame->sampleRate(), 44100);
                EXPECT_TRUE(frame->dataOfPackedSamples() == expected) << "format " << format << ", " << channels;
                EXPECT_EQ(frame->bytesAtPlanerIndex(0),
                          reinterpret_cast<const uint8_t*>(frame->dataOfPackedSamples().constData()));
                EXPECT_EQ(frame->bytesAtPlanerIndex(1), nullptr);
            }
        }
    }
    // Codes 0-9 follow FFmpeg's numbering: u8, s16, s32, flt, dbl, then their planar forms.
    const int32_t widths[] = {1, 2, 4, 4, 8};
    for (int32_t format = 0; format < 10; ++format)
        EXPECT_EQ(KRAudioFrame2::bytesForSampleFormat(format), widths[format % 5]);
    EXPECT_EQ(KRAudioFrame2::bytesForSampleFormat(-1), 0);
    EXPECT_EQ(KRAudioFrame2::bytesForSampleFormat(1000), 0);
    EXPECT_EQ(KRAudioFrame2::defaultChannelLayoutByChannel(2), uint64_t(AV_CH_LAYOUT_STEREO));
    EXPECT_EQ(KRAudioFrame2::defaultChannelLayoutByChannel(0), 0u);
}

// Each description is refused both when a frame is built from it and when
// an archive holds it.
TEST(KRAudioFrame2, inconsistentDescriptionsAreRefusedWhetherBuiltOrUnarchived)
{
    EXPECT_TRUE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, QByteArray(16, '\0')));
    EXPECT_TRUE(unarchive(ForgedFrame({}))) << "the forged archive itself is well-formed";
    const Description refused[] = {
        {1, 2, 44100, 4, 15},                // one byte short
        {1, 2, 44100, 4, 17},                // one byte too many
        {6, 2, 44100, 4, 16},                // planar
        {12, 2, 44100, 4, 16},               // unknown format
        {1, 0, 44100, 4, 0},                 // no channels
        {1, int64_t(1) << 40, 44100, 4, 0},  // absurd channel count
        {1, 2, 44100, -4, 16},               // negative sample count
        {1, 2, 44100, 0, 0},                 // no samples
        {1, 2, 0, 4, 16},                    // no rate
        {1, 2, 44100, 4, 16, true},          // archived: the count as a real
        {1, 2, 44100, 4, -1},                // archived: no rate and no samples
    };
    for (const Description& d : refused) {
        SCOPED_TRACE(testing::Message() << d.format << " " << d.channels << " " << d.rate << " " << d.samples);
        EXPECT_FALSE(unarchive(ForgedFrame(d)));
        if (d.bytes >= 0 && !d.countAsReal) {
            EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(d.format, d.channels, d.rate, d.samples, QByteArray(d.bytes, '\0')));
        }
    }
    const char bytes[16] = {};
    EXPECT_TRUE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, bytes));
    EXPECT_FALSE(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 4, nullptr));
    // Decoded frames in a format without a packed code, or without samples.
    FramePtr s64 = makeFrame(AV_SAMPLE_FMT_S64, 2, 10);
    ASSERT_TRUE(s64);
    EXPECT_FALSE(KRAudioFrame2::initWithAVFrame(s64.get()));
    EXPECT_FALSE(KRAudioFrame2::initWithAVFrame(nullptr));
    FramePtr empty(av_frame_alloc());
    empty->format = AV_SAMPLE_FMT_FLTP;
    EXPECT_FALSE(KRAudioFrame2::initWithAVFrame(empty.get()));
}

// Noise is stored, silence run-length coded; a small record after a large
// one reuses the larger buffers. A record of another shape, or of another
// class with the same fields, is left to the generic path, and the reader
// still works after such refusals.
TEST(KRAudioFrameRecord, recordsUnpackToTheFrameSamplesByTheReaderAndTheGenericPathAlike)
{
    FramePtr decoded = makeFrame(AV_SAMPLE_FMT_FLTP, 2, 1152);
    ASSERT_TRUE(decoded);
    KRAudioFrameRecordReader reader;
    for (const auto& frame : {KRAudioFrame2::initWithAVFrame(decoded.get()), stereoFrame(1152, false),
                              stereoFrame(1152, true), stereoFrame(40000, false, 3), stereoFrame(1, false, 4)}) {
        ASSERT_TRUE(frame);
        const QByteArray record = recordOf(*frame);
        const std::optional<QByteArray> samples = readerSamples(reader, record, shapeOf(*frame));
        ASSERT_TRUE(samples);
        ASSERT_EQ(*samples, frame->dataOfPackedSamples());
        const auto generic = genericFrame(record, shapeOf(*frame));
        ASSERT_TRUE(generic);
        EXPECT_EQ(generic->sampleRate(), frame->sampleRate());
        EXPECT_EQ(generic->dataOfPackedSamples(), frame->dataOfPackedSamples());
    }
    const auto frame = stereoFrame(512, false);
    const QByteArray record = recordOf(*frame);
    for (const Shape& other : {Shape{1, 2, 511, 511 * 4}, Shape{3, 1, 512, 512 * 4}})
        EXPECT_FALSE(readerSamples(reader, record, other));
    const QByteArray lookAlike = recordOf(ForgedFrame({1, 2, 44100, 1, 4}, QStringLiteral("KRAudioFrame3")));
    EXPECT_FALSE(readerSamples(reader, lookAlike, {1, 2, 1, 4}));
    EXPECT_TRUE(readerSamples(reader, record, shapeOf(*frame)));
    // Right after it, the same archive but for a class name of the same
    // length, which lies past the samples: the reader must not take it for
    // the record it has just read.
    QByteArray renamed = brindle::KeyedArchiver::archivedDataWithRootObject(*frame);
    renamed.replace("KRAudioFrame2", "KRAudioFrame3");
    EXPECT_FALSE(readerSamples(reader, KRZlibCompression::zlibCompressionCompress(renamed), shapeOf(*frame)));
}

// Every truncation and every single-byte change of a record: the reader
// never reads outside it, and whatever it accepts the generic path accepts
// with the same samples.
TEST(KRAudioFrameRecord, everyDamagedRecordIsRefusedOrReadExactlyAsTheGenericPathReadsIt)
{
    KRAudioFrameRecordReader reader;
    for (bool silent : {false, true}) {
        const auto frame = stereoFrame(24, silent);
        const QByteArray record = recordOf(*frame);
        const Shape shape = shapeOf(*frame);
        auto check = [&](const QByteArray& damaged) {
            const std::optional<QByteArray> samples = readerSamples(reader, damaged, shape);
            if (!samples)
                return 0;
            const auto generic = genericFrame(damaged, shape);
            EXPECT_TRUE(generic);
            EXPECT_EQ(generic ? generic->dataOfPackedSamples() : QByteArray(), *samples);
            return 1;
        };
        for (qsizetype length = 0; length < record.size(); ++length)
            EXPECT_EQ(check(record.left(length)), 0) << length;
        // Some changes leave the content as it was (the padding bits of a
        // stored block's header); the generic path then reads the same samples.
        int accepted = 0;
        for (qsizetype at = 0; at < record.size(); ++at) {
            for (unsigned char bits : {0x01u, 0x80u, 0xffu}) {
                QByteArray damaged = record;
                damaged[at] = char(damaged[at] ^ bits);
                accepted += check(damaged);
            }
        }
        EXPECT_LT(accepted, 4) << silent;
    }
}

// The writer gives exactly the record of the generic path (archive, then
// compression) for every frame: several formats and shapes, more shapes than
// it keeps framings for, silence, and runs of repeated bytes growing across
// the share at which compression switches to run-length coding. Only the
// run-length coded records are made the generic way.
TEST(KRAudioFrameRecord, theWriterMakesExactlyTheGenericRecordOfEveryFrame)
{
    std::vector<std::shared_ptr<KRAudioFrame2>> frames;
    std::mt19937 random(9);
    auto frameOf = [&](int32_t format, int64_t channels, int64_t rate, int32_t samples) {
        QByteArray bytes(qsizetype(samples * channels * KRAudioFrame2::bytesForSampleFormat(format)), '\0');
        for (char& byte : bytes)
            byte = char(random());
        return KRAudioFrame2::initWithSampleFormat(format, channels, rate, samples, bytes);
    };
    for (int round = 0; round < 2; ++round) {
        frames.push_back(frameOf(3, 2, 44100, 1152));
        frames.push_back(frameOf(3, 2, 44100, 1152));
        frames.push_back(frameOf(1, 1, 8000, 1));
        frames.push_back(frameOf(0, 6, 22050, 300));
        frames.push_back(frameOf(4, 2, 96000, 5000));
        frames.push_back(frameOf(2, 3, 48000, 1152));
        frames.push_back(stereoFrame(1152, true));
        frames.push_back(frameOf(3, 2, 44100, 47));
    }
    // The first and last sample bytes repeat the archive bytes next to them,
    // so that the count reaches the share exactly with those two repeats.
    for (int run = 0; run < 256; ++run) {
        const auto frame = frameOf(1, 2, 44100, 64);
        QByteArray bytes = frame->dataOfPackedSamples();
        const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(*frame);
        const qsizetype at = archive.indexOf(bytes);
        ASSERT_GT(at, 0);
        bytes[0] = archive[at - 1];
        bytes[bytes.size() - 1] = archive[at + bytes.size()];
        for (int i = 2; i < run; ++i)
            bytes[i] = bytes[1];
        frames.push_back(KRAudioFrame2::initWithSampleFormat(1, 2, 44100, 64, bytes));
    }

    KRAudioFrameRecordWriter writer;
    std::vector<char> record;
    uint64_t runLengthCoded = 0;
    for (const auto& frame : frames) {
        ASSERT_TRUE(frame);
        const QByteArray expected = recordOf(*frame);
        const auto archived = size_t(brindle::KeyedArchiver::archivedDataWithRootObject(*frame).size());
        runLengthCoded += size_t(expected.size()) != brindle::zlibstored::StoredStream::streamSize(archived);
        ASSERT_TRUE(writer.write(*frame, record));
        ASSERT_EQ(QByteArray(record.data(), qsizetype(record.size())), expected)
            << frame->sampleFormat() << " " << frame->numberOfChannel() << " " << frame->numberOfSamples();
    }
    EXPECT_GT(runLengthCoded, 10u);
    EXPECT_EQ(writer.genericRecords(), runLengthCoded);
}
