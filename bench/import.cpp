// Import benchmark: `brindle-cli import` of a 10-minute 44.1 kHz MP3 as a
// whole process (start-up and the registry write included) beside
// `ffmpeg -threads 1` decoding the same file to nothing; then, in this
// process, imports of an MP3 and a WAV beside ffmpeg decoding them to raw
// PCM, four imports at once, and random-access reads from the cache. The
// process figures are the best of three runs, each into an empty home.
//
// BRINDLE_BENCH_CLI=<path> times another brindle-cli build (an older one,
// for a before/after comparison in one run).
#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kSeconds = 600;
constexpr int kRuns = 3;

QString cli()
{
    if (const char* other = std::getenv("BRINDLE_BENCH_CLI"); other && *other)
        return QString::fromLocal8Bit(other);
    return QStringLiteral(BRINDLE_CLI_PATH);
}

// Empties the private home's data and settings folders, so that every
// import writes a new cache file and a registry of one entry.
void emptyHome(const QString& home)
{
    for (const char* folder : {"/xdg_data_home", "/xdg_config_home"}) {
        QDir dir(home + QLatin1String(folder));
        dir.removeRecursively();
        QDir().mkpath(dir.path());
    }
}

// The best of kRuns runs of a program; `before` runs ahead of each.
double bestOf(const QString& program, const QStringList& arguments, const std::function<void()>& before = {})
{
    double best = -1.0;
    for (int run = 0; run < kRuns; ++run) {
        if (before)
            before();
        const double seconds = timeProgram(program, arguments);
        if (seconds < 0)
            return -1.0;
        best = best < 0 ? seconds : std::min(best, seconds);
    }
    return best;
}

void benchProcesses(const QString& home, const QString& mp3)
{
    const double ours = bestOf(cli(), {QStringLiteral("import"), mp3}, [&] { emptyHome(home); });
    emptyHome(home);
    const double peer = bestOf(QStringLiteral("ffmpeg"),
                               {QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                                QStringLiteral("-threads"), QStringLiteral("1"), QStringLiteral("-i"), mp3,
                                QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")});
    if (ours < 0 || peer < 0) {
        std::fputs("brindle-cli import or the ffmpeg decode failed\n", stderr);
        return;
    }
    report(QStringLiteral("MP3: brindle-cli import (whole process)"), ours, "s");
    report(QStringLiteral("MP3: ffmpeg -threads 1 decode to nothing"), peer, "s");
    report(QStringLiteral("MP3: import / ffmpeg decode (target <= 1.3)"), ours / peer, "x");
}

std::shared_ptr<VTDataProvider> importFile(const QString& path)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (provider)
        provider->startParserWithBlock(nullptr);
    return provider;
}

// ffmpeg decoding to a raw PCM file in the same folder, in the file's own sample format.
double ffmpegDecodeSeconds(const QString& path, const QString& rawFormat, const QString& codec)
{
    const QString out = QFileInfo(path).absolutePath() + QStringLiteral("/ffmpeg-decode.raw");
    const double seconds = timeProgram(QStringLiteral("ffmpeg"),
                                       {QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                                        QStringLiteral("-i"), path, QStringLiteral("-f"), rawFormat,
                                        QStringLiteral("-c:a"), codec, QStringLiteral("-y"), out});
    QFile::remove(out);
    return seconds;
}

void benchSingle(const QString& label, const QString& path, const QString& rawFormat, const QString& codec)
{
    const double peer = ffmpegDecodeSeconds(path, rawFormat, codec);
    std::shared_ptr<VTDataProvider> provider;
    const double ours = timeSeconds([&] { provider = importFile(path); });
    if (!provider) {
        std::fprintf(stderr, "import of %s failed\n", qPrintable(path));
        return;
    }
    report(label + QStringLiteral(": import"), ours, "s");
    report(label + QStringLiteral(": ffmpeg decode to raw PCM"), peer, "s");
    report(label + QStringLiteral(": import / ffmpeg decode"), ours / peer, "x");
}

void benchFourAtOnce(const QString& path)
{
    std::vector<QString> copies;
    for (int i = 0; i < 4; ++i) {
        const QString copy = QFileInfo(path).absolutePath() + QStringLiteral("/copy-%1-").arg(i) + QFileInfo(path).fileName();
        if (!QFile::exists(copy))
            QFile::copy(path, copy);
        copies.push_back(copy);
    }
    // One import already keeps both cores partly busy (decoding beside the
    // cache writer), so four at once are compared with the same four one
    // after another: running them together must not cost more.
    const double one = timeSeconds([&] { importFile(copies[0]); });
    const double inTurn = timeSeconds([&] {
        for (const QString& copy : copies)
            importFile(copy);
    });
    const double four = timeSeconds([&] {
        DispatchGroup group;
        for (const QString& copy : copies)
            group.async(globalQueue(), [copy] { importFile(copy); });
        group.wait();
    });
    report(QStringLiteral("MP3: one import"), one, "s");
    report(QStringLiteral("MP3: four imports one after another"), inTurn, "s");
    report(QStringLiteral("MP3: four imports at once"), four, "s");
    report(QStringLiteral("MP3: four at once / one after another (target <= 1)"), four / inTurn, "x");
}

void benchRandomReads(const QString& path)
{
    auto provider = importFile(path);
    if (!provider)
        return;
    const uint64_t total = provider->numberOfSamples();
    constexpr uint64_t kFrames = 1024;
    std::vector<char> buffer(size_t(kFrames * provider->bytesPerSample()));
    std::mt19937_64 random(42);
    std::uniform_int_distribution<uint64_t> position(0, total > kFrames ? total - kFrames : 0);
    uint64_t frames = 0;
    const int reads = 20000;
    const double seconds = timeSeconds([&] {
        for (int i = 0; i < reads; ++i)
            frames += provider->readSampleOfCount(kFrames, buffer.data(), position(random));
    });
    report(QStringLiteral("Random 1024-frame reads (one thread)"), double(frames) / seconds, "frames/s");
    report(QStringLiteral("Random 1024-frame reads (one thread)"), reads / seconds, "reads/s");
}

}  // namespace

int main(int argc, char** argv)
{
    PrivateHome home;
    QCoreApplication app(argc, argv);
    const QString media = PrivateHome::mediaFolder();
    const QString mp3 = media + QStringLiteral("/tone-600s-44100.mp3");
    const QString wav = media + QStringLiteral("/tone-600s-48000.wav");
    if (!makeToneFile(mp3, kSeconds, 44100, {QStringLiteral("-c:a"), QStringLiteral("libmp3lame"), QStringLiteral("-b:a"), QStringLiteral("192k")})
        || !makeToneFile(wav, kSeconds, 48000, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")})) {
        std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
        return 1;
    }
    std::printf("Import benchmark: 10-minute stereo files, cache in %s (%s)\n", qPrintable(home.path()),
                qPrintable(cli()));
    benchProcesses(home.path(), mp3);
    benchSingle(QStringLiteral("MP3 44.1 kHz"), mp3, QStringLiteral("f32le"), QStringLiteral("pcm_f32le"));
    benchSingle(QStringLiteral("WAV 48 kHz s16"), wav, QStringLiteral("s16le"), QStringLiteral("pcm_s16le"));
    benchFourAtOnce(mp3);
    benchRandomReads(mp3);
    return 0;
}
