#include "codec/KRDemuxerContext.h"
#include "codec/KRTimebase.h"

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFileInfo>

#include <cstdlib>
#include <thread>
#include <vector>

using brindle::test::TestMedia;
using brindle::test::ToneSpec;

namespace {

struct Decoded {
    QByteArray pcm;
    int64_t samples = 0;
    int frames = 0;
    int32_t format = -1;  // packed format of the frames
    int64_t sampleRate = 0;
    int64_t channels = 0;
    bool consistent = true;  // every frame matched the context's properties
};

Decoded decodeAll(KRDemuxerContext& context)
{
    Decoded out;
    out.format = KRAudioFrame2::packedSampleFormat(context.audioSampleFormat());
    out.sampleRate = context.audioSampleRate();
    out.channels = context.numberOfChannel();
    while (auto frame = context.decodeNextAudioFrame()) {
        out.pcm += frame->dataOfPackedSamples();
        out.samples += frame->numberOfSamples();
        ++out.frames;
        out.consistent = out.consistent && frame->sampleFormat() == out.format &&
                         frame->sampleRate() == out.sampleRate && frame->numberOfChannel() == out.channels;
    }
    return out;
}

Decoded decodeFile(const QString& path)
{
    auto context = KRDemuxerContext::initWithFilename(path);
    EXPECT_TRUE(context) << path.toStdString();
    if (!context)
        return {};
    context->disableVideoStream(true);
    return decodeAll(*context);
}

int64_t samplesOfLength(int64_t length, int64_t sampleRate)
{
    return length * sampleRate / KRTimebase;
}

struct Fixture {
    const char* name;
    QString (*make)();
    int32_t decodedFormat;  // the decoder's own (possibly planar) code
    int64_t sampleRate;
    int64_t channels;
    int64_t lengthTolerance;  // samples between the reported length and the decoded count
};

// An MP3 header counts whole frames, including the encoder's priming and
// padding that libavcodec drops; Vorbis decodes the last block whole.
constexpr int64_t kMp3HeaderSlack = 2 * 1152;
constexpr int64_t kVorbisSlack = 1024;

ToneSpec tone(int channels, int rate, int64_t frames)
{
    ToneSpec spec;
    spec.channels = channels;
    spec.sampleRate = rate;
    spec.frames = frames;
    return spec;
}

const Fixture kFixtures[] = {
    {"u8_mono_8k", [] { return TestMedia::shared().wav(0, tone(1, 8000, 8001)); }, 0, 8000, 1, 0},
    {"s16_stereo_44k", [] { return TestMedia::shared().wav(1, tone(2, 44100, 44100)); }, 1, 44100, 2, 0},
    {"s32_six_96k", [] { return TestMedia::shared().wav(2, tone(6, 96000, 9600)); }, 2, 96000, 6, 0},
    {"flt_three_22k", [] { return TestMedia::shared().wav(3, tone(3, 22050, 30000)); }, 3, 22050, 3, 0},
    {"dbl_five_48k", [] { return TestMedia::shared().wav(4, tone(5, 48000, 4801)); }, 4, 48000, 5, 0},
    {"s24_stereo", [] { return TestMedia::shared().wav24(tone(2, 44100, 20000)); }, 2, 44100, 2, 0},
    {"mp3_cbr", [] { return TestMedia::shared().mp3Cbr(tone(2, 44100, 44100)); }, 8, 44100, 2, kMp3HeaderSlack},
    {"mp3_vbr_xing_mono", [] { return TestMedia::shared().mp3VbrXing(tone(1, 32000, 50000)); }, 8, 32000, 1, kMp3HeaderSlack},
    {"mp3_vbr_no_xing", [] { return TestMedia::shared().mp3VbrNoXing(tone(2, 44100, 100000)); }, 8, 44100, 2, 1152},
    {"mp3_cover_art", [] { return TestMedia::shared().mp3WithCoverArt(tone(2, 44100, 30000)); }, 8, 44100, 2, kMp3HeaderSlack},
    {"aac_stereo", [] { return TestMedia::shared().m4a(tone(2, 44100, 44100)); }, 8, 44100, 2, 1024},
    {"aac_six", [] { return TestMedia::shared().m4a(tone(6, 48000, 20000)); }, 8, 48000, 6, 1024},
    {"flac_s16", [] { return TestMedia::shared().flac(tone(2, 44100, 30000)); }, 1, 44100, 2, 0},
    {"vorbis", [] { return TestMedia::shared().oggVorbis(tone(2, 44100, 30000)); }, 8, 44100, 2, kVorbisSlack},
};

class DecodeFixture : public testing::TestWithParam<Fixture> {};

}  // namespace

