#include "audio/KRAudioPlayer.h"

#include "foundation/Log.h"

#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <portaudio.h>

#include <cstdlib>
#include <cstring>

namespace {

// While PortAudio lists the devices, ALSA prints a line for every
// configuration it cannot open and the JACK client library one for every
// server it cannot reach: dozens on a machine without a sound card or sound
// server, on every start of the editor. What matters (no device, a device
// that failed) is logged by the player itself, so their own lines are
// dropped unless BRINDLE_AUDIO_DEBUG is set. The JACK library is PortAudio's
// dependency, not ours: its message hooks are looked up in the process.
void dropAlsaMessage(const char*, int, const char*, int, const char*, ...) {}
void dropJackMessage(const char*) {}

void quietSoundLibrariesUnlessDebugging()
{
    const char* debug = std::getenv("BRINDLE_AUDIO_DEBUG");
    if (debug && *debug)
        return;
    snd_lib_error_set_handler(dropAlsaMessage);
    using SetMessageHook = void (*)(void (*)(const char*));
    for (const char* name : {"jack_set_error_function", "jack_set_info_function"}) {
        if (auto setHook = reinterpret_cast<SetMessageHook>(dlsym(RTLD_DEFAULT, name)))
            setHook(dropJackMessage);
    }
}

// Initialises PortAudio once per process and answers whether it is usable.
// It is never terminated: a stream of another player may still be open
// while the process ends, and the operating system reclaims the rest.
bool portAudioReady()
{
    static const bool ready = [] {
        quietSoundLibrariesUnlessDebugging();
        const PaError error = Pa_Initialize();
        if (error != paNoError) {
            brindle::logf("Audio output: PortAudio could not be initialised (%s); playback is unavailable",
                          Pa_GetErrorText(error));
            return false;
        }
        return true;
    }();
    return ready;
}

// The text of a PortAudio error, with the host's own text when it has one.
QString errorText(PaError error)
{
    QString text = QString::fromUtf8(Pa_GetErrorText(error));
    if (error == paUnanticipatedHostError) {
        const PaHostErrorInfo* host = Pa_GetLastHostErrorInfo();
        if (host && host->errorText && *host->errorText)
            text += QStringLiteral(": ") + QString::fromUtf8(host->errorText);
    }
    return text;
}

// Empty when the player can play `format`, else why it cannot.
QString unsupportedReason(const AudioStreamBasicDescription& format)
{
    const AudioFormatFlags refused = kAudioFormatFlagIsFloat | kAudioFormatFlagIsBigEndian
        | kAudioFormatFlagIsNonInterleaved | kAudioFormatFlagIsAlignedHigh;
    if (format.mFormatID != kAudioFormatLinearPCM)
        return QStringLiteral("not linear PCM");
    if (format.mBitsPerChannel != 16 || !(format.mFormatFlags & kAudioFormatFlagIsSignedInteger)
        || (format.mFormatFlags & refused))
        return QStringLiteral("only interleaved signed 16-bit little-endian samples are played");
    if (!(format.mSampleRate >= 1000 && format.mSampleRate <= 384000))
        return QStringLiteral("sample rate out of range");
    if (format.mChannelsPerFrame < 1 || format.mChannelsPerFrame > 32)
        return QStringLiteral("channel count out of range");
    const uint32_t frameBytes = format.mChannelsPerFrame * 2;
    if (format.mBytesPerFrame != frameBytes || format.mBytesPerPacket != frameBytes || format.mFramesPerPacket != 1)
        return QStringLiteral("frame layout does not match 16-bit interleaved samples");
    return {};
}

}  // namespace

struct KRAudioPlayer::StreamCallbacks {
    static int render(const void*, void* output, unsigned long frameCount, const PaStreamCallbackTimeInfo*,
                      PaStreamCallbackFlags, void* userData)
    {
        return static_cast<KRAudioPlayer*>(userData)->renderBuffer(output, frameCount);
    }
    static void finished(void* userData) { static_cast<KRAudioPlayer*>(userData)->streamDidFinish(); }
};

KRAudioPlayer::KRAudioPlayer()
{
    portAudioReady();
}

KRAudioPlayer::~KRAudioPlayer()
{
    releaseDevice();
}

void KRAudioPlayer::setDelegate(KRAudioPlayerDelegate* delegate)
{
    m_delegate.store(delegate, std::memory_order_release);
}

bool KRAudioPlayer::playWithDataFormat(const AudioStreamBasicDescription* format)
{
    stop();
    if (!format) {
        brindle::log(QStringLiteral("Audio output: no stream format given"));
        return false;
    }
    if (const QString reason = unsupportedReason(*format); !reason.isEmpty()) {
        brindle::logf("Audio output: refusing the stream format (%g Hz, %u channels, %u bits, flags %u): %s",
                      format->mSampleRate, format->mChannelsPerFrame, format->mBitsPerChannel, format->mFormatFlags,
                      qUtf8Printable(reason));
        return false;
    }
    if (m_stream && std::memcmp(&m_format, format, sizeof m_format) != 0)
        closeStream();
    m_format = *format;
    m_currentPkt.store(0, std::memory_order_relaxed);
    m_drained.store(false, std::memory_order_relaxed);
    m_deviceFailed.store(false, std::memory_order_relaxed);
    bool started = m_stream && startStream();
    if (!started) {
        // No kept stream, or one that will not start again (its device went
        // away): open a fresh one.
        closeStream();
        started = openStream(*format) && startStream();
    }
    if (!started) {
        closeStream();
        return false;
    }
    m_state.store(kPlaying, std::memory_order_release);
    return true;
}

