#include "codec/KRMuxerContext.h"

#include "codec/DemuxSupport.h"
#include "codec/KRAudioFrame2.h"
#include "foundation/Log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Encoders without a fixed frame size (PCM) are fed in frames of this many samples.
constexpr int kVariableFrameSize = 2048;
constexpr int64_t kMaximumChannels = 8;
constexpr int64_t kMaximumSamplerate = 768000;

struct FormatInfo {
    const char* encoder;
    const char* muxer;
    const char* name;
};

// The encoder and muxer of a format code; null fields for an unknown code.
FormatInfo formatInfo(int32_t format)
{
    switch (format) {
    case KRMuxerContext::kFormatMP3:
        return {"libmp3lame", "mp3", "MP3"};
    case KRMuxerContext::kFormatM4A:
        return {"aac", "ipod", "M4A"};
    case KRMuxerContext::kFormatWAV:
        return {"pcm_s16le", "wav", "WAV"};
    default:
        return {nullptr, nullptr, nullptr};
    }
}

QString errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

// The rate the encoder takes that is nearest to `wanted` (the higher one on a tie).
int64_t nearestSupportedRate(const AVCodec* codec, int64_t wanted)
{
    if (!codec->supported_samplerates)
        return wanted;
    int64_t best = 0;
    for (const int* rate = codec->supported_samplerates; *rate; ++rate) {
        const int64_t distance = std::llabs(*rate - wanted);
        const int64_t bestDistance = std::llabs(best - wanted);
        if (best == 0 || distance < bestDistance || (distance == bestDistance && *rate > best))
            best = *rate;
    }
    return best == 0 ? wanted : best;
}

// The encoder's sample format: the input's own (packed or planar) when it is
// taken, else the first one the encoder lists.
AVSampleFormat chooseSampleFormat(const AVCodec* codec, int32_t input)
{
    if (!codec->sample_fmts)
        return AVSampleFormat(input);
    const AVSampleFormat planar = av_get_planar_sample_fmt(AVSampleFormat(input));
    for (const AVSampleFormat* format = codec->sample_fmts; *format != AV_SAMPLE_FMT_NONE; ++format) {
        if (*format == input || *format == planar)
            return *format;
    }
    return codec->sample_fmts[0];
}

// The channel count the encoder takes that is nearest to `wanted`.
int64_t nearestSupportedChannels(const AVCodec* codec, int64_t wanted)
{
    if (!codec->ch_layouts)
        return wanted;
    int64_t best = 0;
    for (const AVChannelLayout* layout = codec->ch_layouts; layout->nb_channels; ++layout) {
        const int64_t count = layout->nb_channels;
        if (best == 0 || std::llabs(count - wanted) < std::llabs(best - wanted))
            best = count;
    }
    return best == 0 ? wanted : best;
}

// A temporary name in the folder of `target`, hidden and unlikely to
// collide. It keeps the target's extension last, so that muxers which check
// the extension (the iPod muxer warns about anything but .m4a) see the real one.
QString temporaryPathFor(const QString& target)
{
    const QFileInfo info(target);
    const QString suffix = info.suffix().isEmpty() ? QString() : QLatin1Char('.') + info.suffix();
    return QStringLiteral("%1/.%2.%3.part%4")
        .arg(info.absolutePath(), info.fileName())
        .arg(QRandomGenerator::global()->generate64(), 16, 16, QLatin1Char('0'))
        .arg(suffix);
}

}  // namespace

struct KRMuxerContext::State {
    AVFormatContext* format = nullptr;
    AVCodecContext* encoder = nullptr;
    AVStream* stream = nullptr;
    SwrContext* swr = nullptr;
    AVAudioFifo* fifo = nullptr;
    AVFrame* frame = nullptr;
    AVPacket* packet = nullptr;
    // Converted samples on their way into the fifo; grows only when a block
    // larger than any before arrives. Written and read by the writing thread.
    uint8_t** converted = nullptr;
    int convertedCapacity = 0;
    int frameSize = 0;
    int64_t nextPts = 0;
    int64_t inputBytesPerSample = 0;
    QString temporaryPath;
    bool fileOpen = false;

