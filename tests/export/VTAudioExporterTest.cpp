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
#include <cstring>

using brindle::MixSource;
using brindle::test::AudioProbe;
using brindle::test::LogCapture;
using brindle::test::mediaWithSamples;
using brindle::test::samples16;
using brindle::test::TestEnvironment;
using brindle::test::TestMedia;

namespace {

constexpr int64_t kBlock = 2048;

QString scratch(const QString& name)
{
    return TestEnvironment::current().makeScratchDirectory(name);
}

std::shared_ptr<VTClip> clipAt(const QString& media, int64_t timestamp)
{
    auto clip = VTClip::initWithDataProviderIDs(media);
    EXPECT_TRUE(clip);
    if (clip)
        clip->setTimestampOfTrack(timestamp);
    return clip;
}

std::shared_ptr<VTProject> projectNamed(const QString& title)
{
    auto project = std::make_shared<VTProject>();
    project->setUrl(QUrl::fromLocalFile(QStringLiteral("/projects/%1.loomwick").arg(title)));
    return project;
}

// 2.5 s of a stereo ramp at 48000 Hz, s16: left counts up, right down, so
// every frame is distinct and a misplaced block shows.
QString rampMedia()
{
    return mediaWithSamples(QStringLiteral("export-ramp"), 1, 2, 48000,
                            samples16(120000, 2, [](int64_t frame, int channel) {
                                const int value = int(frame % 30000);
                                return channel == 0 ? value : -value;
                            }));
}

// 1.5 s of a 440 Hz stereo tone at 44100 Hz: mixed at 48000 it is converted.
QString toneMedia44100()
{
    return mediaWithSamples(QStringLiteral("export-tone"), 1, 2, 44100,
                            samples16(66150, 2, [](int64_t frame, int channel) {
                                return int(12000 * std::sin(2 * M_PI * 440 * frame / 44100.0 + channel));
                            }));
}

// The project's mix pulled the way an export consumes it, as one byte array.
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
        if (n == MixSource::kEndOfSource)
            break;
        if (n == 0) {
            mix.append(buffer.data(), kBlock * 4);
            continue;
        }
        const int64_t frames = std::min(n, kBlock);
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

TEST(VTAudioExporter, WavHoldsTheProjectsOwnPullWithItsTitleRateAndChannels)
{
    const QString folder = scratch(QStringLiteral("export-wav"));
    auto project = projectNamed(QStringLiteral("Two Tracks"));
    auto first = clipAt(rampMedia(), 0);
    auto second = clipAt(toneMedia44100(), 700);
    second->setVolume(0.5);
    second->setDurationOfFadeIn(300);
    second->setEnableFadeIn(true);
    ASSERT_TRUE(project->importClipsAtTrackIndex({first}, 0));
    ASSERT_TRUE(project->importClipsAtTrackIndex({second}, 1));

    auto exporter = VTAudioExporter::initWithProject(project);
    VTAudioExporter::Options options;
    options.sampleRate = 48000;
    exporter->setOptions(options);
    const QString path = folder + QStringLiteral("/Two Tracks.wav");
    const ExportRun run = exportAndWait(*exporter, path, KRExportSettings::kFormatTypeWAV);
    ASSERT_EQ(run.result, 0);

    const QByteArray expected = pullWholeMix(*project, 48000);
    const auto written = TestMedia::decodeWithFfmpeg(path, 1);
    ASSERT_TRUE(written);
    EXPECT_EQ(written->size(), expected.size());
    EXPECT_TRUE(*written == expected);
    EXPECT_EQ(exporter->outNumberOfSamples() * 4, written->size());
    // The whole project, and at most one block of media past its end.
    const int64_t projectFrames = project->duration() * 48000 / 1000;
    EXPECT_GE(exporter->outNumberOfSamples(), projectFrames);
    EXPECT_LE(exporter->outNumberOfSamples(), projectFrames + kBlock);

    const auto probe = AudioProbe::ofFile(path);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->sampleRate, 48000);
    EXPECT_EQ(probe->channels, 2);
    EXPECT_EQ(probe->title, QStringLiteral("Two Tracks"));
}

// A block in which a clip begins comes back as its content only (the last n
// frames): the block's leading silence is not written, so the clip's first
// sample lands on that block's first frame, 48000 - 48000 % 2048 here. Whole
// silent blocks before it are written in full.
TEST(VTAudioExporter, AClipStartingLateFollowsWholeSilentBlocksAndOpensTheBlockItStartsIn)
{
    const QString folder = scratch(QStringLiteral("export-late"));
    auto project = projectNamed(QStringLiteral("Late"));
    ASSERT_TRUE(project->importClipsAtTrackIndex({clipAt(rampMedia(), 1000)}, 0));
    const QString path = folder + QStringLiteral("/late.wav");
    const auto result = VTAudioExporter::exportProjectToFile(project, path, {102, 48000, 224000, 1, 2, {}});
    ASSERT_EQ(result.result, 0) << qPrintable(result.errorMessage);

    const auto written = TestMedia::decodeWithFfmpeg(path, 1);
    ASSERT_TRUE(written);
    const auto* samples = reinterpret_cast<const int16_t*>(written->constData());
    const int64_t frames = written->size() / 4;
    const int64_t start = 48000 - 48000 % kBlock;
    ASSERT_GE(frames, start + 120000);
    for (int64_t frame = 0; frame < start; ++frame)
        ASSERT_EQ(samples[frame * 2], 0) << "frame " << frame;
    // The media, frame for frame, from there on (direct read, gain 1).
    for (int64_t frame = 0; frame < 120000; ++frame) {
        ASSERT_EQ(samples[(start + frame) * 2], frame % 30000) << "media frame " << frame;
        ASSERT_EQ(samples[(start + frame) * 2 + 1], -(frame % 30000)) << "media frame " << frame;
    }
}

