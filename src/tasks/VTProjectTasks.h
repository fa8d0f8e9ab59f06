// The save and open tasks of project documents (format: VTProjectDocument).
//
// Contract
// - Save. Input: "kVTImportObjects" whose first element is the project, and
//   optionally "kVTImportURLs" whose first element is the target file;
//   without it the project's own URL is the target. Code 1 without a project,
//   without a target, or when writing fails (the previous file then stays as
//   it was); else progress 100 and code 0. The task neither sets the
//   project's URL nor clears its needs-saving flag.
// - Open. Input: "kVTImportURLs" whose first element is the document. Code 1
//   without a URL or when the file cannot be read as either generation;
//   else progress 100, code 0 and "kVTExportObjects" holding the project (an
//   empty list when the project archive decoded to nothing). A legacy file
//   reports the legacy reader's progress through sendTaskPercent.
// - Both run their work on the task's background thread. While a save runs
//   the project must not be edited (the editor shows a modal sheet).
#pragma once

#include "tasks/VTTask.h"

#include <QUrl>

#include <memory>

class VTProject;

class VTSaveProjectTask final : public VTTask {
public:
    static constexpr int64_t kType = 1;
    static std::shared_ptr<VTSaveProjectTask> initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    int64_t type() const override { return kType; }

    VTTaskContext excuteWithContext(const VTTaskContext& context) override;

private:
    using VTTask::VTTask;
};

class VTOpenProjectTask final : public VTTask {
public:
    static constexpr int64_t kType = 2;
    static std::shared_ptr<VTOpenProjectTask> initWithDelegate(std::shared_ptr<VTTaskDelegate> delegate);
    int64_t type() const override { return kType; }

    VTTaskContext excuteWithContext(const VTTaskContext& context) override;
    // The legacy fallback on its own: code 0 with the converted project (its
    // URL set to `url`), or code 1 after "Unknown project document type.".
    VTTaskContext loadOldProjectWithURL(const QUrl& url, const VTTaskContext& context);

private:
    using VTTask::VTTask;
};
