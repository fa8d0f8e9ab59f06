// The process-wide registry of feature-sample walkers, one per media
// (data provider identifier), so that every clip of one media shares one
// walker at the zoom of the latest request.
//
// Contract
// - `shareFeatureSampleCacheMgr` is created once, thread-safely, and lives
//   until the process ends.
// - All dictionary access runs on the manager's serial `featureSamplesQueue`
//   (created on first use, labelled "FeatureSampleCacheMgr:(<address>)").
//   Look-ups are synchronous and changes asynchronous; since the queue is
//   serial, a look-up issued right after a change sees it.
// - `removeCacheWithDataProviderIDs` and `clearCaches` cancel the caches they
//   drop (`cancelSearchProcessAnyway`) before dropping them. An unknown
//   identifier changes nothing.
// - None of these may be called from a walk running on a cache's own
//   `startSearchQueue` while the manager cancels that cache.
#pragma once

#include "foundation/Dispatch.h"

#include <QHash>
#include <QString>

#include <cstdint>
#include <memory>
#include <mutex>

class VTFeatureSamplesCache;

class VTFeatureSampleCacheMgr final {
public:
    VTFeatureSampleCacheMgr() = default;
    VTFeatureSampleCacheMgr(const VTFeatureSampleCacheMgr&) = delete;
    VTFeatureSampleCacheMgr& operator=(const VTFeatureSampleCacheMgr&) = delete;

    static VTFeatureSampleCacheMgr& shareFeatureSampleCacheMgr();

    // "FeatureSampleCacheMgr:(<address>)".
    QString identifier() const;
    brindle::SerialQueue& featureSamplesQueue();

    std::shared_ptr<VTFeatureSamplesCache> featureSamplesWithDataProviderIDs(const QString& dataProviderIDs);
    void setFeaturesamples(std::shared_ptr<VTFeatureSamplesCache> cache, const QString& forDataProviderIDs);
    void removeCacheWithDataProviderIDs(const QString& dataProviderIDs);
    // Removes `cache` if it is the one registered for `dataProviderIDs` (a
    // newer one stays), cancelling it.
    void removeCache(const std::shared_ptr<VTFeatureSamplesCache>& cache, const QString& dataProviderIDs);
    void clearCaches();

    // In one step on the manager's queue: the registered cache of
    // `dataProviderIDs` if its zoom is `durationPerPixel`; otherwise a new
    // cache at that zoom, registered in place of the old one, which is
    // answered in `replaced` (not yet cancelled) for the caller to cancel. So
    // clips of one media asking at once all end up with the same cache.
    // Null for an empty identifier.
    std::shared_ptr<VTFeatureSamplesCache> cacheWithDataProviderIDs(const QString& dataProviderIDs,
                                                                    uint64_t durationPerPixel,
                                                                    std::shared_ptr<VTFeatureSamplesCache>* replaced);

private:
    std::once_flag m_queueOnce;
    std::unique_ptr<brindle::SerialQueue> m_featureSamplesQueue;
    // Read and written only on featureSamplesQueue.
    QHash<QString, std::shared_ptr<VTFeatureSamplesCache>> m_featureSamplesDictionary;
};
