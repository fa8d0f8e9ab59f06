// Editor benchmark: a project of 8 tracks × 200 clips in the running editor.
// Prints the time of undo and redo of a move of 10 selected clips (an edit
// step, which records only those clips), of a paste (a step that records
// the whole project), and the time from opening the document in a new
// editor to the first frame with every visible waveform drawn (every point
// of each visible clip's stretch arrived and rendered), beside the start-up
// of the `brindle` process itself (`brindle --version`); their sum is what
// `brindle FILE` takes to show the project whole.
// Targets: an edit's undo ≤ 20 ms, a whole-project undo ≤ 100 ms, that sum
// ≤ 1 s. Needs an X display (run under xvfb-run -a).
#include "app/AppDelegate.h"
#include "app/KRCommandStackMgr.h"
#include "app/MainWindow.h"
#include "app/VTEditController.h"
#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "support/BenchSupport.h"
#include "tasks/HeadlessTasks.h"
#include "tasks/VTProjectTasks.h"
#include "timeline/VTTimelineView.h"
#include "timeline/VTWaveCache.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTProjectAdapter.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QUrl>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kTracks = 8;
constexpr int kClipsPerTrack = 200;
constexpr int kRepeats = 15;

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::shared_ptr<VTProject> bigProject(const QString& media)
{
    auto project = std::make_shared<VTProject>();
    for (int track = 0; track < kTracks; ++track) {
        VTProject::ClipList clips;
        for (int index = 0; index < kClipsPerTrack; ++index) {
            auto clip = VTClip::initWithDataProviderIDs(media);
            clip->setDurationOfTrack(3000);
            clip->setTimestampOfDataProvider((index * 3000 + track * 700) % 500000);
            clip->setTimestampOfTrack(index * 3500);
            clips.push_back(clip);
        }
        project->importClipsAtTrackIndex(clips, track);
    }
    return project;
}

// Median milliseconds of undo and of redo of the newest step, repeated.
std::pair<double, double> undoRedoMilliseconds(AppDelegate& app)
{
    std::vector<double> undos;
    std::vector<double> redos;
    for (int i = 0; i < kRepeats; ++i) {
        undos.push_back(timeSeconds([&] { app.editing().undo(); }) * 1000.0);
        redos.push_back(timeSeconds([&] { app.editing().redo(); }) * 1000.0);
    }
    return {median(undos), median(redos)};
}

// Whether the points a cache holds reach the end of the stretch it asked
// for (the last point ends within one point's span of it).
bool reachesStretchEnd(const VTWaveCache& cache)
{
    const uint64_t bytes = cache.bytesPerFeatureSamples();
    if (cache.numberOfFeatureSamples() == 0 || bytes == 0)
        return false;
    const QByteArray& data = cache.dataForFeatureSamples();
    auto last = VTFeatureSample::initWithData(data.right(qsizetype(bytes)));
    if (!last)
        return false;
    const int64_t end = cache.timestampsOfDataProvider() + cache.durationOfTrack();
    return last->timestampOfDataProvider() + last->durationOfTrack() + int64_t(cache.dpp()) >= end;
}

