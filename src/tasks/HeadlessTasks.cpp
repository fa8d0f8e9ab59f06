#include "tasks/HeadlessTasks.h"

#include "foundation/Dispatch.h"
#include "model/VTProject.h"
#include "tasks/VTProjectTasks.h"

#include <QFileInfo>

#include <cstdint>
#include <limits>

namespace brindle::tasks {

namespace {

class RunnerDelegate final : public VTTaskDelegate {
public:
    explicit RunnerDelegate(PercentCallback percent) : m_percent(std::move(percent)) {}

    bool respondsToVTTaskPercent() const override { return bool(m_percent); }
    void VTTaskPercent(const std::shared_ptr<VTTask>&, double percent, const VTTaskContext&) override
    {
        m_percent(percent);
    }
    bool respondsToVTTaskEndWithResult() const override { return true; }
    void VTTaskEndWithResult(const std::shared_ptr<VTTask>&, int32_t result, const VTTaskContext& context) override
    {
        outcome.errorCode = result;
        outcome.context = context;
        ended = true;
    }

    // Main thread only.
    bool ended = false;
    TaskOutcome outcome;

private:
    PercentCallback m_percent;
};

}  // namespace

TaskOutcome runTaskUntilEnd(const std::shared_ptr<VTTask>& task, const VTTaskContext& context,
                            const PercentCallback& percent)
{
    auto delegate = std::make_shared<RunnerDelegate>(percent);
    task->setDelegate(delegate);
    task->startTaskWithContext(context);
    runMainQueueUntil([&delegate] { return delegate->ended; }, std::numeric_limits<int64_t>::max());
    task->setDelegate(nullptr);
    return delegate->outcome;
}

std::shared_ptr<VTProject> openProjectDocumentSynchronously(const QString& path, QString* errorMessage,
                                                            const PercentCallback& percent)
{
    const auto fail = [errorMessage](const QString& reason) -> std::shared_ptr<VTProject> {
        if (errorMessage)
            *errorMessage = reason;
        return nullptr;
    };
    if (!QFileInfo(path).isFile())
        return fail(QStringLiteral("%1: no such file").arg(path));
    VTTaskContext context;
    context.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath())});
    const TaskOutcome outcome = runTaskUntilEnd(VTTask::openProjectTaskWithDelegate(nullptr), context, percent);
    if (outcome.errorCode != 0)
        return fail(QStringLiteral("%1: not a project document that can be opened").arg(path));
    const auto projects = outcome.context.objectsOfClassForKey<VTProject>(kVTExportObjects);
    if (projects.empty())
        return fail(QStringLiteral("%1: the document holds no project").arg(path));
    return projects.front();
}

}  // namespace brindle::tasks
