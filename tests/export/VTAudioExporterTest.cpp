#include "export/VTAudioExporter.h"

#include "model/ModelFixtures.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRMuxerContext.h"
#include "codec/KRTimebase.h"
#include "export/KRExportSettings.h"
#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"
#include "support/AudioProbe.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QUrl>

#include <cmath>

using brindle::test::AudioProbe;
using brindle::test::clipAt;
using brindle::test::mediaWithSamples;
using brindle::test::samples16;
using brindle::test::TestMedia;

namespace {

constexpr int64_t kBlock = 2048;

QString scratch(const QString& name)
{
    return brindle::test::TestEnvironment::current().makeScratchDirectory(name);
}

std::shared_ptr<VTProject> projectNamed(const QString& title, const std::vector<VTProject::ClipList>& tracks)
{
    auto project = brindle::test::projectWith(tracks);
    project->setUrl(QUrl::fromLocalFile(QStringLiteral("/projects/%1.loomwick").arg(title)));
    return project;
}

// 2.5 s of a stereo ramp at 48000 Hz, s16: left counts up, right down, so
// every frame is distinct and a misplaced block shows.
QString rampMedia()
{
    return mediaWithSamples(QStringLiteral("export-ramp"), 1, 2, 48000, samples16(120000, 2, [](int64_t frame, int channel) {
                                return (channel == 0 ? 1 : -1) * int(frame % 30000);
                            }));
}

// 1.5 s of a 440 Hz stereo tone at 44100 Hz: mixed at 48000 it is converted.
QString toneMedia44100()
{
    return mediaWithSamples(QStringLiteral("export-tone"), 1, 2, 44100, samples16(66150, 2, [](int64_t frame, int channel) {
                                return int(12000 * std::sin(2 * M_PI * 440 * frame / 44100.0 + channel));
                            }));
}

// The project's mix from its start, pulled the way an export consumes it.
QByteArray pullWholeMix(VTProject& project, int64_t rate)
{
    VTMixContext context(rate, 2, 1);
    project.startMixWithContext(context);
    project.seekToTimestamp(0, context);
    QByteArray mix;
    std::vector<char> buffer(kBlock * 4);
    for (int guard = 0; guard < 100000; ++guard) {
        std::fill(buffer.begin(), buffer.end(), 0);
        bool appended = false;
        const int64_t n = project.nextSample(buffer.data(), kBlock, &appended, context);
        if (n == brindle::MixSource::kEndOfSource)
            break;
        const int64_t frames = n == 0 ? kBlock : std::min(n, kBlock);
        mix.append(buffer.data() + (appended ? (kBlock - frames) * 4 : 0), frames * 4);
    }
    project.endMixWithContext(context);
    return mix;
}

// Runs an export on the main queue and waits for its completion.
struct ExportRun {
    std::vector<std::pair<QString, QVariant>> events;
    int result = -1;
};
ExportRun exportAndWait(VTAudioExporter& exporter, const QString& path, int32_t formatType)
{
    auto run = std::make_shared<ExportRun>();
    exporter.exportAduioToFile(path, formatType, [run](const QString& action, const QVariant& value) {
        run->events.emplace_back(action, value);
        if (action == KRMuxerTaskActionComplete)
            run->result = value.toInt();
    });
    EXPECT_TRUE(brindle::runMainQueueUntil([run] { return run->result >= 0; }, 120000));
    return *run;
}

// The ramp starts at 1 s on the lower track, the converted tone with gain
// and fade-in on the upper one after it, on a block boundary (93 × 2048
// frames). The block in which the ramp begins comes back as its content only
// (the last n frames): its leading silence is not written, so the ramp's
// first frame lands on that block's first frame, 48000 − 48000 % 2048.
// Whole silent blocks before it are written in full.
TEST(VTAudioExporter, WavHoldsTheProjectsOwnPullFromItsStartWithItsTitleAndReportsProgressInOrder)
{
    auto tone = clipAt(3968, 0, toneMedia44100());
    tone->setVolume(0.5);
    tone->setDurationOfFadeIn(300);
    tone->setEnableFadeIn(true);
    auto project = projectNamed(QStringLiteral("Two Tracks"), {{tone}, {clipAt(1000, 0, rampMedia())}});
    project->setTimePosition(2000);  // an export always starts at 0
    auto exporter = VTAudioExporter::initWithProject(project);
    const QString path = scratch(QStringLiteral("export-wav")) + QStringLiteral("/Two Tracks.wav");
    const ExportRun run = exportAndWait(*exporter, path, KRExportSettings::kFormatTypeWAV);
    ASSERT_EQ(run.result, 0);
    ASSERT_GE(run.events.size(), 3u);
    EXPECT_EQ(run.events.front().first, KRMuxerTaskActionStart);
    EXPECT_EQ(run.events.back().first, KRMuxerTaskActionComplete);
    float last = 0;
    for (size_t i = 1; i + 1 < run.events.size(); ++i) {
        EXPECT_EQ(run.events[i].first, KRMuxerTaskActionProgress);
        EXPECT_GT(run.events[i].second.toFloat(), last);
        last = run.events[i].second.toFloat();
    }
    EXPECT_FLOAT_EQ(last, 1.0f);
    EXPECT_EQ(exporter->outLength(), project->duration() * KRTimebase / 1000);

    const auto written = TestMedia::decodeWithFfmpeg(path, 1);
    ASSERT_TRUE(written);
    EXPECT_TRUE(*written == pullWholeMix(*project, 48000));
    EXPECT_EQ(exporter->outNumberOfSamples() * 4, written->size());
    // The whole project, and at most one block of media past its end.
    const int64_t projectFrames = project->duration() * 48000 / 1000;
    EXPECT_GE(exporter->outNumberOfSamples(), projectFrames);
    EXPECT_LE(exporter->outNumberOfSamples(), projectFrames + kBlock);
    const auto* samples = reinterpret_cast<const int16_t*>(written->constData());
    const int64_t start = 48000 - 48000 % kBlock;
    ASSERT_GE(written->size() / 4, start + 120000);
    for (int64_t frame = 0; frame < start; ++frame)
        ASSERT_EQ(samples[frame * 2], 0) << "frame " << frame;
    for (int64_t frame = 0; frame < 120000; ++frame) {  // the media, frame for frame (direct read, gain 1)
        ASSERT_EQ(samples[(start + frame) * 2], frame % 30000) << "media frame " << frame;
        ASSERT_EQ(samples[(start + frame) * 2 + 1], -(frame % 30000)) << "media frame " << frame;
    }

    const auto probe = AudioProbe::ofFile(path);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->sampleRate, 48000);
    EXPECT_EQ(probe->channels, 2);
    EXPECT_EQ(probe->title, QStringLiteral("Two Tracks"));
}

