#include "cli/Commands.h"

#include "cli/ImportFailures.h"
#include "cli/ProgressBar.h"
#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"

#include <QFileInfo>
#include <QUrl>

#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

namespace brindle::cli {

namespace {

// One tab-separated line: path, duration (ms), sample-format code, rate,
// channels, samples per channel, cache file.
QString providerLine(const VTDataProvider& provider)
{
    return QStringList{provider.identifier(),
                       QString::number(provider.duration()),
                       QString::number(provider.sampleFormat()),
                       QString::number(provider.samplerate()),
                       QString::number(provider.numberOfChannel()),
                       QString::number(provider.numberOfSamples()),
                       provider.cachePathFile()}
        .join(QLatin1Char('\t'));
}

void printLine(FILE* stream, const QString& line)
{
    // Keep the order of the two streams when both go to one terminal or file.
    if (stream == stderr)
        std::fflush(stdout);
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fputc('\n', stream);
}

QString absolutePath(const QString& file)
{
    return QFileInfo(file).absoluteFilePath();
}

// The outcome of importing one file.
struct ImportResult {
    QString path;
    std::shared_ptr<VTDataProvider> provider;
    QString failure;
};

// Probes and decodes one file; runs on a background thread.
void importOne(ImportResult& result, size_t part, ProgressBar& progress, ImportFailures& failures)
{
    const QFileInfo info(result.path);
    if (!info.exists()) {
        result.failure = QStringLiteral("no such file");
        return;
    }
    if (!info.isFile() || !info.isReadable()) {
        result.failure = QStringLiteral("not a readable file");
        return;
    }
    result.provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(result.path));
    if (!result.provider) {
        const QString refusal = failures.refusalForPath(result.path);
        result.failure = refusal.isEmpty() ? QStringLiteral("not a media file with an audio stream") : refusal;
        return;
    }
    result.provider->startParserWithBlock([&progress, part](double percent) { progress.setPartProgress(part, percent); });
    progress.setPartProgress(part, 100.0);
}

bool parseCount(const QString& text, qint64* value)
{
    bool ok = false;
    const qint64 parsed = text.toLongLong(&ok);
    if (!ok || parsed < 0)
        return false;
    *value = parsed;
    return true;
}

}  // namespace

void printUsage()
{
    std::fputs("usage: brindle-cli COMMAND [ARGS]\n"
               "\n"
               "  import FILE...                     decode media files into the PCM cache and register them\n"
               "  pcm FILE [--start N] [--count M]   write a registered file's interleaved PCM to standard output,\n"
               "                                     from sample frame N (default 0), M frames (default: to the end)\n"
               "  providers                          list the registered media\n"
               "  build OUT.loomwick DESCRIPTION.json\n"
               "                                     make a project document from a JSON description of tracks\n"
               "                                     and clips, importing media that are not registered yet\n"
               "  info PROJECT                       open a project document and list its clips\n"
               "  render PROJECT OUT [--format mp3|m4a|wav] [--rate 96000|48000|44100|22500]\n"
               "                     [--quality high|normal|low]\n"
               "                                     export the whole mix as the editor does; the format follows\n"
               "                                     OUT's extension, the defaults are 48000 Hz and normal quality\n"
               "\n"
               "Lines are tab-separated: path, duration (ms), sample-format code, sample rate, channels,\n"
               "samples per channel, cache file. Sample-format codes: 0 u8, 1 s16, 2 s32, 3 float, 4 double.\n"
               "info prints the title, duration and time position, then one line per clip: track index,\n"
               "identifier, media path, timestampOfTrack, durationOfTrack, timestampOfDataProvider, volume,\n"
               "enableFadeIn, durationOfFadeIn, enableFadeOut, durationOfFadeOut (times in ms).\n",
               stdout);
}

int importCommand(const QStringList& files)
{
    if (files.isEmpty()) {
        std::fputs("brindle-cli import: no files given\n", stderr);
        return 2;
    }
    ImportFailures failures;
    std::vector<ImportResult> results(size_t(files.size()));
    ProgressBar progress(QStringLiteral("Importing"), results.size());
    DispatchGroup group;
    for (size_t i = 0; i < results.size(); ++i) {
        results[i].path = absolutePath(files[qsizetype(i)]);
        group.async(globalQueue(), [&, i] { importOne(results[i], i, progress, failures); });
    }
    // The main queue must keep running: a refusal alert of a probe is shown
    // through it while the workers wait.
    runMainQueueUntil([&group] { return group.waitFor(0); }, INT64_MAX);
    progress.finish();

    std::vector<std::shared_ptr<VTDataProvider>> imported;
    int status = 0;
    for (const ImportResult& result : results) {
        if (!result.provider) {
            printLine(stderr, QStringLiteral("%1: %2").arg(result.path, result.failure));
            status = 1;
            continue;
        }
        imported.push_back(result.provider);
        printLine(stdout, providerLine(*result.provider));
    }
    if (!imported.empty())
        VTDataProviderMgr::shareDataProviderMgr().importDataProviders(imported);
    return status;
}

int pcmCommand(const QStringList& arguments)
{
    QString file;
    qint64 start = 0;
    qint64 count = -1;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == QStringLiteral("--start") && hasValue && parseCount(arguments[i + 1], &start)) {
            ++i;
        } else if (argument == QStringLiteral("--count") && hasValue && parseCount(arguments[i + 1], &count)) {
            ++i;
        } else if (file.isEmpty() && !argument.startsWith(QStringLiteral("--"))) {
            file = argument;
        } else {
            printLine(stderr, QStringLiteral("brindle-cli pcm: bad argument %1").arg(argument));
            return 2;
        }
    }
    if (file.isEmpty()) {
        std::fputs("brindle-cli pcm: no file given\n", stderr);
        return 2;
    }
    const QString path = absolutePath(file);
    const std::shared_ptr<VTDataProvider> provider = VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(path);
    if (!provider) {
        printLine(stderr, QStringLiteral("brindle-cli pcm: %1 is not registered; import it first").arg(path));
        return 1;
    }
    const qint64 total = qint64(provider->numberOfSamples());
    qint64 remaining = count < 0 ? total - start : std::min(count, total - start);
    const qint64 bytesPerFrame = qint64(provider->bytesPerSample());
    if (bytesPerFrame <= 0)
        return 1;
    constexpr qint64 kChunkFrames = 65536;
    std::vector<char> buffer(size_t(kChunkFrames * bytesPerFrame));
    qint64 index = start;
    while (remaining > 0) {
        const qint64 want = std::min(remaining, kChunkFrames);
        const qint64 got = qint64(provider->readSampleOfCount(uint64_t(want), buffer.data(), uint64_t(index)));
        if (got <= 0)
            break;
        if (std::fwrite(buffer.data(), 1, size_t(got * bytesPerFrame), stdout) != size_t(got * bytesPerFrame))
            return 1;
        index += got;
        remaining -= got;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

int providersCommand()
{
    for (const std::shared_ptr<VTDataProvider>& provider : VTDataProviderMgr::shareDataProviderMgr().dataProviders())
        printLine(stdout, providerLine(*provider));
    return 0;
}

}  // namespace brindle::cli