// Whether every clip the timeline shows has its waveform rendered.
bool everyVisibleWaveformDrawn(AppDelegate& app)
{
    VTTimelineView* view = app.timelineView();
    auto source = view->dataSource();
    const QRectF visible = view->visibleRect();
    bool any = false;
    for (uint64_t track = 0; track < source->numberOfTracks(view); ++track) {
        for (uint64_t index = 0; index < source->numberOfClips(view, track); ++index) {
            auto clip = source->clipAtIndex(index, track, view);
            if (!view->boundsOfClip(*clip, track).intersects(visible))
                continue;
            auto cache = view->clipCacheWithIdentifier(clip->identifier());
            // Every point of the requested stretch has arrived and the
            // texture was rendered from them by a frame since.
            if (!cache || !cache->drawComplete() || !reachesStretchEnd(*cache))
                return false;
            any = true;
        }
    }
    return any;
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        std::fputs("bench_editor needs an X display: run it under xvfb-run -a\n", stderr);
        return 1;
    }
    qputenv("LIBGL_ALWAYS_SOFTWARE", "1");
    PrivateHome home;
    QApplication application(argc, argv);
    const QString wav = PrivateHome::mediaFolder() + QStringLiteral("/tone-600s-44100.wav");
    if (!makeToneFile(wav, 600, 44100, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")})) {
        std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
        return 1;
    }
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(wav));
    if (!provider || !provider->startParserWithBlock(nullptr)) {
        std::fputs("the benchmark media could not be imported\n", stderr);
        return 1;
    }
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    std::printf("Editor benchmark: %d tracks x %d clips over a ten-minute 44.1 kHz stereo WAV\n", kTracks,
                kClipsPerTrack);

    const QString document = home.path() + QStringLiteral("/Big.loomwick");
    {
        auto app = std::make_unique<AppDelegate>();
        app->applicationDidFinishLaunching();
        app->window()->show();
        auto project = bigProject(provider->identifier());
        app->updateWithProjectAdapter(VTProjectAdapter::initWithProject(project));

        // An edit step: ten selected clips moved right.
        QStringList selection;
        for (const auto& clip : *project->trackAtIndex(3)->clips()) {
            if (selection.size() < 10)
                selection << clip->identifier();
        }
        project->setSelections(selection);
        app->editing().moveRight();
        const auto [editUndo, editRedo] = undoRedoMilliseconds(*app);
        report(QStringLiteral("Undo of a move of 10 clips (target <= 20 ms)"), editUndo, "ms");
        report(QStringLiteral("Redo of a move of 10 clips"), editRedo, "ms");

        // A whole-project step: a paste.
        app->project()->setSelections(selection);
        app->editing().copy();
        app->editing().paste();
        const auto [pasteUndo, pasteRedo] = undoRedoMilliseconds(*app);
        report(QStringLiteral("Undo of a paste, whole-project snapshot (target <= 100 ms)"), pasteUndo, "ms");
        report(QStringLiteral("Redo of a paste, whole-project snapshot"), pasteRedo, "ms");

        // Saved as the editor saves: the project knows its file (the archive
        // keeps the URL, which is how the opened document is recognised).
        app->project()->setUrl(QUrl::fromLocalFile(document));
        VTTaskContext context;
        context.set(kVTImportObjects, VTTaskContext::objectList(std::vector<std::shared_ptr<VTProject>>{app->project()}));
        context.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(document)});
        if (tasks::runTaskUntilEnd(VTTask::saveProjectTaskWithDelegate(nullptr), context).errorCode != 0) {
            std::fputs("the benchmark document could not be saved\n", stderr);
            return 1;
        }
        app.reset();
    }

    // From opening the document in a new editor to every visible waveform drawn.
    QElapsedTimer clock;
    clock.start();
    auto app = std::make_unique<AppDelegate>();
    app->applicationOpenFile(document);
    app->applicationDidFinishLaunching();
    app->window()->resize(1280, 800);
    app->window()->show();
    const bool drawn = runMainQueueUntil(
        [&] {
            QCoreApplication::processEvents();
            return app->project() && app->project()->url() == QUrl::fromLocalFile(document)
                   && everyVisibleWaveformDrawn(*app);
        },
        30000);
    const double firstFrame = double(clock.nsecsElapsed()) / 1e6;
    if (!drawn)
        std::puts("(the waveforms were not all drawn within 30 s)");
    report(QStringLiteral("Open in a new editor to first frame with every visible waveform"), firstFrame, "ms");
    app.reset();

#ifdef BRINDLE_EDITOR_PATH
    const double start = timeProgram(QStringLiteral(BRINDLE_EDITOR_PATH), {QStringLiteral("--version")});
    report(QStringLiteral("Start-up of the brindle process (brindle --version)"), start * 1000.0, "ms");
    report(QStringLiteral("brindle FILE to every waveform drawn: start-up + open (target <= 1000 ms)"),
           start * 1000.0 + firstFrame, "ms");
#endif
    return 0;
}
