// Waveform benchmark: a one-hour 44.1 kHz stereo clip imported into the PCM
// cache, then the time until the first point of a visible stretch arrives and
// the time to walk the whole clip, at 45 ms and at 3 ms per point.
#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "support/BenchSupport.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTFeatureSample.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QUrl>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kSeconds = 3600;

// CPU seconds used by the whole process so far (every thread, the pool's too).
double processCpuSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}
// A visible stretch: 1600 points wide, starting half an hour in.
constexpr int64_t kVisibleStart = 1800 * 1000;
constexpr int64_t kVisiblePoints = 1600;

// Waits for the first handler call of a request and counts the rest.
struct Arrivals {
    std::mutex mutex;
    std::condition_variable arrived;
    std::atomic<int64_t> points{0};

    VTTimelineClip::ProcessHandler handler()
    {
        return [this](const VTTimelineClip::FeatureSampleList& list) {
            if (points.fetch_add(int64_t(list.size())) == 0) {
                std::lock_guard lock(mutex);
                arrived.notify_all();
            }
        };
    }
    void waitForFirst()
    {
        std::unique_lock lock(mutex);
        arrived.wait(lock, [this] { return points.load() > 0; });
    }
};

// A fresh adapter over a fresh clip each time, so no frame is kept from an
// earlier run; alternating zoom levels replace the shared cache.
std::shared_ptr<VTClipAdapter> freshAdapter(const QString& media)
{
    return VTClipAdapter::initWithClip(VTClip::initWithDataProviderIDs(media));
}

void benchZoom(const QString& media, int64_t zoom)
{
    {
        auto adapter = freshAdapter(media);
        Arrivals arrivals;
        QElapsedTimer timer;
        timer.start();
        adapter->featureSamplesAtTimestamps(kVisibleStart, kVisiblePoints * zoom, zoom, arrivals.handler());
        arrivals.waitForFirst();
        const double first = double(timer.nsecsElapsed()) / 1e6;
        adapter->featureSampleQueue().sync([] {});
        const double visible = double(timer.nsecsElapsed()) / 1e6;
        report(QStringLiteral("%1 ms per point: first point of the visible stretch (target <= 50 ms)").arg(zoom), first, "ms");
        report(QStringLiteral("%1 ms per point: whole visible stretch (%2 points)").arg(zoom).arg(arrivals.points.load()),
               visible, "ms");
    }
    {
        auto adapter = freshAdapter(media);
        Arrivals arrivals;
        const int64_t length = adapter->durationOfTrack();
        const double cpuBefore = processCpuSeconds();
        const double seconds = timeSeconds([&] {
            adapter->featureSamplesAtTimestamps(0, length, zoom, arrivals.handler());
            adapter->featureSampleQueue().sync([] {});
        });
        const double cpu = processCpuSeconds() - cpuBefore;
        report(QStringLiteral("%1 ms per point: whole one-hour clip (%2 points%3)")
                   .arg(zoom)
                   .arg(arrivals.points.load())
                   .arg(zoom == 45 ? QStringLiteral(", target <= 1 s") : QString()),
               seconds, "s");
        report(QStringLiteral("%1 ms per point: whole one-hour clip, CPU time of all threads").arg(zoom), cpu, "s");
    }
}

// The floor of any whole-clip walk: reading every sample of the cache once,
// in order, through one cursor (each frame unpacked once).
void benchSequentialRead(const VTDataProvider& provider)
{
    std::vector<char> buffer(size_t(4096 * provider.bytesPerSample()));
    VTDataProvider::FrameCursor cursor;
    const double cpuBefore = processCpuSeconds();
    const double seconds = timeSeconds([&] {
        for (uint64_t index = 0; index < provider.numberOfSamples(); index += 4096)
            provider.readSampleOfCount(4096, buffer.data(), index, cursor);
    });
    const double cpu = processCpuSeconds() - cpuBefore;
    report(QStringLiteral("Sequential read of the whole cache (%1 frames unpacked)").arg(cursor.framesUnpacked()),
           seconds, "s");
    report(QStringLiteral("Sequential read of the whole cache, CPU time"), cpu, "s");
}

}  // namespace

int main(int argc, char** argv)
{
    PrivateHome home;
    QCoreApplication app(argc, argv);
    const QString wav = PrivateHome::mediaFolder() + QStringLiteral("/tone-3600s-44100.wav");
    if (!makeToneFile(wav, kSeconds, 44100, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")})) {
        std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
        return 1;
    }
    std::shared_ptr<VTDataProvider> provider;
    const double import = timeSeconds([&] {
        provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(wav));
        if (provider && !provider->startParserWithBlock(nullptr))
            provider.reset();
    });
    if (!provider) {
        std::fprintf(stderr, "import of %s failed\n", qPrintable(wav));
        return 1;
    }
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    std::printf("Waveform benchmark: one-hour stereo 44.1 kHz 16-bit WAV, %zu cache frames, cache in %s\n",
                provider->cacheTable().size() - 1, qPrintable(home.path()));
    report(QStringLiteral("Import into the cache"), import, "s");
    benchSequentialRead(*provider);
    benchZoom(provider->identifier(), 45);
    benchZoom(provider->identifier(), 3);
    return 0;
}
