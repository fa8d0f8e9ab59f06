#include "codec/KRResampleContext2.h"

#include "codec/KRAudioFrame2.h"
#include "codec/PolyphaseResampler.h"
#include "foundation/Log.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <bit>
#include <climits>

namespace {

constexpr int32_t kLastPackedFormat = AV_SAMPLE_FMT_DBL;
// Flushing stops after this many passes even if the converter keeps answering.
constexpr int kMaximumFlushPasses = 64;
constexpr int64_t kMinimumFlushChunk = 256;

bool isPackedFormat(int32_t sampleFormat)
{
    return sampleFormat >= AV_SAMPLE_FMT_U8 && sampleFormat <= kLastPackedFormat;
}

bool isUsableRate(int64_t rate)
{
    return rate > 0 && rate <= INT_MAX;
}

QString errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

// Makes sure `output` holds at least `bytes` bytes. It grows geometrically and
// with a quarter of headroom, since the output bound of a block of a given
// size varies by a few frames with what the converter holds back.
bool reserveBytes(std::vector<uint8_t>& output, int64_t bytes)
{
    if (bytes < 0 || static_cast<uint64_t>(bytes) > output.max_size() / 2)
        return false;
    const auto needed = static_cast<size_t>(bytes);
    if (output.size() >= needed)
        return true;
    if (output.capacity() < needed)
        output.reserve(std::max(needed + needed / 4, output.capacity() * 2));
    output.resize(needed);
    return true;
}

// Any non-null input pointer: swr_convert treats a null input as the end of
// the stream, so a call that only drains passes this instead.
const uint8_t kNoInput[1] = {};

}  // namespace

std::shared_ptr<KRResampleContext2> KRResampleContext2::initWithSampleFormat(int32_t srcSampleFormat,
                                                                             int32_t destSampleFormat,
                                                                             uint64_t srcChannelLayout,
                                                                             uint64_t destChannelLayout,
                                                                             int64_t srcSampleRate,
                                                                             int64_t destSampleRate)
{
    if (!isPackedFormat(srcSampleFormat) || !isPackedFormat(destSampleFormat) || !isUsableRate(srcSampleRate) ||
        !isUsableRate(destSampleRate) || srcChannelLayout == 0 || destChannelLayout == 0) {
        brindle::logf("KRResampleContext2: cannot convert format %d, layout 0x%llx, %lld Hz to format %d, layout "
                      "0x%llx, %lld Hz",
                      srcSampleFormat, static_cast<unsigned long long>(srcChannelLayout),
                      static_cast<long long>(srcSampleRate), destSampleFormat,
                      static_cast<unsigned long long>(destChannelLayout), static_cast<long long>(destSampleRate));
        return nullptr;
    }
    AVChannelLayout srcLayout{};
    AVChannelLayout destLayout{};
    if (av_channel_layout_from_mask(&srcLayout, srcChannelLayout) < 0 ||
        av_channel_layout_from_mask(&destLayout, destChannelLayout) < 0) {
        brindle::log(QStringLiteral("KRResampleContext2: invalid channel layout"));
        return nullptr;
    }

    std::shared_ptr<KRResampleContext2> context(new KRResampleContext2());
    if (srcChannelLayout == destChannelLayout)
        context->m_polyphase = brindle::PolyphaseResampler::make(
            srcSampleFormat, destSampleFormat, std::popcount(srcChannelLayout), srcSampleRate, destSampleRate);
    int status = 0;
    if (!context->m_polyphase) {
        status = swr_alloc_set_opts2(&context->m_swr, &destLayout, AVSampleFormat(destSampleFormat),
                                     int(destSampleRate), &srcLayout, AVSampleFormat(srcSampleFormat),
                                     int(srcSampleRate), 0, nullptr);
        if (status >= 0)
            status = swr_init(context->m_swr);
    }
    av_channel_layout_uninit(&srcLayout);
    av_channel_layout_uninit(&destLayout);
    if (status < 0) {
        brindle::log(QStringLiteral("KRResampleContext2: the converter could not be set up: ") + errorText(status));
        return nullptr;
    }

    context->m_srcSampleFormat = srcSampleFormat;
    context->m_destSampleFormat = destSampleFormat;
    context->m_srcChannelLayout = srcChannelLayout;
    context->m_destChannelLayout = destChannelLayout;
    context->m_srcChannels = std::popcount(srcChannelLayout);
    context->m_destChannels = std::popcount(destChannelLayout);
    context->m_srcSampleRate = srcSampleRate;
    context->m_destSampleRate = destSampleRate;
    context->m_srcFrameBytes = context->m_srcChannels * KRAudioFrame2::bytesForSampleFormat(srcSampleFormat);
    context->m_destFrameBytes = context->m_destChannels * KRAudioFrame2::bytesForSampleFormat(destSampleFormat);
    return context;
}

KRResampleContext2::~KRResampleContext2()
{
    swr_free(&m_swr);
}

bool KRResampleContext2::assertSampleFormat(int32_t srcSampleFormat, int32_t destSampleFormat, int64_t srcChannels,
                                            int64_t destChannel, int64_t srcSampleRate, int64_t destSampleRate) const
{
    return srcSampleFormat == m_srcSampleFormat && destSampleFormat == m_destSampleFormat &&
           srcChannels == m_srcChannels && destChannel == m_destChannels && srcSampleRate == m_srcSampleRate &&
           destSampleRate == m_destSampleRate;
}

