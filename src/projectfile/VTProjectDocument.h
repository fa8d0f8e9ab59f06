// The project document file, of type "loomwick":
//
//   offset 0       8 bytes  magic EF EE EF EE EF EE 00 00 (0x0000EEEFEEEFEEEF)
//   offset 8       8 bytes  L, little-endian: the length of the info archive
//   offset 16      L bytes  keyed archive of a VTProjectInfo
//   offset 16 + L  to end   keyed archive of the VTProject
//
// Contract
// - `saveProjectToPath` writes the document without ever destroying the file
//   that was there: the bytes go to a new temporary file beside it, which is
//   synchronised to disk and then renamed over the target (keeping an existing
//   file's permissions; a symbolic link is followed, not replaced). Any write
//   error, a full disk included, removes the temporary file, leaves the old
//   file as it was, and answers error code 1 with a log line.
// - `openProjectWithURL` reads the current format or falls back to the legacy
//   reader (KRMediaProject). Its result code is 0 or 1; the log lines are
//   "File crashed." (a length that does not fit the file), "Unknow version."
//   (another format identifier) and "Unknown project document type." (the
//   legacy reader failed). A file shorter than 16 bytes, or whose magic or
//   info archive is not recognised, goes to the legacy reader. Every read is
//   bounded by the file: a length that passes the header check but points
//   past the end is "File crashed." too.
// - The project archive of a current-format file may decode to nothing; the
//   result is then code 0 with no project, and the caller must keep what it
//   has. The restored project keeps the URL of its archive; a legacy project
//   gets the opened file's URL.
// - Progress: the legacy reader's values, then 100.
// - Thread-safe: each call works on its own data; may run on a task's thread.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class VTProject;

class VTProjectDocument {
public:
    using ProcessBlock = std::function<void(double)>;

    static constexpr uint64_t kMagic = 0x0000EEEFEEEFEEEFull;

    struct OpenResult {
        int32_t errorCode = 1;
        // The opened project, or empty (a failure, or a project archive that
        // decoded to nothing).
        std::vector<std::shared_ptr<VTProject>> projects;
    };

    VTProjectDocument() = delete;

    // The document's bytes: magic, length, the current project info, the project.
    static QByteArray dataWithProject(const VTProject& project);
    // Writes a document of `project` to `path`; answers 0 or 1.
    static int32_t saveProjectToPath(const VTProject& project, const QString& path);
    // Writes `bytes` to `path` through a temporary file; false (logged) on failure.
    static bool writeFileSafely(const QByteArray& bytes, const QString& path);

    static OpenResult openProjectWithURL(const QUrl& url, const ProcessBlock& processBlock);
    // The same, on a document already in memory (`url` names it in messages
    // and is where the legacy reader reads from).
    static OpenResult openProjectWithData(const QByteArray& data, const QUrl& url, const ProcessBlock& processBlock);
    // The legacy fallback: the converted project with its URL set to `url`,
    // or null after "Unknown project document type.".
    static std::shared_ptr<VTProject> loadOldProjectWithURL(const QUrl& url, const ProcessBlock& processBlock);
};
