// Export writing: the muxer context (formats, rates, refusals, a file that
// is only ever replaced whole) and the task that feeds it on its own thread.
#include "codec/KRMuxerContext.h"
#include "codec/KRMuxerTask.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRDemuxerContext.h"
#include "codec/KRTimebase.h"
#include "foundation/Dispatch.h"
#include "foundation/Log.h"
#include "support/AudioProbe.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <sys/resource.h>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <vector>

using brindle::test::AudioProbe;
using brindle::test::TestEnvironment;
using brindle::test::TestMedia;
using brindle::test::ToneSpec;
using brindle::test::toneSamples;

namespace {

const QString kTitle = QStringLiteral("Brindle tone – ünïcode");

QString scratch(const QString& name)
{
    return TestEnvironment::current().makeScratchDirectory(name);
}

// Files left in a folder (the temporary names included).
QStringList filesIn(const QString& folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Writes `pcm` (interleaved, `frameBytes` per frame) through a muxer in blocks
// whose sizes cycle through odd values, so that no block lines up with an
// encoder frame.
bool writeInOddBlocks(KRMuxerContext& muxer, const QByteArray& pcm, int64_t frameBytes)
{
    static const int64_t kSizes[] = {1000, 37, 4096, 1, 2048, 1153};
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
                                          int32_t bitrate = 224000, int32_t sampleFormat = 1)
{
    auto muxer = KRMuxerContext::initWithFilename(path, format);
    muxer->setSampleFormat(sampleFormat);
    muxer->setNumberOfChannels(channels);
    muxer->setSamplerate(rate);
    muxer->setAudioBitrate(bitrate);
    muxer->setTitle(kTitle);
    return muxer;
}

// Hands out a tone in blocks of `blockFrames`, noting whether it is ever asked on the main thread.
class ToneSource final : public KRMuxerTaskDataSource {
public:
    ToneSource(const ToneSpec& tone, int64_t blockFrames)
        : m_tone(tone), m_pcm(toneSamples(tone, 1)), m_blockFrames(blockFrames)
    {
    }
    std::shared_ptr<KRAudioFrame2> KRMuxerTaskGetAudioFrame(KRMuxerTask&) override
    {
        pulledOnMainThread = pulledOnMainThread || brindle::isMainThread();
        if (slow)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const int64_t count = std::min(m_blockFrames, m_tone.frames - m_at);
        if (count <= 0)
            return nullptr;
        auto frame = KRAudioFrame2::initWithSampleFormat(1, m_tone.channels, m_tone.sampleRate, int32_t(count),
                                                         m_pcm.constData() + m_at * 2 * m_tone.channels);
        m_at += count;
        return frame;
    }
    std::shared_ptr<KRVideoFrame> KRMuxerTaskGetVideoFrame(KRMuxerTask&) override { return nullptr; }
    int64_t KRMuxerTaskLength(KRMuxerTask&) override { return m_tone.frames * KRTimebase / m_tone.sampleRate; }

    std::atomic<bool> pulledOnMainThread{false};
    bool slow = false;

private:
    ToneSpec m_tone;
    QByteArray m_pcm;
    int64_t m_blockFrames;
    int64_t m_at = 0;
};

std::shared_ptr<KRMuxerTask> makeTask(const QString& path, const ToneSpec& tone, std::shared_ptr<ToneSource> source)
{
    auto task = KRMuxerTask::initWithMuxerContext(makeMuxer(path, KRMuxerContext::kFormatWAV, tone.sampleRate, tone.channels));
    task->setDataSource(std::move(source));
    return task;
}

// Every format keeps the input's channels, title, length and rate (or, where
// the encoder refuses the rate, the nearest it takes, with a log line). WAV
// holds 16-bit input exactly and float input rounded to 16 bits; MP3 keeps
// each bit rate; in the encoded formats the tone survives: channel 0 is a
// 200 Hz sine of peak 0.5, so of mean square 0.125.
TEST(KRMuxerContext, EveryFormatKeepsTheToneChannelsTitleLengthAndRate)
{
    if (!TestMedia::ffmpegAvailable())
        GTEST_SKIP() << "no ffmpeg program";
    const QString folder = scratch(QStringLiteral("muxer-formats"));
    using M = KRMuxerContext;
    struct Case {
        int32_t format;
        int32_t sampleFormat;
        ToneSpec tone;
        int32_t bitrate;
        int64_t written;  // the rate in the file
    };
    const Case cases[] = {
        {M::kFormatWAV, 1, {2, 48000, 72077, 3, 0.7, 0.02}, 0, 48000},
        {M::kFormatWAV, 3, {1, 22500, 22500, 5, 0.5, 0.0}, 0, 22500},
        {M::kFormatMP3, 1, {2, 44100, 88700, 4, 0.5, 0.0}, 128000, 44100},
        {M::kFormatMP3, 1, {2, 44100, 88700, 4, 0.5, 0.0}, 224000, 44100},
        {M::kFormatMP3, 1, {2, 44100, 88700, 4, 0.5, 0.0}, 320000, 44100},
        {M::kFormatM4A, 1, {2, 22500, 45500, 4, 0.5, 0.0}, 128000, 22050},
        {M::kFormatM4A, 1, {2, 96000, 192500, 4, 0.5, 0.0}, 128000, 96000},
        {M::kFormatMP3, 1, {2, 96000, 192500, 4, 0.5, 0.0}, 128000, 48000},
    };
    for (const Case& c : cases) {
        const int64_t rate = c.tone.sampleRate;
        const QString path = folder + QStringLiteral("/%1-%2-%3.%4").arg(rate).arg(c.bitrate).arg(c.sampleFormat)
                                          .arg(M::extensionWithFormat(c.format));
        SCOPED_TRACE(path.toStdString());
        QStringList lines;
        auto previous = brindle::setLogSink([&lines](const QString& line) { lines.append(line); });
        auto muxer = makeMuxer(path, c.format, rate, c.tone.channels, c.bitrate, c.sampleFormat);
        const bool opened = muxer->open();
        brindle::setLogSink(previous);
        ASSERT_TRUE(opened) << qPrintable(muxer->errorMessage());
        EXPECT_EQ(muxer->encoderSamplerate(), c.written);
        EXPECT_EQ(lines.filter(QStringLiteral("resampled to %1 Hz").arg(c.written)).size(), c.written == rate ? 0 : 1);
        ASSERT_TRUE(writeInOddBlocks(*muxer, toneSamples(c.tone, c.sampleFormat),
                                     c.tone.channels * KRAudioFrame2::bytesForSampleFormat(c.sampleFormat)))
            << qPrintable(muxer->errorMessage());
        EXPECT_EQ(muxer->numberOfSamplesWritten(), c.tone.frames);

        const auto probe = AudioProbe::ofFile(path);
        ASSERT_TRUE(probe);
        const char* codecs[] = {"mp3", "aac", "pcm_s16le"};
        EXPECT_EQ(probe->codecName, QLatin1String(codecs[c.format - M::kFormatMP3]));
        EXPECT_EQ(probe->sampleRate, c.written);
        EXPECT_EQ(probe->channels, c.tone.channels);
        EXPECT_EQ(probe->title, kTitle);
        const bool plain = c.format != M::kFormatM4A && c.written == rate;
        EXPECT_NEAR(probe->duration, double(c.tone.frames) / double(rate), plain ? 0.03 : 0.05);
        if (c.format == M::kFormatWAV) {
            const auto decoded = TestMedia::decodeWithFfmpeg(path, 1);
            const QByteArray expected = toneSamples(c.tone, 1);
            ASSERT_TRUE(decoded && decoded->size() == expected.size());
            const auto* got = reinterpret_cast<const int16_t*>(decoded->constData());
            const auto* wanted = reinterpret_cast<const int16_t*>(expected.constData());
            for (qsizetype i = 0; i < expected.size() / 2; ++i)
                ASSERT_NEAR(got[i], wanted[i], c.sampleFormat == 1 ? 0 : 2) << "sample " << i;
            continue;
        }
        if (plain) {
            EXPECT_EQ(probe->bitRate, c.bitrate);
        }
        // The decoder trims the encoder's delay and padding: the same length comes back.
        auto demuxer = KRDemuxerContext::initWithFilename(path);
        ASSERT_TRUE(demuxer);
        int64_t frames = 0;
        double energy = 0;
        while (auto frame = demuxer->decodeNextAudioFrame()) {
            ASSERT_EQ(frame->sampleFormat(), 3);
            const auto* samples = reinterpret_cast<const float*>(frame->bytesAtPlanerIndex(0));
            for (int32_t i = 0; i < frame->numberOfSamples(); ++i)
                energy += double(samples[i * 2]) * samples[i * 2];
            frames += frame->numberOfSamples();
        }
        EXPECT_NEAR(double(frames), double(c.tone.frames) * double(c.written) / double(rate),
                    plain ? 1152.0 : double(c.written) / 20.0);
        EXPECT_NEAR(energy / double(frames), 0.125, 0.02);
    }
    EXPECT_EQ(filesIn(folder).size(), std::size(cases)) << "no temporary file is left";
}

// Bad settings and unwritable paths are refused with a message; a failed,
// aborted or abandoned export leaves no file of its own and an existing
// file as it was.
TEST(KRMuxerContext, FailedExportsGiveAMessageAndLeaveFilesAsTheyWere)
{
    const QString folder = scratch(QStringLiteral("muxer-refusals"));
    auto missingFolder = makeMuxer(folder + QStringLiteral("/no/such/folder/x.wav"), KRMuxerContext::kFormatWAV, 48000, 2);
    EXPECT_FALSE(missingFolder->open());
    EXPECT_TRUE(missingFolder->errorMessage().contains(QStringLiteral("cannot write to")));
    const int16_t block[4] = {1, 2, 3, 4};
    EXPECT_FALSE(missingFolder->writeAudioSamples(block, 2));
    EXPECT_FALSE(missingFolder->finish());
    auto unknownFormat = makeMuxer(folder + QStringLiteral("/x.ogg"), 103, 48000, 2);
    EXPECT_FALSE(unknownFormat->open());
    EXPECT_EQ(unknownFormat->errorMessage(), QStringLiteral("unknown export format code 103"));
    EXPECT_FALSE(makeMuxer(folder + QStringLiteral("/x.mp3"), KRMuxerContext::kFormatMP3, 0, 2)->open());
    EXPECT_FALSE(makeMuxer(folder + QStringLiteral("/x.m4a"), KRMuxerContext::kFormatM4A, 48000, 0)->open());
    EXPECT_FALSE(makeMuxer(folder + QStringLiteral("/y.wav"), KRMuxerContext::kFormatWAV, 48000, 2, 0, 8)->open())
        << "planar input";
    // The target is a folder: everything is written, then the rename fails.
    QDir(folder).mkdir(QStringLiteral("taken.wav"));
    auto onFolder = makeMuxer(folder + QStringLiteral("/taken.wav"), KRMuxerContext::kFormatWAV, 48000, 2);
    ASSERT_TRUE(onFolder->open());
    EXPECT_TRUE(onFolder->writeAudioSamples(block, 2));
    EXPECT_FALSE(onFolder->finish());
    EXPECT_TRUE(onFolder->errorMessage().contains(QStringLiteral("cannot move the finished file")));
    EXPECT_TRUE(filesIn(folder).isEmpty()) << qPrintable(filesIn(folder).join(QLatin1Char(',')));

    const QString path = folder + QStringLiteral("/keep.wav");
    QFile previous(path);
    ASSERT_TRUE(previous.open(QIODevice::WriteOnly) && previous.write("previous export") == 15);
    previous.close();
    const QByteArray pcm = toneSamples(ToneSpec{2, 48000, 4800}, 1);
    for (bool abort : {true, false}) {
        auto muxer = makeMuxer(path, KRMuxerContext::kFormatWAV, 48000, 2);
        ASSERT_TRUE(muxer->open());
        ASSERT_TRUE(muxer->writeAudioSamples(pcm.constData(), 4800));
        if (abort) {
            muxer->abort(QStringLiteral("Export cancelled"));
            EXPECT_EQ(muxer->errorMessage(), QStringLiteral("Export cancelled"));
            EXPECT_FALSE(muxer->finish());
        }
    }
    EXPECT_EQ(fileBytes(path), QByteArray("previous export"));
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
    const QByteArray pcm = toneSamples(ToneSpec{2, 48000, 48000 * 4}, 1);
    EXPECT_EXIT(writeUnderAFileSizeLimit(folder, folder + QStringLiteral("/full.wav"), pcm),
                ::testing::ExitedWithCode(0), "");
}

TEST(KRMuxerTask, PullsOnItsOwnThreadAndReportsStartRisingProgressAndSuccessOnTheMainQueue)
{
    const QString folder = scratch(QStringLiteral("task-ok"));
    const ToneSpec tone{2, 48000, 48000 * 3, 2};
    auto source = std::make_shared<ToneSource>(tone, 2048);
    auto task = makeTask(folder + QStringLiteral("/ok.wav"), tone, source);
    struct Event {
        QString action;
        QVariant value;
        bool onMainThread;
    };
    std::vector<Event> events;
    ASSERT_TRUE(task->startMuxerWithBlock([&events](const QString& action, const QVariant& value) {
        events.push_back({action, value, brindle::isMainThread()});
    }));
    EXPECT_FALSE(task->startMuxerWithBlock({}));
    ASSERT_TRUE(brindle::runMainQueueUntil(
        [&] { return !events.empty() && events.back().action == KRMuxerTaskActionComplete; }, 60000));

    EXPECT_EQ(task->result(), 0);
    EXPECT_EQ(task->numberOfSamplesWritten(), tone.frames);
    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ(events.front().action, KRMuxerTaskActionStart);
    EXPECT_EQ(events.back().value.toInt(), 0);
    float last = 0.0f;
    for (size_t i = 1; i + 1 < events.size(); ++i) {
        EXPECT_EQ(events[i].action, KRMuxerTaskActionProgress);
        EXPECT_EQ(events[i].value.typeId(), QMetaType::Float);
        EXPECT_GT(events[i].value.toFloat(), last);
        last = events[i].value.toFloat();
    }
    EXPECT_FLOAT_EQ(last, 1.0f);
    EXPECT_LE(events.size(), 103u);
    for (const Event& event : events)
        EXPECT_TRUE(event.onMainThread);
    EXPECT_FALSE(source->pulledOnMainThread);
    EXPECT_EQ(source.use_count(), 1) << "the task lets go of its data source when it ends";
    const auto decoded = TestMedia::decodeWithFfmpeg(folder + QStringLiteral("/ok.wav"), 1);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(*decoded == toneSamples(tone, 1));
}

TEST(KRMuxerTask, AFailureOrACancelCompletesWithOneAndAMessage)
{
    const QString folder = scratch(QStringLiteral("task-fail"));
    const ToneSpec tone{2, 48000, 48000 * 20, 2};
    {
        auto task = makeTask(folder + QStringLiteral("/missing/x.wav"), tone, std::make_shared<ToneSource>(tone, 2048));
        std::vector<QString> actions;
        int result = -1;
        task->setCallbackQueue(nullptr);
        ASSERT_TRUE(task->startMuxerWithBlock([&](const QString& action, const QVariant& value) {
            actions.push_back(action);
            if (action == KRMuxerTaskActionComplete)
                result = value.toInt();
        }));
        ASSERT_TRUE(task->waitUntilFinished(60000));
        EXPECT_EQ(actions, (std::vector<QString>{KRMuxerTaskActionStart, KRMuxerTaskActionComplete}));
        EXPECT_EQ(result, 1);
    }
    auto source = std::make_shared<ToneSource>(tone, 512);
    source->slow = true;
    auto task = makeTask(folder + QStringLiteral("/cancelled.wav"), tone, source);
    ASSERT_TRUE(task->startMuxerWithBlock({}));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    task->cancel();
    ASSERT_TRUE(task->waitUntilFinished(60000));
    EXPECT_EQ(task->result(), 1);
    EXPECT_EQ(task->errorMessage(), QStringLiteral("Export cancelled"));
    EXPECT_TRUE(filesIn(folder).isEmpty());

    auto noSource = KRMuxerTask::initWithMuxerContext(KRMuxerContext::initWithFilename(folder + "/n.wav", 102));
    EXPECT_FALSE(noSource->startMuxerWithBlock({}));
}

}  // namespace
