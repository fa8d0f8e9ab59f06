#include "codec/KRAudioFrame2.h"

#include "foundation/Log.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include <cstring>

namespace {

const QString kSampleFormatKey = QStringLiteral("kKRSampleFormat");
const QString kNumberOfChannelKey = QStringLiteral("kKRNumberOfChannel");
const QString kSampleRateKey = QStringLiteral("kKRSampleRate");
const QString kNumberOfSamplesKey = QStringLiteral("kKRNumberOfSamples");
const QString kPackedSamplesKey = QStringLiteral("kKRPackedSamples");

// Frames hold at most this many channels and this many bytes; anything
// larger is damage, not audio.
constexpr int64_t kMaximumChannels = 1024;
constexpr int64_t kMaximumFrameBytes = int64_t(1) << 30;

// Codes 0–9 are the packed and planar forms of u8, s16, s32, flt and dbl.
bool isKnownSampleFormat(int32_t sampleFormat)
{
    return sampleFormat >= AV_SAMPLE_FMT_U8 && sampleFormat <= AV_SAMPLE_FMT_DBLP;
}

bool isPackedSampleFormat(int32_t sampleFormat)
{
    return isKnownSampleFormat(sampleFormat) && !av_sample_fmt_is_planar(AVSampleFormat(sampleFormat));
}

// Interleaves `channels` planes of `samples` samples of `width` bytes each.
void interleave(const uint8_t* const* planes, int channels, int samples, int width, uint8_t* out)
{
    const int stride = channels * width;
    for (int c = 0; c < channels; ++c) {
        const uint8_t* in = planes[c];
        uint8_t* dst = out + c * width;
        switch (width) {
        case 1:
            for (int i = 0; i < samples; ++i)
                dst[i * stride] = in[i];
            break;
        case 2:
            for (int i = 0; i < samples; ++i)
                std::memcpy(dst + i * stride, in + i * 2, 2);
            break;
        case 4:
            for (int i = 0; i < samples; ++i)
                std::memcpy(dst + i * stride, in + i * 4, 4);
            break;
        default:
            for (int i = 0; i < samples; ++i)
                std::memcpy(dst + i * stride, in + i * width, size_t(width));
            break;
        }
    }
}

}  // namespace

int64_t KRAudioFrame2::packedByteCount(int32_t sampleFormat, int64_t channels, int64_t sampleRate, int64_t samples)
{
    if (!isPackedSampleFormat(sampleFormat) || channels < 1 || channels > kMaximumChannels || samples < 1 ||
        sampleRate < 1)
        return -1;
    int64_t bytes = samples * channels * KRAudioFrame2::bytesForSampleFormat(sampleFormat);
    if (bytes > kMaximumFrameBytes)
        return -1;
    return bytes;
}

std::shared_ptr<KRAudioFrame2> KRAudioFrame2::initWithSampleFormat(int32_t sampleFormat, int64_t numberOfChannel,
                                                                   int64_t sampleRate, int32_t numberOfSamples,
                                                                   const void* samples)
{
    int64_t bytes = packedByteCount(sampleFormat, numberOfChannel, sampleRate, numberOfSamples);
    if (bytes < 0 || !samples) {
        brindle::log(QStringLiteral("KRAudioFrame2: refused a frame with an invalid description"));
        return nullptr;
    }
    return initWithSampleFormat(sampleFormat, numberOfChannel, sampleRate, numberOfSamples,
                                QByteArray(static_cast<const char*>(samples), qsizetype(bytes)));
}

std::shared_ptr<KRAudioFrame2> KRAudioFrame2::initWithSampleFormat(int32_t sampleFormat, int64_t numberOfChannel,
                                                                   int64_t sampleRate, int32_t numberOfSamples,
                                                                   QByteArray samples)
{
    int64_t bytes = packedByteCount(sampleFormat, numberOfChannel, sampleRate, numberOfSamples);
    if (bytes < 0 || samples.size() != bytes) {
        brindle::log(QStringLiteral("KRAudioFrame2: refused a frame whose size does not match its description"));
        return nullptr;
    }
    std::shared_ptr<KRAudioFrame2> frame(new KRAudioFrame2());
    frame->m_sampleFormat = sampleFormat;
    frame->m_numberOfChannel = numberOfChannel;
    frame->m_sampleRate = sampleRate;
    frame->m_numberOfSamples = numberOfSamples;
    frame->m_samples = std::move(samples);
    return frame;
}