TEST(VTAudioExporter, M4aAt22500IsWrittenAt22050AndMp3KeepsTheChosenRateAndBitrate)
{
    if (!TestMedia::ffmpegAvailable())
        GTEST_SKIP() << "no ffmpeg program";
    const QString folder = scratch(QStringLiteral("export-encoded"));
    auto project = projectNamed(QStringLiteral("Encoded"), {{clipAt(250, 0, toneMedia44100())}});
    const double seconds = project->duration() / 1000.0;
    KRExportSettings m4aAt22500;
    m4aAt22500.setFormatTitle(KRExportSettings::supportFormats().at(1));
    m4aAt22500.formatChanged();
    m4aAt22500.setSamplerateTitle(QStringLiteral("22.5KHz"));
    struct Case {
        QString file;
        KRExportSettings settings;
        QString codec;
        int64_t rate, fileRate, bitrate;
        double slack;  // seconds the encoder may add beyond one block
    };
    const Case cases[] = {{QStringLiteral("/low.m4a"), m4aAt22500, QStringLiteral("aac"), 22500, 22050, 0, 0.03},
                          {QStringLiteral("/default.mp3"), KRExportSettings(), QStringLiteral("mp3"), 48000, 48000, 224000, 0.05}};
    for (const Case& c : cases) {
        brindle::test::LogCapture log;
        const auto result = VTAudioExporter::exportProjectToFile(project, folder + c.file,
                                                                 VTAudioExporter::Options::withSettings(c.settings));
        ASSERT_EQ(result.result, 0) << qPrintable(result.errorMessage);
        EXPECT_EQ(result.encoderSamplerate, c.fileRate);
        EXPECT_EQ(log.lines().filter(QStringLiteral("resampled to 22050 Hz")).size(), c.rate == c.fileRate ? 0 : 1);
        const auto probe = AudioProbe::ofFile(folder + c.file);
        ASSERT_TRUE(probe);
        EXPECT_EQ(probe->codecName, c.codec);
        EXPECT_EQ(probe->sampleRate, c.fileRate);
        EXPECT_EQ(probe->channels, 2);
        if (c.bitrate) {
            EXPECT_EQ(probe->bitRate, c.bitrate);
        }
        EXPECT_EQ(probe->title, QStringLiteral("Encoded"));
        EXPECT_GE(probe->duration, seconds - 0.03);
        EXPECT_LE(probe->duration, seconds + double(kBlock) / double(c.rate) + c.slack);
    }
}

