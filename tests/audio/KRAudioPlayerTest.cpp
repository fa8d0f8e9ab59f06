// The audio player against PortAudio and a real ALSA device that writes
// what it plays to a file (or drops it, or fails).
#include "audio/AlsaTestDevice.h"

#include "audio/KRAudioPlayer.h"
#include "foundation/Dispatch.h"
#include "foundation/Log.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>

using brindle::test::AlsaTestDevice;

namespace {

constexpr int kFrameBytes = 4;  // 16-bit stereo

AudioStreamBasicDescription stereo16()
{
    AudioStreamBasicDescription format;
    format.mSampleRate = 48000;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    format.mBytesPerPacket = kFrameBytes;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = kFrameBytes;
    format.mChannelsPerFrame = 2;
    format.mBitsPerChannel = 16;
    return format;
}

// Never zero, so that the device's leading silence can be told from it.
int16_t patternValue(int64_t frame, int channel)
{
    return static_cast<int16_t>(frame % 20000 + 1 + channel * 7000);
}

// Plays `frames` frames of the pattern (the last buffer only partly filled),
// then answers false; records how it was asked.
class PatternSource final : public KRAudioPlayerDelegate {
public:
    explicit PatternSource(int64_t frames)
        : m_frames(frames)
    {
    }

    bool KRAudioPlayerFillBuffer(KRAudioPlayer&, void* buffer, int64_t currentPkt, uint32_t* fillPktCount,
                                 uint32_t* fillBytesCount, const AudioStreamBasicDescription& format) override
    {
        calls.fetch_add(1);
        if (currentPkt != nextPkt.load())
            discontinuities.fetch_add(1);
        nextPkt.store(currentPkt + *fillPktCount);
        if (format.mBytesPerFrame != kFrameBytes)
            wrongFormat.store(true);
        if (currentPkt >= m_frames) {
            askedAfterEnd.fetch_add(1);
            return false;
        }
        const int64_t count = std::min<int64_t>(*fillPktCount, m_frames - currentPkt);
        auto* samples = static_cast<int16_t*>(buffer);
        for (int64_t frame = 0; frame < count; ++frame)
            for (int channel = 0; channel < 2; ++channel)
                samples[frame * 2 + channel] = patternValue(currentPkt + frame, channel);
        // Leaves the rest of a short last buffer to the player.
        std::fill(samples + count * 2, samples + *fillPktCount * 2, int16_t(-1));
        *fillBytesCount = static_cast<uint32_t>(count * kFrameBytes);
        return true;
    }
    void KRAudioPlayerPlayPacketCount(KRAudioPlayer&, int64_t, int64_t totalPacketCount,
                                      const AudioStreamBasicDescription&) override
    {
        handedOver.store(totalPacketCount);
    }
    void KRAudioPlayerStopPlay(KRAudioPlayer&, bool failed) override
    {
        (failed ? failures : ends).fetch_add(1);
    }

    std::atomic<int> calls{0};
    std::atomic<int64_t> nextPkt{0};
    std::atomic<int> discontinuities{0};
    std::atomic<int> askedAfterEnd{0};
    std::atomic<bool> wrongFormat{false};
    std::atomic<int64_t> handedOver{0};
    std::atomic<int> ends{0};
    std::atomic<int> failures{0};

private:
    const int64_t m_frames;
};

// Whether `played` is the first `frames` frames of the pattern followed by
// silence only.
testing::AssertionResult playsPattern(const QByteArray& played, int64_t frames)
{
    if (played.size() < frames * kFrameBytes)
        return testing::AssertionFailure() << "only " << played.size() / kFrameBytes << " frames played";
    const auto* samples = reinterpret_cast<const int16_t*>(played.constData());
    for (int64_t frame = 0; frame < frames; ++frame)
        for (int channel = 0; channel < 2; ++channel)
            if (samples[frame * 2 + channel] != patternValue(frame, channel))
                return testing::AssertionFailure() << "frame " << frame << " differs";
    // What the delegate left unfilled, and the buffer after the end, are silence.
    const QByteArray tail = played.mid(frames * kFrameBytes);
    if (tail.count('\0') != tail.size())
        return testing::AssertionFailure() << "sound after the end";
    return testing::AssertionSuccess();
}

class LogLines {
public:
    LogLines()
    {
        m_previous = brindle::setLogSink([this](const QString& line) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.append(line);
        });
    }
    ~LogLines() { brindle::setLogSink(m_previous); }
    bool containsText(const QString& text) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::any_of(m_lines.begin(), m_lines.end(), [&](const QString& line) { return line.contains(text); });
    }

