#include "app/VTDocumentController.h"

#include "app/AppDelegate.h"
#include "app/KRCommand.h"
#include "app/KRCommandStackMgr.h"
#include "app/MainWindow.h"
#include "app/VTEditController.h"
#include "app/MainQueue.h"
#include "app/WindowSheet.h"
#include "foundation/Log.h"
#include "foundation/UserDefaults.h"
#include "model/VTProject.h"
#include "tasks/VTProjectTasks.h"
#include "waveform/VTProjectAdapter.h"

#include <QApplication>
#include <QFileDialog>
#include <QFileInfo>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>

const QString VTDocumentController::kVTSaveActionType = QStringLiteral("kVTSaveActionType");
const QString VTDocumentController::kVTSaveActionForOpenDocumnetURL = QStringLiteral("kVTSaveActionForOpenDocumnetURL");
const QString VTDocumentController::kRecentDocumentsKey = QStringLiteral("RecentDocuments");

namespace {

QString documentNameFilter()
{
    QStringList patterns;
    for (const QString& extension : VTProject::documentType())
        patterns << QStringLiteral("*.") + extension;
    return QObject::tr("Brindle project (%1)").arg(patterns.join(QLatin1Char(' ')));
}

QFileDialog* makeDocumentPanel(QWidget* window, QFileDialog::AcceptMode mode)
{
    auto* panel = new QFileDialog(window);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setOption(QFileDialog::DontUseNativeDialog);
    panel->setWindowModality(Qt::WindowModal);
    panel->setAcceptMode(mode);
    panel->setNameFilter(documentNameFilter());
    panel->setDefaultSuffix(VTProject::documentType().constFirst());
    if (mode == QFileDialog::AcceptOpen)
        panel->setFileMode(QFileDialog::ExistingFile);
    return panel;
}

}  // namespace

VTTaskContext VTDocumentController::SaveActionContext::toTaskContext() const
{
    VTTaskContext context;
    context.set(kVTSaveActionType, type);
    if (openDocumentURL)
        context.set(kVTSaveActionForOpenDocumnetURL, QList<QUrl>{*openDocumentURL});
    return context;
}

VTDocumentController::SaveActionContext VTDocumentController::SaveActionContext::fromTaskContext(
    const VTTaskContext& context)
{
    SaveActionContext action;
    action.type = context.intForKey(kVTSaveActionType, VTSaveActionSave);
    const QList<QUrl> urls = context.urlsForKey(kVTSaveActionForOpenDocumnetURL);
    if (!urls.isEmpty())
        action.openDocumentURL = urls.constFirst();
    return action;
}

VTDocumentController::VTDocumentController(AppDelegate& app) : m_app(app) {}

VTDocumentController::~VTDocumentController() = default;

// --- New ----------------------------------------------------------------------

void VTDocumentController::newDocument()
{
    if (m_app.project()->needSaved()) {
        promptUserSaveDocumentWithContext({VTSaveActionNew, std::nullopt});
        return;
    }
    newDocumentAction();
}

void VTDocumentController::newDocumentAction()
{
    auto command = KRCommand::exchangeCommandWithContext(&m_app.editing());
    command->beginExcute();
    m_app.updateWithProjectAdapter(VTProjectAdapter::initWithProject(std::make_shared<VTProject>()));
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.enableFace();
}

// --- Open ---------------------------------------------------------------------

void VTDocumentController::openDocument()
{
    if (m_app.project()->needSaved()) {
        promptUserSaveDocumentWithContext({VTSaveActionOpen, std::nullopt});
        return;
    }
    openProject();
}

void VTDocumentController::openProject()
{
    QFileDialog* panel = makeDocumentPanel(m_app.window(), QFileDialog::AcceptOpen);
    panel->setObjectName(QStringLiteral("openPanel"));
    connect(panel, &QFileDialog::fileSelected, this,
            [this](const QString& path) { openDocumentWithFilename(path); });
    panel->open();
}

void VTDocumentController::openDocumentWithFilename(const QString& filename)
{
    if (filename.isEmpty())
        return;
    const QString path = QFileInfo(filename).absoluteFilePath();
    if (m_app.project() && m_app.project()->url().toLocalFile() == path) {
        brindle::log(QStringLiteral("allready open, do nothing."));
        return;
    }
    auto task = VTTask::openProjectTaskWithDelegate(m_app.taskDelegate());
    task->setDescription(QStringLiteral("Opening project, please wait..."));
    VTTaskContext context;
    context.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(path)});
    task->startTaskWithContext(context);
}

