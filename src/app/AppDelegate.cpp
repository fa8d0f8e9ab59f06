#include "app/AppDelegate.h"

#include "BuildInfo.h"
#include "app/KRCommandStackMgr.h"
#include "app/KRExportOptions.h"
#include "app/KRProgressWndCtrl.h"
#include "app/KRTimerView.h"
#include "app/MainWindow.h"
#include "app/VTDocumentController.h"
#include "app/VTEditController.h"
#include "app/VTImportExportController.h"
#include "app/VTMixedCheckBox.h"
#include "foundation/Log.h"
#include "foundation/Paths.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "tasks/VTImportMediaTask.h"
#include "tasks/VTProjectTasks.h"
#include "timeline/VTTimelineView.h"
#include "waveform/VTProjectAdapter.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSlider>
#include <QStyle>
#include <QToolButton>
#include <QUrl>

// Hands the task callbacks to the controller while it exists. Tasks hold
// their delegate strongly, so they hold this bridge, not the controller.
class AppDelegate::TaskDelegateBridge final : public VTTaskDelegate {
public:
    explicit TaskDelegateBridge(AppDelegate* app) : m_app(app) {}
    void detach() { m_app = nullptr; }

    bool respondsToVTTaskStart() const override { return true; }
    bool respondsToVTTaskPercent() const override { return true; }
    bool respondsToVTTaskEndWithResult() const override { return true; }
    void VTTaskStart(const std::shared_ptr<VTTask>& task, const VTTaskContext& context) override
    {
        if (m_app)
            m_app->VTTaskStart(task, context);
    }
    void VTTaskPercent(const std::shared_ptr<VTTask>& task, double percent, const VTTaskContext& context) override
    {
        if (m_app)
            m_app->VTTaskPercent(task, percent, context);
    }
    void VTTaskEndWithResult(const std::shared_ptr<VTTask>& task, int32_t result, const VTTaskContext& context) override
    {
        if (m_app)
            m_app->VTTaskEndWithResult(task, result, context);
    }

private:
    AppDelegate* m_app;
};

AppDelegate::AppDelegate(QObject* parent) :
    QObject(parent),
    m_window(std::make_unique<MainWindow>()),
    m_documents(std::make_unique<VTDocumentController>(*this)),
    m_editing(std::make_unique<VTEditController>(*this)),
    m_importExport(std::make_unique<VTImportExportController>(*this)),
    m_playback(std::make_unique<VTPlaybackController>(*this)),
    m_taskDelegate(std::make_shared<TaskDelegateBridge>(this))
{
    connectActions();
    connectControls();
    setPlayButtonImage(QStringLiteral("play"));
}

AppDelegate::~AppDelegate()
{
    m_taskDelegate->detach();
    m_playback->stopAndRelease();
    timelineView()->setDelegate(nullptr);
    // Every command refers to this controller's edit controller.
    KRCommandStackMgr::shareCommandStackMgr().removeAllCommands();
    delete m_progressWndCtrl.data();
    delete m_exportOptions.data();
}

std::shared_ptr<VTTaskDelegate> AppDelegate::taskDelegate() const
{
    return m_taskDelegate;
}

VTTimelineView* AppDelegate::timelineView() const
{
    return m_window->timelineView();
}

KRTimerView* AppDelegate::timerView() const
{
    return m_window->timerView();
}

std::shared_ptr<VTProject> AppDelegate::project() const
{
    return m_projectAdapter ? m_projectAdapter->project() : nullptr;
}

KRProgressWndCtrl* AppDelegate::progressWndCtrl()
{
    if (!m_progressWndCtrl)
        m_progressWndCtrl = new KRProgressWndCtrl(m_window.get());
    return m_progressWndCtrl;
}

KRExportOptions* AppDelegate::exportOptions()
{
    if (!m_exportOptions)
        m_exportOptions = new KRExportOptions();
    return m_exportOptions;
}

// --- Start-up and the project ---------------------------------------------------