private:
    mutable std::mutex m_mutex;
    QStringList m_lines;
    brindle::LogSink m_previous;
};

bool waitFor(const std::function<bool()>& condition)
{
    return brindle::runMainQueueUntil(condition, 10000);
}

class KRAudioPlayerTest : public testing::Test {
protected:
    AlsaTestDevice& device = AlsaTestDevice::shared();
};

}  // namespace

TEST_F(KRAudioPlayerTest, playsWhatItsDelegateFillsAndEndsByItselfWhenTheDelegateRunsOut)
{
    const int64_t frames = 20011;
    KRAudioPlayer player;
    PatternSource source(frames);
    player.setDelegate(&source);
    const AudioStreamBasicDescription format = stereo16();

    const QString path = device.playIntoFile(QStringLiteral("pattern"));
    ASSERT_TRUE(player.playWithDataFormat(&format));
    EXPECT_EQ(player.state(), KRAudioPlayer::kPlaying);

    ASSERT_TRUE(waitFor([&] { return source.ends.load() == 1; }));
    EXPECT_EQ(player.state(), KRAudioPlayer::kPlaying) << "the state stays until stop";
    player.stop();
    EXPECT_EQ(player.state(), KRAudioPlayer::kStopped);

    EXPECT_EQ(source.discontinuities.load(), 0);
    EXPECT_EQ(source.askedAfterEnd.load(), 1) << "nothing is asked after the delegate answered false";
    EXPECT_FALSE(source.wrongFormat.load());
    EXPECT_EQ(source.failures.load(), 0);
    EXPECT_GE(source.handedOver.load(), frames);

    const QByteArray bytes = AlsaTestDevice::played(path);
    EXPECT_TRUE(playsPattern(AlsaTestDevice::withoutLeadingSilence(bytes, kFrameBytes), frames));

    // The stopped stream stayed open: playing again starts it from frame 0 on
    // the device it was opened on, until the device is released.
    device.playIntoNothing();
    source.nextPkt = 0;
    source.ends = 0;
    ASSERT_TRUE(player.playWithDataFormat(&format));
    ASSERT_TRUE(waitFor([&] { return source.ends.load() == 1; }));
    player.releaseDevice();
    const QByteArray again = AlsaTestDevice::played(path).mid(bytes.size());
    EXPECT_TRUE(playsPattern(AlsaTestDevice::withoutLeadingSilence(again, kFrameBytes), frames));
    EXPECT_EQ(source.discontinuities.load(), 0);
}

TEST_F(KRAudioPlayerTest, pauseKeepsThePositionAndResumeGoesOnFromIt)
{
    device.playIntoNothing();
    KRAudioPlayer player;
    PatternSource source(int64_t(1) << 40);
    player.setDelegate(&source);
    const AudioStreamBasicDescription format = stereo16();

    player.pause();
    player.resume();
    EXPECT_EQ(player.state(), KRAudioPlayer::kStopped) << "pause and resume do nothing while stopped";

    ASSERT_TRUE(player.playWithDataFormat(&format));
    ASSERT_TRUE(waitFor([&] { return source.calls.load() > 3; }));
    player.resume();
    EXPECT_EQ(player.state(), KRAudioPlayer::kPlaying);
    player.pause();
    EXPECT_EQ(player.state(), KRAudioPlayer::kPaused);
    const int callsWhenPaused = source.calls.load();
    const int64_t position = source.nextPkt.load();
    player.pause();
    EXPECT_EQ(player.state(), KRAudioPlayer::kPaused);
    EXPECT_EQ(source.calls.load(), callsWhenPaused) << "a paused player asks for nothing";

    player.resume();
    EXPECT_EQ(player.state(), KRAudioPlayer::kPlaying);
    ASSERT_TRUE(waitFor([&] { return source.calls.load() > callsWhenPaused + 3; }));
    EXPECT_EQ(source.discontinuities.load(), 0) << "paused at " << position;
    EXPECT_GT(source.nextPkt.load(), position);

    // Playing again replaces the running stream and starts from frame 0.
    ASSERT_TRUE(player.playWithDataFormat(&format));
    EXPECT_TRUE(waitFor([&] { return source.discontinuities.load() == 1; }));
    player.stop();
    EXPECT_EQ(source.ends.load() + source.failures.load(), 0) << "a stop asked for is not reported";
}

