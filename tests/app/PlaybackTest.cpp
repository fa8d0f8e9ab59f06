// Playback through the real audio player into an ALSA device that writes
// what it plays to a file: the bytes played against the project's own mix,
// the cursor and button that follow, pause, seek, edits while playing, and
// devices that fail; and the time read-out.
#include "audio/AlsaTestDevice.h"
#include "model/ModelFixtures.h"

#include "app/KRTimerView.h"
#include "app/VTPlaybackController.h"
#include "audio/KRAudioPlayer.h"
#include "foundation/Dispatch.h"
#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTPasteboard.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <QCoreApplication>
#include <QImage>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

using brindle::test::AlsaTestDevice;
using brindle::test::clipAt;
using brindle::test::LogCapture;
using brindle::test::mediaWithSamples;
using brindle::test::samples16;

namespace {

constexpr int64_t kRate = 48000;
constexpr int kFrameBytes = 4;
constexpr int64_t kFarClip = 3600000;
constexpr int64_t kFarContent = kFarClip + 100;
constexpr int64_t kFarLeft = (1000 - 100) * kRate / 1000;  // frames from kFarContent to the end

// Every player of this test program plays into the test device.
// PortAudio lists the devices once, when the first player is made; it is
// made here, over a device that opens, so that every test finds the default
// device whatever runs first (ctest runs each test in a process of its own).
class AlsaEnvironment final : public testing::Environment {
    void SetUp() override
    {
        AlsaTestDevice::shared().playIntoNothing();
        KRAudioPlayer firstPlayer;
    }
};
[[maybe_unused]] const testing::Environment* const g_alsaEnvironment =
    testing::AddGlobalTestEnvironment(new AlsaEnvironment);

class RecordingHost final : public VTPlaybackHost {
public:
    struct Position {
        int64_t timestamp;
        bool scroll;
    };
    std::shared_ptr<VTProject> playbackProject() override { return project; }
    void setPlayButtonImage(const QString& name) override { images.append(name); }
    void playbackPositionChanged(int64_t timestamp, bool scroll) override { positions.push_back({timestamp, scroll}); }

    std::shared_ptr<VTProject> project;
    QStringList images;
    std::vector<Position> positions;
};

// Stereo 16-bit media at the mix rate, never zero, channel 0 positive and
// channel 1 negative (so no mix of two of them is zero either), and without
// repeats, so that a stretch of it is found only where it was played.
QString media(const QString& name, int64_t frames, uint32_t seed)
{
    return mediaWithSamples(name, 1, 2, kRate, samples16(frames, 2, [seed](int64_t frame, int channel) {
                                uint32_t hash = static_cast<uint32_t>(frame) * 0x9E3779B1u + seed * 0x85EBCA77u;
                                hash = (hash ^ (hash >> 15)) * 0x2C1B3C6Du;
                                const int value = 500 + static_cast<int>((hash ^ (hash >> 12)) % 9000);
                                return channel == 0 ? value : -value;
                            }));
}

// Track 0: one second of A from 0, B from 1500 ms; track 1: B from 200 ms;
// 1000–1500 ms is a gap. With `farEnd`, A again at one hour on track 1 makes
// playback long enough to be paused or edited before it ends, and gives
// content that a playback from the start cannot have reached yet.
std::shared_ptr<VTProject> makeProject(bool farEnd = false)
{
    const QString a = media(QStringLiteral("noise-a"), kRate, 13);
    const QString b = media(QStringLiteral("noise-b"), kRate / 2, 7);
    VTProject::ClipList second = {clipAt(200, 0, b)};
    if (farEnd)
        second.push_back(clipAt(kFarClip, 0, a));
    return brindle::test::projectWith({{clipAt(0, 0, a), clipAt(1500, 0, b)}, second});
}

// The project's mix from `from`, `frames` long, pulled without a player.
QByteArray mixOf(VTProject& project, int64_t from, int64_t frames)
{
    VTMixContext context(kRate, 2, 1);
    project.startMixWithContext(context);
    project.seekToTimestamp(from, context);
    QByteArray mixed;
    std::vector<int16_t> buffer(1024 * 2);
    while (mixed.size() < frames * kFrameBytes) {
        bool appendBefore = false;
        const int64_t result = project.nextSample(buffer.data(), 1024, &appendBefore, context);
        if (result == brindle::MixSource::kEndOfSource)
            break;
        if (result == 0)
            std::fill(buffer.begin(), buffer.end(), int16_t(0));
        mixed.append(reinterpret_cast<const char*>(buffer.data()), qsizetype(buffer.size() * 2));
    }
    project.endMixWithContext(context);
    return mixed.left(frames * kFrameBytes);
}

// Whether `expected` was played: compared in full from where its first 256
// frames occur in `played`.
testing::AssertionResult containsFrom(const QByteArray& played, const QByteArray& expected)
{
    const qsizetype start = played.indexOf(expected.left(256 * kFrameBytes));
    if (expected.size() < 256 * kFrameBytes || start < 0)
        return testing::AssertionFailure() << "the start of the expected mix was not played";
    for (qsizetype index = 0; index < expected.size(); ++index) {
        if (start + index >= played.size() || played[start + index] != expected[index])
            return testing::AssertionFailure() << "played differs from the mix at frame " << index / kFrameBytes;
    }
    return testing::AssertionSuccess();
}

bool waitFor(const std::function<bool()>& condition)
{
    return brindle::runMainQueueUntil(condition, 20000);
}

// Runs everything already waiting in the main queue.
void drainMainQueue()
{
    bool reached = false;
    brindle::mainQueue().async([&] { reached = true; });
    ASSERT_TRUE(waitFor([&] { return reached; }));
}

class PlaybackTest : public testing::Test {
protected:
    int64_t framesMixed() { return controller.audioPlayerCtrl().mixContext()->numberOfSampleOut(); }

