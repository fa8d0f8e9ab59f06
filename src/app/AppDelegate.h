// The editor's controller: it owns the open project (through its adapter),
// the window and its controls, and it is the delegate of the application,
// the window, every background task and the playback controller.
//
// Its duties are split among collaborators that it owns and that reach the
// shared state through it:
// - VTDocumentController: new, open, save, save as, close and quit with
//   their prompts;
// - VTEditController: every edit with undo and redo, and the timeline's
//   delegate callbacks;
// - VTImportExportController: import of media and export of the mix;
// - VTPlaybackController: playing the mix.
// What stays here: start-up, installing a project, refreshing the controls
// (`enableFace`), the validation of menu items, the window's sizing and the
// centring of the bottom row, the task progress dialog and the help command.
//
// Contract
// - Main thread only. Task delegate calls arrive through the main queue.
// - There is one project at a time, always reached through `projectAdapter`;
//   it is replaced whole (new, open, undo of those), never edited in place
//   by anything but the collaborators' edits.
// - Every change of project, selection or clip attribute ends in
//   `enableFace`, which also re-validates every menu item, so that a
//   disabled command's shortcut does nothing either.
#pragma once

#include "app/VTPlaybackController.h"
#include "tasks/VTTask.h"

#include <QObject>
#include <QPointer>
#include <QSize>

#include <memory>

class KRExportOptions;
class KRProgressWndCtrl;
class KRTimerView;
class MainWindow;
class QAction;
class VTDocumentController;
class VTEditController;
class VTImportExportController;
class VTProject;
class VTProjectAdapter;
class VTTimelineView;

class AppDelegate final : public QObject, public VTPlaybackHost {
    Q_OBJECT
public:
    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;

    static double toolBarHeight() { return 57.0; }
    static double statusBarHeight() { return 28.0; }

    // Outlets and members.
    MainWindow* window() const { return m_window.get(); }
    VTTimelineView* timelineView() const;
    KRTimerView* timerView() const;
    const std::shared_ptr<VTProjectAdapter>& projectAdapter() const { return m_projectAdapter; }
    std::shared_ptr<VTProject> project() const;
    KRProgressWndCtrl* progressWndCtrl();
    KRExportOptions* exportOptions();
    VTDocumentController& documents() { return *m_documents; }
    VTEditController& editing() { return *m_editing; }
    VTImportExportController& importExport() { return *m_importExport; }
    VTPlaybackController& playback() { return *m_playback; }
    // The delegate handed to background tasks (forwards to this controller).
    std::shared_ptr<VTTaskDelegate> taskDelegate() const;

    bool canTermimate() const { return m_canTermimate; }
    void setCanTermimate(bool canTermimate) { m_canTermimate = canTermimate; }

    // Application delegate.
    void applicationDidFinishLaunching();
    // A document given by the desktop shell (a file argument, a second
    // launch); answers true.
    bool applicationOpenFile(const QString& filename);
    static bool applicationShouldTerminateAfterLastWindowClosed() { return true; }
    // Whether the application may end now; when not, the save prompt is up.
    bool applicationShouldTerminate();

    // Window delegate.
    bool windowShouldClose();
    QSize windowWillResize(const QSize& toSize) const;

    void updateWithProjectAdapter(std::shared_ptr<VTProjectAdapter> projectAdapter);
    void enableFace();
    void contentViewFrameChanged();
    bool validateMenuItem(const QAction* item) const;
    // Re-evaluates every menu item (also run by enableFace).
    void validateMenuItems();
    // Recomputes the window's height limit from the timeline.
    void updateWindowSizeLimit();
    void showHelp();
    void showAbout();

    // Task delegate.
    void VTTaskStart(const std::shared_ptr<VTTask>& task, const VTTaskContext& context);
    void VTTaskPercent(const std::shared_ptr<VTTask>& task, double percent, const VTTaskContext& context);
    void VTTaskEndWithResult(const std::shared_ptr<VTTask>& task, int32_t result, const VTTaskContext& context);

    // VTPlaybackHost.
    std::shared_ptr<VTProject> playbackProject() override;
    void setPlayButtonImage(const QString& name) override;
    void playbackPositionChanged(int64_t timestamp, bool scroll) override;

private:
    class TaskDelegateBridge;

    void connectActions();
    void connectControls();
    // The quit command: ends the application when applicationShouldTerminate allows.
    void terminate();

    std::unique_ptr<MainWindow> m_window;
    std::shared_ptr<VTProjectAdapter> m_projectAdapter;
    std::unique_ptr<VTDocumentController> m_documents;
    std::unique_ptr<VTEditController> m_editing;
    std::unique_ptr<VTImportExportController> m_importExport;
    std::unique_ptr<VTPlaybackController> m_playback;
    QPointer<KRProgressWndCtrl> m_progressWndCtrl;
    QPointer<KRExportOptions> m_exportOptions;
    std::shared_ptr<TaskDelegateBridge> m_taskDelegate;
    bool m_canTermimate = false;
};
