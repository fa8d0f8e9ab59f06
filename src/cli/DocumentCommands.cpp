#include "cli/DocumentCommands.h"

#include "cli/ImportFailures.h"
#include "cli/ProgressBar.h"
#include "cli/ProjectDescription.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "tasks/HeadlessTasks.h"
#include "tasks/VTImportMediaTask.h"
#include "tasks/VTProjectTasks.h"

#include <QFileInfo>
#include <QSet>

#include <cstdio>

namespace brindle::cli {

namespace {

void printLine(FILE* stream, const QString& line)
{
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fputc('\n', stream);
}

int failBuild(const QString& message)
{
    printLine(stderr, QStringLiteral("brindle-cli build: %1").arg(message));
    return 1;
}

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// Imports the files that the registry does not know yet, through the import
// task, and registers what was decoded. False (with messages) when any failed.
bool importMissingMedia(const ProjectDescription& description)
{
    QList<QUrl> urls;
    QSet<QString> seen;
    VTDataProviderMgr& registry = VTDataProviderMgr::shareDataProviderMgr();
    for (const auto& track : description.tracks) {
        for (const ClipDescription& clip : track) {
            if (seen.contains(clip.file) || registry.dataProviderWithIdentifier(clip.file))
                continue;
            seen.insert(clip.file);
            urls.append(QUrl::fromLocalFile(clip.file));
        }
    }
    if (urls.isEmpty())
        return true;

    ImportFailures refusals;
    ProgressBar progress(QStringLiteral("Importing"), 1);
    VTTaskContext context;
    context.set(kVTImportURLs, urls);
    const tasks::TaskOutcome outcome = tasks::runTaskUntilEnd(
        VTTask::dataParserTaskWithDelegate(nullptr), context,
        [&progress](double percent) { progress.setPartProgress(0, percent); });
    progress.finish();

    const auto providers = outcome.context.objectsOfClassForKey<VTDataProvider>(kVTExportObjects);
    if (!providers.empty())
        registry.importDataProviders(providers);
    const QList<QUrl> failures = outcome.context.urlsForKey(kVTFailureURLs);
    for (const QUrl& url : failures) {
        const QString refusal = refusals.refusalForPath(url.toLocalFile());
        failBuild(QStringLiteral("%1: %2").arg(url.toLocalFile(),
                                               refusal.isEmpty() ? QStringLiteral("not a media file with an audio stream")
                                                                 : refusal));
    }
    return failures.isEmpty() && outcome.errorCode == 0;
}

// A clip over the whole media, then the described fields through the clip's
// setters, in the order the editor's own edits would apply them.
std::shared_ptr<VTClip> makeClip(const ClipDescription& description)
{
    std::shared_ptr<VTClip> clip = VTClip::initWithDataProviderIDs(description.file);
    if (!clip)
        return nullptr;
    if (description.duration)
        clip->setDurationOfTrack(*description.duration);
    if (description.offset)
        clip->setTimestampOfDataProvider(*description.offset);
    if (description.start)
        clip->setTimestampOfTrack(*description.start);
    if (description.volume)
        clip->setVolume(*description.volume);
    if (description.fadeIn)
        clip->setDurationOfFadeIn(*description.fadeIn);
    if (description.fadeOut)
        clip->setDurationOfFadeOut(*description.fadeOut);
    if (description.fadeInOn)
        clip->setEnableFadeIn(*description.fadeInOn);
    if (description.fadeOutOn)
        clip->setEnableFadeOut(*description.fadeOutOn);
    return clip;
}

}  // namespace

int buildCommand(const QStringList& arguments)
{
    if (arguments.size() != 2) {
        std::fputs("brindle-cli build: usage: build OUT.loomwick DESCRIPTION.json\n", stderr);
        return 2;
    }
    const QString out = QFileInfo(arguments[0]).absoluteFilePath();
    QString error;
    const std::optional<ProjectDescription> description = readProjectDescription(arguments[1], &error);
    if (!description)
        return failBuild(error);
    for (const auto& track : description->tracks) {
        for (const ClipDescription& clip : track) {
            if (!QFileInfo(clip.file).isFile())
                return failBuild(QStringLiteral("%1: no such media file").arg(clip.file));
        }
    }
    if (!importMissingMedia(*description))
        return 1;

    auto project = std::make_shared<VTProject>();
    int64_t clipCount = 0;
    for (const auto& trackDescription : description->tracks) {
        auto track = std::make_shared<VTTrack>();
        for (const ClipDescription& clipDescription : trackDescription) {
            std::shared_ptr<VTClip> clip = makeClip(clipDescription);
            if (!clip)
                return failBuild(QStringLiteral("%1: the media is not registered").arg(clipDescription.file));
            track->importClip(std::move(clip));
            ++clipCount;
        }
        project->importTrack(std::move(track));
    }
    if (description->position)
        project->setTimePosition(*description->position);

    // As Save As does: the project takes its new URL before it is written.
    const QUrl target = QUrl::fromLocalFile(out);
    project->setUrl(target);
    VTTaskContext context;
    context.set(kVTImportObjects, VTTaskContext::ObjectList{project});
    context.set(kVTImportURLs, QList<QUrl>{target});
    const tasks::TaskOutcome outcome = tasks::runTaskUntilEnd(VTTask::saveProjectTaskWithDelegate(nullptr), context);
    if (outcome.errorCode != 0)
        return failBuild(QStringLiteral("%1: the document could not be written").arg(out));
    printLine(stdout, QStringLiteral("%1\t%2 tracks\t%3 clips").arg(out).arg(project->numberOfTracks()).arg(clipCount));
    return 0;
}

int infoCommand(const QStringList& arguments)
{
    if (arguments.size() != 1) {
        std::fputs("brindle-cli info: usage: info PROJECT\n", stderr);
        return 2;
    }
    QString error;
    const std::shared_ptr<VTProject> project = tasks::openProjectDocumentSynchronously(arguments[0], &error);
    if (!project) {
        printLine(stderr, QStringLiteral("brindle-cli info: %1").arg(error));
        return 1;
    }
    printLine(stdout, QStringLiteral("title\t%1").arg(project->title()));
    printLine(stdout, QStringLiteral("duration\t%1").arg(project->duration()));
    printLine(stdout, QStringLiteral("timePosition\t%1").arg(project->timePosition()));
    const VTProject::TrackListPointer tracks = project->tracks();
    for (size_t index = 0; index < tracks->size(); ++index) {
        for (const auto clips = (*tracks)[index]->clips(); const std::shared_ptr<VTClip>& clip : *clips) {
            printLine(stdout, QStringList{QString::number(index),
                                          clip->identifier(),
                                          clip->dataProviderIds(),
                                          QString::number(clip->timestampOfTrack()),
                                          QString::number(clip->durationOfTrack()),
                                          QString::number(clip->timestampOfDataProvider()),
                                          QString::number(clip->volume(), 'g', QLocale::FloatingPointShortest),
                                          boolText(clip->enableFadeIn()),
                                          QString::number(clip->durationOfFadeIn()),
                                          boolText(clip->enableFadeOut()),
                                          QString::number(clip->durationOfFadeOut())}
                                  .join(QLatin1Char('\t')));
        }
    }
    return 0;
}

}  // namespace brindle::cli