void AppDelegate::applicationDidFinishLaunching()
{
    m_canTermimate = false;
    if (!m_projectAdapter)
        m_projectAdapter = VTProjectAdapter::initWithProject(std::make_shared<VTProject>());
    updateWithProjectAdapter(m_projectAdapter);
    timelineView()->setDelegate(m_editing.get());
    timelineView()->registerForDraggedTypes({QStringLiteral("text/uri-list")});
    connect(m_window.get(), &MainWindow::contentFrameChanged, this, &AppDelegate::contentViewFrameChanged);
    m_documents->rebuildOpenRecentMenu();
    updateWindowSizeLimit();
    contentViewFrameChanged();
}

bool AppDelegate::applicationOpenFile(const QString& filename)
{
    return m_documents->applicationOpenFile(filename);
}

bool AppDelegate::applicationShouldTerminate()
{
    return m_documents->applicationShouldTerminate();
}

bool AppDelegate::windowShouldClose()
{
    return m_documents->windowShouldClose();
}

void AppDelegate::terminate()
{
    if (!applicationShouldTerminate())
        return;
    m_window->closeWithoutAsking();
    QCoreApplication::quit();
}

void AppDelegate::updateWithProjectAdapter(std::shared_ptr<VTProjectAdapter> projectAdapter)
{
    // Playback mixes the project it started with; a replaced project stops it.
    if (m_projectAdapter && projectAdapter != m_projectAdapter)
        m_playback->stopAndRelease();
    m_projectAdapter = std::move(projectAdapter);
    timelineView()->clearClipCaches();
    timelineView()->setDataSource(m_projectAdapter);
    timelineView()->reloadData();
    timerView()->setMillSeconds(project()->timePosition());
    enableFace();
}

void AppDelegate::enableFace()
{
    const auto project = this->project();
    m_window->setWindowTitle(project->title());
    m_window->saveButton()->setEnabled(project->duration() >= 1);
    validateMenuItems();

    const QStringList selection = project->selections();
    const QList<QWidget*> selectionControls = {m_window->chkFadeIn(), m_window->chkFadeOut(),
                                               m_window->splitButton(), m_window->minVolumeButton(),
                                               m_window->maxVolumeButton(), m_window->volumeSlider()};
    const bool hasSelection = !selection.isEmpty();
    for (QWidget* control : selectionControls)
        control->setEnabled(hasSelection);
    if (!hasSelection)
        return;

    double volume = 1.0;
    int fadeIn = VTMixedCheckBox::kOff;
    int fadeOut = VTMixedCheckBox::kOff;
    bool first = true;
    for (const QString& identifier : selection) {
        auto clip = project->clipWithIdentifier(identifier);
        if (!clip)
            continue;
        volume = clip->volume();
        const int clipFadeIn = clip->enableFadeIn() ? VTMixedCheckBox::kOn : VTMixedCheckBox::kOff;
        const int clipFadeOut = clip->enableFadeOut() ? VTMixedCheckBox::kOn : VTMixedCheckBox::kOff;
        if (first) {
            fadeIn = clipFadeIn;
            fadeOut = clipFadeOut;
            first = false;
            continue;
        }
        if (fadeIn != clipFadeIn)
            fadeIn = VTMixedCheckBox::kMixed;
        if (fadeOut != clipFadeOut)
            fadeOut = VTMixedCheckBox::kMixed;
    }
    MainWindow::setSliderValue(m_window->volumeSlider(), volume);
    m_window->chkFadeOut()->setState(fadeOut);
    m_window->chkFadeIn()->setState(fadeIn);
}

void AppDelegate::contentViewFrameChanged()
{
    QWidget* ply = m_window->plyButton();
    QWidget* split = m_window->splitButton();
    QWidget* timer = timerView();
    QWidget* row = ply->parentWidget();
    const int width = timer->x() + timer->width() - ply->x();
    const int left = static_cast<int>((row->width() - width) * 0.5) + row->rect().x();
    const int dx = left - ply->x();
    for (QWidget* control : {ply, split, timer})
        control->move(control->x() + dx, control->y());
}

QSize AppDelegate::windowWillResize(const QSize& toSize) const
{
    const int limit = static_cast<int>(timelineView()->maxHeight() + statusBarHeight() + toolBarHeight());
    return {toSize.width(), std::min(toSize.height(), limit)};
}

void AppDelegate::updateWindowSizeLimit()
{
    m_window->setMaximumContentHeight(windowWillResize(QSize(0, QWIDGETSIZE_MAX)).height());
}