    void freeConverted()
    {
        if (converted) {
            av_freep(&converted[0]);
            av_freep(&converted);
        }
        convertedCapacity = 0;
    }
};

std::shared_ptr<KRMuxerContext> KRMuxerContext::initWithFilename(const QString& filename, int32_t format)
{
    return std::shared_ptr<KRMuxerContext>(new KRMuxerContext(filename, format));
}

KRMuxerContext::KRMuxerContext(QString filename, int32_t format)
    : m_state(std::make_unique<State>()), m_filename(std::move(filename)), m_format(format)
{
}

KRMuxerContext::~KRMuxerContext()
{
    if (!m_finished && !m_failed && isOpen())
        brindle::logf("KRMuxerContext: %s was not finished; discarding it", qPrintable(m_filename));
    release();
}

QString KRMuxerContext::extensionWithFormat(int32_t format)
{
    switch (format) {
    case kFormatM4A:
        return QStringLiteral("m4a");
    case kFormatWAV:
        return QStringLiteral("wav");
    default:
        return QStringLiteral("mp3");
    }
}

bool KRMuxerContext::isOpen() const
{
    return m_state->fileOpen;
}

bool KRMuxerContext::fail(const QString& message)
{
    if (!m_failed) {
        m_failed = true;
        m_errorMessage = message;
        brindle::log(QStringLiteral("KRMuxerContext: ") + message);
    }
    release();
    return false;
}

void KRMuxerContext::abort(const QString& reason)
{
    fail(reason);
}

void KRMuxerContext::release()
{
    State& s = *m_state;
    if (s.format) {
        if (s.format->pb)
            avio_closep(&s.format->pb);
        avformat_free_context(s.format);
        s.format = nullptr;
        s.stream = nullptr;
    }
    avcodec_free_context(&s.encoder);
    swr_free(&s.swr);
    if (s.fifo) {
        av_audio_fifo_free(s.fifo);
        s.fifo = nullptr;
    }
    av_frame_free(&s.frame);
    av_packet_free(&s.packet);
    s.freeConverted();
    if (!s.temporaryPath.isEmpty() && !m_finished)
        QFile::remove(s.temporaryPath);
    s.fileOpen = false;
}

