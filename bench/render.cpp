// Render benchmark: a project of eight tracks, each holding a 10-minute
// 44.1 kHz stereo clip, rendered by `brindle-cli render` to WAV and to MP3,
// beside the peers doing the same work in the same run: ffmpeg's amix filter
// mixing the eight source files into the same format, sox -m doing the same,
// and ffmpeg encoding an already-mixed WAV with libmp3lame at the same bit
// rate. Every program runs in a private XDG home.
#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>

#include <cstdio>

using namespace brindle::bench;

namespace {

constexpr int kSeconds = 600;
constexpr int kTracks = 8;
const QString kBitrate = QStringLiteral("224k");  // the "Normal" quality

QString cli()
{
    return QStringLiteral(BRINDLE_CLI_PATH);
}

// Eight distinct source files (copies of one tone), so that each track has
// its own media and cache.
QStringList sourceFiles(const QString& folder)
{
    const QString original = folder + QStringLiteral("/tone-600s-44100-s16.wav");
    if (!makeToneFile(original, kSeconds, 44100, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")}))
        return {};
    QStringList files;
    for (int track = 0; track < kTracks; ++track) {
        const QString copy = folder + QStringLiteral("/render-source-%1.wav").arg(track);
        if (!QFileInfo::exists(copy) && !QFile::copy(original, copy))
            return {};
        files << copy;
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

QStringList ffmpegArguments()
{
    return {QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"), QStringLiteral("-y")};
}

QStringList amixArguments(const QStringList& files)
{
    QStringList arguments = ffmpegArguments();
    for (const QString& file : files)
        arguments << QStringLiteral("-i") << file;
    arguments << QStringLiteral("-filter_complex") << QStringLiteral("amix=inputs=%1:normalize=0").arg(files.size());
    return arguments;
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
    const QString media = PrivateHome::mediaFolder();
    const QStringList files = sourceFiles(media);
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
    std::printf("Render benchmark: %d tracks of a %d-minute 44.1 kHz stereo clip, output 44.1 kHz stereo\n", kTracks,
                kSeconds / 60);

    const double build = timeProgram(cli(), {QStringLiteral("build"), project, description});
    if (build < 0) {
        std::fputs("brindle-cli build failed\n", stderr);
        return 1;
    }
    report(QStringLiteral("brindle-cli build (imports the 8 files)"), build, "s");

    const QString ourWav = work + QStringLiteral("/ours.wav");
    const QString ourMp3 = work + QStringLiteral("/ours.mp3");
    const double wav = timeProgram(cli(), {QStringLiteral("render"), project, ourWav, QStringLiteral("--rate"),
                                           QStringLiteral("44100")});
    const double mp3 = timeProgram(cli(), {QStringLiteral("render"), project, ourMp3, QStringLiteral("--rate"),
                                           QStringLiteral("44100"), QStringLiteral("--quality"), QStringLiteral("normal")});
    report(QStringLiteral("brindle-cli render to WAV"), wav, "s");
    report(QStringLiteral("brindle-cli render to MP3 224 kb/s"), mp3, "s");

    const double amixWav = timeProgram(QStringLiteral("ffmpeg"), amixArguments(files) << QStringLiteral("-c:a")
                                                                                      << QStringLiteral("pcm_s16le")
                                                                                      << work + QStringLiteral("/amix.wav"));
    report(QStringLiteral("peer: ffmpeg amix of the 8 files to WAV"), amixWav, "s");
    reportRatio(QStringLiteral("ffmpeg amix WAV / render WAV (target >= 3)"), amixWav, wav);

    const double amixMp3 = timeProgram(QStringLiteral("ffmpeg"), amixArguments(files)
                                                                     << QStringLiteral("-c:a") << QStringLiteral("libmp3lame")
                                                                     << QStringLiteral("-b:a") << kBitrate
                                                                     << work + QStringLiteral("/amix.mp3"));
    report(QStringLiteral("peer: ffmpeg amix of the 8 files to MP3 224 kb/s"), amixMp3, "s");
    reportRatio(QStringLiteral("ffmpeg amix MP3 / render MP3"), amixMp3, mp3);

    if (!QStandardPaths::findExecutable(QStringLiteral("sox")).isEmpty()) {
        QStringList arguments{QStringLiteral("-m")};
        arguments << files << work + QStringLiteral("/sox.wav");
        const double sox = timeProgram(QStringLiteral("sox"), arguments);
        report(QStringLiteral("peer: sox -m of the 8 files to WAV"), sox, "s");
        reportRatio(QStringLiteral("sox -m WAV / render WAV"), sox, wav);
    }

    // The encoding alone: ffmpeg turning our mixed WAV into MP3 at the same rate.
    const double lame = timeProgram(QStringLiteral("ffmpeg"), ffmpegArguments()
                                                                  << QStringLiteral("-i") << ourWav << QStringLiteral("-c:a")
                                                                  << QStringLiteral("libmp3lame") << QStringLiteral("-b:a")
                                                                  << kBitrate << work + QStringLiteral("/lame.mp3"));
    report(QStringLiteral("peer: ffmpeg libmp3lame encoding the mixed WAV"), lame, "s");
    reportRatio(QStringLiteral("render MP3 / ffmpeg encode of the mix (target <= 1.2)"), mp3, lame);
    return 0;
}
