#include "media/CacheFileIO.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace brindle::cachefile {

namespace {

constexpr mode_t kFileMode = 0644;

QByteArray nativePath(const QString& path)
{
    return QFile::encodeName(path);
}

// Opens with EINTR retried; -1 on failure.
int openRetrying(const QString& path, int flags, mode_t mode = kFileMode)
{
    const QByteArray native = nativePath(path);
    if (native.isEmpty()) {
        errno = ENOENT;
        return -1;
    }
    int fd = -1;
    do {
        fd = ::open(native.constData(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Closes without disturbing the errno of an earlier failure.
void closeKeepingErrno(int fd)
{
    const int saved = errno;
    ::close(fd);
    errno = saved;
}

}  // namespace

bool entryExists(const QString& path)
{
    const QByteArray native = nativePath(path);
    struct stat info {};
    return !native.isEmpty() && ::lstat(native.constData(), &info) == 0;
}

bool createExclusive(const QString& path)
{
    const int fd = openRetrying(path, O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0)
        return false;
    return ::close(fd) == 0;
}

bool createIfMissing(const QString& path)
{
    const int fd = openRetrying(path, O_WRONLY | O_CREAT);
    if (fd < 0)
        return false;
    return ::close(fd) == 0;
}

bool appendAll(const QString& path, const char* bytes, int64_t length)
{
    const int fd = openRetrying(path, O_WRONLY | O_APPEND | O_CREAT);
    if (fd < 0)
        return false;
    int64_t written = 0;
    while (written < length) {
        const ssize_t step = ::write(fd, bytes + written, size_t(length - written));
        if (step < 0 && errno == EINTR)
            continue;
        if (step <= 0) {
            if (step == 0)
                errno = ENOSPC;
            closeKeepingErrno(fd);
            return false;
        }
        written += step;
    }
    return ::close(fd) == 0;
}

int64_t readAt(const QString& path, char* out, int64_t length, int64_t offset)
{
    if (length <= 0 || offset < 0)
        return 0;
    const int fd = openForReading(path);
    if (fd < 0)
        return -1;
    const int64_t got = readAtDescriptor(fd, out, length, offset);
    if (got < 0) {
        closeKeepingErrno(fd);
        return -1;
    }
    ::close(fd);
    return got;
}

int openForReading(const QString& path)
{
    return openRetrying(path, O_RDONLY);
}

int64_t readAtDescriptor(int fd, char* out, int64_t length, int64_t offset)
{
    if (length <= 0 || offset < 0)
        return 0;
    int64_t got = 0;
    while (got < length) {
        const ssize_t step = ::pread(fd, out + got, size_t(length - got), off_t(offset + got));
        if (step < 0 && errno == EINTR)
            continue;
        if (step < 0)
            return -1;
        if (step == 0)
            break;
        got += step;
    }
    return got;
}

int64_t fileSize(const QString& path)
{
    const QByteArray native = nativePath(path);
    struct stat info {};
    if (native.isEmpty() || ::stat(native.constData(), &info) != 0)
        return -1;
    return int64_t(info.st_size);
}

int64_t descriptorSize(int fd)
{
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        return -1;
    return int64_t(info.st_size);
}

bool truncateToEmpty(const QString& path)
{
    const int fd = openRetrying(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (fd < 0)
        return false;
    return ::close(fd) == 0;
}

QString errorText()
{
    return QString::fromLocal8Bit(std::strerror(errno));
}

}  // namespace brindle::cachefile