bool KRMuxerContext::open()
{
    if (m_failed || isOpen() || m_finished)
        return fail(QStringLiteral("%1 is already in use").arg(m_filename));
    const FormatInfo info = formatInfo(m_format);
    if (!info.encoder)
        return fail(QStringLiteral("unknown export format code %1").arg(m_format));
    if (m_filename.isEmpty())
        return fail(QStringLiteral("no file name to export to"));
    if (m_sampleFormat < AV_SAMPLE_FMT_U8 || m_sampleFormat > AV_SAMPLE_FMT_DBL)
        return fail(QStringLiteral("unsupported input sample format %1").arg(m_sampleFormat));
    if (m_numberOfChannels < 1 || m_numberOfChannels > kMaximumChannels)
        return fail(QStringLiteral("unsupported channel count %1").arg(m_numberOfChannels));
    if (m_samplerate < 1 || m_samplerate > kMaximumSamplerate)
        return fail(QStringLiteral("unsupported sample rate %1 Hz").arg(m_samplerate));
    const AVCodec* codec = avcodec_find_encoder_by_name(info.encoder);
    if (!codec)
        return fail(QStringLiteral("the %1 encoder (%2) is not available").arg(info.name, info.encoder));

    State& s = *m_state;
    m_encoderSamplerate = nearestSupportedRate(codec, m_samplerate);
    if (m_encoderSamplerate != m_samplerate)
        brindle::logf("KRMuxerContext: the %s encoder does not take %lld Hz; %s is resampled to %lld Hz", info.encoder,
                      static_cast<long long>(m_samplerate), qPrintable(m_filename),
                      static_cast<long long>(m_encoderSamplerate));
    m_encoderNumberOfChannels = nearestSupportedChannels(codec, m_numberOfChannels);
    if (m_encoderNumberOfChannels != m_numberOfChannels)
        brindle::logf("KRMuxerContext: the %s encoder does not take %lld channels; %s is mixed to %lld", info.encoder,
                      static_cast<long long>(m_numberOfChannels), qPrintable(m_filename),
                      static_cast<long long>(m_encoderNumberOfChannels));
    const AVSampleFormat encoderFormat = chooseSampleFormat(codec, m_sampleFormat);

    brindle::demux::quietLibraryLogging();
    s.temporaryPath = temporaryPathFor(m_filename);
    const QByteArray temporary = QFile::encodeName(s.temporaryPath);
    int error = avformat_alloc_output_context2(&s.format, nullptr, info.muxer, temporary.constData());
    if (error < 0 || !s.format)
        return fail(QStringLiteral("cannot make the %1 writer: %2").arg(info.name, errorText(error)));

    s.encoder = avcodec_alloc_context3(codec);
    if (!s.encoder)
        return fail(QStringLiteral("out of memory"));
    s.encoder->sample_rate = int(m_encoderSamplerate);
    s.encoder->sample_fmt = encoderFormat;
    av_channel_layout_default(&s.encoder->ch_layout, int(m_encoderNumberOfChannels));
    s.encoder->time_base = AVRational{1, int(m_encoderSamplerate)};
    if (m_format != kFormatWAV)
        s.encoder->bit_rate = m_audioBitrate > 0 ? m_audioBitrate : 128000;
    if (s.format->oformat->flags & AVFMT_GLOBALHEADER)
        s.encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    error = avcodec_open2(s.encoder, codec, nullptr);
    if (error < 0)
        return fail(QStringLiteral("the %1 encoder refused %2 Hz, %3 channels, %4 bit/s: %5")
                        .arg(info.encoder)
                        .arg(m_encoderSamplerate)
                        .arg(m_encoderNumberOfChannels)
                        .arg(m_audioBitrate)
                        .arg(errorText(error)));

    s.stream = avformat_new_stream(s.format, nullptr);
    if (!s.stream)
        return fail(QStringLiteral("out of memory"));
    s.stream->time_base = s.encoder->time_base;
    error = avcodec_parameters_from_context(s.stream->codecpar, s.encoder);
    if (error < 0)
        return fail(QStringLiteral("cannot describe the audio stream: %1").arg(errorText(error)));
    if (!m_title.isEmpty())
        av_dict_set(&s.format->metadata, "title", m_title.toUtf8().constData(), 0);

    error = avio_open(&s.format->pb, temporary.constData(), AVIO_FLAG_WRITE);
    if (error < 0)
        return fail(QStringLiteral("cannot write to %1: %2").arg(m_filename, errorText(error)));
    s.fileOpen = true;
    error = avformat_write_header(s.format, nullptr);
    if (error < 0)
        return fail(QStringLiteral("cannot write the header of %1: %2").arg(m_filename, errorText(error)));

    AVChannelLayout inputLayout{};
    av_channel_layout_default(&inputLayout, int(m_numberOfChannels));
    error = swr_alloc_set_opts2(&s.swr, &s.encoder->ch_layout, encoderFormat, int(m_encoderSamplerate),
                                &inputLayout, AVSampleFormat(m_sampleFormat), int(m_samplerate), 0, nullptr);
    av_channel_layout_uninit(&inputLayout);
    if (error < 0 || !s.swr || (error = swr_init(s.swr)) < 0)
        return fail(QStringLiteral("cannot convert the audio for the encoder: %1").arg(errorText(error)));

    const bool variable = (codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) || s.encoder->frame_size <= 0;
    s.frameSize = variable ? kVariableFrameSize : s.encoder->frame_size;
    s.fifo = av_audio_fifo_alloc(encoderFormat, int(m_encoderNumberOfChannels), s.frameSize * 4);
    s.frame = av_frame_alloc();
    s.packet = av_packet_alloc();
    if (!s.fifo || !s.frame || !s.packet)
        return fail(QStringLiteral("out of memory"));
    s.frame->nb_samples = s.frameSize;
    s.frame->format = encoderFormat;
    s.frame->sample_rate = int(m_encoderSamplerate);
    av_channel_layout_copy(&s.frame->ch_layout, &s.encoder->ch_layout);
    if (av_frame_get_buffer(s.frame, 0) < 0)
        return fail(QStringLiteral("out of memory"));
    s.inputBytesPerSample = KRAudioFrame2::bytesForSampleFormat(m_sampleFormat) * m_numberOfChannels;
    s.nextPts = 0;
    m_numberOfSamplesWritten = 0;
    return true;
}