TEST_P(DecodeFixture, framesEqualFfmpegsOwnDecodeByteForByte)
{
    const Fixture& fixture = GetParam();
    QString path = fixture.make();
    ASSERT_FALSE(path.isEmpty());

    auto context = KRDemuxerContext::initWithFilename(path);
    ASSERT_TRUE(context);
    context->disableVideoStream(true);
    EXPECT_EQ(context->audioSampleFormat(), fixture.decodedFormat);
    EXPECT_EQ(context->audioSampleRate(), fixture.sampleRate);
    EXPECT_EQ(context->numberOfChannel(), fixture.channels);
    int64_t length = context->audioStreamLength();
    Decoded ours = decodeAll(*context);

    EXPECT_TRUE(ours.consistent);
    ASSERT_GT(ours.samples, 0);
    EXPECT_EQ(ours.pcm.size(), ours.samples * ours.channels * KRAudioFrame2::bytesForSampleFormat(ours.format));
    std::optional<QByteArray> reference = TestMedia::decodeWithFfmpeg(path, ours.format);
    ASSERT_TRUE(reference);
    EXPECT_EQ(ours.pcm.size(), reference->size());
    EXPECT_TRUE(ours.pcm == *reference) << "decoded samples differ from ffmpeg's";

    EXPECT_LE(std::llabs(samplesOfLength(length, ours.sampleRate) - ours.samples), fixture.lengthTolerance + 1)
        << "length " << length << " µs for " << ours.samples << " decoded samples";
}

INSTANTIATE_TEST_SUITE_P(EveryKind, DecodeFixture, testing::ValuesIn(kFixtures),
                         [](const testing::TestParamInfo<Fixture>& info) { return std::string(info.param.name); });

TEST(KRDemuxerContext, wavFramesHoldExactlyTheSamplesThatWereWritten)
{
    for (int32_t format = 0; format <= 4; ++format) {
        ToneSpec spec = tone(format + 1, 11025 * (format + 1), 5000 + format);
        Decoded decoded = decodeFile(TestMedia::shared().wav(format, spec));
        EXPECT_EQ(decoded.format, format);
        EXPECT_TRUE(decoded.pcm == brindle::test::toneSamples(spec, format)) << "format " << format;
    }
}

TEST(KRDemuxerContext, lengthOfVbrMp3WithoutXingHeaderIsMeasuredFromItsPackets)
{
    // Loud noise first, then a quiet tone: the bit rate of the first frames
    // says little about the rest, so an estimate from it would be far off.
    ToneSpec spec = tone(2, 44100, 44100 * 8);
    spec.noise = 0.9;
    spec.amplitude = 0.05;
    QString path = TestMedia::shared().mp3VbrNoXing(spec);
    ASSERT_FALSE(path.isEmpty());
    auto context = KRDemuxerContext::initWithFilename(path);
    ASSERT_TRUE(context);
    int64_t length = context->audioStreamLength();
    EXPECT_EQ(context->audioStreamLength(), length) << "measured once, then kept";
    Decoded decoded = decodeAll(*context);
    EXPECT_LE(std::llabs(samplesOfLength(length, 44100) - decoded.samples), 1152);
}