bool KRAudioPlayer::openStream(const AudioStreamBasicDescription& format)
{
    if (!portAudioReady())
        return false;
    const PaDeviceIndex device = Pa_GetDefaultOutputDevice();
    const PaDeviceInfo* info = device == paNoDevice ? nullptr : Pa_GetDeviceInfo(device);
    if (!info) {
        brindle::log(QStringLiteral("Audio output: there is no output device"));
        return false;
    }
    PaStreamParameters parameters{};
    parameters.device = device;
    parameters.channelCount = static_cast<int>(format.mChannelsPerFrame);
    parameters.sampleFormat = paInt16;
    parameters.suggestedLatency = info->defaultHighOutputLatency;
    PaStream* stream = nullptr;
    const PaError error = Pa_OpenStream(&stream, nullptr, &parameters, format.mSampleRate,
                                        paFramesPerBufferUnspecified, paNoFlag, &StreamCallbacks::render, this);
    if (error != paNoError) {
        brindle::logf("Audio output: cannot open the output device \"%s\" at %g Hz with %u channels (%s)", info->name,
                      format.mSampleRate, format.mChannelsPerFrame, qUtf8Printable(errorText(error)));
        return false;
    }
    m_stream = stream;
    Pa_SetStreamFinishedCallback(stream, &StreamCallbacks::finished);
    return true;
}

void KRAudioPlayer::pause()
{
    if (state() != kPlaying || !m_stream)
        return;
    m_stopping.store(true, std::memory_order_release);
    const PaError error = Pa_StopStream(static_cast<PaStream*>(m_stream));
    if (error != paNoError && error != paStreamIsStopped)
        brindle::logf("Audio output: pausing failed (%s)", qUtf8Printable(errorText(error)));
    m_state.store(kPaused, std::memory_order_release);
}

void KRAudioPlayer::resume()
{
    if (state() != kPaused || !m_stream)
        return;
    if (!startStream()) {
        closeStream();
        m_state.store(kStopped, std::memory_order_release);
        return;
    }
    m_state.store(kPlaying, std::memory_order_release);
}

void KRAudioPlayer::stop()
{
    if (state() == kStopped || !m_stream)
        return;
    m_stopping.store(true, std::memory_order_release);
    const PaError error = Pa_AbortStream(static_cast<PaStream*>(m_stream));
    const bool stopped = error == paNoError || error == paStreamIsStopped;
    if (!stopped)
        brindle::logf("Audio output: stopping the stream failed (%s)", qUtf8Printable(errorText(error)));
    if (!stopped || m_deviceFailed.load(std::memory_order_acquire))
        closeStream();
    m_state.store(kStopped, std::memory_order_release);
}

void KRAudioPlayer::releaseDevice()
{
    stop();
    closeStream();
}

bool KRAudioPlayer::startStream()
{
    m_stopping.store(false, std::memory_order_relaxed);
    // Publishes everything written so far (the format, the delegate's own
    // state) to the thread that will pull the buffers.
    m_runEpoch.fetch_add(1, std::memory_order_release);
    const PaError error = Pa_StartStream(static_cast<PaStream*>(m_stream));
    if (error != paNoError) {
        brindle::logf("Audio output: cannot start the output stream (%s)", qUtf8Printable(errorText(error)));
        return false;
    }
    return true;
}

void KRAudioPlayer::closeStream()
{
    auto* stream = static_cast<PaStream*>(m_stream);
    if (!stream)
        return;
    m_stopping.store(true, std::memory_order_release);
    const PaError aborted = Pa_AbortStream(stream);
    if (aborted != paNoError && aborted != paStreamIsStopped)
        brindle::logf("Audio output: stopping the stream failed (%s)", qUtf8Printable(errorText(aborted)));
    const PaError closed = Pa_CloseStream(stream);
    if (closed != paNoError)
        brindle::logf("Audio output: closing the stream failed (%s)", qUtf8Printable(errorText(closed)));
    m_stream = nullptr;
}

int KRAudioPlayer::renderBuffer(void* output, unsigned long frames)
{
    m_runEpoch.load(std::memory_order_acquire);
    const auto wanted = static_cast<uint32_t>(frames);
    const size_t bytes = static_cast<size_t>(frames) * m_format.mBytesPerFrame;
    if (m_drained.load(std::memory_order_relaxed)) {
        std::memset(output, 0, bytes);
        return paComplete;
    }
    KRAudioPlayerDelegate* delegate = m_delegate.load(std::memory_order_acquire);
    const int64_t current = m_currentPkt.load(std::memory_order_relaxed);
    uint32_t packets = wanted;
    uint32_t filled = 0;
    if (!delegate || !delegate->KRAudioPlayerFillBuffer(*this, output, current, &packets, &filled, m_format)) {
        std::memset(output, 0, bytes);
        m_drained.store(true, std::memory_order_relaxed);
        return paComplete;
    }
    if (filled < bytes)
        std::memset(static_cast<char*>(output) + filled, 0, bytes - filled);
    m_currentPkt.store(current + wanted, std::memory_order_relaxed);
    delegate->KRAudioPlayerPlayPacketCount(*this, wanted, current + wanted, m_format);
    return paContinue;
}

void KRAudioPlayer::streamDidFinish()
{
    if (m_stopping.load(std::memory_order_acquire))
        return;
    const bool failed = !m_drained.load(std::memory_order_relaxed);
    if (failed) {
        m_deviceFailed.store(true, std::memory_order_release);
        brindle::log(QStringLiteral("Audio output: the output device stopped while playing"));
    }
    if (KRAudioPlayerDelegate* delegate = m_delegate.load(std::memory_order_acquire))
        delegate->KRAudioPlayerStopPlay(*this, failed);
}
