// Mixing benchmark: how many times faster than real time the engine mixes a
// project on one core, for
//   - 8 tracks × one 16-bit 48 kHz stereo clip (media read directly),
//   - 8 tracks × one 32-bit float 44.1 kHz stereo clip (media converted),
//   - 8 tracks × forty short 16-bit 48 kHz clips,
// beside two peers measured in the same run: the bare cache reads the first
// case needs (no mixing), and the ffmpeg program mixing the same eight
// streams with its amix filter into nothing.
#include "codec/KRAudioFrame2.h"
#include "codec/KRResampleContext2.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QUrl>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kSeconds = 60;
constexpr int64_t kBufferFrames = 1024;

std::shared_ptr<VTDataProvider> importFile(const QString& path)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (!provider)
        return nullptr;
    provider->startParserWithBlock(nullptr);
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    return provider;
}

// Eight tracks, each with `clipsPerTrack` clips of `clipMs` laid end to end
// with small gaps, every clip reading a different part of the media.
std::shared_ptr<VTProject> makeProject(const QString& media, int clipsPerTrack, int64_t clipMs)
{
    auto project = std::make_shared<VTProject>();
    for (int trackIndex = 0; trackIndex < 8; ++trackIndex) {
        auto track = std::make_shared<VTTrack>();
        for (int clipIndex = 0; clipIndex < clipsPerTrack; ++clipIndex) {
            auto clip = VTClip::initWithDataProviderIDs(media);
            if (!clip)
                return nullptr;
            const int64_t mediaMs = clip->durationOfTrack();
            clip->setDurationOfTrack(std::min(clipMs, mediaMs));
            clip->setTimestampOfDataProvider((trackIndex * 997 + clipIndex * 131) % std::max<int64_t>(1, mediaMs - clipMs));
            clip->setTimestampOfTrack(clipIndex * (clipMs + 20) + trackIndex * 7);
            clip->setVolume(0.8);
            track->importClip(clip);
        }
        project->importTrack(track);
    }
    return project;
}

// Mixes the whole project at 48 kHz 16-bit stereo; answers the mixed seconds.
double mixWholeProject(VTProject& project)
{
    VTMixContext context(48000, 2, 1);
    std::vector<int16_t> buffer(kBufferFrames * 2);
    project.startMixWithContext(context);
    project.seekToTimestamp(0, context);
    int64_t frames = 0;
    while (!project.isEndOfSource(context)) {
        bool flag = false;
        if (project.nextSample(buffer.data(), kBufferFrames, &flag, context) == brindle::MixSource::kEndOfSource)
            break;
        frames += kBufferFrames;
    }
    project.endMixWithContext(context);
    return double(frames) / 48000.0;
}

// The best of three runs, as a multiple of real time.
double realTimeMultiple(VTProject& project)
{
    double best = 0.0;
    for (int run = 0; run < 3; ++run) {
        double mixed = 0.0;
        const double seconds = timeSeconds([&] { mixed = mixWholeProject(project); });
        best = std::max(best, mixed / seconds);
    }
    return best;
}

// The provider reads of the first case alone: eight streams read in buffers.
double bareReadMultiple(VTDataProvider& provider)
{
    std::vector<char> buffer(size_t(kBufferFrames * provider.bytesPerSample()));
    const int64_t total = int64_t(provider.numberOfSamples());
    int64_t frames = 0;
    const double seconds = timeSeconds([&] {
        for (int track = 0; track < 8; ++track)
            for (int64_t index = track * 997; index < total; index += kBufferFrames)
                frames += int64_t(provider.readSampleOfCount(kBufferFrames, buffer.data(), index));
    });
    return double(frames) / 8.0 / double(provider.samplerate()) / seconds;
}

// The conversion alone: eight 44.1 kHz float streams turned into the mix
// format by the resampler the converting path uses, in the pieces it asks
// for (about 940 media frames per 1024 output frames), from memory. The
// floor under the converting mix. Best of three runs.
double resampleOnlyMultiple()
{
    constexpr int64_t kPiece = 940;
    std::vector<float> input(size_t(kPiece * 2));
    for (size_t i = 0; i < input.size(); ++i)
        input[i] = 0.5f * float(std::sin(double(i) * 0.01));
    std::vector<uint8_t> output;
    double best = 0.0;
    for (int run = 0; run < 3; ++run) {
        std::vector<std::shared_ptr<KRResampleContext2>> tracks;
        for (int track = 0; track < 8; ++track)
            tracks.push_back(KRResampleContext2::initWithSampleFormat(
                3, 1, KRAudioFrame2::defaultChannelLayoutByChannel(2), KRAudioFrame2::defaultChannelLayoutByChannel(2),
                44100, 48000));
        const double seconds = timeSeconds([&] {
            for (int64_t done = 0; done < kSeconds * 44100; done += kPiece)
                for (const auto& track : tracks)
                    track->resampleInto(input.data(), kPiece, output);
        });
        best = std::max(best, kSeconds / seconds);
    }
    return best;
}

