// Playback benchmark for a project of eight one-hour tracks (the same
// generated 48 kHz 16-bit stereo hour on each):
//   - the time from `startPlay` to the first buffer the mixer filled: when
//     the device has to be opened, and when the player still holds it open
//     from the previous play (from the start and from half an hour in); the
//     very first start also initialises the audio library;
//   - the process's CPU time over ten seconds of playback through a device
//     paced in real time, as a share of one core;
//   - beside it, the same playback into a device that takes buffers as fast
//     as they come: CPU seconds spent per second of audio, which is the share
//     of a core that real-time playback needs, whatever the device.
// The paced device is ALSA's default PCM routed into a JACK server with a
// dummy back end (`jackd --no-realtime -d dummy -r 48000`) that this program
// starts; it needs the jackd2 and libasound2-plugins packages. Without them
// the paced figure is left out and said so.
#include "app/VTPlaybackController.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "foundation/Dispatch.h"
#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>
#include <QUrl>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

using namespace brindle;
using namespace brindle::bench;

namespace {

constexpr int kMediaSeconds = 3600;
constexpr int kPacedSeconds = 10;

class BenchHost final : public VTPlaybackHost {
public:
    std::shared_ptr<VTProject> playbackProject() override { return project; }
    void setPlayButtonImage(const QString&) override {}
    void playbackPositionChanged(int64_t, bool) override { ++updates; }