bool KRMuxerContext::writeAudioFrame(const KRAudioFrame2& frame)
{
    if (frame.sampleFormat() != m_sampleFormat || frame.numberOfChannel() != m_numberOfChannels ||
        frame.sampleRate() != m_samplerate)
        return fail(QStringLiteral("a frame of format %1, %2 channels, %3 Hz does not match the export's "
                                   "format %4, %5 channels, %6 Hz")
                        .arg(frame.sampleFormat())
                        .arg(frame.numberOfChannel())
                        .arg(frame.sampleRate())
                        .arg(m_sampleFormat)
                        .arg(m_numberOfChannels)
                        .arg(m_samplerate));
    return writeAudioSamples(frame.bytesAtPlanerIndex(0), frame.numberOfSamples());
}

bool KRMuxerContext::writeAudioSamples(const void* samples, int64_t numberOfSamples)
{
    if (m_failed || m_finished || !isOpen())
        return fail(m_errorMessage.isEmpty() ? QStringLiteral("%1 is not open for writing").arg(m_filename)
                                             : m_errorMessage);
    if (numberOfSamples < 0 || numberOfSamples > INT_MAX / 4 || (numberOfSamples > 0 && !samples))
        return fail(QStringLiteral("invalid block of %1 frames").arg(numberOfSamples));
    if (numberOfSamples == 0)
        return true;
    if (!convertAndQueue(samples, numberOfSamples))
        return false;
    m_numberOfSamplesWritten += numberOfSamples;
    return encodeQueued(false);
}

// Converts input frames (or, with null samples, what the converter still
// holds) to the encoder's format and appends them to the fifo.
bool KRMuxerContext::convertAndQueue(const void* samples, int64_t numberOfSamples)
{
    State& s = *m_state;
    const int wanted = swr_get_out_samples(s.swr, int(numberOfSamples));
    if (wanted < 0)
        return fail(QStringLiteral("cannot convert the audio: %1").arg(errorText(wanted)));
    if (wanted > s.convertedCapacity) {
        s.freeConverted();
        const int capacity = wanted + wanted / 4 + 64;
        int lineSize = 0;
        if (av_samples_alloc_array_and_samples(&s.converted, &lineSize, int(m_encoderNumberOfChannels), capacity,
                                               s.encoder->sample_fmt, 0) < 0)
            return fail(QStringLiteral("out of memory"));
        s.convertedCapacity = capacity;
    }
    const uint8_t* input[1] = {static_cast<const uint8_t*>(samples)};
    const int converted = swr_convert(s.swr, s.converted, s.convertedCapacity, samples ? input : nullptr,
                                      samples ? int(numberOfSamples) : 0);
    if (converted < 0)
        return fail(QStringLiteral("cannot convert the audio: %1").arg(errorText(converted)));
    if (converted > 0 && av_audio_fifo_write(s.fifo, reinterpret_cast<void**>(s.converted), converted) < converted)
        return fail(QStringLiteral("out of memory"));
    return true;
}

// Sends every full encoder frame in the fifo; with `flushing`, also the
// last partial one (padded with silence when the encoder needs full frames).
bool KRMuxerContext::encodeQueued(bool flushing)
{
    State& s = *m_state;
    while (av_audio_fifo_size(s.fifo) >= s.frameSize) {
        if (!sendFrame(false))
            return false;
    }
    if (flushing && av_audio_fifo_size(s.fifo) > 0)
        return sendFrame(true);
    return true;
}