TEST_F(KRAudioPlayerTest, refusesFormatsItCannotPlay)
{
    device.playIntoNothing();
    struct Case {
        const char* name;
        void (*change)(AudioStreamBasicDescription&);
    };
    const Case cases[] = {
        {"not linear PCM", [](AudioStreamBasicDescription& f) { f.mFormatID = 0x61616320; }},
        {"float", [](AudioStreamBasicDescription& f) { f.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked; }},
        {"unsigned", [](AudioStreamBasicDescription& f) { f.mFormatFlags = kAudioFormatFlagIsPacked; }},
        {"big-endian", [](AudioStreamBasicDescription& f) { f.mFormatFlags |= kAudioFormatFlagIsBigEndian; }},
        {"non-interleaved", [](AudioStreamBasicDescription& f) { f.mFormatFlags |= kAudioFormatFlagIsNonInterleaved; }},
        {"32-bit", [](AudioStreamBasicDescription& f) { f.mBitsPerChannel = 32, f.mBytesPerFrame = f.mBytesPerPacket = 8; }},
        {"no channels", [](AudioStreamBasicDescription& f) { f.mChannelsPerFrame = 0; }},
        {"frame size", [](AudioStreamBasicDescription& f) { f.mBytesPerFrame = 6; }},
        {"zero rate", [](AudioStreamBasicDescription& f) { f.mSampleRate = 0; }},
        {"NaN rate", [](AudioStreamBasicDescription& f) { f.mSampleRate = std::nan(""); }},
    };
    KRAudioPlayer player;
    PatternSource source(48000);
    player.setDelegate(&source);
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        AudioStreamBasicDescription format = stereo16();
        testCase.change(format);
        LogLines log;
        EXPECT_FALSE(player.playWithDataFormat(&format));
        EXPECT_TRUE(log.containsText(QStringLiteral("refusing the stream format")));
        EXPECT_EQ(player.state(), KRAudioPlayer::kStopped);
    }
    LogLines log;
    EXPECT_FALSE(player.playWithDataFormat(nullptr));
    EXPECT_TRUE(log.containsText(QStringLiteral("no stream format")));
    EXPECT_EQ(source.calls.load(), 0);
}

TEST_F(KRAudioPlayerTest, aDeviceThatCannotOpenOrDiesWhilePlayingIsReportedNotFatal)
{
    KRAudioPlayer player;
    PatternSource source(int64_t(1) << 40);
    player.setDelegate(&source);
    const AudioStreamBasicDescription format = stereo16();
    {
        device.makeUnopenable();
        LogLines log;
        EXPECT_FALSE(player.playWithDataFormat(&format));
        EXPECT_TRUE(log.containsText(QStringLiteral("cannot open the output device")));
        EXPECT_EQ(player.state(), KRAudioPlayer::kStopped);
    }
    {
        device.failWhilePlaying();
        LogLines log;
        ASSERT_TRUE(player.playWithDataFormat(&format));
        ASSERT_TRUE(waitFor([&] { return source.failures.load() == 1; }));
        EXPECT_TRUE(log.containsText(QStringLiteral("stopped while playing")));
        EXPECT_EQ(source.ends.load(), 0);
        player.stop();
        EXPECT_EQ(player.state(), KRAudioPlayer::kStopped);
    }
    // The same player plays again once the device is back.
    device.playIntoNothing();
    source.calls = 0;
    ASSERT_TRUE(player.playWithDataFormat(&format));
    EXPECT_TRUE(waitFor([&] { return source.calls.load() > 2; }));
    player.stop();
}
