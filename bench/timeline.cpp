// Timeline benchmark, under Mesa's software GL (llvmpipe) at 1280 × 800:
// - a full redraw of 8 tracks × 200 clips once their waveform textures
//   exist (median of many frames), over a synthetic data source (the view's
//   own cost) and over the real project adapter with decoded media; at the
//   default zoom and zoomed out to 300 ms per point;
// - the time from a zoom change until every visible waveform of eight
//   ten-minute clips (real media through VTProjectAdapter) is drawn.
// Runs itself under xvfb-run when there is no display.
#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "support/BenchSupport.h"
#include "timeline/VTTimelineView.h"
#include "timeline/VTWaveCache.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTProjectAdapter.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QOpenGLWindow>
#include <QUrl>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 800;
constexpr int kTracks = 8;
constexpr int kClipsPerTrack = 200;
constexpr int kFrames = 60;

// Clip lengths and gaps that vary like a real arrangement (3–8 s clips, 0.5–2 s apart).
int64_t clipLength(int track, int index) { return 3000 + ((track * 7919 + index * 104729) % 5000); }
int64_t clipGap(int track, int index) { return 500 + ((track * 31 + index * 613) % 1500); }

// A clip whose points are a slowly swelling wave, delivered from the pool.
class SyntheticClip final : public VTTimelineClip, public std::enable_shared_from_this<SyntheticClip> {
public:
    SyntheticClip(int track, int index, int64_t start) :
        m_identifier(QStringLiteral("clip-%1-%2").arg(track).arg(index)),
        m_title(QStringLiteral("Take %1 of track %2").arg(index + 1).arg(track + 1)), m_start(start),
        m_duration(clipLength(track, index))
    {
    }
    int64_t timestampsOfTrack() const override { return m_start; }
    int64_t timestampsOfDataProvider() const override { return 0; }
    int64_t durationOfTrack() const override { return m_duration; }
    bool fadeInValidate() const override { return true; }
    bool fadeOutValidate() const override { return true; }
    int64_t durationOfFadeIn() const override { return 400; }
    int64_t durationOfFadeOut() const override { return 800; }
    QString identifier() const override { return m_identifier; }
    std::optional<QString> description() const override { return m_title; }
    void featureSamplesAtTimestamps(int64_t timestamp, int64_t length, int64_t zoom, ProcessHandler handler) override
    {
        ++m_pending;
        auto self = shared_from_this();
        globalQueue().async([self, timestamp, length, zoom, handler] {
            for (int64_t at = timestamp + zoom; at < timestamp + length; at += zoom) {
                const double level = 0.3 + 0.6 * std::fabs(std::sin(double(at) / 700.0));
                auto point = VTFeatureSample::initWithTimestampOfDp(at - self->m_start, zoom);
                point->setNumberOfChannel(1);
                point->setMaxSamples(QByteArray(reinterpret_cast<const char*>(&level), sizeof level));
                const double low = -level;
                point->setMinSamples(QByteArray(reinterpret_cast<const char*>(&low), sizeof low));
                handler({point});
            }
            --self->m_pending;
        });
    }
    bool idle() const { return m_pending.load() == 0; }

private:
    QString m_identifier, m_title;
    int64_t m_start, m_duration;
    std::atomic<int> m_pending{0};
};

class SyntheticSource final : public VTTimelineViewDataSource {
public:
    SyntheticSource()
    {
        for (int track = 0; track < kTracks; ++track) {
            int64_t at = 0;
            m_tracks.emplace_back();
            for (int index = 0; index < kClipsPerTrack; ++index) {
                m_tracks.back().push_back(std::make_shared<SyntheticClip>(track, index, at));
                at += clipLength(track, index) + clipGap(track, index);
                m_duration = std::max(m_duration, at);
            }
        }
        m_selection = {m_tracks[2][3]->identifier(), m_tracks[3][4]->identifier()};
    }
    uint64_t numberOfTracks(VTTimelineView*) override { return m_tracks.size(); }
    uint64_t numberOfClips(VTTimelineView*, uint64_t track) override
    {
        return track < m_tracks.size() ? m_tracks[track].size() : 0;
    }
    std::shared_ptr<VTTimelineClip> clipAtIndex(uint64_t index, uint64_t track, VTTimelineView*) override
    {
        return track < m_tracks.size() && index < m_tracks[track].size() ? m_tracks[track][index] : nullptr;
    }
    std::shared_ptr<VTTimelineClip> clipWithIdentifer(const QString&, VTTimelineView*) override { return nullptr; }
    ClipList clipsWithIdentifers(const QStringList&, VTTimelineView*) override { return {}; }
    int64_t duration(VTTimelineView*) override { return m_duration; }
    int64_t currentPosition(VTTimelineView*) override { return 20000; }
    QStringList selections(VTTimelineView*) override { return m_selection; }
    bool selectedClip(const QString& identifier, VTTimelineView*) override { return m_selection.contains(identifier); }
    std::optional<uint64_t> maxNumberOfTracksAllowed(VTTimelineView*) override { return kTracks; }