TEST(KRDemuxerContext, measuringTheLengthFirstDoesNotDisturbDecoding)
{
    QString path = TestMedia::shared().mp3VbrNoXing(tone(1, 22050, 30000));
    ASSERT_FALSE(path.isEmpty());
    auto measured = KRDemuxerContext::initWithFilename(path);
    auto plain = KRDemuxerContext::initWithFilename(path);
    ASSERT_TRUE(measured && plain);
    EXPECT_GT(measured->audioStreamLength(), 0);
    EXPECT_TRUE(decodeAll(*measured).pcm == decodeAll(*plain).pcm);
}

TEST(KRDemuxerContext, coverArtIsIgnoredAndOnlyAudioIsDecoded)
{
    QString path = TestMedia::shared().mp3WithCoverArt(tone(2, 44100, 30000));
    ASSERT_FALSE(path.isEmpty());
    for (bool disable : {true, false}) {
        auto context = KRDemuxerContext::initWithFilename(path);
        ASSERT_TRUE(context);
        context->disableVideoStream(disable);
        Decoded decoded = decodeAll(*context);
        EXPECT_TRUE(decoded.consistent);
        EXPECT_EQ(decoded.channels, 2);
        EXPECT_TRUE(decoded.pcm == TestMedia::decodeWithFfmpeg(path, 3).value_or(QByteArray()));
    }
}

TEST(KRDemuxerContext, protectedFilesAreRefusedWithAnError)
{
    QStringList files{TestMedia::shared().m4aDrmTagged(), TestMedia::shared().m4aWithSampleEntry("drmi"),
                      TestMedia::shared().m4aWithSampleEntry("aavd"), TestMedia::shared().m4aEncrypted()};
    for (const QString& path : files) {
        ASSERT_FALSE(path.isEmpty());
        std::optional<KRDemuxerContext::Error> error;
        EXPECT_FALSE(KRDemuxerContext::initWithFilename(path, &error)) << path.toStdString();
        ASSERT_TRUE(error) << path.toStdString();
        EXPECT_EQ(error->code, 1);
        EXPECT_FALSE(error->description.isEmpty());
        EXPECT_FALSE(KRDemuxerContext::initWithFilename(path));
    }
}

TEST(KRDemuxerContext, unreadableFilesFailWithoutAnError)
{
    TestMedia& media = TestMedia::shared();
    QStringList files{media.empty(), media.garbage(20000), media.garbage(3, QStringLiteral("tiny.wav")),
                      media.folder() + QStringLiteral("/missing.mp3"), QString()};
    for (const QString& path : files) {
        std::optional<KRDemuxerContext::Error> error = KRDemuxerContext::Error{7, QStringLiteral("stale")};
        auto context = KRDemuxerContext::initWithFilename(path, &error);
        EXPECT_FALSE(error) << path.toStdString();
        if (context)  // a garbage file may still probe as something; it must decode safely
            decodeAll(*context);
    }
}

TEST(KRDemuxerContext, truncatedFilesDecodeWhatIsThereAndEndCleanly)
{
    TestMedia& media = TestMedia::shared();
    QStringList sources{media.mp3Cbr(), media.mp3VbrXing(), media.m4a(), media.flac(), media.oggVorbis(),
                        media.wav(1), media.wav(4, tone(3, 8000, 1000))};
    for (const QString& source : sources) {
        ASSERT_FALSE(source.isEmpty());
        qint64 size = QFileInfo(source).size();
        for (qint64 cut : {qint64(10), qint64(100), size / 3, size - 7}) {
            QString name = QStringLiteral("cut%1-%2").arg(cut).arg(QFileInfo(source).fileName());
            QString path = media.truncated(source, cut, name);
            ASSERT_FALSE(path.isEmpty());
            auto context = KRDemuxerContext::initWithFilename(path);
            if (!context)
                continue;
            context->audioStreamLength();
            Decoded decoded = decodeAll(*context);
            EXPECT_TRUE(decoded.consistent) << name.toStdString();
            EXPECT_EQ(context->decodeNextAudioFrame(), nullptr) << "stays at the end";
        }
    }
}