bool KRMuxerContext::sendFrame(bool last)
{
    State& s = *m_state;
    // The encoder may still hold the previous frame's buffer; this copies only then.
    int error = av_frame_make_writable(s.frame);
    if (error < 0)
        return fail(QStringLiteral("out of memory"));
    const int available = std::min(av_audio_fifo_size(s.fifo), s.frameSize);
    if (av_audio_fifo_read(s.fifo, reinterpret_cast<void**>(s.frame->data), available) < available)
        return fail(QStringLiteral("cannot read converted audio"));
    int samples = available;
    if (last && available < s.frameSize) {
        const bool smallLast = s.encoder->codec->capabilities &
                               (AV_CODEC_CAP_SMALL_LAST_FRAME | AV_CODEC_CAP_VARIABLE_FRAME_SIZE);
        if (!smallLast) {
            av_samples_set_silence(s.frame->data, available, s.frameSize - available,
                                   int(m_encoderNumberOfChannels), s.encoder->sample_fmt);
            samples = s.frameSize;
        }
    }
    s.frame->nb_samples = samples;
    s.frame->pts = s.nextPts;
    s.nextPts += samples;
    error = avcodec_send_frame(s.encoder, s.frame);
    s.frame->nb_samples = s.frameSize;
    if (error < 0)
        return fail(QStringLiteral("the encoder refused the audio: %1").arg(errorText(error)));
    return drainPackets();
}

bool KRMuxerContext::drainPackets()
{
    State& s = *m_state;
    for (;;) {
        int error = avcodec_receive_packet(s.encoder, s.packet);
        if (error == AVERROR(EAGAIN) || error == AVERROR_EOF)
            return true;
        if (error < 0)
            return fail(QStringLiteral("the encoder failed: %1").arg(errorText(error)));
        av_packet_rescale_ts(s.packet, s.encoder->time_base, s.stream->time_base);
        s.packet->stream_index = s.stream->index;
        error = av_interleaved_write_frame(s.format, s.packet);
        if (error >= 0 && s.format->pb->error < 0)
            error = s.format->pb->error;
        if (error < 0)
            return fail(QStringLiteral("cannot write to %1: %2").arg(m_filename, errorText(error)));
    }
}

bool KRMuxerContext::finish()
{
    if (m_failed || m_finished || !isOpen())
        return fail(m_errorMessage.isEmpty() ? QStringLiteral("%1 is not open for writing").arg(m_filename)
                                             : m_errorMessage);
    State& s = *m_state;
    // What the resampler holds back, then the last partial encoder frame.
    for (int pass = 0; pass < 64; ++pass) {
        const int before = av_audio_fifo_size(s.fifo);
        if (!convertAndQueue(nullptr, 0))
            return false;
        if (av_audio_fifo_size(s.fifo) == before)
            break;
    }
    if (!encodeQueued(true))
        return false;
    int error = avcodec_send_frame(s.encoder, nullptr);
    if (error < 0 && error != AVERROR_EOF)
        return fail(QStringLiteral("the encoder failed at the end: %1").arg(errorText(error)));
    if (!drainPackets())
        return false;
    error = av_write_trailer(s.format);
    if (error >= 0 && s.format->pb->error < 0)
        error = s.format->pb->error;
    if (error < 0)
        return fail(QStringLiteral("cannot complete %1: %2").arg(m_filename, errorText(error)));
    error = avio_closep(&s.format->pb);
    if (error < 0)
        return fail(QStringLiteral("cannot complete %1: %2").arg(m_filename, errorText(error)));
    // rename() replaces an existing file in one step, so the target is
    // either the old file or the complete new one.
    if (std::rename(QFile::encodeName(s.temporaryPath).constData(), QFile::encodeName(m_filename).constData()) != 0)
        return fail(QStringLiteral("cannot move the finished file to %1: %2")
                        .arg(m_filename, QString::fromLocal8Bit(std::strerror(errno))));
    m_finished = true;
    release();
    return true;
}