    // The clips the view keeps a waveform texture for: those it has drawn at this zoom.
    int clipsWithTextures(const VTTimelineView& view) const
    {
        int count = 0;
        for (const auto& track : m_tracks) {
            for (const auto& clip : track)
                count += view.clipCacheWithIdentifier(clip->identifier()) != nullptr;
        }
        return count;
    }
    bool idle() const
    {
        for (const auto& track : m_tracks) {
            for (const auto& clip : track) {
                if (!clip->idle())
                    return false;
            }
        }
        return true;
    }

private:
    std::vector<std::vector<std::shared_ptr<SyntheticClip>>> m_tracks;
    QStringList m_selection;
    int64_t m_duration = 0;
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

// Runs queued main-queue work (the points' hand-over) and paints until `done`.
bool settle(const std::function<bool()>& done, int64_t milliseconds = 60000)
{
    return runMainQueueUntil(done, milliseconds);
}

// Every point handed to the main queue so far has arrived once this returns.
void drainMainQueue()
{
    bool drained = false;
    mainQueue().async([&] { drained = true; });
    settle([&] { return drained; });
}

// Milliseconds of one frame: render plus read-back (grabFramebuffer), the
// median of kFrames, and the fastest (on a shared machine it shows what the
// renderer does when nothing else takes the cores).
struct FrameTimes {
    double median = 0;
    double fastest = 0;
};
FrameTimes frameMilliseconds(VTTimelineView& view)
{
    std::vector<double> frames;
    for (int frame = 0; frame < kFrames; ++frame) {
        QElapsedTimer timer;
        timer.start();
        view.grabFramebuffer();
        frames.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    return {median(frames), *std::min_element(frames.begin(), frames.end())};
}

void reportFrames(const QString& label, const FrameTimes& times)
{
    report(label + QStringLiteral(", median (fastest %1 ms)").arg(times.fastest, 0, 'f', 1), times.median, "ms");
}

void benchSyntheticRedraw(VTTimelineView& view)
{
    auto source = std::make_shared<SyntheticSource>();
    view.setDataSource(source);
    for (double zoom : {0.5, 0.0}) {
        view.setZoomValue(zoom);
        view.scrollPoint(QPointF(view.pixelWithTimestamp(300000), view.visibleRect().y()));
        view.grabFramebuffer();
        settle([&] { return source->idle(); });
        drainMainQueue();
        view.grabFramebuffer();
        const FrameTimes times = frameMilliseconds(view);
        reportFrames(QStringLiteral("Redraw, 8 x 200 synthetic clips, %1 ms/point, %2 in sight%3")
                         .arg(view.durationPerPixel())
                         .arg(source->clipsWithTextures(view))
                         .arg(view.durationPerPixel() == 45 ? QStringLiteral(", target <= 16 ms") : QString()),
                     times);
    }
}

std::shared_ptr<VTDataProvider> importMedia(const QString& path)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (!provider || !provider->startParserWithBlock(nullptr)) {
        std::fprintf(stderr, "import of %s failed\n", qPrintable(path));
        return nullptr;
    }
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    return provider;
}

// Waits until the walks of every clip adapter made so far have run and their points have arrived.
void settleAdapters(VTTimelineView& view, VTProjectAdapter& adapter)
{
    for (const auto& clip : adapter.clipAdapters())
        clip->featureSampleQueue().sync([] {});
    drainMainQueue();
    view.grabFramebuffer();
}

void benchAdapterRedraw(VTTimelineView& view, const std::vector<std::shared_ptr<VTDataProvider>>& media)
{
    auto project = std::make_shared<VTProject>();
    for (int track = 0; track < kTracks; ++track) {
        auto lane = std::make_shared<VTTrack>();
        VTProject::ClipList clips;
        int64_t at = 0;
        for (int index = 0; index < kClipsPerTrack; ++index) {
            auto clip = VTClip::initWithDataProviderIDs(media[size_t(index) % media.size()]->identifier());
            clip->setDurationOfTrack(clipLength(track, index));
            clip->setTimestampOfTrack(at);
            at += clipLength(track, index) + clipGap(track, index);
            clips.push_back(clip);
        }
        lane->importClips(clips);
        project->importTrack(lane);
    }
    auto adapter = VTProjectAdapter::initWithProject(project);
    view.setDataSource(adapter);
    for (double zoom : {0.5, 0.0}) {
        view.setZoomValue(zoom);
        view.scrollPoint(QPointF(view.pixelWithTimestamp(300000), view.visibleRect().y()));
        view.grabFramebuffer();
        settleAdapters(view, *adapter);
        reportFrames(QStringLiteral("Redraw, 8 x 200 decoded clips via VTProjectAdapter, %1 ms/point")
                         .arg(view.durationPerPixel()),
                     frameMilliseconds(view));
    }
}

// Eight ten-minute clips, one per track, each of its own media; the view
// shows minutes 4 onwards. Answers the milliseconds from each zoom change
// until every visible waveform is drawn.
void benchZoomToDrawn(VTTimelineView& view, const std::vector<std::shared_ptr<VTDataProvider>>& media)
{
    auto project = std::make_shared<VTProject>();
    QStringList identifiers;
    for (const auto& provider : media) {
        auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
        auto lane = std::make_shared<VTTrack>();
        lane->importClip(clip);
        project->importTrack(lane);
        identifiers << clip->identifier();
    }
    auto adapter = VTProjectAdapter::initWithProject(project);
    view.setDataSource(adapter);

    auto allDrawn = [&] {
        const QRectF visible = view.visibleRect();
        const int64_t zoom = int64_t(view.durationPerPixel());
        const int64_t visibleEnd = view.timestampWithPixel(visible.x() + visible.width());
        for (const QString& identifier : identifiers) {
            const auto cache = view.clipCacheWithIdentifier(identifier);
            if (!cache || int64_t(cache->dpp()) != zoom || !cache->drawComplete())
                return false;
            const int64_t reached = cache->timestampsOfDataProvider() + int64_t(cache->numberOfFeatureSamples()) * zoom;
            if (reached < visibleEnd - 2 * zoom)
                return false;
        }
        return true;
    };
    std::vector<double> times;
    for (double zoom : {0.5, 0.6, 0.7, 0.45, 0.55, 0.4, 0.65, 0.5}) {
        QElapsedTimer timer;
        timer.start();
        view.setZoomValue(zoom);
        view.scrollPoint(QPointF(view.pixelWithTimestamp(240000), view.visibleRect().y()));
        if (!settle(allDrawn)) {
            std::fprintf(stderr, "zoom %.2f: the waveforms were not drawn within a minute\n", zoom);
            continue;
        }
        times.push_back(double(timer.nsecsElapsed()) / 1e6);
        // Let the rest of the walks finish before the next change.
        settleAdapters(view, *adapter);
    }
    if (times.empty())
        return;
    // The first change also makes the shared block caches of a new zoom; all do.
    report(QStringLiteral("Zoom change to every visible waveform drawn, median of %1 (target <= 250 ms)")
               .arg(times.size()),
           median(times), "ms");
    report(QStringLiteral("Zoom change to every visible waveform drawn, slowest"),
           *std::max_element(times.begin(), times.end()), "ms");
}

// --screenshot <file>: a small arrangement of decoded instrument stems,
// with titles, fades, a selection and the play cursor, saved as a PNG.
bool saveScreenshot(const QString& path)
{
    struct Stem {
        const char* name;
        const char* expression;  // an aevalsrc expression of t
        int track;
        int64_t start, length, fadeIn, fadeOut;
    };
    const Stem stems[] = {
        {"Drums", "0.9*exp(-mod(t,0.5)*9)*sin(2*PI*60*t)+0.25*exp(-mod(t+0.25,0.5)*30)*(random(0)-0.5)", 0, 2000, 30000,
         0, 1500},
        {"Bass", "0.6*(0.6+0.4*sin(2*PI*t/2))*sin(2*PI*55*t)", 1, 4000, 24000, 2000, 3000},
        {"Guitar", "0.5*(0.5+0.5*sin(2*PI*t/3.3))*sin(2*PI*220*t)*(0.7+0.3*sin(2*PI*5*t))", 2, 9000, 19000, 3000, 0},
        {"Vocals", "0.8*abs(sin(2*PI*t/4))*sin(2*PI*330*t)*(0.6+0.4*random(1))", 3, 12000, 16000, 1000, 4000},
        {"Keys", "0.4*(0.5+0.5*sin(2*PI*t/6))*(sin(2*PI*262*t)+sin(2*PI*330*t))", 4, 0, 14000, 0, 0},
        {"Keys Reprise", "0.4*(0.5+0.5*sin(2*PI*t/6))*(sin(2*PI*262*t)+sin(2*PI*392*t))", 4, 17000, 12000, 1500, 1500},
    };
    auto project = std::make_shared<VTProject>();
    QStringList selected;
    for (const Stem& stem : stems) {
        const QString media = PrivateHome::mediaFolder() + QStringLiteral("/%1.wav").arg(QString::fromLatin1(stem.name));
        if (!QFileInfo::exists(media)
            && timeProgram(QStringLiteral("ffmpeg"),
                           {QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                            QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                            QStringLiteral("aevalsrc='%1':s=44100:d=%2").arg(QString::fromLatin1(stem.expression)).arg(
                                stem.length / 1000 + 1),
                            QStringLiteral("-ac"), QStringLiteral("2"), QStringLiteral("-y"), media})
                   < 0)
            return false;
        auto provider = importMedia(media);
        if (!provider)
            return false;
        auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
        clip->setDurationOfTrack(stem.length);
        clip->setTimestampOfTrack(stem.start);
        clip->setEnableFadeIn(stem.fadeIn > 0);
        clip->setDurationOfFadeIn(stem.fadeIn);
        clip->setEnableFadeOut(stem.fadeOut > 0);
        clip->setDurationOfFadeOut(stem.fadeOut);
        if (stem.track == 3)
            selected << clip->identifier();
        project->importClipAtTrackIndex(clip, stem.track);
    }
    project->setSelections(selected);
    project->setTimePosition(14500);
    auto adapter = VTProjectAdapter::initWithProject(project);
    VTTimelineView view;
    view.setDataSource(adapter);
    view.resize(kWidth, kHeight * 3 / 4);
    view.show();
    view.setZoomValue(0.55);
    settle([&] { return view.glWidget()->isValid(); }, 10000);
    view.grabFramebuffer();
    settleAdapters(view, *adapter);
    return view.grabFramebuffer().save(path);
}

int rerunUnderXvfb(char** argv)
{
    std::vector<char*> command = {const_cast<char*>("xvfb-run"), const_cast<char*>("-a"), const_cast<char*>("-s"),
                                  const_cast<char*>("-screen 0 1600x1000x24")};
    for (char** argument = argv; *argument; ++argument)
        command.push_back(*argument);
    command.push_back(nullptr);
    ::execvp("xvfb-run", command.data());
    std::perror("the timeline benchmark needs an X display, and xvfb-run could not be started");
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return rerunUnderXvfb(argv);
    qputenv("LIBGL_ALWAYS_SOFTWARE", "1");
    qputenv("QT_QPA_PLATFORM", "xcb");
    PrivateHome home;
    QApplication app(argc, argv);
    // --redraw-only: just the synthetic redraw (no media), e.g. under a profiler.
    const bool redrawOnly = app.arguments().contains(QStringLiteral("--redraw-only"));
    if (const qsizetype at = app.arguments().indexOf(QStringLiteral("--screenshot")); at > 0) {
        const QString path = app.arguments().value(at + 1, QStringLiteral("timeline.png"));
        if (!saveScreenshot(path)) {
            std::fprintf(stderr, "could not draw the screenshot\n");
            return 1;
        }
        std::printf("saved %s\n", qPrintable(path));
        return 0;
    }

    std::vector<std::shared_ptr<VTDataProvider>> shortMedia, longMedia;
    for (int index = 0; index < 8 && !redrawOnly; ++index) {
        const QString shortPath = PrivateHome::mediaFolder() + QStringLiteral("/tone-10s-%1.mp3").arg(index);
        const QString longPath = PrivateHome::mediaFolder() + QStringLiteral("/tone-600s-%1.mp3").arg(index);
        const QStringList mp3 = {QStringLiteral("-c:a"), QStringLiteral("libmp3lame"), QStringLiteral("-b:a"),
                                 QStringLiteral("128k")};
        if (!makeToneFile(shortPath, 10, 44100, mp3) || !makeToneFile(longPath, 600, 44100, mp3)) {
            std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
            return 1;
        }
        shortMedia.push_back(importMedia(shortPath));
        longMedia.push_back(importMedia(longPath));
        if (!shortMedia.back() || !longMedia.back())
            return 1;
    }

    VTTimelineView view;
    view.resize(kWidth, kHeight);
    view.show();
    settle([&] { return view.viewport()->isVisible() && view.glWidget()->isValid(); }, 10000);
    std::printf("Timeline benchmark: %s, window %d x %d, viewport %d x %d; frames are render plus read-back\n",
                qPrintable(qEnvironmentVariable("LIBGL_ALWAYS_SOFTWARE") == QLatin1String("1") ? "software GL"
                                                                                                : "GL"),
                kWidth, kHeight, view.viewport()->width(), view.viewport()->height());
    {
        VTTimelineView empty;
        empty.resize(kWidth, kHeight);
        empty.show();
        settle([&] { return empty.glWidget()->isValid(); }, 10000);
        reportFrames(QStringLiteral("Frame of an empty view (lanes and ruler: the floor)"), frameMilliseconds(empty));
    }
    benchSyntheticRedraw(view);
    if (redrawOnly)
        return 0;
    benchAdapterRedraw(view, shortMedia);
    benchZoomToDrawn(view, longMedia);
    return 0;
}
