#include "model/VTClipMixContext.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRResampleContext2.h"
#include "media/VTDataProvider.h"
#include "model/ClipFeed.h"
#include "model/VTFadeInEffect.h"
#include "model/VTFadeOutEffect.h"
#include "model/VTVolumeEffect.h"

#include <algorithm>
#include <cstring>
#include <utility>

VTClipMixContext::VTClipMixContext(int64_t indexOfSampleStart, int64_t timestampOfTrack,
                                   int64_t indexOfSampleStartInDataProvider)
    : m_timestampOfTrack(timestampOfTrack),
      m_indexOfSampleStart(indexOfSampleStart),
      m_indexOfSampleStartInDataProvider(indexOfSampleStartInDataProvider)
{
}

VTClipMixContext::~VTClipMixContext()
{
    stopFeed();
}

std::shared_ptr<VTClipMixContext> VTClipMixContext::pristineCopy() const
{
    auto copy = initWithIndexOfSampleStart(m_indexOfSampleStart, m_timestampOfTrack, m_indexOfSampleStartInDataProvider);
    copy->setDataProvider(m_dataProvider);
    copy->m_numberOfSampleOut = m_numberOfSampleOut;
    copy->m_numberOfSampleOutInDataProvider = m_numberOfSampleOutInDataProvider;
    return copy;
}

void VTClipMixContext::setFeed(std::shared_ptr<brindle::ClipFeed> feed, int64_t frames)
{
    stopFeed();
    m_feed = std::move(feed);
    m_feedFrames = frames;
    m_feedStartSampleOut = m_numberOfSampleOut;
    m_feedPullsTaken = 0;
}

void VTClipMixContext::stopFeed()
{
    if (!m_feed)
        return;
    m_feed->stop();
    m_feed.reset();
}

std::shared_ptr<VTClipMixContext> VTClipMixContext::initWithIndexOfSampleStart(int64_t indexOfSampleStart,
                                                                               int64_t timestampOfTrack,
                                                                               int64_t indexOfSampleStartInDataProvider)
{
    return std::make_shared<VTClipMixContext>(indexOfSampleStart, timestampOfTrack, indexOfSampleStartInDataProvider);
}

void VTClipMixContext::setResampleContext(std::shared_ptr<KRResampleContext2> context)
{
    m_resampleContext = std::move(context);
}

void VTClipMixContext::takeConvertedAsCache(int64_t offset, int64_t length)
{
    const size_t held = m_converted.size();
    const size_t from = offset > 0 ? std::min(static_cast<size_t>(offset), held) : 0;
    std::swap(m_cache, m_converted);
    m_cacheOffset = from;
    m_cacheLength = length > 0 ? std::min(static_cast<size_t>(length), held - from) : 0;
}

void VTClipMixContext::dropCacheSample(int64_t length)
{
    const size_t dropped = length > 0 ? std::min(static_cast<size_t>(length), m_cacheLength) : 0;
    m_cacheOffset += dropped;
    m_cacheLength -= dropped;
    if (m_cacheLength == 0)
        m_cacheOffset = 0;
}

void VTClipMixContext::setDataProvider(std::shared_ptr<VTDataProvider> provider)
{
    m_dataProvider = std::move(provider);
    if (!m_dataProvider) {
        m_mediaSampleFormat = 0;
        m_mediaSamplerate = 0;
        m_mediaNumberOfChannel = 0;
        m_mediaBytesPerSample = 0;
        return;
    }
    m_mediaSampleFormat = m_dataProvider->sampleFormat();
    m_mediaSamplerate = m_dataProvider->samplerate();
    m_mediaNumberOfChannel = m_dataProvider->numberOfChannel();
    m_mediaBytesPerSample = static_cast<int64_t>(KRAudioFrame2::bytesForSampleFormat(m_mediaSampleFormat)) *
                            m_mediaNumberOfChannel;
}

uint8_t* VTClipMixContext::readBuffer(size_t bytes)
{
    if (m_readBuffer.size() < bytes)
        m_readBuffer.resize(bytes);
    return m_readBuffer.data();
}

VTVolumeEffect* VTClipMixContext::volumeEffect(int32_t sampleFormat, int64_t numberOfChannel)
{
    if (!m_volumeEffect && !m_volumeEffectRefused) {
        m_volumeEffect = VTVolumeEffect::initWithSampleFormat(sampleFormat, numberOfChannel);
        m_volumeEffectRefused = !m_volumeEffect;
    }
    return m_volumeEffect.get();
}

VTFadeInEffect* VTClipMixContext::fadeInEffect(int64_t start, int64_t count, int32_t sampleFormat,
                                               int64_t numberOfChannel)
{
    if (!m_fadeInEffect || m_fadeInEffect->startIndexAtTrack() != start ||
        m_fadeInEffect->numberOfSamplesAtTrack() != count)
        m_fadeInEffect = VTFadeInEffect::initWithIndexOfSample(start, count, sampleFormat, numberOfChannel);
    return m_fadeInEffect.get();
}

VTFadeOutEffect* VTClipMixContext::fadeOutEffect(int64_t start, int64_t count, int32_t sampleFormat,
                                                 int64_t numberOfChannel)
{
    if (!m_fadeOutEffect || m_fadeOutEffect->startIndexAtTrack() != start ||
        m_fadeOutEffect->numberOfSamplesAtTrack() != count)
        m_fadeOutEffect = VTFadeOutEffect::initWithIndexOfSample(start, count, sampleFormat, numberOfChannel);
    return m_fadeOutEffect.get();
}
