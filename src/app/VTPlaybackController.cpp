#include "app/VTPlaybackController.h"

#include "foundation/Dispatch.h"
#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "model/VTMixContext.h"
#include "model/VTProject.h"

#include <atomic>
#include <cstring>

namespace {

const QString kPlayImage = QStringLiteral("play");
const QString kPauseImage = QStringLiteral("pause");

}  // namespace

const QString VTPlaybackController::kProgressValueKey = QStringLiteral("kVTProgressValue");

// One playback: what startPlay captured, shared by the main thread and the
// player's thread.
struct VTPlaybackController::Session {
    Session(VTPlaybackController& owner, std::shared_ptr<VTProject> project, std::shared_ptr<VTMixContext> context,
            uint64_t generation)
        : owner(owner)
        , project(std::move(project))
        , context(std::move(context))
        , generation(generation)
    {
    }

    VTPlaybackController& owner;
    const std::shared_ptr<VTProject> project;
    const std::shared_ptr<VTMixContext> context;
    const uint64_t generation;
    // Set by the player's thread when it posts a cursor update, cleared by
    // the main thread when that update runs.
    std::atomic<bool> updatePending{false};
};

VTPlaybackController::VTPlaybackController(VTPlaybackHost& host)
    : m_host(host)
{
}

VTPlaybackController::~VTPlaybackController()
{
    if (!m_audioPlayerCtrl)
        return;
    m_audioPlayerCtrl->stop();
    m_audioPlayerCtrl->setDelegate(nullptr);
}

VTAudioPlayCtrl& VTPlaybackController::audioPlayerCtrl()
{
    if (!m_audioPlayerCtrl) {
        m_audioPlayerCtrl = std::make_shared<VTAudioPlayCtrl>();
        m_audioPlayerCtrl->setDelegate(this);
    }
    return *m_audioPlayerCtrl;
}

int VTPlaybackController::state() const
{
    return m_audioPlayerCtrl ? m_audioPlayerCtrl->state() : KRAudioPlayer::kStopped;
}

void VTPlaybackController::playClk()
{
    if (state() != KRAudioPlayer::kPlaying) {
        startPlay();
        return;
    }
    audioPlayerCtrl().pause();
    endSession();
    m_host.setPlayButtonImage(kPlayImage);
}

void VTPlaybackController::startPlay()
{
    VTAudioPlayCtrl& ctrl = audioPlayerCtrl();
    // Nothing pulls while the session is replaced.
    ctrl.stop();
    endSession();
    m_session.reset();

    const std::shared_ptr<VTProject> project = m_host.playbackProject();
    if (!project) {
        brindle::log(QStringLiteral("Failed to play at 0"));
        return;
    }
    const int64_t position = project->timePosition();
    auto context = VTMixContext::initWithSamplerate(VTAudioPlayCtrl::defaultSamplerate(),
                                                    VTAudioPlayCtrl::defaultNumberOfChannel(),
                                                    VTAudioPlayCtrl::defaultSampleFormat());
    project->startMixWithContext(*context);
    project->seekToTimestamp(position, *context);
    // Made here so that the player's thread only ever updates the entry.
    context->setUserInfo(int64_t{0}, kProgressValueKey);
    m_session = std::make_shared<Session>(*this, project, context, m_generation);

    if (!ctrl.playWithMixContext(context)) {
        brindle::logf("Failed to play at %lld", static_cast<long long>(position));
        m_session.reset();
        return;
    }
    m_host.setPlayButtonImage(kPauseImage);
}

void VTPlaybackController::stopAudioPlay()
{
    if (state() != KRAudioPlayer::kPlaying)
        return;
    audioPlayerCtrl().stop();
    endSession();
    m_session.reset();
    m_host.setPlayButtonImage(kPlayImage);
}

