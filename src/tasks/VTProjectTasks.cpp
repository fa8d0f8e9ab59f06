#include "tasks/VTProjectTasks.h"

#include "foundation/Log.h"
#include "model/VTProject.h"
#include "projectfile/VTProjectDocument.h"

std::shared_ptr<VTSaveProjectTask> VTSaveProjectTask::initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return std::shared_ptr<VTSaveProjectTask>(new VTSaveProjectTask(std::move(delegate)));
}

VTTaskContext VTSaveProjectTask::excuteWithContext(const VTTaskContext& context)
{
    const VTTaskContext::ObjectList objects = context.objectsForKey(kVTImportObjects);
    const auto project = objects.empty() ? nullptr : std::dynamic_pointer_cast<VTProject>(objects.front());
    if (!project) {
        brindle::log(QStringLiteral("No project to save."));
        return resultWithCode(1);
    }
    const QList<QUrl> urls = context.urlsForKey(kVTImportURLs);
    const QUrl target = urls.isEmpty() ? project->url() : urls.front();
    if (target.isEmpty()) {
        brindle::log(QStringLiteral("No file to save the project to."));
        return resultWithCode(1);
    }
    const int32_t code = VTProjectDocument::saveProjectToPath(*project, target.toLocalFile());
    if (code == 0)
        sendTaskPercent(100.0, context);
    return resultWithCode(code);
}

std::shared_ptr<VTOpenProjectTask> VTOpenProjectTask::initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate)
{
    return std::shared_ptr<VTOpenProjectTask>(new VTOpenProjectTask(std::move(delegate)));
}

VTTaskContext VTOpenProjectTask::excuteWithContext(const VTTaskContext& context)
{
    const QList<QUrl> urls = context.urlsForKey(kVTImportURLs);
    if (urls.isEmpty()) {
        brindle::log(QStringLiteral("No project file to open."));
        return resultWithCode(1);
    }
    const VTProjectDocument::OpenResult opened = VTProjectDocument::openProjectWithURL(
        urls.front(), [this, &context](double percent) { sendTaskPercent(percent, context); });
    VTTaskContext result = resultWithCode(opened.errorCode);
    if (opened.errorCode == 0)
        result.set(kVTExportObjects, VTTaskContext::objectList(opened.projects));
    return result;
}

VTTaskContext VTOpenProjectTask::loadOldProjectWithURL(const QUrl& url, const VTTaskContext& context)
{
    std::shared_ptr<VTProject> project = VTProjectDocument::loadOldProjectWithURL(
        url, [this, &context](double percent) { sendTaskPercent(percent, context); });
    if (!project)
        return resultWithCode(1);
    VTTaskContext result = resultWithCode(0);
    result.set(kVTExportObjects, VTTaskContext::ObjectList{project});
    return result;
}
