#include "waveform/VTFeatureSampleCacheMgr.h"

#include "foundation/Once.h"
#include "waveform/VTFeatureSamplesCache.h"

#include <vector>

VTFeatureSampleCacheMgr& VTFeatureSampleCacheMgr::shareFeatureSampleCacheMgr()
{
    return brindle::sharedInstance<VTFeatureSampleCacheMgr>();
}

QString VTFeatureSampleCacheMgr::identifier() const
{
    return QStringLiteral("FeatureSampleCacheMgr:(%1)").arg(quint64(reinterpret_cast<quintptr>(this)));
}

brindle::SerialQueue& VTFeatureSampleCacheMgr::featureSamplesQueue()
{
    std::call_once(m_queueOnce, [this] { m_featureSamplesQueue = std::make_unique<brindle::SerialQueue>(identifier()); });
    return *m_featureSamplesQueue;
}

std::shared_ptr<VTFeatureSamplesCache> VTFeatureSampleCacheMgr::featureSamplesWithDataProviderIDs(
    const QString& dataProviderIDs)
{
    std::shared_ptr<VTFeatureSamplesCache> found;
    featureSamplesQueue().sync([&] { found = m_featureSamplesDictionary.value(dataProviderIDs); });
    return found;
}

void VTFeatureSampleCacheMgr::setFeaturesamples(std::shared_ptr<VTFeatureSamplesCache> cache,
                                                const QString& forDataProviderIDs)
{
    if (!cache)
        return;
    featureSamplesQueue().async([this, cache = std::move(cache), forDataProviderIDs] {
        if (m_featureSamplesDictionary.isEmpty())
            m_featureSamplesDictionary.reserve(4);
        m_featureSamplesDictionary.insert(forDataProviderIDs, cache);
    });
}

void VTFeatureSampleCacheMgr::removeCacheWithDataProviderIDs(const QString& dataProviderIDs)
{
    featureSamplesQueue().async([this, dataProviderIDs] {
        const std::shared_ptr<VTFeatureSamplesCache> cache = m_featureSamplesDictionary.take(dataProviderIDs);
        if (cache)
            cache->cancelSearchProcessAnyway();
    });
}

void VTFeatureSampleCacheMgr::removeCache(const std::shared_ptr<VTFeatureSamplesCache>& cache,
                                          const QString& dataProviderIDs)
{
    if (!cache)
        return;
    featureSamplesQueue().async([this, cache, dataProviderIDs] {
        const auto found = m_featureSamplesDictionary.constFind(dataProviderIDs);
        if (found == m_featureSamplesDictionary.cend() || found.value() != cache)
            return;
        m_featureSamplesDictionary.erase(found);
        cache->cancelSearchProcessAnyway();
    });
}

std::shared_ptr<VTFeatureSamplesCache> VTFeatureSampleCacheMgr::cacheWithDataProviderIDs(
    const QString& dataProviderIDs, uint64_t durationPerPixel, std::shared_ptr<VTFeatureSamplesCache>* replaced)
{
    std::shared_ptr<VTFeatureSamplesCache> cache;
    std::shared_ptr<VTFeatureSamplesCache> old;
    if (dataProviderIDs.isEmpty())
        return nullptr;
    featureSamplesQueue().sync([&] {
        cache = m_featureSamplesDictionary.value(dataProviderIDs);
        if (cache && cache->durationPerPixel() == durationPerPixel && !cache->cancelSearch())
            return;
        old = std::move(cache);
        cache = VTFeatureSamplesCache::initWithDataProviderIDs(dataProviderIDs, durationPerPixel);
        if (m_featureSamplesDictionary.isEmpty())
            m_featureSamplesDictionary.reserve(4);
        m_featureSamplesDictionary.insert(dataProviderIDs, cache);
    });
    if (replaced)
        *replaced = std::move(old);
    return cache;
}

void VTFeatureSampleCacheMgr::clearCaches()
{
    featureSamplesQueue().async([this] {
        std::vector<std::shared_ptr<VTFeatureSamplesCache>> caches;
        for (auto it = m_featureSamplesDictionary.cbegin(); it != m_featureSamplesDictionary.cend(); ++it)
            caches.push_back(it.value());
        for (const auto& cache : caches)
            cache->cancelSearchProcessAnyway();
        m_featureSamplesDictionary.clear();
    });
}
