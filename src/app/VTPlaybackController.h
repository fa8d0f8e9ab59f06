// Playback of the open project: the application controller's play, pause,
// stop and seek, the supply of mixed samples to the play controller, and
// the play cursor, time read-out and timeline that follow the sound.
//
// Contract
// - Every mix is played at 48000 Hz, 2 channels, signed 16-bit, from the
//   project's time position; pressing play on a paused playback starts a new
//   mix from the cursor rather than resuming.
// - The fill callback runs on the player's thread. It pulls from the project
//   and mix context captured by `startPlay` (kept alive here until the next
//   playback or `stopAndRelease`), writes silence with one byte fill, and
//   posts at most one cursor update to the main queue per 10 ms of audio
//   (the first of a playback always). While one update waits in the queue no
//   other is posted; the waiting one reports the latest position when it
//   runs. An update or completion that arrives after its playback was
//   paused, stopped or restarted does nothing.
// - The main thread may edit the project while it plays (cut, paste, delete,
//   moves, volume): the model publishes immutable snapshots for the mixer.
// - Threads: everything but the fill callback belongs to the main thread.
// - Ownership: owns its play controller (made on first use); the host is not
//   owned and must outlive this controller.
#pragma once

#include "app/VTAudioPlayCtrl.h"

#include <QString>

#include <cstdint>
#include <memory>

class VTMixContext;
class VTProject;

class VTPlaybackHost {
public:
    virtual ~VTPlaybackHost() = default;
    // The open project; playback keeps the one it started with alive until it stops.
    virtual std::shared_ptr<VTProject> playbackProject() = 0;
    // The play button shows the image named "play" or "pause".
    virtual void setPlayButtonImage(const QString& name) = 0;
    // After the project's time position moved during playback or at its end: the read-out's
    // setMillSeconds, the timeline's scrollToTimestamp (only when `scroll`) and reloadData.
    virtual void playbackPositionChanged(int64_t timestamp, bool scroll) = 0;
};

class VTPlaybackController final : public VTAudioPlayCtrlDelegate {
public:
    // The user-info key under which the last reported frame count is kept.
    static const QString kProgressValueKey;  // "kVTProgressValue"

    explicit VTPlaybackController(VTPlaybackHost& host);
    ~VTPlaybackController() override;
    VTPlaybackController(const VTPlaybackController&) = delete;
    VTPlaybackController& operator=(const VTPlaybackController&) = delete;

    // The play controller, made on first use.
    VTAudioPlayCtrl& audioPlayerCtrl();
    // The play controller's state (0 stopped, 1 paused, 2 playing); 0 before
    // one was made.
    int state() const;

    // The play button: pauses while playing, otherwise starts from the cursor.
    void playClk();
    // Starts a new mix from the project's time position.
    void startPlay();
    // Only while playing: stops and shows "play". A paused player stays paused.
    void stopAudioPlay();
    // Moves the cursor; while playing, restarts from there at once.
    void seekToTimeposition(int64_t timestamp);
    // Stops whatever the state, lets go of the project being played and
    // frees the audio device; for when the open project is replaced or the
    // window closes.
    void stopAndRelease();

    // VTAudioPlayCtrlDelegate.
    std::optional<bool> VTAudioPlayCtrlFillBuffer(VTAudioPlayCtrl& ctrl, void* buffer, int64_t currentPkt,
                                                  uint32_t* fillPktCount, uint32_t* fillBytesCount,
                                                  VTMixContext& context) override;
    void VTAudioPlayCtrlComplete(VTAudioPlayCtrl& ctrl) override;
    void VTAudioPlayCtrlFailed(VTAudioPlayCtrl& ctrl) override;

private:
    struct Session;

    // Ends the current playback's claim on the interface: updates and
    // notices still on their way are dropped from now on.
    void endSession();
    void postPositionUpdate(const std::shared_ptr<Session>& session);
    void applyPositionUpdate(const std::shared_ptr<Session>& session);

    VTPlaybackHost& m_host;
    // Replaced on the main thread only while the player is stopped; read by
    // the player's thread while it plays.
    std::shared_ptr<Session> m_session;
    // Main thread only: counts sessions; a session is current while its own
    // number equals it.
    uint64_t m_generation = 0;
    std::shared_ptr<VTAudioPlayCtrl> m_audioPlayerCtrl;
};
