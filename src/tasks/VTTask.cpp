#include "tasks/VTTask.h"

#include "foundation/Dispatch.h"
#include "tasks/VTImportMediaTask.h"
#include "tasks/VTProjectTasks.h"

void VTTaskDelegate::VTTaskStart(const std::shared_ptr<VTTask>&, const VTTaskContext&) {}
void VTTaskDelegate::VTTaskPercent(const std::shared_ptr<VTTask>&, double, const VTTaskContext&) {}
void VTTaskDelegate::VTTaskEndWithResult(const std::shared_ptr<VTTask>&, int32_t, const VTTaskContext&) {}

std::shared_ptr<VTTask> VTTask::initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return std::shared_ptr<VTTask>(new VTTask(std::move(delegate)));
}

std::shared_ptr<VTSaveProjectTask> VTTask::saveProjectTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return VTSaveProjectTask::initWithDelegate(std::move(delegate));
}

std::shared_ptr<VTOpenProjectTask> VTTask::openProjectTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return VTOpenProjectTask::initWithDelegate(std::move(delegate));
}

std::shared_ptr<VTImportMediaTask> VTTask::dataParserTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return VTImportMediaTask::initWithDelegate(std::move(delegate));
}

std::shared_ptr<VTExportTask> VTTask::exportTaskWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return VTExportTask::initWithDelegate(std::move(delegate));
}

std::shared_ptr<VTExportTask> VTExportTask::initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return std::shared_ptr<VTExportTask>(new VTExportTask(std::move(delegate)));
}

std::shared_ptr<VTTaskDelegate> VTTask::delegate() const
{
    std::lock_guard lock(m_mutex);
    return m_delegate;
}

void VTTask::setDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    std::lock_guard lock(m_mutex);
    m_delegate = std::move(delegate);
}

QString VTTask::description() const
{
    std::lock_guard lock(m_mutex);
    return m_description;
}

void VTTask::setDescription(const QString& description)
{
    std::lock_guard lock(m_mutex);
    m_description = description;
}

VTTaskContext VTTask::resultWithCode(int32_t code)
{
    VTTaskContext result;
    result.set(kVTErrorCode, code);
    return result;
}

void VTTask::startTaskWithContext(const VTTaskContext& context)
{
    std::shared_ptr<VTTask> self = shared_from_this();
    brindle::globalQueue().async([self, context] {
        self->postStartWithContext(context);
        const VTTaskContext result = self->excuteWithContext(context);
        const VTTaskContext merged = context.mergedWith(result);
        self->postEndWithContext(merged, result.intForKey(kVTErrorCode, 0));
    });
}

VTTaskContext VTTask::excuteWithContext(const VTTaskContext& context)
{
    return context;
}

void VTTask::postStartWithContext(const VTTaskContext& context)
{
    std::shared_ptr<VTTaskDelegate> target = delegate();
    if (!target || !target->respondsToVTTaskStart())
        return;
    std::shared_ptr<VTTask> self = shared_from_this();
    brindle::mainQueue().async([self, target, context] { target->VTTaskStart(self, context); });
}

void VTTask::postEndWithContext(const VTTaskContext& context, int32_t errCode)
{
    std::shared_ptr<VTTaskDelegate> target = delegate();
    if (!target || !target->respondsToVTTaskEndWithResult())
        return;
    std::shared_ptr<VTTask> self = shared_from_this();
    brindle::mainQueue().async([self, target, context, errCode] { target->VTTaskEndWithResult(self, errCode, context); });
}

void VTTask::sendTaskPercent(double percent, const VTTaskContext& context)
{
    std::shared_ptr<VTTaskDelegate> target = delegate();
    if (!target || !target->respondsToVTTaskPercent())
        return;
    std::shared_ptr<VTTask> self = shared_from_this();
    brindle::mainQueue().async([self, target, percent, context] { target->VTTaskPercent(self, percent, context); });
}