TEST(VTAudioExporter, RefusalsAndWriteFailuresCompleteWithOneAndLeaveNoFile)
{
    const QString folder = scratch(QStringLiteral("export-failures"));
    auto empty = VTAudioExporter::initWithProject(projectNamed(QStringLiteral("Empty"), {}));
    ExportRun run = exportAndWait(*empty, folder + QStringLiteral("/empty.wav"), 102);
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(empty->errorMessage(), QStringLiteral("the project is empty; there is nothing to export"));

    auto project = projectNamed(QStringLiteral("Fails"), {{clipAt(0, 0, rampMedia())}});
    auto exporter = VTAudioExporter::initWithProject(project);
    run = exportAndWait(*exporter, folder + QStringLiteral("/missing/folder/x.m4a"), 101);
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(run.events.front().first, KRMuxerTaskActionStart);

    VTAudioExporter::Options doubles;
    doubles.sampleFormat = 4;
    const auto refused = VTAudioExporter::exportProjectToFile(project, folder + QStringLiteral("/d.wav"), doubles);
    EXPECT_EQ(refused.result, 1);
    EXPECT_EQ(refused.errorMessage, QStringLiteral("the mix cannot produce sample format 4"));
    EXPECT_TRUE(QDir(folder).entryList(QDir::Files | QDir::Hidden).isEmpty());

    // A second export while one runs is refused; once it has completed, the
    // next one runs.
    auto first = exporter->exportAduioToFile(folder + QStringLiteral("/one.wav"), 102, {}, nullptr);
    ASSERT_TRUE(first);
    auto second = exporter->exportAduioToFile(folder + QStringLiteral("/two.wav"), 102, {}, nullptr);
    if (!first->isFinished()) {
        EXPECT_FALSE(second);
    }
    ASSERT_TRUE(first->waitUntilFinished(60000));
    EXPECT_EQ(first->result(), 0);
    auto third = exporter->exportAduioToFile(folder + QStringLiteral("/three.wav"), 102, {}, nullptr);
    ASSERT_TRUE(third);
    ASSERT_TRUE(third->waitUntilFinished(60000));
    EXPECT_EQ(third->result(), 0);
}

TEST(VTAudioExporter, PullsFullSilentBlocksAndRecyclesOneFrameForTheMuxer)
{
    auto project = projectNamed(QStringLiteral("Blocks"), {{clipAt(100, 0, toneMedia44100())}, {clipAt(3000, 0, rampMedia())}});
    auto exporter = VTAudioExporter::initWithProject(project);
    auto mixContext = VTMixContext::initWithSamplerate(48000, 2, 1);
    project->startMixWithContext(*mixContext);
    project->seekToTimestamp(0, *mixContext);
    auto task = KRMuxerTask::initWithMuxerContext(KRMuxerContext::initWithFilename(QStringLiteral("/unused"), 102));
    task->setUserObjectContext(mixContext);

    const KRAudioFrame2* firstFrame = nullptr;
    const uint8_t* firstBytes = nullptr;
    int64_t total = 0;
    int silentBlocks = 0;
    while (auto frame = exporter->KRMuxerTaskGetAudioFrame(*task)) {
        ASSERT_GE(frame->numberOfSamples(), 1);
        ASSERT_LE(frame->numberOfSamples(), kBlock);
        EXPECT_EQ(frame->sampleRate(), 48000);
        EXPECT_EQ(frame->numberOfChannel(), 2);
        if (!firstFrame) {
            firstFrame = frame.get();
            firstBytes = frame->bytesAtPlanerIndex(0);
        }
        EXPECT_EQ(frame.get(), firstFrame);
        EXPECT_EQ(frame->bytesAtPlanerIndex(0), firstBytes);
        const auto* samples = reinterpret_cast<const int16_t*>(frame->bytesAtPlanerIndex(0));
        if (frame->numberOfSamples() == kBlock &&
            std::all_of(samples, samples + kBlock * 2, [](int16_t s) { return s == 0; }))
            ++silentBlocks;
        total += frame->numberOfSamples();
    }
    EXPECT_EQ(total, exporter->outNumberOfSamples());
    // The 1.5 s tone ends at 1.6 s and the ramp starts at 3 s: the gap is
    // delivered as whole blocks of silence.
    EXPECT_GE(silentBlocks, (3000 - 1600) * 48 / kBlock - 1);
    EXPECT_FALSE(exporter->KRMuxerTaskGetVideoFrame(*task));
}

}  // namespace
