#include "cli/RenderCommand.h"

#include "cli/ProgressBar.h"
#include "export/KRExportSettings.h"
#include "export/VTAudioExporter.h"
#include "model/VTProject.h"
#include "tasks/HeadlessTasks.h"

#include <QFileInfo>

#include <cstdio>
#include <optional>

namespace brindle::cli {

namespace {

void printError(const QString& line)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", line.toUtf8().constData());
}

std::optional<int32_t> formatWithName(const QString& name)
{
    const QString lower = name.toLower();
    if (lower == QStringLiteral("mp3"))
        return KRExportSettings::kFormatTypeMP3;
    if (lower == QStringLiteral("m4a"))
        return KRExportSettings::kFormatTypeM4A;
    if (lower == QStringLiteral("wav"))
        return KRExportSettings::kFormatTypeWAV;
    return std::nullopt;
}

// The quality names map onto the options' quality titles.
std::optional<QString> qualityTitleWithName(const QString& name)
{
    const QString lower = name.toLower();
    if (lower == QStringLiteral("high"))
        return QStringLiteral("High");
    if (lower == QStringLiteral("normal"))
        return QStringLiteral("Normal");
    if (lower == QStringLiteral("low"))
        return QStringLiteral("Low");
    return std::nullopt;
}

// The rates the export options offer for a format, as numbers.
QList<int64_t> offeredRates(int32_t formatType)
{
    QList<int64_t> rates;
    for (const QString& title : KRExportSettings::supportSamplerateWithFormat(formatType))
        rates << KRExportSettings::sampleRateWithTitle(title);
    return rates;
}

struct RenderArguments {
    QString project;
    QString out;
    std::optional<int32_t> format;
    std::optional<int64_t> rate;
    QString qualityTitle = QStringLiteral("Normal");
};

std::optional<RenderArguments> parse(const QStringList& arguments)
{
    RenderArguments parsed;
    QStringList positional;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (!argument.startsWith(QStringLiteral("--"))) {
            positional << argument;
            continue;
        }
        if (i + 1 >= arguments.size()) {
            printError(QStringLiteral("brindle-cli render: %1 needs a value").arg(argument));
            return std::nullopt;
        }
        const QString value = arguments[++i];
        if (argument == QStringLiteral("--format")) {
            parsed.format = formatWithName(value);
            if (!parsed.format) {
                printError(QStringLiteral("brindle-cli render: unknown format %1 (mp3, m4a or wav)").arg(value));
                return std::nullopt;
            }
        } else if (argument == QStringLiteral("--rate")) {
            bool ok = false;
            parsed.rate = value.toLongLong(&ok);
            if (!ok) {
                printError(QStringLiteral("brindle-cli render: bad rate %1").arg(value));
                return std::nullopt;
            }
        } else if (argument == QStringLiteral("--quality")) {
            const std::optional<QString> title = qualityTitleWithName(value);
            if (!title) {
                printError(QStringLiteral("brindle-cli render: unknown quality %1 (high, normal or low)").arg(value));
                return std::nullopt;
            }
            parsed.qualityTitle = *title;
        } else {
            printError(QStringLiteral("brindle-cli render: unknown option %1").arg(argument));
            return std::nullopt;
        }
    }
    if (positional.size() != 2) {
        printError(QStringLiteral("usage: brindle-cli render PROJECT OUT [--format mp3|m4a|wav] "
                                  "[--rate 96000|48000|44100|22500] [--quality high|normal|low]"));
        return std::nullopt;
    }
    parsed.project = positional[0];
    parsed.out = QFileInfo(positional[1]).absoluteFilePath();
    return parsed;
}

}  // namespace

int renderCommand(const QStringList& arguments)
{
    const std::optional<RenderArguments> parsed = parse(arguments);
    if (!parsed)
        return 2;
    // The format follows the file's extension unless given; an extension that
    // names no format falls back to the options' default, MP3.
    const int32_t format = parsed->format.value_or(
        formatWithName(QFileInfo(parsed->out).suffix()).value_or(KRExportSettings::kFormatTypeMP3));
    const int64_t rate = parsed->rate.value_or(KRExportSettings::defaultSampleRate());
    const QList<int64_t> rates = offeredRates(format);
    if (!rates.contains(rate)) {
        QStringList offered;
        for (int64_t each : rates)
            offered << QString::number(each);
        printError(QStringLiteral("brindle-cli render: %1 Hz is not offered for %2 (offered: %3)")
                       .arg(rate)
                       .arg(KRExportSettings::extensionWithFormatType(format), offered.join(QStringLiteral(", "))));
        return 2;
    }

    QString openError;
    std::shared_ptr<VTProject> project =
        brindle::tasks::openProjectDocumentSynchronously(QFileInfo(parsed->project).absoluteFilePath(), &openError);
    const QString failure = QStringLiteral("Failed to export audio file:(%1)").arg(parsed->out);
    if (!project) {
        printError(openError.isEmpty() ? failure : openError);
        printError(failure);
        return 1;
    }

    VTAudioExporter::Options options;
    options.formatType = format;
    options.sampleRate = rate;
    options.bitrate = KRExportSettings::bitrateWithTitle(parsed->qualityTitle);
    options.sampleFormat = KRExportSettings::defaultSampleFormat();
    options.numberOfChannel = KRExportSettings::defaultNumberOfChannel();
    ProgressBar progress(QStringLiteral("Rendering"), 1);
    const VTAudioExporter::Result result = VTAudioExporter::exportProjectToFile(
        project, parsed->out, options, [&progress](double fraction) { progress.setPartProgress(0, fraction * 100.0); });
    progress.finish();
    if (result.result != 0) {
        if (!result.errorMessage.isEmpty())
            printError(result.errorMessage);
        printError(failure);
        return 1;
    }
    return 0;
}

}  // namespace brindle::cli
