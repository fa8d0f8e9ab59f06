// Import benchmark: the time to decode a long file into the PCM cache, beside
// the ffmpeg program decoding the same file to raw PCM, four imports at once,
// and random-access reads from the cache.
#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <cstdio>
#include <random>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kSeconds = 600;

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
    report(label + QStringLiteral(": import / ffmpeg decode (target <= 2)"), ours / peer, "x");
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
    const double one = timeSeconds([&] { importFile(copies[0]); });
    const double four = timeSeconds([&] {
        DispatchGroup group;
        for (const QString& copy : copies)
            group.async(globalQueue(), [copy] { importFile(copy); });
        group.wait();
    });
    report(QStringLiteral("MP3: one import"), one, "s");
    report(QStringLiteral("MP3: four imports at once"), four, "s");
    report(QStringLiteral("MP3: four at once / one (target < 2)"), four / one, "x");
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
    std::printf("Import benchmark: 10-minute stereo files, cache in %s\n", qPrintable(home.path()));
    benchSingle(QStringLiteral("MP3 44.1 kHz"), mp3, QStringLiteral("f32le"), QStringLiteral("pcm_f32le"));
    benchSingle(QStringLiteral("WAV 48 kHz s16"), wav, QStringLiteral("s16le"), QStringLiteral("pcm_s16le"));
    benchFourAtOnce(mp3);
    benchRandomReads(mp3);
    return 0;
}
