#include "codec/KRDemuxerContext.h"
#include "codec/KRTimebase.h"

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QRegularExpression>

#include <cstdlib>
#include <thread>
#include <vector>

using brindle::test::TestMedia;
using brindle::test::ToneSpec;

namespace {

struct Decoded {
    QByteArray pcm;
    int64_t samples = 0;
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
        out.consistent = out.consistent && frame->sampleFormat() == out.format &&
                         frame->sampleRate() == out.sampleRate && frame->numberOfChannel() == out.channels;
    }
    return out;
}

// Samples between a length in µs and a decoded count.
int64_t lengthError(int64_t length, const Decoded& decoded)
{
    return std::llabs(length * decoded.sampleRate / KRTimebase - decoded.samples);
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

const Fixture kFixtures[] = {
    {"u8_mono_8k", [] { return TestMedia::shared().wav(0, ToneSpec{1, 8000, 8001}); }, 0, 8000, 1, 0},
    {"s16_stereo_44k", [] { return TestMedia::shared().wav(1, ToneSpec{2, 44100, 44100}); }, 1, 44100, 2, 0},
    {"s32_six_96k", [] { return TestMedia::shared().wav(2, ToneSpec{6, 96000, 9600}); }, 2, 96000, 6, 0},
    {"flt_three_22k", [] { return TestMedia::shared().wav(3, ToneSpec{3, 22050, 30000}); }, 3, 22050, 3, 0},
    {"dbl_five_48k", [] { return TestMedia::shared().wav(4, ToneSpec{5, 48000, 4801}); }, 4, 48000, 5, 0},
    {"s24_stereo", [] { return TestMedia::shared().wav24(ToneSpec{2, 44100, 20000}); }, 2, 44100, 2, 0},
    {"mp3_cbr", [] { return TestMedia::shared().mp3Cbr(ToneSpec{2, 44100, 44100}); }, 8, 44100, 2, kMp3HeaderSlack},
    {"mp3_vbr_xing_mono", [] { return TestMedia::shared().mp3VbrXing(ToneSpec{1, 32000, 50000}); }, 8, 32000, 1, kMp3HeaderSlack},
    {"mp3_vbr_no_xing", [] { return TestMedia::shared().mp3VbrNoXing(ToneSpec{2, 44100, 100000}); }, 8, 44100, 2, 1152},
    {"mp3_cover_art", [] { return TestMedia::shared().mp3WithCoverArt(ToneSpec{2, 44100, 30000}); }, 8, 44100, 2, kMp3HeaderSlack},
    {"aac_stereo", [] { return TestMedia::shared().m4a(ToneSpec{2, 44100, 44100}); }, 8, 44100, 2, 1024},
    {"aac_six", [] { return TestMedia::shared().m4a(ToneSpec{6, 48000, 20000}); }, 8, 48000, 6, 1024},
    {"flac_s16", [] { return TestMedia::shared().flac(ToneSpec{2, 44100, 30000}); }, 1, 44100, 2, 0},
    {"vorbis", [] { return TestMedia::shared().oggVorbis(ToneSpec{2, 44100, 30000}); }, 8, 44100, 2, kVorbisSlack},
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
    EXPECT_LE(lengthError(length, ours), fixture.lengthTolerance + 1) << length << " µs, " << ours.samples;
}

INSTANTIATE_TEST_SUITE_P(EveryKind, DecodeFixture, testing::ValuesIn(kFixtures),
                         [](const testing::TestParamInfo<Fixture>& info) { return std::string(info.param.name); });

// Loud noise first, then a quiet tone: the bit rate of the first frames says
// little about the rest, so an estimate from it would be far off. Measuring
// first must not disturb decoding.
TEST(KRDemuxerContext, lengthOfVbrMp3WithoutXingHeaderIsMeasuredFromItsPacketsOnce)
{
    ToneSpec tone = ToneSpec{2, 44100, 44100 * 8};
    tone.noise = 0.9;
    tone.amplitude = 0.05;
    QString path = TestMedia::shared().mp3VbrNoXing(tone);
    ASSERT_FALSE(path.isEmpty());
    auto measured = KRDemuxerContext::initWithFilename(path);
    auto plain = KRDemuxerContext::initWithFilename(path);
    ASSERT_TRUE(measured && plain);
    int64_t length = measured->audioStreamLength();
    EXPECT_EQ(measured->audioStreamLength(), length) << "measured once, then kept";
    Decoded decoded = decodeAll(*measured);
    EXPECT_LE(lengthError(length, decoded), 1152);
    EXPECT_TRUE(decoded.pcm == decodeAll(*plain).pcm);
}

// Protected files are refused with an error (code 1); unreadable ones fail
// without one, clearing a stale error; a garbage file may still probe as
// something, and then must decode safely.
TEST(KRDemuxerContext, protectedFilesAreRefusedWithAnErrorAndUnreadableOnesWithout)
{
    TestMedia& media = TestMedia::shared();
    const std::pair<QString, bool> files[] = {
        {media.m4aDrmTagged(), true},
        {media.m4aWithSampleEntry("drmi"), true},
        {media.m4aWithSampleEntry("aavd"), true},
        {media.m4aEncrypted(), true},
        {media.empty(), false},
        {media.garbage(20000), false},
        {media.garbage(3, QStringLiteral("tiny.wav")), false},
        {media.folder() + QStringLiteral("/missing.mp3"), false},
        {QString(), false},
    };
    for (const auto& [path, isProtected] : files) {
        SCOPED_TRACE(path.toStdString());
        std::optional<KRDemuxerContext::Error> error = KRDemuxerContext::Error{7, QStringLiteral("stale")};
        auto context = KRDemuxerContext::initWithFilename(path, &error);
        EXPECT_EQ(error.has_value(), isProtected);
        if (isProtected) {
            EXPECT_FALSE(context);
            EXPECT_EQ(error->code, 1);
            EXPECT_FALSE(error->description.isEmpty());
            EXPECT_FALSE(KRDemuxerContext::initWithFilename(path));
        } else if (context) {
            decodeAll(*context);
        }
    }
}

// Files cut at several points and files with random bytes changed decode
// what is there and end cleanly, staying at the end.
TEST(KRDemuxerContext, truncatedAndDamagedFilesDecodeWhatIsThereAndEndCleanly)
{
    TestMedia& media = TestMedia::shared();
    QStringList damaged;
    for (const QString& source : {media.mp3Cbr(), media.mp3VbrXing(), media.m4a(), media.flac(), media.oggVorbis(),
                                  media.wav(1), media.wav(4, ToneSpec{3, 8000, 1000})}) {
        ASSERT_FALSE(source.isEmpty());
        const qint64 size = QFileInfo(source).size();
        for (qint64 cut : {qint64(10), qint64(100), size / 3, size - 7})
            damaged << media.truncated(source, cut, QStringLiteral("cut%1-%2").arg(cut).arg(QFileInfo(source).fileName()));
    }
    for (const QString& source : {media.mp3VbrXing(), media.mp3WithCoverArt(), media.m4a(ToneSpec{6, 48000, 20000}),
                                  media.flac(), media.oggVorbis(), media.wav(3, ToneSpec{2, 8000, 4000})}) {
        ASSERT_FALSE(source.isEmpty());
        for (uint32_t seed = 1; seed <= 6; ++seed)
            damaged << media.damaged(source, seed % 2 ? 50 : 2000, seed,
                                     QStringLiteral("damaged%1-%2").arg(seed).arg(QFileInfo(source).fileName()));
    }
    for (const QString& path : damaged) {
        ASSERT_FALSE(path.isEmpty());
        auto context = KRDemuxerContext::initWithFilename(path);
        if (!context)
            continue;
        context->audioStreamLength();
        EXPECT_TRUE(decodeAll(*context).consistent) << path.toStdString();
        EXPECT_EQ(context->decodeNextAudioFrame(), nullptr) << "stays at the end";
    }
}

// Contexts decode in parallel on several threads, and give what one
// context gives alone; a cover art stream that is not disabled (as here) is
// still not decoded.
TEST(KRDemuxerContext, contextsDecodeInParallelOnSeveralThreadsAndOnlyTheirAudio)
{
    TestMedia& media = TestMedia::shared();
    QStringList files{media.mp3VbrNoXing(), media.m4a(), media.flac(), media.oggVorbis(), media.mp3WithCoverArt(),
                      media.wav(2)};
    std::vector<QByteArray> sequential;
    for (const QString& path : files) {
        auto context = KRDemuxerContext::initWithFilename(path);
        ASSERT_TRUE(context) << path.toStdString();
        context->disableVideoStream(true);
        sequential.push_back(decodeAll(*context).pcm);
    }
    std::vector<Decoded> parallel(files.size());
    std::vector<std::thread> threads;
    for (qsizetype i = 0; i < files.size(); ++i) {
        threads.emplace_back([&, i] {
            if (auto context = KRDemuxerContext::initWithFilename(files[i])) {
                context->audioStreamLength();
                parallel[size_t(i)] = decodeAll(*context);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (size_t i = 0; i < sequential.size(); ++i) {
        EXPECT_TRUE(parallel[i].consistent);
        EXPECT_TRUE(parallel[i].pcm == sequential[i]) << files[qsizetype(i)].toStdString();
    }
}

// An empty audio stream has length 0; a file without audio (a still image)
// opens but has an invalid length. Neither decodes a frame.
TEST(KRDemuxerContext, streamsWithoutSamplesOpenAndDecodeNothing)
{
    const QString still = TestMedia::shared().folder() + QStringLiteral("/still.png");
    ASSERT_TRUE(TestMedia::runFfmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                                      QStringLiteral("color=size=16x16"), QStringLiteral("-frames:v"),
                                      QStringLiteral("1"), still}));
    const std::pair<QString, int64_t> cases[] = {{TestMedia::shared().wav(1, ToneSpec{2, 44100, 0}), 0},
                                                 {still, KRInvalidTimeValue}};
    for (const auto& [path, length] : cases) {
        auto context = KRDemuxerContext::initWithFilename(path);
        ASSERT_TRUE(context) << path.toStdString();
        context->disableVideoStream(true);
        EXPECT_EQ(context->audioStreamLength(), length);
        EXPECT_EQ(context->decodeNextAudioFrame(), nullptr);
    }
    auto empty = KRDemuxerContext::initWithFilename(cases[0].first);
    EXPECT_EQ(empty->audioSampleRate(), 44100);
    EXPECT_EQ(empty->numberOfChannel(), 2);
}

TEST(KRDemuxerContext, supportedFormatsAreLowerCaseUniqueSortedAndIncludeProbedOnes)
{
    const QStringList formats = KRDemuxerContext::supportAllFormats();
    for (const char* expected : {"wav", "aiff", "aif", "opus", "wma", "m4a", "mp3", "flac", "ogg", "caf", "mka"})
        EXPECT_TRUE(formats.contains(QString::fromLatin1(expected))) << expected;
    QStringList sorted = formats;
    sorted.sort();
    sorted.removeDuplicates();
    EXPECT_EQ(formats, sorted);
    EXPECT_EQ(formats.join(u' '), formats.join(u' ').toLower());
    EXPECT_TRUE(formats.filter(QRegularExpression(QStringLiteral("^$|[.,\\s]"))).isEmpty());
}
