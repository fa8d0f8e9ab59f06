#include "waveform/VTFeatureSamplesCache.h"

#include "foundation/VTBaseDefine.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"

#include <algorithm>
#include <limits>

std::shared_ptr<VTFeatureSamplesCache> VTFeatureSamplesCache::initWithDataProviderIDs(const QString& dataProviderIDs,
                                                                                     uint64_t durationPerPixel)
{
    if (dataProviderIDs.isEmpty())
        return nullptr;
    return std::shared_ptr<VTFeatureSamplesCache>(new VTFeatureSamplesCache(dataProviderIDs, durationPerPixel));
}

VTFeatureSamplesCache::VTFeatureSamplesCache(QString dataProviderIDs, uint64_t durationPerPixel) :
    m_dataProviderIDs(std::move(dataProviderIDs)), m_durationPerPixel(durationPerPixel)
{
}

// Destroying the queue runs what was submitted to it; walks hold the cache
// alive, so by now none is left.
VTFeatureSamplesCache::~VTFeatureSamplesCache() = default;

QString VTFeatureSamplesCache::identifier() const
{
    return QStringLiteral("DataProviderID: %1, self(%2)")
        .arg(m_dataProviderIDs)
        .arg(quint64(reinterpret_cast<quintptr>(this)));
}

brindle::SerialQueue& VTFeatureSamplesCache::startSearchQueue()
{
    std::lock_guard lock(m_queueMutex);
    if (!m_startSearchQueue)
        m_startSearchQueue = std::make_unique<brindle::SerialQueue>(identifier());
    return *m_startSearchQueue;
}

brindle::SerialQueue* VTFeatureSamplesCache::existingStartSearchQueue()
{
    std::lock_guard lock(m_queueMutex);
    return m_startSearchQueue.get();
}

std::shared_ptr<VTDataProvider> VTFeatureSamplesCache::dataProvider() const
{
    return VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(m_dataProviderIDs);
}

uint64_t VTFeatureSamplesCache::numberOfSamplesPerBlockAtSamplerate(int64_t samplerate) const
{
    const uint64_t blockDuration = m_durationPerPixel / multiTimes;
    const auto rate = static_cast<unsigned __int128>(std::max<int64_t>(samplerate, 0));
    // Formed in 128 bits and kept within the signed range the walk compares in.
    const unsigned __int128 samples = rate * blockDuration / uint64_t(VTBaseDefine::unitsPerSecond());
    const uint64_t n = uint64_t(std::min<unsigned __int128>(samples, std::numeric_limits<int64_t>::max()));
    // A zoom so fine that a block would hold no sample still walks one at a time.
    return std::max<uint64_t>(n, 1);
}

void VTFeatureSamplesCache::calcSampleBlockAtTimestamp(int64_t timestamp, int64_t duration, const ProcessBlock& process)
{
    const std::shared_ptr<VTDataProvider> provider = dataProvider();
    if (!provider || !process)
        return;
    const int64_t rate = provider->samplerate();
    const uint64_t n = numberOfSamplesPerBlockAtSamplerate(rate);
    const int64_t end = brindle::detail::addClamped(brindle::sampleIndexOfTimestamp(duration, rate), int64_t(n));
    const int64_t start = brindle::sampleIndexOfTimestamp(timestamp, rate);
    // Rounded down to a multiple of N; a start before the media is the media's start.
    const uint64_t first = start <= 0 ? 0 : uint64_t(start) - uint64_t(start) % n;
    VTDataProvider::FrameCursor cursor;
    for (uint64_t i = first; int64_t(i) < end; i += n) {
        const std::shared_ptr<VTSampleBlock> block =
            VTSampleBlock::initWithIndexOfDataProvider(i, n, provider, cursor);
        bool stop = false;
        process(block, &stop);
        if (stop || cancelSearch() || int64_t(i + n) >= end)
            break;
    }
}

void VTFeatureSamplesCache::enumSampleBlocksInQueue(brindle::DispatchQueue* queue, int64_t timestamp,
                                                    ProcessBlock process)
{
    brindle::DispatchQueue& target = queue ? *queue : startSearchQueue();
    target.async([self = shared_from_this(), timestamp, process = std::move(process)] {
        const std::shared_ptr<VTDataProvider> provider = self->dataProvider();
        if (!provider)
            return;
        self->calcSampleBlockAtTimestamp(timestamp, provider->duration(), process);
    });
}

void VTFeatureSamplesCache::enumSampleBlocksWithTimestamps(int64_t timestamp, ProcessBlock process)
{
    enumSampleBlocksInQueue(nullptr, timestamp, std::move(process));
}

void VTFeatureSamplesCache::enumSamplesBlocksWithProcess(ProcessBlock process)
{
    enumSampleBlocksInQueue(nullptr, 0, std::move(process));
}

void VTFeatureSamplesCache::cancelSearchProcessAnywayInQueue(brindle::DispatchQueue* queue)
{
    m_cancelSearch.store(true, std::memory_order_release);
    if (queue)
        queue->sync([] {});
    // A queue never made has never run a walk.
    if (brindle::SerialQueue* own = existingStartSearchQueue())
        own->sync([] {});
}

void VTFeatureSamplesCache::cancelEnumSampleBlocksInQueue(brindle::DispatchQueue* queue)
{
    if (queue)
        queue->sync([] {});
}
