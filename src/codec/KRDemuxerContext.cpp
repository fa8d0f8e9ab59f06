#include "codec/KRDemuxerContext.h"

#include "codec/DemuxSupport.h"
#include "codec/KRTimebase.h"

#include "foundation/Log.h"

#include <QSet>

#include <algorithm>
#include <utility>

using namespace brindle::demux;

namespace {

// Consecutive undecodable packets tolerated before decoding gives up; a few
// damaged packets in a long file are skipped, as FFmpeg's own tools do.
constexpr int kMaximumConsecutiveErrors = 256;
// Packets of other streams read past while looking for the first audio packet.
constexpr int kMaximumPacketsBeforeAudio = 4096;
// Successive "try again" answers of the demuxer before a read counts as failed.
constexpr int kMaximumRetries = 1000;
constexpr int64_t kLengthNotMeasured = -2;
// readAudioPacket's answer when the limit of other packets was reached.
constexpr int kNoAudioPacketNearby = 1;

// Extensions FFmpeg's demuxers do not list because they find these formats by probing.
const char* const kProbedExtensions[] = {"wav", "aiff", "aif", "aifc", "opus", "wma", "m4a", "mp3", "flac",
                                         "ogg", "oga", "caf", "w64", "au", "mka", "webm", "mp4", "aac",
                                         "ac3", "mp2", "m4b", "m4r", "3gp", "amr", "ape", "wv", "mpc",
                                         "tta", "spx", "mov", "mkv", "dts", "eac3", "snd"};

}  // namespace

struct KRDemuxerContext::State {
    QString filename;
    FormatContextPtr format;
    CodecContextPtr codec;
    PacketPtr packet;
    FramePtr frame;
    int streamIndex = -1;

    // Properties of the decoded audio: those of the first frame, or the
    // decoder's when the stream yields no frame at all. Every later frame
    // must have the same.
    int32_t sampleFormat = -1;
    int64_t sampleRate = 0;
    int64_t channels = 0;
    bool propertiesFixed = false;

    bool packetPending = false;  // `packet` holds a packet not yet sent to the decoder
    bool inputEnded = false;     // the decoder was told that no packets follow
    bool finished = false;       // nothing more will be decoded
    int consecutiveErrors = 0;
    std::shared_ptr<KRAudioFrame2> pendingFrame;  // decoded at open, returned first
    int64_t length = kLengthNotMeasured;

    bool openDecoder();
    bool readFirstAudioPacket(bool* found, bool* encrypted);
    int readAudioPacket(int otherPacketLimit);
    std::shared_ptr<KRAudioFrame2> pullFrame();
    std::shared_ptr<KRAudioFrame2> takeFrame();
    bool sendPending();
    bool skipDecodeError(int status);
    int64_t measureLength();
    void end(const QString& why);
};

KRDemuxerContext::KRDemuxerContext()
    : m_state(std::make_unique<State>())
{
}

KRDemuxerContext::~KRDemuxerContext() = default;

std::unique_ptr<KRDemuxerContext> KRDemuxerContext::initWithFilename(const QString& filename)
{
    return initWithFilename(filename, nullptr);
}

std::unique_ptr<KRDemuxerContext> KRDemuxerContext::initWithFilename(const QString& filename,
                                                                       std::optional<Error>* error)
{
    if (error)
        error->reset();
    std::unique_ptr<KRDemuxerContext> context(new KRDemuxerContext());
    State& s = *context->m_state;
    s.filename = filename;
    s.format = openInput(filename);
    if (!s.format)
        return nullptr;

    auto refuse = [&](const QString& description) -> std::unique_ptr<KRDemuxerContext> {
        brindle::log(QStringLiteral("demuxer: %1: %2").arg(filename, description));
        if (error)
            *error = Error{1, description};
        return nullptr;
    };
    for (unsigned i = 0; i < s.format->nb_streams; ++i) {
        if (isProtectedStream(s.format->streams[i]))
            return refuse(QStringLiteral("the stream is protected by DRM"));
    }

    const AVCodec* decoder = nullptr;
    int best = av_find_best_stream(s.format.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    if (best == AVERROR_STREAM_NOT_FOUND)
        return context;  // opens, but has no audio: audioStreamLength says so
    if (best < 0 || !decoder) {
        brindle::log(QStringLiteral("demuxer: no decoder for the audio of %1: %2").arg(filename, errorText(best)));
        return nullptr;
    }
    s.streamIndex = best;
    // Only the chosen audio stream is read; video follows disableVideoStream.
    for (unsigned i = 0; i < s.format->nb_streams; ++i) {
        AVStream* stream = s.format->streams[i];
        if (int(i) != best && stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO)
            stream->discard = AVDISCARD_ALL;
    }
    s.packet.reset(av_packet_alloc());
    s.frame.reset(av_frame_alloc());
    if (!s.packet || !s.frame || !s.openDecoder())
        return nullptr;

    bool found = false;
    bool encrypted = false;
    if (!s.readFirstAudioPacket(&found, &encrypted))
        return nullptr;
    if (encrypted)
        return refuse(QStringLiteral("the audio packets are encrypted"));

    // Decoding the first frame fixes the properties the rest of the stream must keep.
    if (found)
        s.pendingFrame = s.pullFrame();
    return context;
}

bool KRDemuxerContext::State::openDecoder()
{
    const AVStream* stream = format->streams[streamIndex];
    const AVCodec* decoder = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!decoder) {
        brindle::log(QStringLiteral("demuxer: no decoder for %1").arg(filename));
        return false;
    }
    codec.reset(avcodec_alloc_context3(decoder));
    if (!codec)
        return false;
    int status = avcodec_parameters_to_context(codec.get(), stream->codecpar);
    if (status >= 0) {
        codec->pkt_timebase = stream->time_base;
        // One thread per decoder: imports already decode several files in parallel.
        codec->thread_count = 1;
        status = avcodec_open2(codec.get(), decoder, nullptr);
    }
    if (status < 0) {
        brindle::log(QStringLiteral("demuxer: cannot open the decoder of %1: %2").arg(filename, errorText(status)));
        return false;
    }
    sampleFormat = codec->sample_fmt != AV_SAMPLE_FMT_NONE ? codec->sample_fmt : stream->codecpar->format;
    sampleRate = codec->sample_rate > 0 ? codec->sample_rate : stream->codecpar->sample_rate;
    channels = codec->ch_layout.nb_channels > 0 ? codec->ch_layout.nb_channels : stream->codecpar->ch_layout.nb_channels;
    return true;
}

