#include "codec/KRMuxerContext.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRDemuxerContext.h"
#include "support/AudioProbe.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"
#include "foundation/Log.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <sys/resource.h>
#include <csignal>
#include <cstdlib>

using brindle::test::AudioProbe;
using brindle::test::TestEnvironment;
using brindle::test::TestMedia;
using brindle::test::ToneSpec;
using brindle::test::toneSamples;

namespace {

QString scratch(const QString& name)
{
    return TestEnvironment::current().makeScratchDirectory(name);
}

// Writes `pcm` (s16 interleaved) through a muxer in blocks whose sizes cycle
// through odd values, so that no block lines up with an encoder frame.
bool writeInOddBlocks(KRMuxerContext& muxer, const QByteArray& pcm, int channels)
{
    static const int64_t kSizes[] = {1000, 37, 4096, 1, 2048, 1153};
    const int64_t frameBytes = 2 * channels;
    const int64_t total = pcm.size() / frameBytes;
    int64_t at = 0;
    for (size_t turn = 0; at < total; ++turn) {
        const int64_t count = std::min(kSizes[turn % std::size(kSizes)], total - at);
        if (!muxer.writeAudioSamples(pcm.constData() + at * frameBytes, count))
            return false;
        at += count;
    }
    return muxer.finish();
}

std::shared_ptr<KRMuxerContext> makeMuxer(const QString& path, int32_t format, int64_t rate, int channels,
                                          int32_t bitrate = 224000)
{
    auto muxer = KRMuxerContext::initWithFilename(path, format);
    muxer->setSampleFormat(1);
    muxer->setNumberOfChannels(channels);
    muxer->setSamplerate(rate);
    muxer->setAudioBitrate(bitrate);
    muxer->setTitle(QStringLiteral("Brindle tone – ünïcode"));
    return muxer;
}

// Files left in a folder (the temporary names included).
QStringList filesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
}

TEST(KRMuxerContext, WritesWavWithTheExactSamplesRateChannelsAndTitle)
{
    const QString folder = scratch(QStringLiteral("muxer-wav"));
    const ToneSpec spec{2, 48000, 48000 * 3 / 2 + 77, 3, 0.7, 0.02};
    const QByteArray pcm = toneSamples(spec, 1);
    const QString path = folder + QStringLiteral("/tone.wav");
    auto muxer = makeMuxer(path, KRMuxerContext::kFormatWAV, 48000, 2);
    ASSERT_TRUE(muxer->open()) << qPrintable(muxer->errorMessage());
    ASSERT_TRUE(writeInOddBlocks(*muxer, pcm, 2)) << qPrintable(muxer->errorMessage());
    EXPECT_EQ(muxer->numberOfSamplesWritten(), spec.frames);

    const auto decoded = TestMedia::decodeWithFfmpeg(path, 1);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(*decoded == pcm) << "decoded " << decoded->size() << " bytes, wrote " << pcm.size();
    const auto probe = AudioProbe::ofFile(path);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->codecName, QStringLiteral("pcm_s16le"));
    EXPECT_EQ(probe->sampleRate, 48000);
    EXPECT_EQ(probe->channels, 2);
    EXPECT_EQ(probe->title, QStringLiteral("Brindle tone – ünïcode"));
    EXPECT_EQ(filesIn(folder), QStringList{QStringLiteral("tone.wav")});
}

TEST(KRMuxerContext, WavTakesFloatInputAndOddRatesAsTheyAre)
{
    const QString folder = scratch(QStringLiteral("muxer-wav-float"));
    const ToneSpec spec{1, 22500, 22500, 5, 0.5, 0.0};
    const QByteArray pcm = toneSamples(spec, 3);
    const QString path = folder + QStringLiteral("/float.wav");
    auto muxer = KRMuxerContext::initWithFilename(path, KRMuxerContext::kFormatWAV);
    muxer->setSampleFormat(3);
    muxer->setNumberOfChannels(1);
    muxer->setSamplerate(22500);
    ASSERT_TRUE(muxer->open()) << qPrintable(muxer->errorMessage());
    EXPECT_EQ(muxer->encoderSamplerate(), 22500);
    ASSERT_TRUE(muxer->writeAudioSamples(pcm.constData(), spec.frames));
    ASSERT_TRUE(muxer->finish());

    const auto decoded = TestMedia::decodeWithFfmpeg(path, 1);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), spec.frames * 2);
    const auto* samples = reinterpret_cast<const int16_t*>(decoded->constData());
    for (int64_t frame = 0; frame < spec.frames; frame += 997)
        EXPECT_NEAR(samples[frame], brindle::test::toneValue(spec, frame, 0) * 32767, 2) << "frame " << frame;
}