TEST(KRDemuxerContext, randomlyDamagedFilesDecodeWithoutHarm)
{
    TestMedia& media = TestMedia::shared();
    QStringList sources{media.mp3VbrXing(), media.mp3WithCoverArt(), media.m4a(tone(6, 48000, 20000)),
                        media.flac(), media.oggVorbis(), media.wav(3, tone(2, 8000, 4000))};
    for (const QString& source : sources) {
        ASSERT_FALSE(source.isEmpty());
        for (uint32_t seed = 1; seed <= 6; ++seed) {
            int interval = seed % 2 ? 50 : 2000;
            QString name = QStringLiteral("damaged%1-%2").arg(seed).arg(QFileInfo(source).fileName());
            QString path = media.damaged(source, interval, seed, name);
            ASSERT_FALSE(path.isEmpty());
            auto context = KRDemuxerContext::initWithFilename(path);
            if (!context)
                continue;
            context->audioStreamLength();
            EXPECT_TRUE(decodeAll(*context).consistent) << name.toStdString();
        }
    }
}

TEST(KRDemuxerContext, contextsDecodeInParallelOnSeveralThreads)
{
    TestMedia& media = TestMedia::shared();
    QStringList files{media.mp3VbrNoXing(), media.m4a(), media.flac(), media.oggVorbis(), media.mp3WithCoverArt(),
                      media.wav(2)};
    std::vector<QByteArray> sequential;
    for (const QString& path : files) {
        ASSERT_FALSE(path.isEmpty());
        sequential.push_back(decodeFile(path).pcm);
    }
    std::vector<QByteArray> parallel(files.size());
    std::vector<std::thread> threads;
    for (qsizetype i = 0; i < files.size(); ++i) {
        threads.emplace_back([&, i] {
            auto context = KRDemuxerContext::initWithFilename(files[i]);
            if (!context)
                return;
            context->audioStreamLength();
            parallel[size_t(i)] = decodeAll(*context).pcm;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (size_t i = 0; i < sequential.size(); ++i)
        EXPECT_TRUE(parallel[i] == sequential[i]) << files[qsizetype(i)].toStdString();
}

TEST(KRDemuxerContext, emptyAudioStreamOpensAndDecodesNothing)
{
    QString path = TestMedia::shared().wav(1, tone(2, 44100, 0));
    auto context = KRDemuxerContext::initWithFilename(path);
    ASSERT_TRUE(context);
    EXPECT_EQ(context->audioSampleRate(), 44100);
    EXPECT_EQ(context->numberOfChannel(), 2);
    EXPECT_EQ(context->audioStreamLength(), 0);
    EXPECT_EQ(context->decodeNextAudioFrame(), nullptr);
}

TEST(KRDemuxerContext, fileWithoutAudioHasAnInvalidLength)
{
    QString path = TestMedia::shared().folder() + QStringLiteral("/still.png");
    ASSERT_TRUE(TestMedia::runFfmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                      QStringLiteral("color=size=16x16"), QStringLiteral("-frames:v"),
                                      QStringLiteral("1"), path}));
    auto context = KRDemuxerContext::initWithFilename(path);
    ASSERT_TRUE(context);
    context->disableVideoStream(true);
    EXPECT_EQ(context->audioStreamLength(), KRInvalidTimeValue);
    EXPECT_EQ(context->decodeNextAudioFrame(), nullptr);
}

TEST(KRDemuxerContext, supportedFormatsAreLowerCaseUniqueSortedAndIncludeProbedOnes)
{
    QStringList formats = KRDemuxerContext::supportAllFormats();
    for (const char* expected : {"wav", "aiff", "aif", "opus", "wma", "m4a", "mp3", "flac", "ogg", "caf", "mka"})
        EXPECT_TRUE(formats.contains(QString::fromLatin1(expected))) << expected;
    QStringList sorted = formats;
    sorted.sort();
    sorted.removeDuplicates();
    EXPECT_EQ(formats, sorted);
    for (const QString& format : formats) {
        EXPECT_EQ(format, format.toLower());
        EXPECT_FALSE(format.isEmpty() || format.contains(QLatin1Char('.')) || format.contains(QLatin1Char(',')));
    }
}
