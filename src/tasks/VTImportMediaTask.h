// The import task: probes and decodes media files into PCM caches, all
// files in parallel, and reports the overall progress.
//
// Contract
// - Input "kVTImportURLs": the media files. Result: "kVTErrorCode" 1 when no
//   file could be decoded, else 0 (an empty list is a success, logged as
//   "No file need to parser."); "kVTExportObjects": the decoded providers, in
//   URL order; "kVTFailureURLs": the files that could not be opened or decoded.
//   The providers are not registered: the caller does that when the task ends.
// - Progress: each provider's decoded milliseconds are kept in
//   `percentBuffer` under its identifier; every progress report of a decode
//   sends (float) sum × 100 / totalLength. Two decodes of one file share one
//   key, so the overall value then stays below 100. A total of 0 ms reports 0.
// - Threads: probing runs on the task's thread, for every file before the
//   first decode starts (so progress divides by the final total), then each
//   decode runs on its own job of the global queue; the task's thread waits
//   for them all. `percentBuffer` is written and read only on `percentQueue`
//   (a serial queue made on first use), entered synchronously by the four
//   book-keeping operations.
#pragma once

#include "foundation/Dispatch.h"
#include "tasks/VTTask.h"

#include <QHash>

#include <atomic>
#include <memory>
#include <mutex>

class VTImportMediaTask final : public VTTask {
public:
    static constexpr int64_t kType = 3;

    static std::shared_ptr<VTImportMediaTask> initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    ~VTImportMediaTask() override;
    int64_t type() const override { return kType; }

    VTTaskContext excuteWithContext(const VTTaskContext& context) override;

    // Progress book-keeping, each run synchronously on percentQueue.
    void setPercent(int64_t percent, const QString& key);
    int64_t percentForKey(const QString& key);
    int64_t percentForAllKeys();
    int64_t percentForAllExceptKey(const QString& key);

    // The sum of the durations (ms) of the providers being decoded.
    int64_t totalLength() const { return m_totalLength.load(); }
    // The serial queue that guards percentBuffer, made on first use.
    brindle::SerialQueue& percentQueue();

private:
    using VTTask::VTTask;

    // Written and read only on percentQueue.
    QHash<QString, int64_t> m_percentBuffer;
    std::once_flag m_percentQueueOnce;
    std::unique_ptr<brindle::SerialQueue> m_percentQueue;
    std::atomic<int64_t> m_totalLength{0};
};
