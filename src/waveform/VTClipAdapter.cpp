#include "waveform/VTClipAdapter.h"

#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "model/VTClip.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTFeatureSampleCacheMgr.h"
#include "waveform/VTFeatureSamplesCache.h"
#include "waveform/VTSampleBlock.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// The number of doubles both buffers hold for `channels` channels.
int64_t valuesInBuffers(const QByteArray& maxSamples, const QByteArray& minSamples, int64_t channels)
{
    const int64_t held = std::min(maxSamples.size(), minSamples.size()) / qsizetype(sizeof(double));
    return std::clamp<int64_t>(channels, 0, held);
}

template <class Operation>
void applyToBoth(QByteArray& maxSamples, QByteArray& minSamples, int64_t count, Operation operation)
{
    // Element by element through memcpy: a byte buffer promises no alignment.
    for (QByteArray* buffer : {&maxSamples, &minSamples}) {
        char* bytes = buffer->data();
        for (int64_t c = 0; c < count; ++c) {
            double value = 0.0;
            std::memcpy(&value, bytes + c * qsizetype(sizeof(double)), sizeof value);
            value = operation(value);
            std::memcpy(bytes + c * qsizetype(sizeof(double)), &value, sizeof value);
        }
    }
}

// Scales the extremes by `gain`, about the silence level of the format.
void applyGain(QByteArray& maxSamples, QByteArray& minSamples, int64_t count, int32_t sampleFormat, double gain)
{
    if (sampleFormat == 0)
        applyToBoth(maxSamples, minSamples, count, [gain](double x) { return (x - 127.0) * gain + 127.0; });
    else
        applyToBoth(maxSamples, minSamples, count, [gain](double x) { return x * gain; });
}

}  // namespace

std::shared_ptr<VTClipAdapter> VTClipAdapter::initWithClip(std::shared_ptr<VTClip> clip)
{
    if (!clip)
        return nullptr;
    return std::shared_ptr<VTClipAdapter>(new VTClipAdapter(std::move(clip)));
}

VTClipAdapter::VTClipAdapter(std::shared_ptr<VTClip> clip) : m_clip(std::move(clip)) {}

VTClipAdapter::~VTClipAdapter()
{
    // Supersede every walk, so that destroying the queue (which waits for
    // what it holds) does not wait for a whole walk.
    m_walkState->generation.fetch_add(1);
}

brindle::SerialQueue& VTClipAdapter::featureSampleQueue()
{
    std::lock_guard lock(m_queueMutex);
    if (!m_featureSampleQueue) {
        const QString label = QStringLiteral("Clip Adapter: 0x%1").arg(quint64(reinterpret_cast<quintptr>(this)), 0, 16);
        m_featureSampleQueue = std::make_unique<brindle::SerialQueue>(label);
    }
    return *m_featureSampleQueue;
}

int64_t VTClipAdapter::timestampsOfTrack() const { return m_clip->timestampOfTrack(); }
int64_t VTClipAdapter::timestampsOfDataProvider() const { return m_clip->timestampOfDataProvider(); }
int64_t VTClipAdapter::durationOfTrack() const { return m_clip->durationOfTrack(); }
bool VTClipAdapter::fadeInValidate() const { return m_clip->fadeInValidate(); }
bool VTClipAdapter::fadeOutValidate() const { return m_clip->fadeOutValidate(); }
int64_t VTClipAdapter::durationOfFadeIn() const { return m_clip->durationOfFadeIn(); }
int64_t VTClipAdapter::durationOfFadeOut() const { return m_clip->durationOfFadeOut(); }
QString VTClipAdapter::identifier() const { return m_clip->identifier(); }
std::optional<QString> VTClipAdapter::description() const { return m_clip->description(); }

void VTClipAdapter::featureSamplesAtTimestamps(int64_t timestamp, int64_t durationOfTrack, int64_t withDurationPerPixel,
                                               ProcessHandler processHandler)
{
    const int64_t zoom = withDurationPerPixel;
    MediaFormat format{m_clip->samplerate(), m_clip->sampleFormat(), m_clip->numberOfChannel()};
    if (zoom < 1 || format.samplerate <= 0) {
        brindle::log(QStringLiteral("Warning: no waveform for clip %1 (zoom %2 ms per point, sample rate %3).")
                         .arg(m_clip->identifier())
                         .arg(zoom)
                         .arg(format.samplerate));
        return;
    }
    brindle::SerialQueue& queue = featureSampleQueue();
    const QString dataProviderIds = m_clip->dataProviderIds();

    // The shared cache at this zoom; one at another zoom is replaced for
    // every clip of the media, and its walks (this clip's among them) stop.
    std::shared_ptr<VTFeatureSamplesCache> replaced;
    const std::shared_ptr<VTFeatureSamplesCache> cache =
        VTFeatureSampleCacheMgr::shareFeatureSampleCacheMgr().cacheWithDataProviderIDs(dataProviderIds, uint64_t(zoom),
                                                                                      &replaced);
    if (replaced)
        replaced->cancelSearchProcessAnywayInQueue(&queue);
    if (!cache)
        return;

    // Supersede and drain this clip's earlier walks.
    const uint64_t generation = m_walkState->generation.fetch_add(1) + 1;
    m_walkState->cancel.store(true);
    cache->cancelEnumSampleBlocksInQueue(&queue);
    m_walkState->cancel.store(false);

    // Track times are never negative, so their negation cannot overflow.
    const int64_t mediaStart = brindle::detail::addClamped(
        brindle::detail::addClamped(timestamp, -m_clip->timestampOfTrack()), m_clip->timestampOfDataProvider());
    const int64_t end = brindle::detail::addClamped(timestamp, durationOfTrack);
    cache->enumSampleBlocksInQueue(
        &queue, mediaStart,
        [clip = m_clip, state = m_walkState, generation, timestamp, durationOfTrack, end, format,
         handler = std::move(processHandler)](const std::shared_ptr<VTSampleBlock>& block, bool* stop) {
            const bool superseded = state->cancel.load() || state->generation.load() != generation;
            if (superseded || !block) {
                *stop = true;
                return;
            }
            if (trackTimestampOfBlock(*clip, *block, format.samplerate) >= end)
                *stop = true;
            std::shared_ptr<VTFeatureSample> point =
                featureSampleOfBlock(*clip, timestamp, durationOfTrack, *block, format);
            if (point && handler)
                handler(FeatureSampleList{std::move(point)});
        });
}