void VTDocumentController::openProjectTaskEndWithContext(const VTTaskContext& context, int32_t errCode)
{
    const QList<QUrl> urls = context.urlsForKey(kVTImportURLs);
    if (errCode == 1) {
        promptFailedOpenProject(urls.value(0));
        return;
    }
    if (errCode != 0)
        return;
    const auto projects = context.objectsOfClassForKey<VTProject>(kVTExportObjects);
    if (projects.empty()) {
        // A document that holds no project leaves the current one in place.
        promptFailedOpenProject(urls.value(0));
        return;
    }
    auto command = KRCommand::exchangeCommandWithContext(&m_app.editing());
    command->beginExcute();
    m_app.updateWithProjectAdapter(VTProjectAdapter::initWithProject(projects.front()));
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.enableFace();
    if (!urls.isEmpty())
        noteRecentDocument(urls.constFirst().toLocalFile());
}

void VTDocumentController::promptFailedOpenProject(const QUrl& url)
{
    brindle::app::asyncOnMainQueue(this, [this, url] {
        QMessageBox alert(QMessageBox::Critical, QApplication::applicationDisplayName(),
                          QStringLiteral("Failed to read frome the file(%1).").arg(url.toLocalFile()), QMessageBox::Ok,
                          m_app.window());
        alert.setObjectName(QStringLiteral("openFailedAlert"));
        alert.exec();
    });
}

bool VTDocumentController::applicationOpenFile(const QString& filename)
{
    if (m_app.projectAdapter() && m_app.project()->needSaved()) {
        promptUserSaveDocumentWithContext(
            {VTSaveActionOpen, QUrl::fromLocalFile(QFileInfo(filename).absoluteFilePath())});
        return true;
    }
    openDocumentWithFilename(filename);
    return true;
}

// --- Save ---------------------------------------------------------------------

void VTDocumentController::saveDocument()
{
    const SaveActionContext context{VTSaveActionSave, std::nullopt};
    if (m_app.project()->url().isEmpty())
        saveAsDocumentWithContext(context);
    else
        saveDocumentWithContext(context);
}

void VTDocumentController::saveDocumentAs()
{
    saveAsDocumentWithContext({VTSaveActionSave, std::nullopt});
}

void VTDocumentController::saveAsDocumentWithContext(const SaveActionContext& context)
{
    QFileDialog* panel = makeDocumentPanel(m_app.window(), QFileDialog::AcceptSave);
    panel->setObjectName(QStringLiteral("savePanel"));
    panel->selectFile(m_app.project()->title() + QLatin1Char('.') + VTProject::documentType().constFirst());
    connect(panel, &QFileDialog::fileSelected, this, [this, context](const QString& path) {
        // An existing file is not deleted first: the save writes beside it and
        // renames over it, so a failed save leaves it as it was.
        noteRecentDocument(path);
        brindle::app::asyncOnMainQueue(this, [this, context, path] {
            m_app.playback().stopAudioPlay();
            m_app.project()->setUrl(QUrl::fromLocalFile(path));
            saveDocumentWithContext(context);
        });
    });
    panel->open();
}

void VTDocumentController::saveDocumentWithContext(const SaveActionContext& context)
{
    auto task = VTTask::saveProjectTaskWithDelegate(m_app.taskDelegate());
    task->setDescription(QStringLiteral("Saving project, please wait..."));
    VTTaskContext taskContext = context.toTaskContext();
    taskContext.set(kVTImportObjects, VTTaskContext::objectList(std::vector<std::shared_ptr<VTProject>>{m_app.project()}));
    task->startTaskWithContext(taskContext);
}

void VTDocumentController::saveProjectTaskEndWithContext(const VTTaskContext& context, int32_t errCode)
{
    const SaveActionContext action = SaveActionContext::fromTaskContext(context);
    if (errCode == 0) {
        const auto saved = context.objectsOfClassForKey<VTProject>(kVTImportObjects);
        if (!saved.empty())
            saved.front()->setNeedSaved(false);
        m_app.enableFace();
        afterSaveActionWithContext(action);
    } else if (errCode == 1) {
        promptUserFailedSaveDocumentWithContext(action);
    }
}

// --- Prompts ------------------------------------------------------------------

void VTDocumentController::promptUserSaveDocumentWithContext(const SaveActionContext& context)
{
    QMessageBox* sheet = brindle::app::makeSheet(
        m_app.window(),
        QStringLiteral("Do you want to save the changes you made in the project \"%1\"").arg(m_app.project()->title()),
        QStringLiteral("You changes will lost if you don't save them"));
    sheet->setObjectName(QStringLiteral("saveChangesAlert"));
    sheet->setIcon(QMessageBox::Warning);
    QPushButton* save = sheet->addButton(QStringLiteral("Save..."), QMessageBox::AcceptRole);
    QPushButton* dontSave = sheet->addButton(QStringLiteral("Don't Save"), QMessageBox::DestructiveRole);
    QPushButton* cancel = sheet->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    sheet->setDefaultButton(save);
    sheet->setEscapeButton(cancel);
    connect(sheet, &QMessageBox::finished, this, [this, sheet, save, dontSave, context] {
        const QAbstractButton* clicked = sheet->clickedButton();
        alertForSaveDidEnd(clicked == save ? 1 : (clicked == dontSave ? 0 : -1), context);
    });
    sheet->open();
}