TEST(KRMuxerContext, WritesMp3AtEachBitrateWithTheLengthOfTheInput)
{
    if (!TestMedia::ffmpegAvailable())
        GTEST_SKIP() << "no ffmpeg program";
    const QString folder = scratch(QStringLiteral("muxer-mp3"));
    const ToneSpec spec{2, 44100, 44100 * 2 + 500, 9, 0.5, 0.01};
    const QByteArray pcm = toneSamples(spec, 1);
    for (int32_t bitrate : {128000, 224000, 320000}) {
        SCOPED_TRACE(bitrate);
        const QString path = folder + QStringLiteral("/tone-%1.mp3").arg(bitrate);
        auto muxer = makeMuxer(path, KRMuxerContext::kFormatMP3, 44100, 2, bitrate);
        ASSERT_TRUE(muxer->open()) << qPrintable(muxer->errorMessage());
        ASSERT_TRUE(writeInOddBlocks(*muxer, pcm, 2)) << qPrintable(muxer->errorMessage());
        const auto probe = AudioProbe::ofFile(path);
        ASSERT_TRUE(probe);
        EXPECT_EQ(probe->codecName, QStringLiteral("mp3"));
        EXPECT_EQ(probe->sampleRate, 44100);
        EXPECT_EQ(probe->channels, 2);
        EXPECT_EQ(probe->bitRate, bitrate);
        EXPECT_EQ(probe->title, QStringLiteral("Brindle tone – ünïcode"));
        EXPECT_NEAR(probe->duration, double(spec.frames) / 44100, 0.03);
        // The decoder trims the encoder's delay and padding: the same length comes back.
        const auto decoded = TestMedia::decodeWithFfmpeg(path, 1);
        ASSERT_TRUE(decoded);
        EXPECT_NEAR(double(decoded->size() / 4), double(spec.frames), 1152.0);
    }
}

TEST(KRMuxerContext, ResamplesRatesTheEncoderRefusesToTheNearestItTakes)
{
    if (!TestMedia::ffmpegAvailable())
        GTEST_SKIP() << "no ffmpeg program";
    const QString folder = scratch(QStringLiteral("muxer-resample"));
    struct Case {
        int32_t format;
        int64_t rate;
        int64_t written;
        const char* name;
    };
    for (const Case& c : {Case{KRMuxerContext::kFormatM4A, 22500, 22050, "low.m4a"},
                          Case{KRMuxerContext::kFormatM4A, 96000, 96000, "high.m4a"},
                          Case{KRMuxerContext::kFormatMP3, 96000, 48000, "high.mp3"}}) {
        SCOPED_TRACE(c.name);
        const ToneSpec spec{2, int(c.rate), c.rate * 2, 4, 0.5, 0.0};
        const QString path = folder + QLatin1Char('/') + QLatin1String(c.name);
        QStringList lines;
        auto previous = brindle::setLogSink([&lines](const QString& line) { lines.append(line); });
        auto muxer = makeMuxer(path, c.format, c.rate, 2, 128000);
        const bool opened = muxer->open();
        brindle::setLogSink(previous);
        ASSERT_TRUE(opened) << qPrintable(muxer->errorMessage());
        EXPECT_EQ(muxer->encoderSamplerate(), c.written);
        EXPECT_EQ(lines.filter(QStringLiteral("resampled to %1 Hz").arg(c.written)).size(),
                  c.written == c.rate ? 0 : 1);
        ASSERT_TRUE(writeInOddBlocks(*muxer, toneSamples(spec, 1), 2)) << qPrintable(muxer->errorMessage());

        const auto probe = AudioProbe::ofFile(path);
        ASSERT_TRUE(probe);
        EXPECT_EQ(probe->sampleRate, c.written);
        EXPECT_EQ(probe->channels, 2);
        EXPECT_NEAR(probe->duration, 2.0, 0.05);
        // The tone survives the conversion: channel 0 is a 200 Hz sine, so
        // its samples a quarter period apart are not all near zero.
        auto demuxer = KRDemuxerContext::initWithFilename(path);
        ASSERT_TRUE(demuxer);
        int64_t frames = 0;
        double energy = 0;
        while (auto frame = demuxer->decodeNextAudioFrame()) {
            const auto* samples = reinterpret_cast<const float*>(frame->bytesAtPlanerIndex(0));
            ASSERT_EQ(frame->sampleFormat(), 3);
            for (int32_t i = 0; i < frame->numberOfSamples(); ++i)
                energy += double(samples[i * 2]) * samples[i * 2];
            frames += frame->numberOfSamples();
        }
        EXPECT_NEAR(double(frames), double(c.written) * 2, c.written / 20.0);
        EXPECT_NEAR(energy / double(frames), 0.125, 0.02);  // a sine of peak 0.5
    }
}

