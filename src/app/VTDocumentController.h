// The document flows of the editor: new, open (also of older project files),
// save, save as, close and quit, with their prompts, and the recently used
// documents.
//
// Contract
// - Every prompt and save carries a save-action context: what to do once the
//   save question is settled (close 0, new 1, open 2 — of a given file or
//   through the open panel — or a plain save 3).
// - Prompts are window-modal message boxes on the main window; the failed
//   open alert is application-modal. Follow-ups that open another dialog go
//   through the main queue, so a dialog that has just closed is gone before
//   the next opens.
// - Replacing the project (new, open) is one undoable exchange step.
// - Saving goes through the save task, which writes beside the target and
//   renames: a failed save leaves an existing file and `needSaved` as they
//   were, and says so.
// - Recent documents: the documents opened and saved, newest first, kept in
//   the user defaults under "RecentDocuments"; files that have gone are not
//   offered.
// - Main thread only.
#pragma once

#include "tasks/VTTaskContext.h"

#include <QObject>
#include <QString>
#include <QUrl>

#include <optional>

class AppDelegate;
class QMessageBox;

class VTDocumentController final : public QObject {
    Q_OBJECT
public:
    enum VTSaveAction : int32_t {
        VTSaveActionClose = 0,
        VTSaveActionNew = 1,
        VTSaveActionOpen = 2,
        VTSaveActionSave = 3,
    };
    // The save-action context ("kVTSaveActionType", "kVTSaveActionForOpenDocumnetURL").
    struct SaveActionContext {
        int32_t type = VTSaveActionSave;
        std::optional<QUrl> openDocumentURL;

        VTTaskContext toTaskContext() const;
        static SaveActionContext fromTaskContext(const VTTaskContext& context);
    };
    static const QString kVTSaveActionType;
    static const QString kVTSaveActionForOpenDocumnetURL;
    static const QString kRecentDocumentsKey;
    static constexpr int kMaximumRecentDocuments = 10;

    explicit VTDocumentController(AppDelegate& app);
    ~VTDocumentController() override;

    // Actions.
    void newDocument();
    void openDocument();
    void saveDocument();
    void saveDocumentAs();

    void newDocumentAction();
    void openProject();
    void openDocumentWithFilename(const QString& filename);
    void saveDocumentWithContext(const SaveActionContext& context);
    void saveAsDocumentWithContext(const SaveActionContext& context);
    void promptUserSaveDocumentWithContext(const SaveActionContext& context);
    // returnCode: 1 "Save...", 0 "Don't Save", -1 "Cancel".
    void alertForSaveDidEnd(int returnCode, const SaveActionContext& context);
    void promptUserFailedSaveDocumentWithContext(const SaveActionContext& context);
    // returnCode: 1000 for the first button ("Yes" or "OK"), 1001 for "NO".
    void alertForSaveFailedDidEnd(int returnCode, const SaveActionContext& context);
    void afterSaveActionWithContext(const SaveActionContext& context);
    void promptFailedOpenProject(const QUrl& url);

    // Task ends (from the controller's task delegate).
    void saveProjectTaskEndWithContext(const VTTaskContext& context, int32_t errCode);
    void openProjectTaskEndWithContext(const VTTaskContext& context, int32_t errCode);

    // Window and application.
    bool windowShouldClose();
    bool applicationShouldTerminate();
    bool applicationOpenFile(const QString& filename);

    // Recent documents.
    void noteRecentDocument(const QString& path);
    QStringList recentDocuments() const;
    void rebuildOpenRecentMenu();

private:
    AppDelegate& m_app;
};
