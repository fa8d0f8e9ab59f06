#include "app/VTImportExportController.h"

#include "app/AppDelegate.h"
#include "app/KRCommand.h"
#include "app/KRCommandStackMgr.h"
#include "app/KRExportOptions.h"
#include "app/KRProgressWndCtrl.h"
#include "app/MainWindow.h"
#include "app/VTEditController.h"
#include "codec/KRMuxerTask.h"
#include "export/VTAudioExporter.h"
#include "app/MainQueue.h"
#include "app/WindowSheet.h"
#include "foundation/Log.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "tasks/VTImportMediaTask.h"
#include "timeline/VTTimelineView.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileInfo>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>

const QString VTImportExportController::kVTTimePosition = QStringLiteral("kVTTimePosition");
const QString VTImportExportController::kVTTrackIndex = QStringLiteral("kVTTrackIndex");
const QString VTImportExportController::kVTCommandValidate = QStringLiteral("kVTCommandValidate");

namespace {

// Clips over the given providers, each starting at `timestamp`.
VTProject::ClipList clipsForProviders(const std::vector<std::shared_ptr<VTDataProvider>>& providers, int64_t timestamp)
{
    VTProject::ClipList clips;
    for (const auto& provider : providers) {
        auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
        if (!clip)
            continue;
        clip->setTimestampOfTrack(timestamp);
        clips.push_back(std::move(clip));
    }
    return clips;
}

QString mediaNameFilter()
{
    QStringList patterns;
    for (const QString& extension : VTDataProviderMgr::supportFormats())
        patterns << QStringLiteral("*.") + extension;
    return QObject::tr("Audio files (%1)").arg(patterns.join(QLatin1Char(' ')));
}

}  // namespace

VTImportExportController::VTImportExportController(AppDelegate& app) : m_app(app) {}

VTImportExportController::~VTImportExportController() = default;

// --- Import -------------------------------------------------------------------

void VTImportExportController::importFile()
{
    auto* panel = new QFileDialog(m_app.window());
    panel->setObjectName(QStringLiteral("importPanel"));
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setOption(QFileDialog::DontUseNativeDialog);
    panel->setWindowModality(Qt::WindowModal);
    panel->setAcceptMode(QFileDialog::AcceptOpen);
    panel->setFileMode(QFileDialog::ExistingFiles);
    panel->setNameFilter(mediaNameFilter());
    // Qt's own dialog reports its choice as paths (it sends no URL signal).
    connect(panel, &QFileDialog::filesSelected, this, [this](const QStringList& files) {
        QList<QUrl> urls;
        for (const QString& file : files)
            urls << QUrl::fromLocalFile(file);
        importMediaWithURLs(urls, 0, 0);
    });
    panel->open();
}

void VTImportExportController::importMediaWithURLs(const QList<QUrl>& urls, int64_t atTimestamps, uint64_t ofTrack)
{
    m_app.playback().stopAudioPlay();
    auto command = KRCommand::addCommandWithContext(&m_app.editing());
    command->beginExcute();

    std::vector<std::shared_ptr<VTDataProvider>> known;
    QList<QUrl> toDecode;
    VTDataProviderMgr& registry = VTDataProviderMgr::shareDataProviderMgr();
    for (const QUrl& url : urls) {
        if (auto provider = registry.dataProviderWithURL(url))
            known.push_back(std::move(provider));
        else
            toDecode << url;
    }
    const VTProject::ClipList clips = clipsForProviders(known, atTimestamps);
    const auto project = m_app.project();
    if (!clips.empty() && project->importClipsAtTrackIndex(clips, static_cast<int64_t>(ofTrack))) {
        project->setNeedSaved(true);
        m_app.timelineView()->reloadData();
    }

    if (!toDecode.isEmpty()) {
        auto task = VTTask::dataParserTaskWithDelegate(m_app.taskDelegate());
        task->setDescription(QStringLiteral("Processing media file, please wait..."));
        VTTaskContext context;
        context.set(kVTImportURLs, toDecode);
        // Decoded media always go to the start of the first track.
        context.set(kVTTimePosition, int32_t{0});
        context.set(kVTTrackIndex, int32_t{0});
        context.set(kVTCommandValidate, int32_t{clips.empty() ? 0 : 1});
        m_importCommands[task.get()] = command;
        task->startTaskWithContext(context);
        return;
    }
    if (clips.empty())
        return;
    command->endExcute();
    KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    m_app.enableFace();
}

void VTImportExportController::importMediaTaskEndWithContext(const VTTaskContext& context, int32_t,
                                                             const VTTask* task)
{
    std::shared_ptr<KRCommand> command;
    if (auto found = m_importCommands.find(task); found != m_importCommands.end()) {
        command = found->second;
        m_importCommands.erase(found);
    }
    const QList<QUrl> failures = context.urlsForKey(kVTFailureURLs);
    if (!failures.isEmpty())
        promptFailedParserURLs(failures);

    const auto providers = context.objectsOfClassForKey<VTDataProvider>(kVTExportObjects);
    const bool placedBefore = context.intForKey(kVTCommandValidate) != 0;
    if (providers.empty()) {
        if (placedBefore && command) {
            command->endExcute();
            KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
            m_app.enableFace();
        }
        return;
    }
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders(providers);
    const auto project = m_app.project();
    project->importClipsAtTrackIndex(clipsForProviders(providers, context.intForKey(kVTTimePosition)),
                                     context.intForKey(kVTTrackIndex));
    project->setNeedSaved(true);
    m_app.timelineView()->reloadData();
    if (command) {
        command->endExcute();
        KRCommandStackMgr::shareCommandStackMgr().addUndoCommand(command);
    }
    m_app.enableFace();
}

