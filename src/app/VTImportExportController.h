// Media onto tracks, and the mix out to a file.
//
// Contract
// - Import: media already known to the registry become clips at once (no
//   task, no progress); the others are decoded by an import task, and become
//   clips at the start of the first track when it ends. One add command is
//   held open from the start of an import until its task ends, so the clips
//   placed at once and those placed after decoding are one undo step. Files
//   that cannot be decoded are named in one prompt; the others are placed.
//   An import that places nothing records no undo step.
// - Export: the save panel carries the export options (format, quality,
//   rate); the mix of the whole project is written by the engine's exporter
//   (the same code as `brindle-cli render`), with the progress dialog up
//   over the window until it completes. A failed export leaves no partial
//   file and an existing file as it was, and shows the failure alert; a
//   successful one offers to show the file in the file manager.
// - Main thread only.
#pragma once

#include "tasks/VTTaskContext.h"

#include <QList>
#include <QObject>
#include <QUrl>

#include <cstdint>
#include <map>
#include <memory>

class AppDelegate;
class KRCommand;
class VTAudioExporter;
class VTTask;

class VTImportExportController final : public QObject {
    Q_OBJECT
public:
    static const QString kVTTimePosition;
    static const QString kVTTrackIndex;
    static const QString kVTCommandValidate;

    explicit VTImportExportController(AppDelegate& app);
    ~VTImportExportController() override;

    // Import.
    void importFile();
    void importMediaWithURLs(const QList<QUrl>& urls, int64_t atTimestamps, uint64_t ofTrack);
    void importMediaTaskEndWithContext(const VTTaskContext& context, int32_t errCode, const VTTask* task);
    void promptFailedParserURLs(const QList<QUrl>& urls);

    // Export.
    void exportFile();
    void exportAduioToFile(const QString& path, int32_t withType);
    void alertForExportAudioDidEnd(int returnCode, const QString& path);
    // Shows `path` selected in the file manager (or opens its folder).
    static void revealInFileManager(const QString& path);
    // Whether an export is being written.
    bool isExporting() const;

private:
    void exportCompleted(const QString& path, int result);

    AppDelegate& m_app;
    // The add command of each running import task.
    std::map<const VTTask*, std::shared_ptr<KRCommand>> m_importCommands;
    std::shared_ptr<VTAudioExporter> m_exporter;
    bool m_exporting = false;
};