// --- Menu validation ------------------------------------------------------------

bool AppDelegate::validateMenuItem(const QAction* item) const
{
    const MainWindow::Actions& actions = m_window->actions();
    const auto project = this->project();
    if (!project)
        return false;
    if (item == actions.splitClk || item == actions.copy || item == actions.cut || item == actions.deleteSelection ||
        item == actions.moveLeft || item == actions.moveRight)
        return !project->selections().isEmpty();
    if (item == actions.playClk || item == actions.exportFile || item == actions.newDocument)
        return project->duration() > 0;
    if (item == actions.saveDocument)
        return project->needSaved();
    if (item == actions.undo)
        return KRCommandStackMgr::shareCommandStackMgr().canUndo();
    if (item == actions.redo)
        return KRCommandStackMgr::shareCommandStackMgr().canRedo();
    if (item == actions.paste)
        return project->canPaste();
    return true;
}

void AppDelegate::validateMenuItems()
{
    for (QAction* action : m_window->allActions())
        action->setEnabled(validateMenuItem(action));
    m_window->plyButton()->setEnabled(validateMenuItem(m_window->actions().playClk));
}

// --- Actions and controls -------------------------------------------------------

void AppDelegate::connectActions()
{
    const MainWindow::Actions& a = m_window->actions();
    auto on = [this](QAction* action, auto&& call) { connect(action, &QAction::triggered, this, call); };
    on(a.newDocument, [this] { m_documents->newDocument(); });
    on(a.openDocument, [this] { m_documents->openDocument(); });
    on(a.saveDocument, [this] { m_documents->saveDocument(); });
    on(a.saveDocumentAs, [this] { m_documents->saveDocumentAs(); });
    on(a.importFile, [this] { m_importExport->importFile(); });
    on(a.exportFile, [this] { m_importExport->exportFile(); });
    on(a.quit, [this] { terminate(); });
    on(a.undo, [this] { m_editing->undo(); });
    on(a.redo, [this] { m_editing->redo(); });
    on(a.cut, [this] { m_editing->cut(); });
    on(a.copy, [this] { m_editing->copy(); });
    on(a.paste, [this] { m_editing->paste(); });
    on(a.deleteSelection, [this] { m_editing->delete_(); });
    on(a.selectAll, [this] { m_editing->selectAll(); });
    on(a.moveLeft, [this] { m_editing->moveLeft(); });
    on(a.moveRight, [this] { m_editing->moveRight(); });
    on(a.splitClk, [this] { m_editing->splitClk(); });
    on(a.zoomIn, [this] { m_editing->zoomIn(); });
    on(a.zoomOut, [this] { m_editing->zoomOut(); });
    on(a.playClk, [this] { m_playback->playClk(); });
    on(a.showHelp, [this] { showHelp(); });
    on(a.about, [this] { showAbout(); });

    // Menus are validated again as they open, and whenever the clipboard
    // changes (another editor may have copied clips).
    for (QAction* menuAction : m_window->menuBar()->actions()) {
        if (QMenu* menu = menuAction->menu())
            connect(menu, &QMenu::aboutToShow, this, &AppDelegate::validateMenuItems);
    }
    connect(QGuiApplication::clipboard(), &QClipboard::dataChanged, this, &AppDelegate::validateMenuItems);
    connect(m_window.get(), &MainWindow::closeRequested, this, [this] {
        if (windowShouldClose())
            m_window->closeWithoutAsking();
    });
}