void VTImportExportController::promptFailedParserURLs(const QList<QUrl>& urls)
{
    brindle::app::asyncOnMainQueue(this, [this, urls] {
        QString message = QStringLiteral("Failed to parser these files:");
        for (const QUrl& url : urls)
            message = QStringLiteral("%1\n\t%2").arg(message, url.toLocalFile());
        QMessageBox* sheet = brindle::app::makeSheet(m_app.window(), message);
        sheet->setObjectName(QStringLiteral("failedParserAlert"));
        sheet->setIcon(QMessageBox::Warning);
        sheet->setStandardButtons(QMessageBox::Ok);
        sheet->open();
    });
}

// --- Export -------------------------------------------------------------------

void VTImportExportController::exportFile()
{
    KRExportOptions* options = m_app.exportOptions();
    QFileDialog* panel = KRExportOptions::makeSavePanel(m_app.window(), options);
    panel->setObjectName(QStringLiteral("exportPanel"));
    panel->selectFile(m_app.project()->title() + QLatin1Char('.') +
                      KRExportOptions::extensionWithFormatType(options->formatType()));
    connect(panel, &QFileDialog::finished, this, [this, panel, options](int result) {
        options->setSavePanel(nullptr);
        if (result != QDialog::Accepted || panel->selectedFiles().isEmpty())
            return;
        const QString path = panel->selectedFiles().constFirst();
        const int32_t format = options->formatType();
        m_app.playback().stopAudioPlay();
        brindle::app::asyncOnMainQueue(this, [this, path, format] { exportAduioToFile(path, format); });
    });
    panel->open();
}

bool VTImportExportController::isExporting() const
{
    return m_exporting;
}

void VTImportExportController::exportAduioToFile(const QString& path, int32_t withType)
{
    KRExportOptions* options = m_app.exportOptions();
    m_exporter = VTAudioExporter::initWithProject(m_app.project());
    if (!m_exporter)
        return;
    VTAudioExporter::Options settings;
    settings.formatType = withType;
    settings.sampleRate = options->sampleRate();
    settings.bitrate = options->bitrate();
    settings.sampleFormat = options->sampleFormat();
    settings.numberOfChannel = options->numberOfChannel();
    m_exporter->setOptions(settings);
    m_exporting = true;
    m_app.validateMenuItems();
    QPointer<VTImportExportController> self(this);
    m_exporter->exportAduioToFile(path, withType, [self, path](const QString& action, const QVariant& value) {
        if (!self)
            return;
        KRProgressWndCtrl* progress = self->m_app.progressWndCtrl();
        if (action == KRMuxerTaskActionStart) {
            progress->setCanCancel(false);
            progress->setProcent(0.0);
            progress->beginSheet(self->m_app.window());
        } else if (action == KRMuxerTaskActionProgress) {
            // The writer reports a fraction; the dialog shows a percentage.
            progress->setProcent(value.toDouble() * 100.0);
        } else if (action == KRMuxerTaskActionComplete) {
            progress->endSheet();
            self->exportCompleted(path, value.toInt());
        } else {
            brindle::log(QStringLiteral("Unknown action: %1").arg(action));
        }
    });
}

void VTImportExportController::exportCompleted(const QString& path, int result)
{
    m_exporting = false;
    m_app.validateMenuItems();
    if (result == 1) {
        QMessageBox alert(QMessageBox::Critical, QApplication::applicationDisplayName(),
                          QStringLiteral("Failed to export audio file:(%1)").arg(path), QMessageBox::Ok, m_app.window());
        alert.setObjectName(QStringLiteral("exportFailedAlert"));
        alert.setInformativeText(QStringLiteral("(error -10001)"));
        alert.exec();
        return;
    }
    if (result != 0)
        return;
    QMessageBox* sheet =
        brindle::app::makeSheet(m_app.window(), QStringLiteral("Succeed to export audio file at path: %1.").arg(path),
                                QStringLiteral("Do you want to show it in the file manager?"));
    sheet->setObjectName(QStringLiteral("exportSucceededAlert"));
    sheet->setIcon(QMessageBox::Information);
    QPushButton* reveal = sheet->addButton(QStringLiteral("Show in File Manager"), QMessageBox::AcceptRole);
    sheet->addButton(QStringLiteral("OK"), QMessageBox::RejectRole);
    sheet->setDefaultButton(reveal);
    connect(sheet, &QMessageBox::finished, this,
            [this, sheet, reveal, path] { alertForExportAudioDidEnd(sheet->clickedButton() == reveal ? 1000 : 1001, path); });
    sheet->open();
}

void VTImportExportController::alertForExportAudioDidEnd(int returnCode, const QString& path)
{
    if (returnCode == 1000)
        revealInFileManager(path);
}

void VTImportExportController::revealInFileManager(const QString& path)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 3000);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return;
    brindle::log(QStringLiteral("No file manager answered on D-Bus (%1); opening the folder instead.")
                     .arg(reply.errorMessage()));
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}
