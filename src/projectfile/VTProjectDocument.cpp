#include "projectfile/VTProjectDocument.h"

#include "foundation/KeyedCoding.h"
#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "model/VTProject.h"
#include "projectfile/KRMediaProject.h"
#include "projectfile/VTProjectInfo.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qsizetype kHeaderSize = 16;

QString systemError(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

void logSaveFailure(const QString& path, const QString& reason)
{
    brindle::log(QStringLiteral("Failed to save the project to %1: %2.").arg(path, reason));
}

// Writes all of `bytes` to `fd`; the errno of the failure, or 0.
int writeAll(int fd, const QByteArray& bytes)
{
    const char* data = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t written = ::write(fd, data, size_t(left));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        if (written == 0)
            return ENOSPC;
        data += written;
        left -= written;
    }
    return 0;
}

// Synchronises the folder so that the rename itself is on disk; best effort.
void syncFolder(const QString& folder)
{
    const int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

QByteArray VTProjectDocument::dataWithProject(const VTProject& project)
{
    const QByteArray info = brindle::KeyedArchiver::archivedDataWithRootObject(*VTProjectInfo::currentProjectInfo());
    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(project);
    QByteArray bytes(kHeaderSize, '\0');
    qToLittleEndian<quint64>(kMagic, bytes.data());
    qToLittleEndian<quint64>(quint64(info.size()), bytes.data() + 8);
    bytes.reserve(kHeaderSize + info.size() + archive.size());
    bytes.append(info);
    bytes.append(archive);
    return bytes;
}

int32_t VTProjectDocument::saveProjectToPath(const VTProject& project, const QString& path)
{
    if (path.isEmpty()) {
        logSaveFailure(path, QStringLiteral("no file name"));
        return 1;
    }
    return writeFileSafely(dataWithProject(project), path) ? 0 : 1;
}

bool VTProjectDocument::writeFileSafely(const QByteArray& bytes, const QString& path)
{
    QFileInfo target(path);
    // Save through a symbolic link into the file it names, keeping the link.
    if (target.isSymLink())
        target = QFileInfo(target.symLinkTarget());
    if (target.exists() && !target.isFile()) {
        logSaveFailure(path, QStringLiteral("not a regular file"));
        return false;
    }
    const QString finalPath = target.absoluteFilePath();
    const QString folder = target.absolutePath();
    if (!QFileInfo(folder).isDir()) {
        logSaveFailure(path, QStringLiteral("the folder does not exist"));
        return false;
    }
    const QString temporary = QDir(folder).filePath(QStringLiteral(".%1.%2.saving")
                                                        .arg(target.fileName(), VTBaseDefine::uuidString()));
    const QByteArray temporaryName = QFile::encodeName(temporary);
    const int fd = ::open(temporaryName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        logSaveFailure(path, systemError(errno));
        return false;
    }
    int error = writeAll(fd, bytes);
    struct stat existing = {};
    if (error == 0 && ::stat(QFile::encodeName(finalPath).constData(), &existing) == 0
        && ::fchmod(fd, existing.st_mode & 07777) != 0)
        error = errno;
    if (error == 0 && ::fsync(fd) != 0)
        error = errno;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    if (error == 0 && ::rename(temporaryName.constData(), QFile::encodeName(finalPath).constData()) != 0)
        error = errno;
    if (error != 0) {
        ::unlink(temporaryName.constData());
        logSaveFailure(path, systemError(error));
        return false;
    }
    syncFolder(folder);
    return true;
}

VTProjectDocument::OpenResult VTProjectDocument::openProjectWithURL(const QUrl& url, const ProcessBlock& processBlock)
{
    QFile file(url.toLocalFile());
    if (!QFileInfo(file.fileName()).isFile() || !file.open(QIODevice::ReadOnly)) {
        brindle::log(QStringLiteral("Failed to open file:%1 for read.").arg(file.fileName()));
        return {};
    }
    const QByteArray data = file.readAll();
    if (data.size() != file.size()) {
        brindle::log(QStringLiteral("Failed to open file:%1 for read.").arg(file.fileName()));
        return {};
    }
    return openProjectWithData(data, url, processBlock);
}

VTProjectDocument::OpenResult VTProjectDocument::openProjectWithData(const QByteArray& data, const QUrl& url,
                                                                     const ProcessBlock& processBlock)
{
    OpenResult result;
    const auto legacy = [&]() {
        if (auto project = loadOldProjectWithURL(url, processBlock)) {
            result.errorCode = 0;
            result.projects.push_back(std::move(project));
        }
        return result;
    };
    const uint64_t length = uint64_t(data.size());
    if (length < uint64_t(kHeaderSize) || qFromLittleEndian<quint64>(data.constData()) != kMagic)
        return legacy();
    const uint64_t infoLength = qFromLittleEndian<quint64>(data.constData() + 8);
    // The header check compares with length - 8; the info section must also
    // end inside the file, which that check alone does not ensure.
    if (infoLength >= length - 8 || infoLength > length - uint64_t(kHeaderSize)) {
        brindle::log(QStringLiteral("File crashed."));
        return result;
    }
    const QByteArray infoBytes = data.mid(kHeaderSize, qsizetype(infoLength));
    const std::shared_ptr<VTProjectInfo> info = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTProjectInfo>(infoBytes);
    if (!info)
        return legacy();
    if (info->projectInfoIDs() != VTProjectInfo::currentFormatIdentifier()) {
        brindle::log(QStringLiteral("Unknow version."));
        return result;
    }
    const QByteArray projectBytes = data.mid(kHeaderSize + qsizetype(infoLength));
    std::shared_ptr<VTProject> project = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTProject>(projectBytes);
    if (processBlock)
        processBlock(100.0);
    result.errorCode = 0;
    if (project)
        result.projects.push_back(std::move(project));
    else
        brindle::log(QStringLiteral("The project archive of %1 holds no project.").arg(url.toLocalFile()));
    return result;
}

std::shared_ptr<VTProject> VTProjectDocument::loadOldProjectWithURL(const QUrl& url, const ProcessBlock& processBlock)
{
    std::shared_ptr<VTProject> project = KRMediaProject::projectFromMediaProjectWithURL(url, processBlock);
    if (!project) {
        brindle::log(QStringLiteral("Unknown project document type."));
        return nullptr;
    }
    project->setUrl(url);
    return project;
}
