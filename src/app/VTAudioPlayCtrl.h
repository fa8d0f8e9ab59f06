// The play controller: a small adapter between the editor and the audio
// player. It plays one mix context at a time in the stream format derived
// from that context, passes the player's requests for audio on to its
// delegate together with the context, and tells the delegate on the main
// queue when playback has run out or the device failed.
//
// Contract
// - Make it with std::make_shared (it hands weak references of itself to the
//   main queue). It has no widgets and no Qt GUI dependency.
// - `playWithMixContext` stops what is playing, keeps the context (replacing
//   the previous one) and starts the player; `pause` acts only while playing
//   (state 2), `resume` only while paused (1), `stop` only while playing or
//   paused. `state` reads the player's state.
// - The delegate's fill operation runs on the player's thread. When it
//   answers false or is not implemented, `VTAudioPlayCtrlComplete` follows
//   on the main queue; when the device fails, `VTAudioPlayCtrlFailed` does.
//   Either notice is dropped when another playback was started meanwhile or
//   the controller is gone.
// - Threads: every operation but the fill belongs to the main thread. The
//   context is handed to the player's thread when the player starts and is
//   not touched by the main thread again until the player is stopped.
// - Ownership: the player is owned; the delegate is not. The delegate must
//   outlive the controller or be cleared (setDelegate(nullptr)) while stopped.
#pragma once

#include "audio/KRAudioPlayer.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

class VTAudioPlayCtrl;
class VTMixContext;

class VTAudioPlayCtrlDelegate {
public:
    virtual ~VTAudioPlayCtrlDelegate() = default;

    // Fills `buffer` with *fillPktCount frames of `context`'s mix and stores
    // the bytes filled in *fillBytesCount; answers true while there is more
    // to play. Runs on the player's thread. The default says "not
    // implemented" (no answer), which ends playback.
    virtual std::optional<bool> VTAudioPlayCtrlFillBuffer(VTAudioPlayCtrl& ctrl, void* buffer, int64_t currentPkt,
                                                          uint32_t* fillPktCount, uint32_t* fillBytesCount,
                                                          VTMixContext& context)
    {
        (void)ctrl, (void)buffer, (void)currentPkt, (void)fillPktCount, (void)fillBytesCount, (void)context;
        return std::nullopt;
    }
    // Playback has run out (main queue).
    virtual void VTAudioPlayCtrlComplete(VTAudioPlayCtrl& ctrl) = 0;
    // The player stopped by itself because the output device failed (main queue).
    virtual void VTAudioPlayCtrlFailed(VTAudioPlayCtrl& ctrl) { (void)ctrl; }
};

class VTAudioPlayCtrl final : public KRAudioPlayerDelegate, public std::enable_shared_from_this<VTAudioPlayCtrl> {
public:
    // Makes the player and becomes its delegate.
    VTAudioPlayCtrl();
    ~VTAudioPlayCtrl() override;
    VTAudioPlayCtrl(const VTAudioPlayCtrl&) = delete;
    VTAudioPlayCtrl& operator=(const VTAudioPlayCtrl&) = delete;

    // The format every playback uses: 48000 Hz, 2 channels, signed 16-bit (code 1).
    static int64_t defaultSamplerate() { return 48000; }
    static int64_t defaultNumberOfChannel() { return 2; }
    static int32_t defaultSampleFormat() { return 1; }

    // The stream description of a context's format: linear PCM, flags 12
    // (signed integer, packed), one frame per packet.
    static AudioStreamBasicDescription audioStreamBasicDescriptionFromContext(const VTMixContext& context);

    VTAudioPlayCtrlDelegate* delegate() const { return m_delegate.load(std::memory_order_acquire); }
    void setDelegate(VTAudioPlayCtrlDelegate* delegate) { m_delegate.store(delegate, std::memory_order_release); }
    // 0 stopped, 1 paused, 2 playing.
    int state() const { return m_player->state(); }
    const std::shared_ptr<VTMixContext>& mixContext() const { return m_mixContext; }
    // Bytes of one frame of the current context's format.
    uint32_t bytesPerPacket() const { return m_bytesPerPacket; }

    bool playWithMixContext(std::shared_ptr<VTMixContext> mixContext);
    void pause();
    void resume();
    void stop();
    // Stops, and lets the player close its device (a stopped player keeps it
    // open so that the next play starts sooner).
    void releaseDevice();

    // KRAudioPlayerDelegate (the player's thread).
    bool KRAudioPlayerFillBuffer(KRAudioPlayer& player, void* buffer, int64_t currentPkt, uint32_t* fillPktCount,
                                 uint32_t* fillBytesCount, const AudioStreamBasicDescription& format) override;
    void KRAudioPlayerStopPlay(KRAudioPlayer& player, bool failed) override;

private:
    enum class Notice { Complete, Failed };
    // Sends a notice to the delegate on the main queue, unless another
    // playback started before it arrives.
    void postNotice(Notice notice);

    std::atomic<VTAudioPlayCtrlDelegate*> m_delegate{nullptr};
    // Written on the main thread while the player is stopped; read by the
    // player's thread while it plays.
    std::shared_ptr<VTMixContext> m_mixContext;
    uint32_t m_bytesPerPacket = 0;
    // Counts playWithMixContext calls; notices carry the value of their playback.
    std::atomic<uint64_t> m_playback{0};
    // Declared last so that it is destroyed (and its stream closed) first.
    std::unique_ptr<KRAudioPlayer> m_player;
};
