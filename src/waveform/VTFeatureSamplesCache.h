// A walker over one data provider's PCM in fixed-size sample blocks for one
// zoom level, shared by every clip of that media.
//
// Contract
// - The block length is N = rate × (durationPerPixel / multiTimes) / 1000
//   samples (integer arithmetic), at least one sample. Blocks start at
//   multiples of N from the media's start, whatever timestamp a walk is asked
//   for, so one block always covers the same stretch at a given zoom.
// - `calcSampleBlockAtTimestamp` walks on the calling thread from the block
//   holding `timestamp` until the block that reaches `duration` (an end
//   position in the media, not a length), handing each block to `process`
//   with a stop flag (cleared before each call). It stops after a block when
//   the flag is set, when the cache is cancelled, or at the end. The last
//   block may reach past the media's end; it is scanned as far as samples
//   exist. A walk reads through one frame cursor, so no cache frame is
//   unpacked twice by it.
// - The `enum…` operations submit one walk from a timestamp to the media's
//   end, asynchronously, on the given queue or on the cache's own serial
//   `startSearchQueue` (created on first use). The walk keeps the cache alive.
// - `cancelSearchProcessAnywayInQueue` sets `cancelSearch` (never cleared, so
//   a cancelled cache is never reused: a later walk stops after one block),
//   then waits until the given queue and `startSearchQueue` are idle. On
//   return no walk of this cache runs on either. `cancelEnumSampleBlocksInQueue`
//   only waits for the given queue. Neither may be called from a walk's
//   process block on a queue it waits for (that would deadlock; SerialQueue
//   logs it and runs the wait inline instead).
// - Threads: `cancelSearch` is atomic, written by the cancelling thread and
//   read by the walking thread after each block. Everything else is fixed at
//   creation, except the queue, which is created once under a lock.
#pragma once

#include "foundation/Dispatch.h"
#include "waveform/VTSampleBlock.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

class VTDataProvider;

class VTFeatureSamplesCache final : public std::enable_shared_from_this<VTFeatureSamplesCache> {
public:
    using ProcessBlock = std::function<void(const std::shared_ptr<VTSampleBlock>& block, bool* stop)>;

    // Each pixel is covered by two sample blocks.
    static constexpr uint64_t multiTimes = 2;

    // Null when `dataProviderIDs` is null or empty.
    static std::shared_ptr<VTFeatureSamplesCache> initWithDataProviderIDs(const QString& dataProviderIDs,
                                                                         uint64_t durationPerPixel);
    static std::shared_ptr<VTFeatureSamplesCache> init() { return initWithDataProviderIDs(QString(), 0); }
    ~VTFeatureSamplesCache();
    VTFeatureSamplesCache(const VTFeatureSamplesCache&) = delete;
    VTFeatureSamplesCache& operator=(const VTFeatureSamplesCache&) = delete;

    const QString& dataProviderIDs() const { return m_dataProviderIDs; }
    uint64_t durationPerPixel() const { return m_durationPerPixel; }
    bool searchCompletion() const { return m_searchCompletion; }
    bool cancelSearch() const { return m_cancelSearch.load(std::memory_order_acquire); }
    // "DataProviderID: <id>, self(<address>)".
    QString identifier() const;
    brindle::SerialQueue& startSearchQueue();

    // The registry's provider, looked up again on every call.
    std::shared_ptr<VTDataProvider> dataProvider() const;
    // N for a provider at `samplerate`; at least 1.
    uint64_t numberOfSamplesPerBlockAtSamplerate(int64_t samplerate) const;

    void calcSampleBlockAtTimestamp(int64_t timestamp, int64_t duration, const ProcessBlock& process);
    void enumSampleBlocksInQueue(brindle::DispatchQueue* queue, int64_t timestamp, ProcessBlock process);
    void enumSampleBlocksWithTimestamps(int64_t timestamp, ProcessBlock process);
    void enumSamplesBlocksWithProcess(ProcessBlock process);

    void cancelSearchProcessAnywayInQueue(brindle::DispatchQueue* queue);
    void cancelSearchProcessAnyway() { cancelSearchProcessAnywayInQueue(nullptr); }
    void cancelEnumSampleBlocksInQueue(brindle::DispatchQueue* queue);

private:
    VTFeatureSamplesCache(QString dataProviderIDs, uint64_t durationPerPixel);
    // The queue if it has been made, else null.
    brindle::SerialQueue* existingStartSearchQueue();

    const QString m_dataProviderIDs;
    const uint64_t m_durationPerPixel;
    const bool m_searchCompletion = false;
    std::mutex m_queueMutex;
    std::unique_ptr<brindle::SerialQueue> m_startSearchQueue;
    std::atomic<bool> m_cancelSearch{false};
};