// Reads up to the first packet of the audio stream and keeps it for the
// decoder; `found` tells whether there was one near the start. False on a
// read error that is not the end of the file.
bool KRDemuxerContext::State::readFirstAudioPacket(bool* found, bool* encrypted)
{
    int status = readAudioPacket(kMaximumPacketsBeforeAudio);
    if (status == kNoAudioPacketNearby || status == AVERROR_EOF)
        return true;  // no audio packet near the start, or none at all
    if (status < 0) {
        brindle::log(QStringLiteral("demuxer: cannot read %1: %2").arg(filename, errorText(status)));
        return false;
    }
    *found = true;
    *encrypted = isEncryptedPacket(packet.get());
    packetPending = true;
    return true;
}

// Reads the next packet of the audio stream into `packet`: 0, AVERROR_EOF at
// the end, another error, or kNoAudioPacketNearby after `otherPacketLimit`
// packets of other streams (no limit when negative).
int KRDemuxerContext::State::readAudioPacket(int otherPacketLimit)
{
    for (int skipped = 0, retries = 0;; ++skipped) {
        if (otherPacketLimit >= 0 && skipped > otherPacketLimit)
            return kNoAudioPacketNearby;
        int status = av_read_frame(format.get(), packet.get());
        if (status == AVERROR(EAGAIN) && ++retries < kMaximumRetries)
            continue;  // some demuxers ask to be called again
        if (status < 0)
            return status;
        retries = 0;
        if (packet->stream_index == streamIndex)
            return 0;
        av_packet_unref(packet.get());
    }
}

void KRDemuxerContext::State::end(const QString& why)
{
    if (!why.isEmpty())
        brindle::log(QStringLiteral("demuxer: decoding of %1 ends: %2").arg(filename, why));
    finished = true;
    packetPending = false;
    av_packet_unref(packet.get());
}

// Sends the pending packet, or the end of input when there is none left.
// False when decoding cannot go on.
bool KRDemuxerContext::State::sendPending()
{
    if (!packetPending) {
        int status = readAudioPacket(-1);
        if (status < 0) {
            if (status != AVERROR_EOF)  // a damaged or truncated file: decode what was read
                brindle::log(QStringLiteral("demuxer: read error in %1: %2").arg(filename, errorText(status)));
            avcodec_send_packet(codec.get(), nullptr);
            inputEnded = true;
            return true;
        }
        packetPending = true;
    }
    int status = avcodec_send_packet(codec.get(), packet.get());
    if (status == AVERROR(EAGAIN))
        return true;  // the decoder has output to give first; the packet stays pending
    packetPending = false;
    av_packet_unref(packet.get());
    return status >= 0 || skipDecodeError(status);
}

// Damaged packets are skipped, as FFmpeg's own tools do, until too many come
// in a row. False when decoding has to end.
bool KRDemuxerContext::State::skipDecodeError(int status)
{
    if (consecutiveErrors == 0)
        brindle::log(QStringLiteral("demuxer: skipping damaged audio in %1: %2").arg(filename, errorText(status)));
    if (++consecutiveErrors <= kMaximumConsecutiveErrors)
        return true;
    end(QStringLiteral("too many damaged packets in a row"));
    return false;
}

