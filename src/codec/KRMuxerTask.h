// Writes a file from audio frames pulled through a data source, on a thread
// of its own, and reports start, progress and completion.
//
// Contract
// - `initWithMuxerContext` takes a configured, not yet opened KRMuxerContext.
//   `setDataSource` names the frame source and `setUserObjectContext` an
//   object carried for it (the export's mix context). `startMuxerWithBlock`
//   starts the writing thread once; a second start answers false.
// - The thread asks the source for `KRMuxerTaskLength` (the total length in
//   KRTimebase units, for progress), opens the file, then calls
//   `KRMuxerTaskGetAudioFrame` until it answers null and writes each frame;
//   then it finishes the file. Video frames are never asked for (audio only).
// - The block receives (action, value): KRMuxerTaskActionStart (no value)
//   first; KRMuxerTaskActionProgress with the completed fraction 0.0–1.0 as
//   a float, sent when it grows by at least 1 % and once with 1.0 on
//   success; KRMuxerTaskActionComplete last with the integer 0 (success) or
//   1 (failure; `errorMessage` says why). The block runs on the callback
//   queue, by default the main queue (so it may change the interface); with
//   a null queue it runs on the writing thread.
// - `cancel` makes the thread stop before its next frame; the file is then
//   discarded and the task completes with 1 and "Export cancelled".
// - The task keeps itself, its data source and its user object alive while
//   the thread runs; the data source is released when the thread ends.
//   `waitUntilFinished` blocks until the writing is done: without a callback
//   queue the block has then had its last call; with one, the task is
//   finished (`isFinished`, `result`) by the time the queued completion runs.
// - Threads: the data source is called on the writing thread only. `result`,
//   `errorMessage` and the counters may be read from any thread.
#pragma once

#include <QString>
#include <QVariant>

#include <any>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

class KRAudioFrame2;
class KRMuxerContext;
class KRMuxerTask;
// Video frames are not produced anywhere in this system; the type exists so
// that the data source can answer "no video".
class KRVideoFrame;

namespace brindle {
class DispatchQueue;
}

extern const QString KRMuxerTaskActionStart;     // "KRMuxerTaskActionStart"
extern const QString KRMuxerTaskActionProgress;  // "KRMuxerTaskActionProgress"
extern const QString KRMuxerTaskActionComplete;  // "KRMuxerTaskActionComplete"

// The source of the frames a muxer task writes. Called on the task's thread.
class KRMuxerTaskDataSource {
public:
    virtual ~KRMuxerTaskDataSource() = default;
    // The next block of audio, or null at the end.
    virtual std::shared_ptr<KRAudioFrame2> KRMuxerTaskGetAudioFrame(KRMuxerTask& task) = 0;
    // The next video frame; audio-only sources answer null.
    virtual std::shared_ptr<KRVideoFrame> KRMuxerTaskGetVideoFrame(KRMuxerTask& task) = 0;
    // The total length in KRTimebase units (for progress); 0 or less when unknown.
    virtual int64_t KRMuxerTaskLength(KRMuxerTask& task) = 0;
};

class KRMuxerTask : public std::enable_shared_from_this<KRMuxerTask> {
public:
    using Block = std::function<void(const QString& action, const QVariant& value)>;

    static std::shared_ptr<KRMuxerTask> initWithMuxerContext(std::shared_ptr<KRMuxerContext> context);
    ~KRMuxerTask();
    KRMuxerTask(const KRMuxerTask&) = delete;
    KRMuxerTask& operator=(const KRMuxerTask&) = delete;

    void setDataSource(std::shared_ptr<KRMuxerTaskDataSource> dataSource);
    void setUserObjectContext(std::any object) { m_userObjectContext = std::move(object); }
    const std::any& userObjectContext() const { return m_userObjectContext; }
    // The user object as a T, or null when it holds something else.
    template <class T>
    T* userObjectContextAs()
    {
        return std::any_cast<T>(&m_userObjectContext);
    }
    // Where the block runs; the main queue unless set (null: the writing thread).
    void setCallbackQueue(brindle::DispatchQueue* queue) { m_callbackQueue = queue; }

    // Starts the writing thread; false (with a log line) when already started
    // or when there is no data source.
    bool startMuxerWithBlock(Block block);
    void cancel() { m_cancelled = true; }
    // Blocks until the writing thread is done; false on timeout.
    bool waitUntilFinished(int64_t timeoutMilliseconds = -1);

    std::shared_ptr<KRMuxerContext> muxerContext() const { return m_muxerContext; }
    bool isFinished() const { return m_finished.load(); }
    // 0 success, 1 failure, -1 while running or before the start.
    int32_t result() const { return m_result.load(); }
    QString errorMessage() const;
    // Input frames written so far.
    int64_t numberOfSamplesWritten() const { return m_numberOfSamplesWritten.load(); }

private:
    explicit KRMuxerTask(std::shared_ptr<KRMuxerContext> context);
    void run(Block block);
    void report(const Block& block, const QString& action, const QVariant& value);
    int32_t write(const Block& block);

    std::shared_ptr<KRMuxerContext> m_muxerContext;
    std::shared_ptr<KRMuxerTaskDataSource> m_dataSource;
    std::any m_userObjectContext;
    brindle::DispatchQueue* m_callbackQueue;
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_finished{false};
    std::atomic<int32_t> m_result{-1};
    std::atomic<int64_t> m_numberOfSamplesWritten{0};
    // Written by the writing thread before m_finished is set; read by anyone.
    mutable std::mutex m_mutex;
    std::condition_variable m_finishedCondition;
    QString m_errorMessage;
};