    AlsaTestDevice& device = AlsaTestDevice::shared();
    RecordingHost host;
    VTPlaybackController controller{host};
};

}  // namespace

TEST_F(PlaybackTest, playsTheProjectsMixFromTheCursorAndReturnsToTheStartAtTheEnd)
{
    host.project = makeProject();
    host.project->setTimePosition(300);
    const QString path = device.playIntoFile(QStringLiteral("from-cursor"));

    controller.startPlay();
    EXPECT_EQ(controller.state(), KRAudioPlayer::kPlaying);
    EXPECT_EQ(host.images, QStringList{QStringLiteral("pause")});
    ASSERT_TRUE(waitFor([&] { return host.images.size() == 2; }));

    EXPECT_EQ(host.images.last(), QStringLiteral("play"));
    EXPECT_EQ(controller.state(), KRAudioPlayer::kStopped);
    EXPECT_EQ(host.project->timePosition(), 0);
    ASSERT_GE(host.positions.size(), 2u) << "the first cursor update is always sent";
    EXPECT_EQ(host.positions.back().timestamp, 0);
    EXPECT_FALSE(host.positions.back().scroll);
    int64_t previous = 300;
    for (size_t index = 0; index + 1 < host.positions.size(); ++index) {
        EXPECT_TRUE(host.positions[index].scroll);
        EXPECT_GE(host.positions[index].timestamp, previous);
        previous = host.positions[index].timestamp;
    }
    EXPECT_LE(previous, 2100);
    EXPECT_LE(host.positions.size(), 1700u / 10 + 2) << "at most one update per 10 ms of audio";

    controller.stopAndRelease();
    const QByteArray expected = mixOf(*host.project, 300, (2000 - 300) * kRate / 1000);
    const QByteArray gap = expected.mid((1000 - 300) * kRate / 1000 * kFrameBytes, 500 * kRate / 1000 * kFrameBytes);
    ASSERT_EQ(gap.count('\0'), gap.size()) << "the mix has a gap of silence here";
    EXPECT_TRUE(containsFrom(AlsaTestDevice::played(path), expected));
}

