// Background tasks: long operations (saving, opening, importing) that run
// off the main thread and report to a delegate on the main thread.
//
// Contract
// - `startTaskWithContext` returns at once. On a thread of the global queue
//   the task then posts its start, runs `excuteWithContext` (the subclass
//   hook), merges the result into a copy of the context (result entries win)
//   and posts its end with the result's "kVTErrorCode" (0 when absent).
// - Every delegate call is queued asynchronously on the main queue, and only
//   when the delegate answers the matching `respondsTo…` query; the worker
//   never waits for the main thread. From one task the delegate therefore
//   sees start, then the percentages in the order they were sent, then end.
// - The queued calls and the worker keep the task alive until they have run.
//   A task is started once; it keeps no state that a second run would reset.
// - `delegate` and `description` may be read and set from any thread.
#pragma once

#include "tasks/VTTaskContext.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <mutex>

class VTExportTask;
class VTImportMediaTask;
class VTOpenProjectTask;
class VTSaveProjectTask;
class VTTask;

// The task delegate. Every operation is optional: a delegate answers true
// from the matching `respondsTo…` query for each one it implements, and only
// those are called, always on the main thread.
class VTTaskDelegate {
public:
    virtual ~VTTaskDelegate() = default;

    virtual bool respondsToVTTaskStart() const { return false; }
    // VTTaskStart:withContext: — the context given to startTaskWithContext.
    virtual void VTTaskStart(const std::shared_ptr<VTTask>& task, const VTTaskContext& context);

    virtual bool respondsToVTTaskPercent() const { return false; }
    // VTTask:percent:withContext: — a percentage 0–100 and the start context.
    virtual void VTTaskPercent(const std::shared_ptr<VTTask>& task, double percent, const VTTaskContext& context);

    virtual bool respondsToVTTaskEndWithResult() const { return false; }
    // VTTask:endWithResult:context: — the result code and the merged context.
    virtual void VTTaskEndWithResult(const std::shared_ptr<VTTask>& task, int32_t result, const VTTaskContext& context);
};

class VTTask : public std::enable_shared_from_this<VTTask> {
public:
    static constexpr int64_t kType = 0;

    static std::shared_ptr<VTTask> initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    static std::shared_ptr<VTTask> init() { return initWithDelegate(nullptr); }

    // Factories of the working tasks.
    static std::shared_ptr<VTSaveProjectTask> saveProjectTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    static std::shared_ptr<VTOpenProjectTask> openProjectTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    static std::shared_ptr<VTImportMediaTask> dataParserTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    static std::shared_ptr<VTExportTask> exportTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);

    virtual ~VTTask() = default;
    VTTask(const VTTask&) = delete;
    VTTask& operator=(const VTTask&) = delete;

    // Held strongly.
    std::shared_ptr<VTTaskDelegate> delegate() const;
    void setDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    // Display text set by the creator; no task reads it.
    QString description() const;
    void setDescription(const QString& description);
    // 0 for the base; each subclass has its own constant.
    virtual int64_t type() const { return kType; }

    void startTaskWithContext(const VTTaskContext& context);

    // The work, on the background thread. The base answers its argument.
    virtual VTTaskContext excuteWithContext(const VTTaskContext& context);

    // Queue the delegate calls on the main queue (when the delegate takes them).
    void postStartWithContext(const VTTaskContext& context);
    void postEndWithContext(const VTTaskContext& context, int32_t errCode);
    void sendTaskPercent(double percent, const VTTaskContext& context);

protected:
    explicit VTTask(std::shared_ptr<VTTaskDelegate> delegate) : m_delegate(std::move(delegate)) {}

    // A context holding only "kVTErrorCode".
    static VTTaskContext resultWithCode(int32_t code);

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<VTTaskDelegate> m_delegate;
    QString m_description;
};

// Reserved for exporting: the export runs through its own path, so this task
// does the base task's (no) work.
class VTExportTask final : public VTTask {
public:
    static constexpr int64_t kType = 4;
    static std::shared_ptr<VTExportTask> initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    int64_t type() const override { return kType; }

private:
    using VTTask::VTTask;
};