double ffmpegAmixMultiple(const QString& path)
{
    QStringList arguments{QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                          QStringLiteral("-threads"), QStringLiteral("1"), QStringLiteral("-filter_threads"),
                          QStringLiteral("1")};
    for (int input = 0; input < 8; ++input)
        arguments << QStringLiteral("-i") << path;
    arguments << QStringLiteral("-filter_complex") << QStringLiteral("amix=inputs=8:normalize=0")
              << QStringLiteral("-f") << QStringLiteral("null") << QStringLiteral("-");
    const double seconds = timeProgram(QStringLiteral("ffmpeg"), arguments);
    return seconds > 0 ? kSeconds / seconds : -1.0;
}

}  // namespace

int main(int argc, char** argv)
{
    PrivateHome home;
    QCoreApplication app(argc, argv);
    const QString folder = PrivateHome::mediaFolder();
    const QString s16 = folder + QStringLiteral("/tone-60s-48000-s16.wav");
    const QString f32 = folder + QStringLiteral("/tone-60s-44100-f32.wav");
    if (!makeToneFile(s16, kSeconds, 48000, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")}) ||
        !makeToneFile(f32, kSeconds, 44100, {QStringLiteral("-c:a"), QStringLiteral("pcm_f32le")})) {
        std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
        return 1;
    }
    auto direct = importFile(s16);
    auto converting = importFile(f32);
    if (!direct || !converting) {
        std::fputs("could not import the benchmark media\n", stderr);
        return 1;
    }
    std::printf("Mix benchmark: 8 tracks, 48 kHz 16-bit stereo output in %lld-frame buffers, one thread\n",
                static_cast<long long>(kBufferFrames));

    auto directProject = makeProject(direct->identifier(), 1, kSeconds * 1000);
    auto convertingProject = makeProject(converting->identifier(), 1, kSeconds * 1000);
    auto shortClips = makeProject(direct->identifier(), 40, 1400);
    if (!directProject || !convertingProject || !shortClips) {
        std::fputs("could not build the benchmark projects\n", stderr);
        return 1;
    }
    // `bench_mix --profile-converted` mixes only the converting project, ten
    // times, so that a profiler sees nothing else.
    if (QCoreApplication::arguments().contains(QStringLiteral("--profile-converted"))) {
        for (int run = 0; run < 10; ++run)
            mixWholeProject(*convertingProject);
        return 0;
    }
    const double directMultiple = realTimeMultiple(*directProject);
    report(QStringLiteral("8 x 48 kHz s16 clip, direct (target >= 200)"), directMultiple, "x real time");
    const double convertingMultiple = realTimeMultiple(*convertingProject);
    report(QStringLiteral("8 x 44.1 kHz float clip, converted (target >= 200)"), convertingMultiple, "x real time");
    report(QStringLiteral("8 x 40 short 48 kHz s16 clips"), realTimeMultiple(*shortClips), "x real time");

    const double resampleOnly = resampleOnlyMultiple();
    report(QStringLiteral("peer: the resampler alone converting the 8 streams"), resampleOnly, "x real time");
    report(QStringLiteral("converted mix / resampler alone"), convertingMultiple / resampleOnly, "x");
    const double bare = bareReadMultiple(*direct);
    report(QStringLiteral("peer: bare cache reads of 8 streams, no mixing"), bare, "x real time");
    report(QStringLiteral("direct mix / bare reads"), directMultiple / bare, "x");
    const double amix = ffmpegAmixMultiple(s16);
    if (amix > 0) {
        report(QStringLiteral("peer: ffmpeg amix of the 8 streams (one thread)"), amix, "x real time");
        report(QStringLiteral("direct mix / ffmpeg amix"), directMultiple / amix, "x");
        report(QStringLiteral("converted mix / ffmpeg amix"), convertingMultiple / amix, "x");
    }
    return 0;
}