// Each playback starts at 300 ms and is paused or moved to content one hour
// in, which it cannot have reached by itself, then played to the end so that
// the device writes out everything it was given.
TEST_F(PlaybackTest, afterAPauseOrASeekPlaybackStartsAtTheNewCursor)
{
    host.project = makeProject(true);
    host.project->setTimePosition(300);
    QString path = device.playIntoFile(QStringLiteral("pause-then-play"));
    controller.playClk();
    // Updates of this playback are on their way when it is paused.
    ASSERT_TRUE(waitFor([&] { return framesMixed() > 0; }));
    controller.playClk();
    EXPECT_EQ(controller.state(), KRAudioPlayer::kPaused);
    EXPECT_EQ(host.images, (QStringList{QStringLiteral("pause"), QStringLiteral("play")}));
    controller.seekToTimeposition(kFarContent);
    EXPECT_EQ(controller.state(), KRAudioPlayer::kPaused) << "seeking while paused only moves the cursor";
    const size_t positionsWhenPaused = host.positions.size();
    drainMainQueue();
    EXPECT_EQ(host.project->timePosition(), kFarContent) << "a late update of the paused playback moved the cursor";
    EXPECT_EQ(host.positions.size(), positionsWhenPaused);
    controller.playClk();
    ASSERT_TRUE(waitFor([&] { return host.images.size() == 4; }));
    EXPECT_EQ(controller.state(), KRAudioPlayer::kStopped);
    controller.stopAndRelease();
    EXPECT_TRUE(containsFrom(AlsaTestDevice::played(path), mixOf(*host.project, kFarContent, kFarLeft)));

    // Seeking while playing restarts at once.
    host.project->setTimePosition(300);
    path = device.playIntoFile(QStringLiteral("seek-while-playing"));
    controller.startPlay();
    ASSERT_TRUE(waitFor([&] { return framesMixed() > 0; }));
    const std::shared_ptr<VTMixContext> first = controller.audioPlayerCtrl().mixContext();
    const size_t positionsBefore = host.positions.size();
    controller.seekToTimeposition(kFarContent);
    EXPECT_EQ(controller.state(), KRAudioPlayer::kPlaying);
    EXPECT_NE(controller.audioPlayerCtrl().mixContext(), first);
    ASSERT_TRUE(waitFor([&] { return host.images.size() == 7; }));
    EXPECT_EQ(host.images.last(), QStringLiteral("play"));
    drainMainQueue();
    for (size_t index = positionsBefore; index < host.positions.size(); ++index) {
        if (!host.positions[index].scroll)
            continue;  // the return to 0 at the end
        EXPECT_GE(host.positions[index].timestamp, kFarContent) << "an update of the playback before the seek";
    }
    controller.stopAndRelease();
    EXPECT_TRUE(containsFrom(AlsaTestDevice::played(path), mixOf(*host.project, kFarContent, kFarLeft)));
}

TEST_F(PlaybackTest, cursorUpdatesAreThinnedToOnePer10MsAndBuffersWithoutContentAreSilence)
{
    // A paused playback keeps its mix, so the fill callback can be driven by hand.
    host.project = makeProject(true);
    device.playIntoNothing();
    controller.startPlay();
    controller.playClk();
    ASSERT_EQ(controller.state(), KRAudioPlayer::kPaused);
    VTAudioPlayCtrl& ctrl = controller.audioPlayerCtrl();
    VTMixContext& context = *ctrl.mixContext();
    // Clips without mix state answer "silence" and leave the buffer as it was.
    for (const auto& track : *host.project->tracks())
        for (const auto& clip : *track->clips())
            context.removeUserInfoWithKey(clip->identifier());
    context.setNumberOfSampleOut(0);
    context.setUserInfo(int64_t{0}, VTPlaybackController::kProgressValueKey);

    struct Step {
        uint32_t frames;
        int64_t reportedAfter;  // kVTProgressValue after the buffer
    };
    // 10 ms at 48 kHz is 480 frames: a report is due once the count exceeds
    // the last reported one by more than that.
    const Step steps[] = {{100, 100}, {100, 100}, {380, 100}, {1, 581}, {480, 581}, {481, 1542}};
    std::vector<int16_t> buffer(1024 * 2);
    for (const Step& step : steps) {
        std::fill(buffer.begin(), buffer.end(), int16_t(0x5555));
        uint32_t wanted = step.frames;
        uint32_t filled = 0;
        const std::optional<bool> more =
            controller.VTAudioPlayCtrlFillBuffer(ctrl, buffer.data(), 0, &wanted, &filled, context);
        EXPECT_EQ(more, std::optional<bool>(true));
        EXPECT_EQ(filled, step.frames * kFrameBytes);
        EXPECT_EQ(std::count(buffer.begin(), buffer.begin() + step.frames * 2, int16_t(0)), int64_t(step.frames) * 2)
            << "a buffer without content is silence";
        EXPECT_EQ(*context.userInfoForKey<int64_t>(VTPlaybackController::kProgressValueKey), step.reportedAfter)
            << "after " << step.frames;
    }
    drainMainQueue();
    EXPECT_TRUE(host.positions.empty()) << "updates of a paused playback are dropped";
    controller.stopAndRelease();
}