void VTPlaybackController::seekToTimeposition(int64_t timestamp)
{
    if (const std::shared_ptr<VTProject> project = m_host.playbackProject())
        project->setTimePosition(timestamp);
    if (state() != KRAudioPlayer::kPlaying)
        return;
    startPlay();
    if (state() != KRAudioPlayer::kPlaying)
        m_host.setPlayButtonImage(kPlayImage);
}

void VTPlaybackController::stopAndRelease()
{
    const bool wasActive = state() != KRAudioPlayer::kStopped;
    if (m_audioPlayerCtrl)
        m_audioPlayerCtrl->releaseDevice();
    endSession();
    m_session.reset();
    if (wasActive)
        m_host.setPlayButtonImage(kPlayImage);
}

std::optional<bool> VTPlaybackController::VTAudioPlayCtrlFillBuffer(VTAudioPlayCtrl& ctrl, void* buffer, int64_t,
                                                                    uint32_t* fillPktCount, uint32_t* fillBytesCount,
                                                                    VTMixContext& context)
{
    // Stable while the player runs: the main thread replaces it only while stopped.
    const std::shared_ptr<Session>& session = m_session;
    if (!session || session->context.get() != &context)
        return false;

    const int64_t wanted = *fillPktCount;
    bool appendBefore = false;
    const int64_t produced = session->project->nextSample(buffer, wanted, &appendBefore, context);
    if (produced == brindle::MixSource::kEndOfSource)
        return false;
    const uint32_t bytes = ctrl.bytesPerPacket() * static_cast<uint32_t>(wanted);
    *fillBytesCount = bytes;
    if (produced == 0)
        std::memset(buffer, context.sampleFormat() == 0 ? 0x7F : 0, bytes);
    else if (produced < wanted)
        brindle::log(QStringLiteral("break"));

    const int64_t count = context.numberOfSampleOut() + wanted;
    context.setNumberOfSampleOut(count);
    int64_t* reported = context.userInfoForKey<int64_t>(kProgressValueKey);
    if (!reported)
        return true;
    if (*reported != 0 && count - *reported <= context.samplerate() / 100)
        return true;
    *reported = count;
    postPositionUpdate(session);
    return true;
}

void VTPlaybackController::postPositionUpdate(const std::shared_ptr<Session>& session)
{
    if (session->updatePending.exchange(true, std::memory_order_acq_rel))
        return;
    brindle::mainQueue().async([weak = std::weak_ptr<Session>(session)] {
        // The session lives exactly as long as its controller holds it, so a
        // session found here still has its controller.
        if (const std::shared_ptr<Session> session = weak.lock())
            session->owner.applyPositionUpdate(session);
    });
}

void VTPlaybackController::applyPositionUpdate(const std::shared_ptr<Session>& session)
{
    session->updatePending.store(false, std::memory_order_release);
    if (session != m_session || session->generation != m_generation)
        return;
    const VTMixContext& context = *session->context;
    const int64_t position = context.timestampOfTrackStart()
        + context.numberOfSampleOut() * VTBaseDefine::unitsPerSecond() / context.samplerate();
    session->project->setTimePosition(position);
    m_host.playbackPositionChanged(position, true);
}

void VTPlaybackController::VTAudioPlayCtrlComplete(VTAudioPlayCtrl& ctrl)
{
    const std::shared_ptr<Session> session = m_session;
    ctrl.stop();
    endSession();
    m_session.reset();
    if (!session)
        return;
    session->project->seekToTimestamp(0, *session->context);
    session->project->setTimePosition(0);
    m_host.playbackPositionChanged(0, false);
    m_host.setPlayButtonImage(kPlayImage);
}

void VTPlaybackController::VTAudioPlayCtrlFailed(VTAudioPlayCtrl& ctrl)
{
    ctrl.stop();
    endSession();
    m_session.reset();
    brindle::log(QStringLiteral("Playback stopped: the audio output failed"));
    m_host.setPlayButtonImage(kPlayImage);
}

void VTPlaybackController::endSession()
{
    ++m_generation;
}
