// Running tasks synchronously in a program without its own event loop (the
// command-line tool, tests): start the task, pump the main queue until its
// end arrives.
//
// Contract
// - Must be called on the main thread. The task's delegate is replaced by
//   the runner's own for the run (percentages go to `percent`, on the main
//   thread, in order).
// - `openProjectDocumentSynchronously` opens a document as the editor does
//   (current format, else legacy). On failure it answers null and, when
//   `errorMessage` is given, a one-line reason; the system's own detail
//   ("File crashed.", "Unknow version.", "Unknown project document type.")
//   has gone to the log. A file whose project archive holds no project is a
//   failure here, as it is for the editor, which keeps its open project.
#pragma once

#include "tasks/VTTask.h"

#include <QString>

#include <functional>
#include <memory>

class VTProject;

namespace brindle::tasks {

using PercentCallback = std::function<void(double)>;

struct TaskOutcome {
    int32_t errorCode = 1;
    // The merged context that the task's end carried.
    VTTaskContext context;
};

TaskOutcome runTaskUntilEnd(const std::shared_ptr<VTTask>& task, const VTTaskContext& context,
                            const PercentCallback& percent = {});

std::shared_ptr<VTProject> openProjectDocumentSynchronously(const QString& path, QString* errorMessage = nullptr,
                                                            const PercentCallback& percent = {});

}  // namespace brindle::tasks