int64_t KRResampleContext2::maximumOutputSamples(int64_t numberOfSamples) const
{
    if (numberOfSamples < 0 || numberOfSamples > INT_MAX)
        return -1;
    if (m_polyphase)
        return m_polyphase->maximumOutputSamples(numberOfSamples);
    const int bound = swr_get_out_samples(m_swr, int(numberOfSamples));
    return bound < 0 ? -1 : bound;
}

int64_t KRResampleContext2::resampleInto(const void* samples, int64_t numberOfSamples, std::vector<uint8_t>& output)
{
    const int64_t bound = maximumOutputSamples(numberOfSamples);
    if (bound < 0 || (!samples && numberOfSamples > 0)) {
        brindle::logf("KRResampleContext2: refused to convert %lld frames", static_cast<long long>(numberOfSamples));
        return -1;
    }
    if (bound > INT_MAX / std::max<int64_t>(m_destFrameBytes, 1) || !reserveBytes(output, bound * m_destFrameBytes)) {
        brindle::logf("KRResampleContext2: %lld frames do not fit an output buffer", static_cast<long long>(bound));
        return -1;
    }
    return resampleInto(samples, numberOfSamples, output.data(), bound);
}

int64_t KRResampleContext2::resampleInto(const void* samples, int64_t numberOfSamples, void* output, int64_t capacity)
{
    if (numberOfSamples < 0 || numberOfSamples > INT_MAX || (!samples && numberOfSamples > 0) || capacity < 0 ||
        (!output && capacity > 0)) {
        brindle::logf("KRResampleContext2: refused to convert %lld frames into %lld",
                      static_cast<long long>(numberOfSamples), static_cast<long long>(capacity));
        return -1;
    }
    if (m_polyphase) {
        const int64_t converted = m_polyphase->convert(samples, numberOfSamples, output, capacity);
        if (converted < 0)
            brindle::log(QStringLiteral("KRResampleContext2: conversion failed: the input could not be stored"));
        return converted;
    }
    const uint8_t* in = samples ? static_cast<const uint8_t*>(samples) : kNoInput;
    auto* out = static_cast<uint8_t*>(output);
    const int converted = swr_convert(m_swr, &out, int(std::min<int64_t>(capacity, INT_MAX)), &in,
                                      int(numberOfSamples));
    if (converted < 0) {
        brindle::log(QStringLiteral("KRResampleContext2: conversion failed: ") + errorText(converted));
        return -1;
    }
    return converted;
}

int64_t KRResampleContext2::flushInto(std::vector<uint8_t>& output)
{
    int64_t made = 0;
    for (int pass = 0; pass < kMaximumFlushPasses; ++pass) {
        const int64_t chunk = std::max(maximumOutputSamples(0), kMinimumFlushChunk);
        if (!reserveBytes(output, (made + chunk) * m_destFrameBytes))
            break;
        uint8_t* out = output.data() + made * m_destFrameBytes;
        // A null input tells the converter that the stream has ended.
        const int64_t converted = m_polyphase ? m_polyphase->flush(out, chunk)
                                              : swr_convert(m_swr, &out, int(chunk), nullptr, 0);
        if (converted < 0) {
            brindle::log(QStringLiteral("KRResampleContext2: flushing failed: ") + errorText(int(converted)));
            reset();
            return -1;
        }
        made += converted;
        if (converted < chunk)
            break;
    }
    reset();
    return made;
}

void KRResampleContext2::reset()
{
    if (m_polyphase) {
        m_polyphase->reset();
        return;
    }
    // Initialising again clears the buffers and the filter's history.
    const int status = swr_init(m_swr);
    if (status < 0)
        brindle::log(QStringLiteral("KRResampleContext2: the converter could not be reset: ") + errorText(status));
}

std::shared_ptr<KRAudioFrame2> KRResampleContext2::frameOf(const std::vector<uint8_t>& bytes, int64_t frames) const
{
    if (frames <= 0 || frames > INT32_MAX)
        return nullptr;
    return KRAudioFrame2::initWithSampleFormat(m_destSampleFormat, m_destChannels, m_destSampleRate,
                                               int32_t(frames), bytes.data());
}

std::shared_ptr<KRAudioFrame2> KRResampleContext2::resampleFrame(const KRAudioFrame2& frame)
{
    if (frame.sampleFormat() != m_srcSampleFormat || frame.numberOfChannel() != m_srcChannels ||
        frame.sampleRate() != m_srcSampleRate) {
        brindle::logf("KRResampleContext2: frame (format %d, %lld channels, %lld Hz) does not match the converter",
                      frame.sampleFormat(), static_cast<long long>(frame.numberOfChannel()),
                      static_cast<long long>(frame.sampleRate()));
        return nullptr;
    }
    const int64_t frames = frame.numberOfSamples();
    if (frame.dataOfPackedSamples().size() < frames * m_srcFrameBytes) {
        brindle::log(QStringLiteral("KRResampleContext2: frame holds fewer bytes than its sample count"));
        return nullptr;
    }
    const int64_t made = resampleInto(frame.bytesAtPlanerIndex(0), frames, m_frameOutput);
    return frameOf(m_frameOutput, made);
}

std::shared_ptr<KRAudioFrame2> KRResampleContext2::flush()
{
    const int64_t made = flushInto(m_frameOutput);
    return frameOf(m_frameOutput, made);
}