    std::shared_ptr<VTProject> project;
    int64_t updates = 0;
};

// CPU seconds of each thread of this process, by thread id.
std::map<QString, double> threadCpuSeconds()
{
    std::map<QString, double> seconds;
    const double tick = double(sysconf(_SC_CLK_TCK));
    for (const QString& thread : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(QStringLiteral("/proc/self/task/%1/stat").arg(thread));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QByteArray stat = file.readAll();
        // Fields after the command name, which is in parentheses: state is
        // field 3, utime 14 and stime 15.
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 12)
            seconds[thread] = (fields[11].toDouble() + fields[12].toDouble()) / tick;
    }
    return seconds;
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Points ALSA's default PCM at `definition` through a configuration file of
// our own; ALSA reads it again when the next stream opens.
void defineDefaultPcm(const QString& folder, const QString& definition)
{
    static int version = 0;
    const QString path = folder + QStringLiteral("/asound-%1.conf").arg(++version);
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(QStringLiteral("pcm.!default { %1 }\n").arg(definition).toUtf8());
    file.close();
    ::setenv("ALSA_CONFIG_PATH", path.toUtf8().constData(), 1);
}

// Starts a JACK server with a dummy back end at 48 kHz and waits until it
// answers; false when there is none to start.
bool startJack(QProcess& jackd)
{
    if (QStandardPaths::findExecutable(QStringLiteral("jackd")).isEmpty()
        || QStandardPaths::findExecutable(QStringLiteral("jack_wait")).isEmpty())
        return false;
    jackd.setProcessChannelMode(QProcess::MergedChannels);
    jackd.setStandardOutputFile(QProcess::nullDevice());
    jackd.start(QStringLiteral("jackd"), {QStringLiteral("--no-realtime"), QStringLiteral("-d"), QStringLiteral("dummy"),
                                          QStringLiteral("-r"), QStringLiteral("48000"), QStringLiteral("-p"),
                                          QStringLiteral("1024")});
    if (!jackd.waitForStarted(5000))
        return false;
    QProcess wait;
    wait.start(QStringLiteral("jack_wait"), {QStringLiteral("-w"), QStringLiteral("-t"), QStringLiteral("5")});
    return wait.waitForFinished(10000) && wait.exitCode() == 0;
}

std::shared_ptr<VTProject> makeProject(const QString& media)
{
    auto project = std::make_shared<VTProject>();
    for (int track = 0; track < 8; ++track) {
        auto clip = VTClip::initWithDataProviderIDs(media);
        if (!clip)
            return nullptr;
        clip->setVolume(0.3);
        auto lane = std::make_shared<VTTrack>();
        lane->importClip(clip);
        project->importTrack(lane);
    }
    return project;
}

// Milliseconds from startPlay until the mixer has filled the first buffer.
double firstBufferMilliseconds(VTPlaybackController& controller, BenchHost& host, int64_t from)
{
    host.project->setTimePosition(from);
    QElapsedTimer timer;
    timer.start();
    controller.startPlay();
    if (controller.state() != KRAudioPlayer::kPlaying)
        return -1.0;
    const auto& context = controller.audioPlayerCtrl().mixContext();
    while (context->numberOfSampleOut() == 0 && timer.elapsed() < 5000)
        QThread::usleep(50);
    const double milliseconds = double(timer.nsecsElapsed()) / 1e6;
    controller.stopAudioPlay();
    runMainQueueUntil([] { return false; }, 20);
    return milliseconds;
}

void reportFirstBuffers(VTPlaybackController& controller, BenchHost& host, const char* device)
{
    // A stopped player keeps its device open; the first play after the device
    // was released opens it again.
    std::vector<double> fresh;
    for (int run = 0; run < 3; ++run) {
        controller.stopAndRelease();
        fresh.push_back(firstBufferMilliseconds(controller, host, 0));
    }
    std::sort(fresh.begin(), fresh.end());
    report(QStringLiteral("%1: first buffer opening the device, median of 3").arg(QString::fromLatin1(device)), fresh[1],
           "ms");
    for (int64_t from : {int64_t(0), int64_t(kMediaSeconds) * 500}) {
        std::vector<double> runs;
        for (int run = 0; run < 7; ++run)
            runs.push_back(firstBufferMilliseconds(controller, host, from));
        std::sort(runs.begin(), runs.end());
        report(QStringLiteral("%1: first buffer from %2 min, median of 7 (target <= 30)")
                   .arg(QString::fromLatin1(device))
                   .arg(from / 60000),
               runs[3], "ms");
        report(QStringLiteral("%1: first buffer from %2 min, slowest of 7").arg(QString::fromLatin1(device)).arg(from / 60000),
               runs.back(), "ms");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    PrivateHome home;
    QCoreApplication app(argc, argv);
    const QString media = PrivateHome::mediaFolder() + QStringLiteral("/tone-3600s-48000-s16.wav");
    if (!makeToneFile(media, kMediaSeconds, 48000, {QStringLiteral("-c:a"), QStringLiteral("pcm_s16le")})) {
        std::fputs("could not make the benchmark media (is ffmpeg installed?)\n", stderr);
        return 1;
    }
    std::shared_ptr<VTDataProvider> provider;
    const double importSeconds = timeSeconds([&] {
        provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(media));
        if (provider) {
            provider->startParserWithBlock(nullptr);
            VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
        }
    });
    BenchHost host;
    host.project = provider ? makeProject(provider->identifier()) : nullptr;
    if (!host.project) {
        std::fputs("could not import the benchmark media\n", stderr);
        return 1;
    }
    std::printf("Playback benchmark: 8 tracks x one hour of 48 kHz 16-bit stereo, played at 48 kHz 16-bit stereo\n");
    report(QStringLiteral("decoding the hour into its cache (once)"), importSeconds, "s");

    QProcess jackd;
    const bool paced = startJack(jackd);
    if (paced)
        defineDefaultPcm(home.path(), QStringLiteral(
            "type plug; slave.pcm { type jack; playback_ports { 0 system:playback_1 1 system:playback_2 } }"));
    else
        defineDefaultPcm(home.path(), QStringLiteral("type null"));

    VTPlaybackController controller(host);
    // The first start also initialises the audio library.
    host.project->setTimePosition(0);
    QElapsedTimer cold;
    cold.start();
    controller.startPlay();
    const auto& firstContext = controller.audioPlayerCtrl().mixContext();
    while (controller.state() == KRAudioPlayer::kPlaying && firstContext->numberOfSampleOut() == 0 && cold.elapsed() < 10000)
        QThread::usleep(50);
    report(QStringLiteral("first start: audio library set-up and first buffer"), double(cold.nsecsElapsed()) / 1e6, "ms");
    controller.stopAudioPlay();

    if (paced) {
        reportFirstBuffers(controller, host, "ALSA into JACK (dummy, paced)");
        host.project->setTimePosition(0);
        host.updates = 0;
        controller.startPlay();
        const double cpuBefore = cpuSeconds();
        const std::map<QString, double> threadsBefore = threadCpuSeconds();
        QElapsedTimer wall;
        wall.start();
        // The main thread runs an event loop, as the editor's does.
        QTimer::singleShot(kPacedSeconds * 1000, &app, &QCoreApplication::quit);
        app.exec();
        const double cpu = cpuSeconds() - cpuBefore;
        const double seconds = double(wall.nsecsElapsed()) / 1e9;
        double mainThread = 0;
        for (const auto& [thread, after] : threadCpuSeconds()) {
            if (thread.toLongLong() == static_cast<long long>(getpid())) {
                const auto before = threadsBefore.find(thread);
                mainThread = after - (before == threadsBefore.end() ? 0.0 : before->second);
            }
        }
        const double audio = double(controller.audioPlayerCtrl().mixContext()->numberOfSampleOut()) / 48000.0;
        controller.stopAudioPlay();
        report(QStringLiteral("paced playback: audio delivered in %1 s of wall time").arg(seconds, 0, 'f', 2), audio, "s");
        report(QStringLiteral("paced playback: process CPU / wall time (target <= 2)"), 100.0 * cpu / seconds,
               "% of one core");
        report(QStringLiteral("paced playback: of which the main thread (cursor updates)"), 100.0 * mainThread / seconds,
               "% of one core");
        report(QStringLiteral("paced playback: cursor updates per second"), double(host.updates) / seconds, "/s");
        // Frees the device (a stopped player keeps it open) before its server goes.
        controller.stopAndRelease();
        jackd.terminate();
        jackd.waitForFinished(5000);
    } else {
        std::printf("jackd (or ALSA's jack plugin) is not available: no paced device, the paced CPU share is not measured\n");
    }

    // Unpaced: the null device takes buffers as fast as they are filled.
    defineDefaultPcm(home.path(), QStringLiteral("type null"));
    reportFirstBuffers(controller, host, "ALSA null (unpaced)");
    host.project->setTimePosition(0);
    controller.startPlay();
    const double cpuBefore = cpuSeconds();
    const auto& context = controller.audioPlayerCtrl().mixContext();
    runMainQueueUntil([&] { return context->numberOfSampleOut() >= int64_t(120) * 48000; }, 60000);
    const double cpu = cpuSeconds() - cpuBefore;
    const double audio = double(context->numberOfSampleOut()) / 48000.0;
    controller.stopAudioPlay();
    report(QStringLiteral("unpaced playback: CPU per second of audio (target <= 2)"), 100.0 * cpu / audio,
           "% of one core");
    report(QStringLiteral("unpaced playback: speed"), audio / cpu, "x real time per core");
    return 0;
}