int64_t VTClipAdapter::trackTimestampOfBlock(const VTClip& clip, const VTSampleBlock& block, int64_t samplerate)
{
    const uint64_t index = std::min<uint64_t>(block.indexOfSampleInDataProvider(), INT64_MAX);
    const int64_t mediaTime = brindle::detail::scaleTruncated(int64_t(index), VTBaseDefine::unitsPerSecond(), samplerate);
    return brindle::detail::addClamped(clip.timestampOfTrack(), mediaTime - clip.timestampOfDataProvider());
}

std::shared_ptr<VTFeatureSample> VTClipAdapter::calcFeatureSamplesWithTimestamp(int64_t timestamp,
                                                                                int64_t durationOfTrack,
                                                                                const VTSampleBlock& sampleBlock,
                                                                                int64_t /*durationPerPixel*/) const
{
    const MediaFormat format{m_clip->samplerate(), m_clip->sampleFormat(), m_clip->numberOfChannel()};
    if (format.samplerate <= 0)
        return nullptr;
    return featureSampleOfBlock(*m_clip, timestamp, durationOfTrack, sampleBlock, format);
}

std::shared_ptr<VTFeatureSample> VTClipAdapter::featureSampleOfBlock(const VTClip& clip, int64_t timestamp,
                                                                     int64_t durationOfTrack,
                                                                     const VTSampleBlock& block,
                                                                     const MediaFormat& format)
{
    const int64_t tb = trackTimestampOfBlock(clip, block, format.samplerate);
    if (!(timestamp < tb && tb < brindle::detail::addClamped(timestamp, durationOfTrack)))
        return nullptr;
    // Copies: the shared block stays neutral for the other clips of its media.
    QByteArray maxSamples = block.maxSamples();
    QByteArray minSamples = block.minSamples();
    maxSamples.detach();
    minSamples.detach();
    const int64_t count = valuesInBuffers(maxSamples, minSamples, format.numberOfChannel);

    const double volume = clip.volume();
    if (std::fabs(volume - 1.0) > VTBaseDefine::expression())
        applyGain(maxSamples, minSamples, count, format.sampleFormat, volume);

    const int64_t start = clip.timestampOfTrack();
    const int64_t length = clip.durationOfTrack();
    const int64_t fadeIn = clip.durationOfFadeIn();
    const int64_t fadeOut = clip.durationOfFadeOut();
    if (clip.fadeInValidate() && fadeIn > 0 && start < tb && tb <= start + fadeIn) {
        const double gain = std::min(1.0, double(tb - start) / double(fadeIn));
        applyGain(maxSamples, minSamples, count, format.sampleFormat, gain);
    }
    if (clip.fadeOutValidate() && fadeOut > 0 && start + length - fadeOut <= tb && tb < start + length) {
        const double gain = std::clamp(1.0 - double(tb - start - length + fadeOut) / double(fadeOut), 0.0, 1.0);
        applyGain(maxSamples, minSamples, count, format.sampleFormat, gain);
    }
    normalizeSamples(maxSamples, minSamples, count, format.sampleFormat);

    const uint64_t rate = uint64_t(format.samplerate);
    const uint64_t units = uint64_t(VTBaseDefine::unitsPerSecond());
    auto point = VTFeatureSample::initWithTimestampOfDp(int64_t(units * block.indexOfSampleInDataProvider() / rate),
                                                        int64_t(units * block.numberOfSamplesInDataProvider() / rate));
    point->setNumberOfChannel(format.numberOfChannel);
    point->setMaxSamples(maxSamples);
    point->setMinSamples(minSamples);
    return point;
}

void VTClipAdapter::normalizeSamples(QByteArray& maxSamples, QByteArray& minSamples, int64_t numberOfChannel,
                                     int32_t sampleFormat)
{
    const int64_t count = valuesInBuffers(maxSamples, minSamples, numberOfChannel);
    switch (sampleFormat) {
    case 0:
        applyToBoth(maxSamples, minSamples, count, [](double x) { return (x - 127.0) / 127.0; });
        break;
    case 1:
        applyToBoth(maxSamples, minSamples, count, [](double x) { return x / 32767.5; });
        break;
    case 2:
        // Multiplied, not divided by the integer range: 32-bit integer media
        // have always been shown this way.
        applyToBoth(maxSamples, minSamples, count, [](double x) { return x * -2.0; });
        break;
    case 3:
    case 4:
        break;
    default:
        brindle::log(QStringLiteral("Can't support such sample format(%1) normalize.").arg(sampleFormat));
        break;
    }
}
