#include "app/VTAudioPlayCtrl.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/Dispatch.h"
#include "model/VTMixContext.h"

VTAudioPlayCtrl::VTAudioPlayCtrl()
    : m_player(std::make_unique<KRAudioPlayer>())
{
    m_player->setDelegate(this);
}

VTAudioPlayCtrl::~VTAudioPlayCtrl()
{
    // Close the stream while every member the player's thread reads still exists.
    m_player->releaseDevice();
}

AudioStreamBasicDescription VTAudioPlayCtrl::audioStreamBasicDescriptionFromContext(const VTMixContext& context)
{
    const auto channels = static_cast<uint32_t>(context.numberOfChannel());
    const auto bits = static_cast<uint32_t>(8 * KRAudioFrame2::bytesForSampleFormat(context.sampleFormat()));
    AudioStreamBasicDescription description;
    description.mSampleRate = static_cast<double>(context.samplerate());
    description.mFormatID = kAudioFormatLinearPCM;
    description.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    description.mBytesPerPacket = bits * channels / 8;
    description.mFramesPerPacket = 1;
    description.mBytesPerFrame = bits * channels / 8;
    description.mChannelsPerFrame = channels;
    description.mBitsPerChannel = bits;
    description.mReserved = 0;
    return description;
}

bool VTAudioPlayCtrl::playWithMixContext(std::shared_ptr<VTMixContext> mixContext)
{
    stop();
    m_playback.fetch_add(1, std::memory_order_relaxed);
    m_mixContext = std::move(mixContext);
    if (!m_mixContext)
        return false;
    m_bytesPerPacket = static_cast<uint32_t>(m_mixContext->bytesPerSample());
    const AudioStreamBasicDescription description = audioStreamBasicDescriptionFromContext(*m_mixContext);
    return m_player->playWithDataFormat(&description);
}

void VTAudioPlayCtrl::pause()
{
    if (m_player->state() == KRAudioPlayer::kPlaying)
        m_player->pause();
}

void VTAudioPlayCtrl::resume()
{
    if (m_player->state() == KRAudioPlayer::kPaused)
        m_player->resume();
}

void VTAudioPlayCtrl::stop()
{
    const int state = m_player->state();
    if (state == KRAudioPlayer::kPlaying || state == KRAudioPlayer::kPaused)
        m_player->stop();
}

void VTAudioPlayCtrl::releaseDevice()
{
    m_player->releaseDevice();
}

bool VTAudioPlayCtrl::KRAudioPlayerFillBuffer(KRAudioPlayer&, void* buffer, int64_t currentPkt,
                                              uint32_t* fillPktCount, uint32_t* fillBytesCount,
                                              const AudioStreamBasicDescription&)
{
    if (VTAudioPlayCtrlDelegate* delegate = m_delegate.load(std::memory_order_acquire)) {
        const std::optional<bool> more =
            delegate->VTAudioPlayCtrlFillBuffer(*this, buffer, currentPkt, fillPktCount, fillBytesCount, *m_mixContext);
        if (more.value_or(false))
            return true;
    }
    postNotice(Notice::Complete);
    return false;
}

void VTAudioPlayCtrl::KRAudioPlayerStopPlay(KRAudioPlayer&, bool failed)
{
    if (failed)
        postNotice(Notice::Failed);
}

void VTAudioPlayCtrl::postNotice(Notice notice)
{
    const uint64_t playback = m_playback.load(std::memory_order_relaxed);
    brindle::mainQueue().async([weak = weak_from_this(), playback, notice] {
        const std::shared_ptr<VTAudioPlayCtrl> self = weak.lock();
        if (!self || self->m_playback.load(std::memory_order_relaxed) != playback)
            return;
        VTAudioPlayCtrlDelegate* delegate = self->delegate();
        if (!delegate)
            return;
        if (notice == Notice::Complete)
            delegate->VTAudioPlayCtrlComplete(*self);
        else
            delegate->VTAudioPlayCtrlFailed(*self);
    });
}