void VTDocumentController::alertForSaveDidEnd(int returnCode, const SaveActionContext& context)
{
    switch (returnCode) {
    case 0:
        afterSaveActionWithContext(context);
        return;
    case 1:
        if (!m_app.project()->url().isEmpty()) {
            saveDocumentWithContext(context);
            return;
        }
        brindle::app::asyncOnMainQueue(this, [this, context] { saveAsDocumentWithContext(context); });
        return;
    default:
        return;
    }
}

void VTDocumentController::promptUserFailedSaveDocumentWithContext(const SaveActionContext& context)
{
    QString question;
    switch (context.type) {
    case VTSaveActionOpen:
        question = QStringLiteral("Do you want to continue open the project?");
        break;
    case VTSaveActionNew:
        question = QStringLiteral("Do you want to continue create a project?");
        break;
    case VTSaveActionClose:
        question = QStringLiteral("Do you want to continue close the project?");
        break;
    default:
        break;
    }
    QMessageBox* sheet = brindle::app::makeSheet(
        m_app.window(),
        QStringLiteral("Failed to save the changes you made in the project \"%1\"").arg(m_app.project()->title()),
        question);
    sheet->setObjectName(QStringLiteral("saveFailedAlert"));
    sheet->setIcon(QMessageBox::Warning);
    QPushButton* first = nullptr;
    if (question.isEmpty()) {
        first = sheet->addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
    } else {
        first = sheet->addButton(QStringLiteral("Yes"), QMessageBox::AcceptRole);
        sheet->setEscapeButton(sheet->addButton(QStringLiteral("NO"), QMessageBox::RejectRole));
    }
    sheet->setDefaultButton(first);
    connect(sheet, &QMessageBox::finished, this, [this, sheet, first, context] {
        alertForSaveFailedDidEnd(sheet->clickedButton() == first ? 1000 : 1001, context);
    });
    sheet->open();
}

void VTDocumentController::alertForSaveFailedDidEnd(int returnCode, const SaveActionContext& context)
{
    if (returnCode == 1000)
        afterSaveActionWithContext(context);
}

void VTDocumentController::afterSaveActionWithContext(const SaveActionContext& context)
{
    brindle::app::asyncOnMainQueue(this, [this, context] {
        switch (context.type) {
        case VTSaveActionOpen:
            if (context.openDocumentURL)
                openDocumentWithFilename(context.openDocumentURL->toLocalFile());
            else
                openProject();
            break;
        case VTSaveActionNew:
            newDocumentAction();
            break;
        case VTSaveActionClose:
            m_app.setCanTermimate(true);
            m_app.window()->closeWithoutAsking();
            break;
        default:
            m_app.window()->setWindowTitle(m_app.project()->title());
            break;
        }
    });
}

// --- Closing and quitting -------------------------------------------------------

bool VTDocumentController::windowShouldClose()
{
    if (!m_app.project()->needSaved())
        return true;
    promptUserSaveDocumentWithContext({VTSaveActionClose, std::nullopt});
    return false;
}

bool VTDocumentController::applicationShouldTerminate()
{
    if (m_app.canTermimate() || !m_app.project()->needSaved())
        return true;
    promptUserSaveDocumentWithContext({VTSaveActionClose, std::nullopt});
    return false;
}

// --- Recent documents -------------------------------------------------------------

QStringList VTDocumentController::recentDocuments() const
{
    return brindle::UserDefaults::standardUserDefaults().valueForKey(kRecentDocumentsKey).toStringList();
}

void VTDocumentController::noteRecentDocument(const QString& path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    QStringList recent = recentDocuments();
    recent.removeAll(absolute);
    recent.prepend(absolute);
    while (recent.size() > kMaximumRecentDocuments)
        recent.removeLast();
    brindle::UserDefaults::standardUserDefaults().setValue(recent, kRecentDocumentsKey);
    rebuildOpenRecentMenu();
}

void VTDocumentController::rebuildOpenRecentMenu()
{
    QMenu* menu = m_app.window()->actions().openRecent;
    menu->clear();
    for (const QString& path : recentDocuments()) {
        if (!QFileInfo::exists(path))
            continue;
        QAction* item = menu->addAction(QFileInfo(path).fileName());
        item->setToolTip(path);
        item->setData(path);
        connect(item, &QAction::triggered, this, [this, path] { applicationOpenFile(path); });
    }
    menu->setEnabled(!menu->isEmpty());
}