TEST_F(PlaybackTest, editingTheProjectWhilePlayingIsSafe)
{
    VTPasteboard::setGeneralPasteboard(std::make_shared<brindle::MemoryPasteboard>());
    const QString a = media(QStringLiteral("noise-a"), kRate, 13);
    const QString b = media(QStringLiteral("noise-b"), kRate / 2, 7);
    std::vector<VTProject::ClipList> tracks;
    for (int track = 0; track < 8; ++track)
        tracks.push_back({clipAt(track * 40, 0, a), clipAt(900 + track * 70, 0, b), clipAt(3600000 - track, 0, b)});
    host.project = brindle::test::projectWith(tracks);
    device.playIntoNothing();

    controller.startPlay();
    ASSERT_TRUE(waitFor([&] { return framesMixed() > 0; }));
    std::mt19937 random(3);
    VTProject& project = *host.project;
    int edits = 0;
    // Edits go on while the player pulls the first ten seconds of the mix.
    while (controller.state() == KRAudioPlayer::kPlaying && framesMixed() < 10 * kRate && edits < 20000) {
        project.selectAll();
        QStringList some = project.selections();
        some.erase(std::remove_if(some.begin(), some.end(), [&](const QString&) { return random() % 3; }), some.end());
        project.setSelections(some);
        switch (edits++ % 6) {
        case 0: project.cut(); break;
        case 1: project.paste(); break;
        case 2: project.setSelections(some.mid(0, 1)), project.delete_(); break;
        case 3: project.moveLeftWithDelta(static_cast<int64_t>(random() % 200)); break;
        case 4: project.moveRightWithDelta(static_cast<int64_t>(random() % 200)); break;
        default:
            for (const auto& clip : project.clipsWithIdentifiers(some))
                clip->setVolume((random() % 300) / 100.0);
        }
        QCoreApplication::processEvents();
    }
    EXPECT_GT(edits, 20);
    controller.stopAudioPlay();
    drainMainQueue();
    EXPECT_EQ(controller.state(), KRAudioPlayer::kStopped);
}

TEST_F(PlaybackTest, aDeviceThatFailsLeavesPlaybackStoppedWithAMessage)
{
    host.project = makeProject();
    host.project->setTimePosition(1234);
    {
        device.makeUnopenable();
        LogCapture log;
        controller.startPlay();
        EXPECT_TRUE(log.contains(QStringLiteral("Failed to play at 1234")));
        EXPECT_EQ(controller.state(), KRAudioPlayer::kStopped);
        EXPECT_TRUE(host.images.isEmpty()) << "the button is left as it was";
    }
    {
        device.failWhilePlaying();
        LogCapture log;
        controller.playClk();
        ASSERT_TRUE(waitFor([&] { return host.images.size() == 2; }));
        EXPECT_EQ(host.images, (QStringList{QStringLiteral("pause"), QStringLiteral("play")}));
        EXPECT_EQ(controller.state(), KRAudioPlayer::kStopped);
        EXPECT_TRUE(log.contains(QStringLiteral("Playback stopped: the audio output failed")));
    }
}

TEST(KRTimerViewTest, showsHoursMinutesSecondsAndMillisecondsAtAFixedSize)
{
    const std::pair<uint64_t, const char*> times[] = {
        {0, "00:00:00.000"}, {61001, "00:01:01.001"}, {359999999, "99:59:59.999"}, {360000000, "100:00:00.000"}};
    for (const auto& [milliseconds, text] : times)
        EXPECT_EQ(KRTimerView::formatTime(milliseconds), QString::fromLatin1(text)) << milliseconds;

    KRTimerView view;
    view.setGeometry(10, 20, 300, 200);
    EXPECT_EQ(view.geometry(), QRect(10, 20, 120, 34));
    view.resize(5, 5);
    EXPECT_EQ(view.size(), QSize(120, 34));

    view.setMillSeconds(3723004);
    EXPECT_EQ(view.millSeconds(), 3723004);
    const QImage image = view.grab().toImage();
    ASSERT_EQ(image.size(), QSize(120, 34));
    auto near = [](QRgb pixel, int red, int green, int blue) {
        return std::abs(qRed(pixel) - red) <= 6 && std::abs(qGreen(pixel) - green) <= 6 && std::abs(qBlue(pixel) - blue) <= 6;
    };
    // The text is lighter than the background, so the darkest pixel of a row is the gradient's.
    auto darkestOfRow = [&](int y) {
        QRgb darkest = image.pixel(8, y);
        for (int x = 8; x < 112; ++x)
            if (qGray(image.pixel(x, y)) < qGray(darkest))
                darkest = image.pixel(x, y);
        return darkest;
    };
    EXPECT_TRUE(near(darkestOfRow(17), 4, 25, 57)) << "the gradient's middle stop";
    EXPECT_TRUE(near(darkestOfRow(2), 29, 55, 89)) << "near the top stop";
    EXPECT_TRUE(near(image.pixel(60, 0), 132, 144, 163)) << "the outline";
    int textPixels = 0;
    for (int y = 8; y < 26; ++y)
        for (int x = 10; x < 110; ++x)
            textPixels += near(image.pixel(x, y), 119, 200, 230);
    EXPECT_GT(textPixels, 40) << "the time is drawn in its colour";
}
