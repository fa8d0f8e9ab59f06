// The audio player against PortAudio and a real ALSA device that writes what
// it plays to a file (or drops it). Device failures are covered by the
// playback tests of the editor, which go through this player.
#include "audio/AlsaTestDevice.h"
#include "media/LogCapture.h"

#include "audio/KRAudioPlayer.h"
#include "foundation/Dispatch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>

using brindle::test::AlsaTestDevice;

namespace {

constexpr int kFrameBytes = 4;  // 16-bit stereo

AudioStreamBasicDescription stereo16()
{
    AudioStreamBasicDescription format;
    format.mSampleRate = 48000;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    format.mBytesPerPacket = format.mBytesPerFrame = kFrameBytes;
    format.mFramesPerPacket = 1;
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
    explicit PatternSource(int64_t frames) : m_frames(frames) {}

    bool KRAudioPlayerFillBuffer(KRAudioPlayer&, void* buffer, int64_t currentPkt, uint32_t* fillPktCount,
                                 uint32_t* fillBytesCount, const AudioStreamBasicDescription&) override
    {
        calls.fetch_add(1);
        discontinuities.fetch_add(currentPkt != nextPkt.load());
        nextPkt.store(currentPkt + *fillPktCount);
        if (currentPkt >= m_frames) {
            askedAfterEnd.fetch_add(1);
            return false;
        }
        const int64_t count = std::min<int64_t>(*fillPktCount, m_frames - currentPkt);
        auto* samples = static_cast<int16_t*>(buffer);
        for (int64_t frame = 0; frame < count * 2; ++frame)
            samples[frame] = patternValue(currentPkt + frame / 2, int(frame % 2));
        // The rest of a short last buffer is left to the player.
        std::fill(samples + count * 2, samples + *fillPktCount * 2, int16_t(-1));
        *fillBytesCount = static_cast<uint32_t>(count * kFrameBytes);
        return true;
    }
    void KRAudioPlayerStopPlay(KRAudioPlayer&, bool failed) override { (failed ? failures : ends).fetch_add(1); }

    std::atomic<int> calls{0};
    std::atomic<int64_t> nextPkt{0};
    std::atomic<int> discontinuities{0};
    std::atomic<int> askedAfterEnd{0};
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
    for (int64_t frame = 0; frame < frames * 2; ++frame)
        if (samples[frame] != patternValue(frame / 2, int(frame % 2)))
            return testing::AssertionFailure() << "frame " << frame / 2 << " differs";
    const QByteArray tail = played.mid(frames * kFrameBytes);
    if (tail.count('\0') != tail.size())
        return testing::AssertionFailure() << "sound after the end";
    return testing::AssertionSuccess();
}

bool waitFor(const std::function<bool()>& condition)
{
    return brindle::runMainQueueUntil(condition, 10000);
}

class KRAudioPlayerTest : public testing::Test {
protected:
    AlsaTestDevice& device = AlsaTestDevice::shared();
    const AudioStreamBasicDescription format = stereo16();
};

}  // namespace

TEST_F(KRAudioPlayerTest, playsWhatItsDelegateFillsUntilItRunsOutAndRestartsAKeptStreamFromTheStart)
{
    const int64_t frames = 20011;
    KRAudioPlayer player;
    PatternSource source(frames);
    player.setDelegate(&source);
    const QString path = device.playIntoFile(QStringLiteral("pattern"));
    ASSERT_TRUE(player.playWithDataFormat(&format));
    ASSERT_TRUE(waitFor([&] { return source.ends.load() == 1; }));
    EXPECT_EQ(player.state(), KRAudioPlayer::kPlaying) << "the state stays until stop";
    player.stop();
    EXPECT_EQ(player.state(), KRAudioPlayer::kStopped);
    EXPECT_EQ(source.askedAfterEnd.load(), 1) << "nothing is asked after the delegate answered false";
    const QByteArray first = AlsaTestDevice::played(path);
    EXPECT_TRUE(playsPattern(AlsaTestDevice::withoutLeadingSilence(first, kFrameBytes), frames));

    // The stopped stream stayed open: playing again starts it from frame 0 on
    // the device it was opened on, until the device is released.
    device.playIntoNothing();
    source.nextPkt = 0;
    source.ends = 0;
    source.askedAfterEnd = 0;
    ASSERT_TRUE(player.playWithDataFormat(&format));
    ASSERT_TRUE(waitFor([&] { return source.ends.load() == 1; }));
    player.releaseDevice();
    const QByteArray again = AlsaTestDevice::played(path).mid(first.size());
    EXPECT_TRUE(playsPattern(AlsaTestDevice::withoutLeadingSilence(again, kFrameBytes), frames));
    EXPECT_EQ(source.discontinuities.load(), 0);
    EXPECT_EQ(source.failures.load(), 0);
}

TEST_F(KRAudioPlayerTest, pauseKeepsThePositionAndAnAskedForStopIsNotReported)
{
    device.playIntoNothing();
    KRAudioPlayer player;
    PatternSource source(int64_t(1) << 40);
    player.setDelegate(&source);
    ASSERT_TRUE(player.playWithDataFormat(&format));
    ASSERT_TRUE(waitFor([&] { return source.calls.load() > 3; }));
    player.pause();
    EXPECT_EQ(player.state(), KRAudioPlayer::kPaused);
    const int callsWhenPaused = source.calls.load();
    player.resume();
    EXPECT_EQ(player.state(), KRAudioPlayer::kPlaying);
    ASSERT_TRUE(waitFor([&] { return source.calls.load() > callsWhenPaused + 3; }));
    EXPECT_EQ(source.discontinuities.load(), 0) << "resumed where it paused";

    // Playing again replaces the running stream and starts from frame 0.
    ASSERT_TRUE(player.playWithDataFormat(&format));
    EXPECT_TRUE(waitFor([&] { return source.discontinuities.load() == 1; }));
    player.stop();
    EXPECT_EQ(source.ends.load() + source.failures.load(), 0);
}

TEST_F(KRAudioPlayerTest, refusesFormatsItCannotPlay)
{
    device.playIntoNothing();
    using Change = void (*)(AudioStreamBasicDescription&);
    const std::pair<const char*, Change> cases[] = {
        {"not PCM", [](AudioStreamBasicDescription& f) { f.mFormatID = 0x61616320; }},
        {"float", [](AudioStreamBasicDescription& f) { f.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked; }},
        {"big-endian", [](AudioStreamBasicDescription& f) { f.mFormatFlags |= kAudioFormatFlagIsBigEndian; }},
        {"32-bit", [](AudioStreamBasicDescription& f) { f.mBitsPerChannel = 32, f.mBytesPerFrame = f.mBytesPerPacket = 8; }},
        {"frame size", [](AudioStreamBasicDescription& f) { f.mBytesPerFrame = 6; }},
        {"NaN rate", [](AudioStreamBasicDescription& f) { f.mSampleRate = std::nan(""); }},
    };
    KRAudioPlayer player;
    PatternSource source(48000);
    player.setDelegate(&source);
    for (const auto& [name, change] : cases) {
        AudioStreamBasicDescription refused = format;
        change(refused);
        brindle::test::LogCapture log;
        EXPECT_FALSE(player.playWithDataFormat(&refused)) << name;
        EXPECT_TRUE(log.containsText(QStringLiteral("refusing the stream format"))) << name;
    }
    EXPECT_FALSE(player.playWithDataFormat(nullptr));
    EXPECT_EQ(player.state(), KRAudioPlayer::kStopped);
    EXPECT_EQ(source.calls.load(), 0);
}
