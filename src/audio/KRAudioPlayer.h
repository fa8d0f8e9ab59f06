// The audio player: plays interleaved signed 16-bit PCM on the default output
// device, pulling every buffer from its delegate.
//
// Contract
// - Output goes through PortAudio in callback mode on the default output
//   device. PortAudio is initialised once per process, when the first player
//   is made; it reads the sound configuration then (ALSA_CONFIG_PATH, for
//   instance, must be set before that).
// - States: 0 stopped, 1 paused, 2 playing. `playWithDataFormat` starts a
//   stream from frame 0 (stopping a running one first); `pause` stops pulling
//   and keeps the position, `resume` goes on from there; `stop` ends the
//   stream at once. `state()` may be read from any thread.
// - Opening a device can take tens of milliseconds (a sound server has to
//   register a client), so a stopped stream stays open and the next play in
//   the same format starts it again. It is closed by `releaseDevice`, by the
//   destructor, by a play in another format, and after a device failure; a
//   kept stream that will not start again is replaced by a freshly opened one.
// - The delegate is asked for audio on PortAudio's own thread, once per
//   buffer, with the index of the buffer's first frame since play began. An
//   answer of false ends the stream by itself: that buffer is played as
//   silence and nothing more is asked. The state stays as it was until the
//   owner calls `stop`. A paused player asks nothing.
// - When the stream ends without being told to (the delegate answered false,
//   or the device failed), the delegate hears `KRAudioPlayerStopPlay` on
//   PortAudio's thread, with `failed` set for a device failure (also logged).
// - Failures (no device, a busy device, an unsupported format) are logged and
//   make `playWithDataFormat` answer false; nothing throws or hangs.
// - Threads: make, control and destroy a player on one thread (the main
//   thread). The per-buffer path takes no lock, waits on nothing and
//   allocates nothing.
// - Ownership: the delegate is not owned. It must stay valid until `stop`
//   returns or the player is destroyed; change it only while stopped.
#pragma once

#include "audio/AudioStreamBasicDescription.h"

#include <atomic>
#include <cstdint>

class KRAudioPlayer;

class KRAudioPlayerDelegate {
public:
    virtual ~KRAudioPlayerDelegate() = default;

    // Fills `buffer` with up to *fillPktCount frames (packets) in `format`,
    // the first of them being frame `currentPkt` since play began, and stores
    // the bytes written in *fillBytesCount; bytes not written are played as
    // silence. Answers false when there is nothing more to play. Runs on
    // PortAudio's thread.
    virtual bool KRAudioPlayerFillBuffer(KRAudioPlayer& player, void* buffer, int64_t currentPkt,
                                         uint32_t* fillPktCount, uint32_t* fillBytesCount,
                                         const AudioStreamBasicDescription& format) = 0;
    // After each filled buffer: the frames just handed to the device and the
    // total handed over since play began. Runs on PortAudio's thread.
    virtual void KRAudioPlayerPlayPacketCount(KRAudioPlayer& player, int64_t playPacketCount,
                                              int64_t totalPacketCount, const AudioStreamBasicDescription& format)
    {
        (void)player, (void)playPacketCount, (void)totalPacketCount, (void)format;
    }
    // The stream ended by itself; `failed` when the device failed rather than
    // the delegate running out. Runs on PortAudio's thread.
    virtual void KRAudioPlayerStopPlay(KRAudioPlayer& player, bool failed) { (void)player, (void)failed; }
};

class KRAudioPlayer final {
public:
    enum State : int { kStopped = 0, kPaused = 1, kPlaying = 2 };

    KRAudioPlayer();
    ~KRAudioPlayer();
    KRAudioPlayer(const KRAudioPlayer&) = delete;
    KRAudioPlayer& operator=(const KRAudioPlayer&) = delete;

    void setDelegate(KRAudioPlayerDelegate* delegate);
    KRAudioPlayerDelegate* delegate() const { return m_delegate.load(std::memory_order_acquire); }
    int state() const { return m_state.load(std::memory_order_acquire); }

    // Opens and starts a stream in `format`; false (with a log line) when the
    // format is not supported or the device cannot be opened or started.
    bool playWithDataFormat(const AudioStreamBasicDescription* format);
    // Only while playing.
    void pause();
    // Only while paused. A stream that cannot be restarted is closed (state 0).
    void resume();
    // While playing or paused: ends the stream at once (it stays open for
    // the next play).
    void stop();
    // Stops, and closes the stream so that the device is free.
    void releaseDevice();

private:
    // PortAudio's callbacks, which forward to the two members below.
    struct StreamCallbacks;
    int renderBuffer(void* output, unsigned long frames);
    void streamDidFinish();
    bool openStream(const AudioStreamBasicDescription& format);
    bool startStream();
    void closeStream();

    std::atomic<KRAudioPlayerDelegate*> m_delegate{nullptr};
    std::atomic<int> m_state{kStopped};
    // Controlling thread only.
    void* m_stream = nullptr;
    // Written by the controlling thread while no buffer is being pulled, read
    // by PortAudio's thread; published by the release store to m_runEpoch
    // before each start.
    AudioStreamBasicDescription m_format;
    std::atomic<uint64_t> m_runEpoch{0};
    // Written by PortAudio's thread; reset by the controlling thread before a
    // stream is opened.
    std::atomic<int64_t> m_currentPkt{0};
    std::atomic<bool> m_drained{false};
    // Set by PortAudio's thread when the device failed; the stream is then
    // closed by the next stop.
    std::atomic<bool> m_deviceFailed{false};
    // Set by the controlling thread before it stops the stream, so that the
    // finished notice it causes is not taken for the stream ending by itself.
    std::atomic<bool> m_stopping{false};
};