std::shared_ptr<KRAudioFrame2> KRAudioFrame2::initWithAVFrame(const AVFrame* avFrame)
{
    if (!avFrame || !isKnownSampleFormat(avFrame->format)) {
        brindle::log(QStringLiteral("KRAudioFrame2: refused a decoded frame of an unsupported sample format"));
        return nullptr;
    }
    const int32_t packed = packedSampleFormat(avFrame->format);
    const int channels = avFrame->ch_layout.nb_channels;
    const int samples = avFrame->nb_samples;
    int64_t bytes = packedByteCount(packed, channels, avFrame->sample_rate, samples);
    if (bytes < 0 || !avFrame->extended_data) {
        brindle::log(QStringLiteral("KRAudioFrame2: refused a decoded frame with an invalid description"));
        return nullptr;
    }
    QByteArray data(qsizetype(bytes), Qt::Uninitialized);
    uint8_t* out = reinterpret_cast<uint8_t*>(data.data());
    if (packed == avFrame->format) {
        if (!avFrame->extended_data[0])
            return nullptr;
        std::memcpy(out, avFrame->extended_data[0], size_t(bytes));
    } else {
        for (int c = 0; c < channels; ++c) {
            if (!avFrame->extended_data[c])
                return nullptr;
        }
        interleave(avFrame->extended_data, channels, samples, bytesForSampleFormat(packed), out);
    }
    return initWithSampleFormat(packed, channels, avFrame->sample_rate, samples, std::move(data));
}

bool KRAudioFrame2::replaceSamples(int32_t numberOfSamples, const void* samples)
{
    int64_t bytes = packedByteCount(m_sampleFormat, m_numberOfChannel, m_sampleRate, numberOfSamples);
    if (bytes < 0 || !samples) {
        brindle::log(QStringLiteral("KRAudioFrame2: refused to refill a frame with an invalid sample count"));
        return false;
    }
    // resize keeps the capacity (and so the allocation) when it shrinks or
    // grows within it; the array is not shared, so nothing is detached.
    m_samples.resize(qsizetype(bytes));
    std::memcpy(m_samples.data(), samples, size_t(bytes));
    m_numberOfSamples = numberOfSamples;
    return true;
}

int32_t KRAudioFrame2::packedSampleFormat(int32_t sampleFormat)
{
    if (!isKnownSampleFormat(sampleFormat))
        return sampleFormat;
    return av_get_packed_sample_fmt(AVSampleFormat(sampleFormat));
}

int32_t KRAudioFrame2::bytesForSampleFormat(int32_t sampleFormat)
{
    if (sampleFormat < 0 || sampleFormat >= AV_SAMPLE_FMT_NB)
        return 0;
    return av_get_bytes_per_sample(AVSampleFormat(sampleFormat));
}

uint64_t KRAudioFrame2::defaultChannelLayoutByChannel(int64_t channels)
{
    if (channels < 1 || channels > kMaximumChannels)
        return 0;
    AVChannelLayout layout{};
    av_channel_layout_default(&layout, int(channels));
    uint64_t mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
    av_channel_layout_uninit(&layout);
    return mask;
}

const uint8_t* KRAudioFrame2::bytesAtPlanerIndex(int index) const
{
    if (index != 0)
        return nullptr;
    return reinterpret_cast<const uint8_t*>(m_samples.constData());
}

QStringList KRAudioFrame2::archiveClassNames()
{
    return {QStringLiteral("KRAudioFrame2")};
}

QString KRAudioFrame2::classNameForArchive() const
{
    return QStringLiteral("KRAudioFrame2");
}

void KRAudioFrame2::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeInt32(m_sampleFormat, kSampleFormatKey);
    coder.encodeInt64(m_numberOfChannel, kNumberOfChannelKey);
    coder.encodeInt64(m_sampleRate, kSampleRateKey);
    coder.encodeInt32(m_numberOfSamples, kNumberOfSamplesKey);
    coder.encodeBytes(m_samples, kPackedSamplesKey);
}

std::shared_ptr<KRAudioFrame2> KRAudioFrame2::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    int32_t sampleFormat = coder.decodeInt32ForKey(kSampleFormatKey);
    int64_t channels = coder.decodeInt64ForKey(kNumberOfChannelKey);
    int64_t sampleRate = coder.decodeInt64ForKey(kSampleRateKey);
    int32_t samples = coder.decodeInt32ForKey(kNumberOfSamplesKey);
    QByteArray data = coder.decodeBytesForKey(kPackedSamplesKey);
    if (coder.hasDecodingError()) {
        brindle::log(QStringLiteral("KRAudioFrame2: archived frame has fields of the wrong type"));
        return nullptr;
    }
    int64_t bytes = packedByteCount(sampleFormat, channels, sampleRate, samples);
    if (bytes < 0 || data.size() != bytes) {
        coder.failWithError(QStringLiteral("KRAudioFrame2: inconsistent archived frame"));
        brindle::logf("KRAudioFrame2: refused an archived frame (format %d, %lld channels, %d samples, %lld bytes)",
                      sampleFormat, static_cast<long long>(channels), samples, static_cast<long long>(data.size()));
        return nullptr;
    }
    return initWithSampleFormat(sampleFormat, channels, sampleRate, samples, std::move(data));
}