TEST(KRMuxerContext, RefusesBadSettingsAndUnwritablePathsWithAMessageAndNoFile)
{
    const QString folder = scratch(QStringLiteral("muxer-refusals"));
    auto missingFolder = makeMuxer(folder + QStringLiteral("/no/such/folder/x.wav"), KRMuxerContext::kFormatWAV,
                                   48000, 2);
    EXPECT_FALSE(missingFolder->open());
    EXPECT_TRUE(missingFolder->errorMessage().contains(QStringLiteral("cannot write to"))) << qPrintable(missingFolder->errorMessage());
    const int16_t block[4] = {1, 2, 3, 4};
    EXPECT_FALSE(missingFolder->writeAudioSamples(block, 2));
    EXPECT_FALSE(missingFolder->finish());

    auto unknownFormat = makeMuxer(folder + QStringLiteral("/x.ogg"), 103, 48000, 2);
    EXPECT_FALSE(unknownFormat->open());
    EXPECT_EQ(unknownFormat->errorMessage(), QStringLiteral("unknown export format code 103"));

    auto badRate = makeMuxer(folder + QStringLiteral("/x.mp3"), KRMuxerContext::kFormatMP3, 0, 2);
    EXPECT_FALSE(badRate->open());
    auto badChannels = makeMuxer(folder + QStringLiteral("/x.m4a"), KRMuxerContext::kFormatM4A, 48000, 0);
    EXPECT_FALSE(badChannels->open());
    auto planar = makeMuxer(folder + QStringLiteral("/y.wav"), KRMuxerContext::kFormatWAV, 48000, 2);
    planar->setSampleFormat(8);
    EXPECT_FALSE(planar->open());

    // The target is a folder: everything is written, then the rename fails.
    QDir(folder).mkdir(QStringLiteral("taken.wav"));
    auto onFolder = makeMuxer(folder + QStringLiteral("/taken.wav"), KRMuxerContext::kFormatWAV, 48000, 2);
    ASSERT_TRUE(onFolder->open());
    EXPECT_TRUE(onFolder->writeAudioSamples(block, 2));
    EXPECT_FALSE(onFolder->finish());
    EXPECT_TRUE(onFolder->errorMessage().contains(QStringLiteral("cannot move the finished file")));
    EXPECT_TRUE(filesIn(folder).isEmpty()) << qPrintable(filesIn(folder).join(QLatin1Char(',')));
}

TEST(KRMuxerContext, AFailedOrAbandonedExportLeavesAnExistingFileAsItWas)
{
    const QString folder = scratch(QStringLiteral("muxer-keep"));
    const QString path = folder + QStringLiteral("/keep.wav");
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("previous export");
    }
    const QByteArray pcm = toneSamples(ToneSpec{2, 48000, 4800}, 1);
    {
        auto aborted = makeMuxer(path, KRMuxerContext::kFormatWAV, 48000, 2);
        ASSERT_TRUE(aborted->open());
        ASSERT_TRUE(aborted->writeAudioSamples(pcm.constData(), 4800));
        aborted->abort(QStringLiteral("Export cancelled"));
        EXPECT_EQ(aborted->errorMessage(), QStringLiteral("Export cancelled"));
        EXPECT_FALSE(aborted->finish());
    }
    {
        auto dropped = makeMuxer(path, KRMuxerContext::kFormatWAV, 48000, 2);
        ASSERT_TRUE(dropped->open());
        ASSERT_TRUE(dropped->writeAudioSamples(pcm.constData(), 4800));
    }
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("previous export"));
    EXPECT_EQ(filesIn(folder), QStringList{QStringLiteral("keep.wav")});
}

void writeUnderAFileSizeLimit(const QString& folder, const QString& path, const QByteArray& pcm)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    limit.rlim_cur = limit.rlim_max = 256 * 1024;
    setrlimit(RLIMIT_FSIZE, &limit);
    auto muxer = makeMuxer(path, KRMuxerContext::kFormatWAV, 48000, 2);
    bool written = muxer->open();
    written = written && muxer->writeAudioSamples(pcm.constData(), pcm.size() / 4);
    written = written && muxer->finish();
    const bool reported = muxer->errorMessage().contains(QStringLiteral("cannot"));
    std::exit(!written && reported && filesIn(folder).isEmpty() ? 0 : 1);
}

// A file-size limit makes the writes fail the way a full disk does; the
// death-test child keeps the limit away from the other tests.
TEST(KRMuxerContextDeathTest, AFullDiskFailsTheExportWithAMessage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const QString folder = scratch(QStringLiteral("muxer-full"));
    const QString path = folder + QStringLiteral("/full.wav");
    const QByteArray pcm = toneSamples(ToneSpec{2, 48000, 48000 * 4}, 1);
    EXPECT_EXIT(writeUnderAFileSizeLimit(folder, path, pcm), ::testing::ExitedWithCode(0), "");
}

}  // namespace