TEST(VTAudioExporter, M4aAt22500IsWrittenAt22050AndMp3KeepsTheChosenRateAndBitrate)
{
    if (!TestMedia::ffmpegAvailable())
        GTEST_SKIP() << "no ffmpeg program";
    const QString folder = scratch(QStringLiteral("export-encoded"));
    auto project = projectNamed(QStringLiteral("Encoded"));
    ASSERT_TRUE(project->importClipsAtTrackIndex({clipAt(toneMedia44100(), 250)}, 0));
    const double seconds = project->duration() / 1000.0;

    KRExportSettings settings;
    settings.setFormatTitle(KRExportSettings::supportFormats().at(1));
    settings.formatChanged();
    settings.setSamplerateTitle(QStringLiteral("22.5KHz"));
    LogCapture log;
    const auto m4a = VTAudioExporter::exportProjectToFile(project, folder + QStringLiteral("/low.m4a"),
                                                          VTAudioExporter::Options::withSettings(settings));
    ASSERT_EQ(m4a.result, 0) << qPrintable(m4a.errorMessage);
    EXPECT_EQ(m4a.encoderSamplerate, 22050);
    EXPECT_EQ(log.lines().filter(QStringLiteral("resampled to 22050 Hz")).size(), 1);
    auto probe = AudioProbe::ofFile(folder + QStringLiteral("/low.m4a"));
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->codecName, QStringLiteral("aac"));
    EXPECT_EQ(probe->sampleRate, 22050);
    EXPECT_EQ(probe->title, QStringLiteral("Encoded"));
    EXPECT_GE(probe->duration, seconds - 0.03);
    EXPECT_LE(probe->duration, seconds + double(kBlock) / 22500 + 0.03);

    const auto mp3 = VTAudioExporter::exportProjectToFile(project, folder + QStringLiteral("/default.mp3"),
                                                          VTAudioExporter::Options::withSettings(KRExportSettings()));
    ASSERT_EQ(mp3.result, 0) << qPrintable(mp3.errorMessage);
    probe = AudioProbe::ofFile(folder + QStringLiteral("/default.mp3"));
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->codecName, QStringLiteral("mp3"));
    EXPECT_EQ(probe->sampleRate, 48000);
    EXPECT_EQ(probe->channels, 2);
    EXPECT_EQ(probe->bitRate, 224000);
    EXPECT_EQ(probe->title, QStringLiteral("Encoded"));
    EXPECT_GE(probe->duration, seconds - 0.03);
    EXPECT_LE(probe->duration, seconds + double(kBlock) / 48000 + 0.05);
}

TEST(VTAudioExporter, ReportsStartProgressAndCompletionOnTheMainQueueInOrder)
{
    const QString folder = scratch(QStringLiteral("export-progress"));
    auto project = projectNamed(QStringLiteral("Progress"));
    ASSERT_TRUE(project->importClipsAtTrackIndex({clipAt(rampMedia(), 0), clipAt(rampMedia(), 2000)}, 0));
    auto exporter = VTAudioExporter::initWithProject(project);
    const ExportRun run = exportAndWait(*exporter, folder + QStringLiteral("/p.mp3"), KRExportSettings::kFormatTypeMP3);
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
}

TEST(VTAudioExporter, RefusalsAndWriteFailuresCompleteWithOneAndLeaveNoFile)
{
    const QString folder = scratch(QStringLiteral("export-failures"));
    auto empty = VTAudioExporter::initWithProject(projectNamed(QStringLiteral("Empty")));
    ExportRun run = exportAndWait(*empty, folder + QStringLiteral("/empty.wav"), 102);
    EXPECT_EQ(run.result, 1);
    EXPECT_EQ(empty->errorMessage(), QStringLiteral("the project is empty; there is nothing to export"));

    auto project = projectNamed(QStringLiteral("Fails"));
    ASSERT_TRUE(project->importClipsAtTrackIndex({clipAt(rampMedia(), 0)}, 0));
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

    // A second export while one runs is refused; the first one completes.
    auto first = exporter->exportAduioToFile(folder + QStringLiteral("/one.wav"), 102, {}, nullptr);
    ASSERT_TRUE(first);
    auto second = exporter->exportAduioToFile(folder + QStringLiteral("/two.wav"), 102, {}, nullptr);
    if (!first->isFinished()) {
        EXPECT_FALSE(second);
    }
    ASSERT_TRUE(first->waitUntilFinished(60000));
    EXPECT_EQ(first->result(), 0);
}

TEST(VTAudioExporter, PullsFullSilentBlocksAndRecyclesOneFrameForTheMuxer)
{
    auto project = projectNamed(QStringLiteral("Blocks"));
    ASSERT_TRUE(project->importClipsAtTrackIndex({clipAt(toneMedia44100(), 100)}, 0));
    ASSERT_TRUE(project->importClipsAtTrackIndex({clipAt(rampMedia(), 3000)}, 1));
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
    for (;;) {
        auto frame = exporter->KRMuxerTaskGetAudioFrame(*task);
        if (!frame)
            break;
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
