// Render benchmark: a project of eight tracks, each holding a different
// 10-minute 44.1 kHz stereo MP3, rendered by `brindle-cli render` to a 48 kHz
// WAV (every track resampled) and to a 44.1 kHz WAV (no resampling), beside
// ffmpeg's amix filter mixing the eight MP3s into the same 48 kHz WAV. Then
// the MP3 render beside ffmpeg encoding the already-mixed WAV with libmp3lame
// at the same bit rate. Every program runs in a private XDG home; each timed
// figure is the best of three runs, because the machine is shared.
//
// BRINDLE_BENCH_CLI=<path> times another brindle-cli build (an older one,
// for a before/after comparison in one run).
#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace brindle::bench;

namespace {

constexpr int kSeconds = 600;
constexpr int kTracks = 8;
constexpr int kRuns = 3;
const QString kBitrate = QStringLiteral("224k");  // the "Normal" quality

QString cli()
{
    if (const char* other = std::getenv("BRINDLE_BENCH_CLI"); other && *other)
        return QString::fromLocal8Bit(other);
    return QStringLiteral(BRINDLE_CLI_PATH);
}

QStringList ffmpegArguments()
{
    return {QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"), QStringLiteral("-y")};
}

// A 10-minute stereo MP3 of its own: a tone whose pitch depends on `index`
// under pink noise of its own seed, so no two tracks share content.
bool makeTrackFile(const QString& path, int index)
{
    if (QFileInfo::exists(path))
        return true;
    const QString tone = QStringLiteral("sine=frequency=%1:sample_rate=44100:duration=%2").arg(220 + 55 * index).arg(kSeconds);
    const QString noise = QStringLiteral("anoisesrc=color=pink:amplitude=0.1:seed=%1:sample_rate=44100:duration=%2")
                              .arg(index + 1)
                              .arg(kSeconds);
    const QFileInfo target(path);
    const QString partial = target.absolutePath() + QStringLiteral("/partial-") + target.fileName();
    QStringList arguments = ffmpegArguments();
    arguments << QStringLiteral("-f") << QStringLiteral("lavfi") << QStringLiteral("-i") << tone << QStringLiteral("-f")
              << QStringLiteral("lavfi") << QStringLiteral("-i") << noise << QStringLiteral("-filter_complex")
              << QStringLiteral("[0:a][1:a]amix=inputs=2:normalize=0,aformat=channel_layouts=stereo")
              << QStringLiteral("-c:a") << QStringLiteral("libmp3lame") << QStringLiteral("-b:a") << QStringLiteral("192k")
              << partial;
    std::fprintf(stderr, "making %s ...\n", qPrintable(path));
    return timeProgram(QStringLiteral("ffmpeg"), arguments) >= 0 && QFile::rename(partial, path);
}

QStringList sourceFiles(const QString& folder)
{
    QStringList files;
    for (int track = 0; track < kTracks; ++track) {
        const QString file = folder + QStringLiteral("/render-track-%1-600s-44100.mp3").arg(track);
        if (!makeTrackFile(file, track))
            return {};
        files << file;
    }
    return files;
}

bool writeDescription(const QString& path, const QStringList& files)
{
    QJsonArray tracks;
    for (const QString& file : files)
        tracks.append(QJsonArray{QJsonObject{{QStringLiteral("file"), file}, {QStringLiteral("start"), 0}}});
    QFile out(path);
    return out.open(QIODevice::WriteOnly) &&
           out.write(QJsonDocument(QJsonObject{{QStringLiteral("tracks"), tracks}, {QStringLiteral("position"), 0}})
                         .toJson()) > 0;
}

// The best (shortest) of kRuns runs; negative when a run failed.
double bestOf(const QString& program, const QStringList& arguments)
{
    double best = -1.0;
    for (int run = 0; run < kRuns; ++run) {
        const double seconds = timeProgram(program, arguments);
        if (seconds < 0)
            return -1.0;
        best = best < 0 ? seconds : std::min(best, seconds);
    }
    return best;
}

QStringList amixArguments(const QStringList& files)
{
    QStringList arguments = ffmpegArguments();
    for (const QString& file : files)
        arguments << QStringLiteral("-i") << file;
    arguments << QStringLiteral("-filter_complex") << QStringLiteral("amix=inputs=%1:normalize=0").arg(files.size());
    return arguments;
}

QStringList renderArguments(const QString& project, const QString& out, const QString& format, int rate)
{
    return {QStringLiteral("render"), project, out, QStringLiteral("--format"), format, QStringLiteral("--rate"),
            QString::number(rate)};
}

void reportRatio(const QString& label, double numerator, double denominator)
{
    if (numerator > 0 && denominator > 0)
        report(label, numerator / denominator, "x");
}

}  // namespace

int main(int argc, char** argv)
{
    PrivateHome home;
    QCoreApplication app(argc, argv);
    const QStringList files = sourceFiles(PrivateHome::mediaFolder());
    if (files.isEmpty()) {
        std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
        return 1;
    }
    const QString work = home.path();
    const QString description = work + QStringLiteral("/project.json");
    const QString project = work + QStringLiteral("/project.loomwick");
    if (!writeDescription(description, files)) {
        std::fputs("could not write the project description\n", stderr);
        return 1;
    }
    std::printf("Render benchmark: %d tracks, each a different %d-minute 44.1 kHz stereo MP3 (%s)\n", kTracks,
                kSeconds / 60, qPrintable(cli()));

    const double build = timeProgram(cli(), {QStringLiteral("build"), project, description});
    if (build < 0) {
        std::fputs("brindle-cli build failed\n", stderr);
        return 1;
    }
    report(QStringLiteral("brindle-cli build (imports the 8 files)"), build, "s");

    const QString ourWav = work + QStringLiteral("/ours.wav");
    const double wav48 = bestOf(cli(), renderArguments(project, ourWav, QStringLiteral("wav"), 48000));
    report(QStringLiteral("brindle-cli render to WAV at 48 kHz (resampled)"), wav48, "s");
    const double wav44 = bestOf(cli(), renderArguments(project, work + QStringLiteral("/ours-44100.wav"),
                                                       QStringLiteral("wav"), 44100));
    report(QStringLiteral("brindle-cli render to WAV at 44.1 kHz (not resampled)"), wav44, "s");

    const double amix = bestOf(QStringLiteral("ffmpeg"), amixArguments(files)
                                                             << QStringLiteral("-ar") << QStringLiteral("48000")
                                                             << QStringLiteral("-c:a") << QStringLiteral("pcm_s16le")
                                                             << work + QStringLiteral("/amix.wav"));
    report(QStringLiteral("peer: ffmpeg amix of the 8 files to a 48 kHz WAV"), amix, "s");
    reportRatio(QStringLiteral("ffmpeg amix / render, 48 kHz WAV (target >= 4)"), amix, wav48);

    // MP3: the mix ahead of the encoder, beside the encoder alone.
    const double mp3 = timeProgram(cli(), {QStringLiteral("render"), project, work + QStringLiteral("/ours.mp3"),
                                           QStringLiteral("--rate"), QStringLiteral("48000"), QStringLiteral("--quality"),
                                           QStringLiteral("normal")});
    report(QStringLiteral("brindle-cli render to MP3 224 kb/s at 48 kHz"), mp3, "s");
    const double lame = timeProgram(QStringLiteral("ffmpeg"), ffmpegArguments()
                                                                  << QStringLiteral("-i") << ourWav << QStringLiteral("-c:a")
                                                                  << QStringLiteral("libmp3lame") << QStringLiteral("-b:a")
                                                                  << kBitrate << work + QStringLiteral("/lame.mp3"));
    report(QStringLiteral("peer: ffmpeg libmp3lame encoding the mixed WAV"), lame, "s");
    reportRatio(QStringLiteral("render MP3 / ffmpeg encode of the mix (target <= 1.2)"), mp3, lame);
    return 0;
}