void AppDelegate::connectControls()
{
    MainWindow* w = m_window.get();
    connect(w->plyButton(), &QPushButton::clicked, this, [this] { m_playback->playClk(); });
    connect(w->splitButton(), &QPushButton::clicked, this, [this] { m_editing->splitClk(); });
    connect(w->saveButton(), &QPushButton::clicked, this, [this] { m_documents->saveDocument(); });
    connect(w->chkFadeIn(), &QCheckBox::clicked, this, [this, w] { m_editing->checkFadeIn(w->chkFadeIn()); });
    connect(w->chkFadeOut(), &QCheckBox::clicked, this, [this, w] { m_editing->checkFadeOut(w->chkFadeOut()); });
    connect(w->minVolumeButton(), &QToolButton::clicked, this, [this] { m_editing->minVolumeClk(); });
    connect(w->maxVolumeButton(), &QToolButton::clicked, this, [this] { m_editing->maxVolumeClk(); });
    // One volume change per release of the slider, so a drag is one undo step.
    w->volumeSlider()->setTracking(false);
    connect(w->volumeSlider(), &QSlider::valueChanged, this, [this] { m_editing->onVolumeChanged(); });
    connect(w->minZoomButton(), &QToolButton::clicked, this, [this] { m_editing->minZoomClk(); });
    connect(w->maxZoomButton(), &QToolButton::clicked, this, [this] { m_editing->maxZoomClk(); });
    connect(w->zoomSlider(), &QSlider::valueChanged, this, [this] { m_editing->onZoomChanged(); });
}

// --- Help ---------------------------------------------------------------------

void AppDelegate::showHelp()
{
    const QString folder = brindle::searchPathForDirectory(brindle::SearchDirectory::ApplicationSupport) +
                           QLatin1Char('/') + brindle::bundleIdentifier();
    brindle::createDirectoryWithIntermediates(folder);
    const QString path = folder + QStringLiteral("/Help.pdf");
    if (!QFile::exists(path)) {
        if (!QFile::copy(QStringLiteral(":/Help.pdf"), path)) {
            brindle::log(QStringLiteral("The help document could not be copied to %1.").arg(path));
            return;
        }
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    }
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
        brindle::log(QStringLiteral("No viewer opened the help document %1.").arg(path));
}

void AppDelegate::showAbout()
{
    QMessageBox::about(m_window.get(), tr("About Brindle"),
                       tr("<h3>Brindle %1</h3><p>A multi-track audio mixing editor.</p><p>%2</p>")
                           .arg(QString::fromUtf8(brindle::buildinfo::kShortVersion),
                                QString::fromUtf8(brindle::buildinfo::kCopyright)));
}

// --- Tasks --------------------------------------------------------------------

void AppDelegate::VTTaskStart(const std::shared_ptr<VTTask>& task, const VTTaskContext&)
{
    KRProgressWndCtrl* progress = progressWndCtrl();
    progress->setProcent(0.0);
    progress->setCanCancel(false);
    progress->setProgressDescription(task->description());
    progress->beginSheet(m_window.get());
}

void AppDelegate::VTTaskPercent(const std::shared_ptr<VTTask>&, double percent, const VTTaskContext&)
{
    progressWndCtrl()->setProcent(percent);
}

void AppDelegate::VTTaskEndWithResult(const std::shared_ptr<VTTask>& task, int32_t result,
                                      const VTTaskContext& context)
{
    progressWndCtrl()->endSheet();
    switch (task->type()) {
    case VTSaveProjectTask::kType:
        m_documents->saveProjectTaskEndWithContext(context, result);
        break;
    case VTOpenProjectTask::kType:
        m_documents->openProjectTaskEndWithContext(context, result);
        break;
    case VTImportMediaTask::kType:
        m_importExport->importMediaTaskEndWithContext(context, result, task.get());
        break;
    default:
        // Exports report through their own path.
        break;
    }
}

// --- Playback host ----------------------------------------------------------------

std::shared_ptr<VTProject> AppDelegate::playbackProject()
{
    return project();
}

void AppDelegate::setPlayButtonImage(const QString& name)
{
    QIcon icon(QStringLiteral(":/images/%1.png").arg(name));
    if (icon.isNull() || icon.availableSizes().isEmpty()) {
        const bool play = name == QStringLiteral("play");
        icon = QIcon::fromTheme(play ? QStringLiteral("media-playback-start") : QStringLiteral("media-playback-pause"),
                                m_window->style()->standardIcon(play ? QStyle::SP_MediaPlay : QStyle::SP_MediaPause));
    }
    m_window->plyButton()->setIcon(icon);
    m_window->plyButton()->setProperty("imageName", name);
}

void AppDelegate::playbackPositionChanged(int64_t timestamp, bool scroll)
{
    timerView()->setMillSeconds(timestamp);
    if (scroll)
        timelineView()->scrollToTimestamp(timestamp);
    timelineView()->reloadData();
}