std::shared_ptr<KRAudioFrame2> KRDemuxerContext::State::pullFrame()
{
    while (!finished) {
        int status = avcodec_receive_frame(codec.get(), frame.get());
        if (status == 0) {
            consecutiveErrors = 0;
            if (auto result = takeFrame())
                return result;
            continue;
        }
        if (status == AVERROR_EOF) {
            end({});
            break;
        }
        if (status != AVERROR(EAGAIN)) {
            if (skipDecodeError(status))
                continue;
            break;
        }
        if (inputEnded) {
            end(QStringLiteral("the decoder did not finish"));
            break;
        }
        if (!sendPending())
            break;
    }
    return nullptr;
}

// Packs the frame just received; null (and the stream ends) when its format
// differs from the stream's, null alone when it holds no samples.
std::shared_ptr<KRAudioFrame2> KRDemuxerContext::State::takeFrame()
{
    if (frame->nb_samples <= 0) {
        av_frame_unref(frame.get());
        return nullptr;
    }
    const int32_t decodedFormat = frame->format;  // possibly planar
    std::shared_ptr<KRAudioFrame2> result = KRAudioFrame2::initWithAVFrame(frame.get());
    av_frame_unref(frame.get());
    if (!result) {
        end(QStringLiteral("a frame could not be packed"));
        return nullptr;
    }
    if (!propertiesFixed) {
        sampleFormat = decodedFormat;
        sampleRate = result->sampleRate();
        channels = result->numberOfChannel();
        propertiesFixed = true;
        return result;
    }
    bool same = result->sampleFormat() == KRAudioFrame2::packedSampleFormat(sampleFormat) &&
                result->sampleRate() == sampleRate && result->numberOfChannel() == channels;
    if (!same) {
        end(QStringLiteral("the audio format changes within the stream"));
        return nullptr;
    }
    return result;
}

void KRDemuxerContext::disableVideoStream(bool disable)
{
    const State& s = *m_state;
    for (unsigned i = 0; i < s.format->nb_streams; ++i) {
        AVStream* stream = s.format->streams[i];
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            stream->discard = disable ? AVDISCARD_ALL : AVDISCARD_DEFAULT;
    }
}

int64_t KRDemuxerContext::audioStreamLength()
{
    State& s = *m_state;
    if (s.streamIndex < 0)
        return KRInvalidTimeValue;
    if (s.length == kLengthNotMeasured)
        s.length = s.measureLength();
    return s.length;
}

int64_t KRDemuxerContext::State::measureLength()
{
    const AVStream* stream = format->streams[streamIndex];
    const AVRational timebase{1, int(KRTimebase)};
    int64_t fromStream = stream->duration > 0 ? av_rescale_q(stream->duration, stream->time_base, timebase) : -1;
    int64_t fromContainer = format->duration > 0 ? av_rescale_q(format->duration, AVRational{1, AV_TIME_BASE}, timebase) : -1;
    bool estimated = format->duration_estimation_method == AVFMT_DURATION_FROM_BITRATE;
    if (!estimated && fromStream > 0)
        return fromStream;
    if (!estimated && fromContainer > 0)
        return fromContainer;
    // Only a guess from the bit rate, or nothing at all: read the packets.
    int64_t scanned = scanStreamLength(filename, streamIndex);
    if (scanned >= 0)
        return av_rescale_q(scanned, AVRational{1, AV_TIME_BASE}, timebase);
    return std::max<int64_t>(0, std::max(fromStream, fromContainer));
}

int32_t KRDemuxerContext::audioSampleFormat() const
{
    return m_state->sampleFormat;
}

int64_t KRDemuxerContext::audioSampleRate() const
{
    return m_state->sampleRate;
}

int64_t KRDemuxerContext::numberOfChannel() const
{
    return m_state->channels;
}

std::shared_ptr<KRAudioFrame2> KRDemuxerContext::decodeNextAudioFrame()
{
    State& s = *m_state;
    if (s.pendingFrame)
        return std::exchange(s.pendingFrame, nullptr);
    if (s.streamIndex < 0)
        return nullptr;
    return s.pullFrame();
}

QStringList KRDemuxerContext::supportAllFormats()
{
    static const QStringList formats = [] {
        QSet<QString> unique;
        void* opaque = nullptr;
        while (const AVInputFormat* format = av_demuxer_iterate(&opaque)) {
            if (!format->extensions)
                continue;
            for (const QString& extension : QString::fromLatin1(format->extensions).split(QLatin1Char(','))) {
                QString trimmed = extension.trimmed().toLower();
                if (!trimmed.isEmpty())
                    unique.insert(trimmed);
            }
        }
        for (const char* extension : kProbedExtensions)
            unique.insert(QString::fromLatin1(extension));
        QStringList sorted(unique.begin(), unique.end());
        sorted.sort();
        return sorted;
    }();
    return formats;
}
