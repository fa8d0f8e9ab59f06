#include "media/VTDataBuffer.h"

#include "foundation/Identifiers.h"
#include "foundation/Log.h"
#include "foundation/Paths.h"
#include "media/CacheFileIO.h"

#include <QFileInfo>

#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

const QString kCachePathFileKey = QStringLiteral("kKRCachePathFile");

// Held bytes beyond which the held buffer takes its full size.
constexpr int64_t kReserveAbove = 256 * 1024;

void logWriteFailure(const QString& path)
{
    brindle::log(QStringLiteral("Warning: can not write cache file %1: %2").arg(path, brindle::cachefile::errorText()));
}

}  // namespace

VTDataBuffer::VTDataBuffer()
    : VTDataBuffer(cachePath() + QLatin1Char('/') + currentDateString() + QStringLiteral(".temp"))
{
}

VTDataBuffer::VTDataBuffer(const QString& cacheFile) : m_dataBufferFile(cacheFile)
{
    if (!QFileInfo::exists(m_dataBufferFile))
        brindle::cachefile::createIfMissing(m_dataBufferFile);
}

VTDataBuffer::VTDataBuffer(const QString& cacheFile, FromArchive) : m_dataBufferFile(cacheFile) {}

VTDataBuffer::~VTDataBuffer()
{
    const int fd = m_readDescriptor.load();
    if (fd >= 0)
        ::close(fd);
}

int VTDataBuffer::readDescriptor() const
{
    int fd = m_readDescriptor.load(std::memory_order_acquire);
    if (fd >= 0)
        return fd;
    std::lock_guard lock(m_readDescriptorMutex);
    fd = m_readDescriptor.load(std::memory_order_relaxed);
    if (fd < 0) {
        fd = brindle::cachefile::openForReading(m_dataBufferFile);
        m_readDescriptor.store(fd, std::memory_order_release);
    }
    return fd;
}

std::shared_ptr<VTDataBuffer> VTDataBuffer::initWithCacheFile(const QString& cacheFile)
{
    return std::make_shared<VTDataBuffer>(cacheFile);
}

std::shared_ptr<VTDataBuffer> VTDataBuffer::initWithExistingCacheFile(const QString& cacheFile)
{
    return std::shared_ptr<VTDataBuffer>(new VTDataBuffer(cacheFile, FromArchive{}));
}

QString VTDataBuffer::cachePath()
{
    QString caches = brindle::searchPathForDirectory(brindle::SearchDirectory::Caches);
    if (caches.isEmpty())
        caches = brindle::temporaryDirectory();
    const QString path = caches + QLatin1Char('/') + brindle::bundleIdentifier();
    brindle::createDirectoryWithIntermediates(path);
    return path;
}

QString VTDataBuffer::currentDateString()
{
    return brindle::formatCurrentDateWithStrftime("%Y-%m-%d %H-%M-%S %z");
}

brindle::SerialQueue& VTDataBuffer::dataBufferQueue()
{
    std::call_once(m_queueOnce, [this] {
        const QString label = QStringLiteral("0x%1: databuffer").arg(identifier(), 0, 16);
        m_dataBufferQueue = std::make_unique<brindle::SerialQueue>(label);
    });
    return *m_dataBufferQueue;
}

bool VTDataBuffer::appendHeldToFile() const
{
    const bool written =
        brindle::cachefile::appendAll(m_dataBufferFile, m_cacheDataBuffer.constData(), m_cacheDataBuffer.size());
    if (!written)
        logWriteFailure(m_dataBufferFile);
    m_cacheDataBuffer.truncate(0);
    return written;
}

bool VTDataBuffer::writeDataBuffer(const QByteArray& bytes)
{
    return writeDataBuffer(bytes.constData(), bytes.size());
}

bool VTDataBuffer::writeDataBuffer(const char* bytes, int64_t length)
{
    if (length <= 0)
        return true;
    // A buffer that is going to hold more than a little is given its whole
    // room at once: growing it step by step would touch twice the memory.
    if (m_cacheDataBuffer.capacity() < kMaximumHeldBytes && m_cacheDataBuffer.size() + length > kReserveAbove)
        m_cacheDataBuffer.reserve(qsizetype(kMaximumHeldBytes));
    if (m_cacheDataBuffer.size() + length <= kMaximumHeldBytes) {
        m_cacheDataBuffer.append(bytes, qsizetype(length));
        return true;
    }
    if (!QFileInfo::exists(m_dataBufferFile))
        brindle::cachefile::createIfMissing(m_dataBufferFile);
    m_cacheDataBuffer.append(bytes, qsizetype(length));
    return appendHeldToFile();
}

bool VTDataBuffer::flushCacheDataBuffer()
{
    if (m_cacheDataBuffer.isEmpty())
        return true;
    return appendHeldToFile();
}

QByteArray VTDataBuffer::readDataBuffer(uint64_t length, uint64_t offset) const
{
    // Sized for what exists at most, so a damaged length never allocates more than that.
    const uint64_t fileLength = this->length();
    m_lengthSeen.store(fileLength, std::memory_order_relaxed);
    const uint64_t available = fileLength + uint64_t(m_cacheDataBuffer.size());
    if (available <= offset) {
        brindle::log(QStringLiteral("reach to end of data buffer."));
        return QByteArray();
    }
    QByteArray result(qsizetype(std::min(length, available - offset)), Qt::Uninitialized);
    result.truncate(qsizetype(readDataBuffer(result.data(), uint64_t(result.size()), offset)));
    return result;
}

uint64_t VTDataBuffer::readDataBuffer(char* out, uint64_t length, uint64_t offset) const
{
    uint64_t fileLength = m_lengthSeen.load(std::memory_order_relaxed);
    if (offset >= fileLength || length > fileLength - offset) {
        fileLength = this->length();
        m_lengthSeen.store(fileLength, std::memory_order_relaxed);
    }
    const uint64_t held = uint64_t(m_cacheDataBuffer.size());
    if (fileLength + held <= offset) {
        brindle::log(QStringLiteral("reach to end of data buffer."));
        return 0;
    }
    if (offset >= fileLength) {
        const uint64_t count = std::min(length, held - (offset - fileLength));
        std::memcpy(out, m_cacheDataBuffer.constData() + (offset - fileLength), size_t(count));
        return count;
    }
    const uint64_t wanted = std::min(length, fileLength - offset);
    const int fd = readDescriptor();
    const int64_t got = fd >= 0 ? brindle::cachefile::readAtDescriptor(fd, out, int64_t(wanted), int64_t(offset)) : -1;
    uint64_t done = uint64_t(std::max<int64_t>(got, 0));
    // The held bytes continue the stream only where the file really ended.
    if (done == wanted && wanted < length && held > 0) {
        const uint64_t more = std::min(length - wanted, held);
        std::memcpy(out + done, m_cacheDataBuffer.constData(), size_t(more));
        done += more;
    }
    return done;
}

uint64_t VTDataBuffer::length() const
{
    const int fd = m_readDescriptor.load(std::memory_order_acquire);
    if (fd >= 0)
        return uint64_t(std::max<int64_t>(brindle::cachefile::descriptorSize(fd), 0));
    return uint64_t(std::max<int64_t>(brindle::cachefile::fileSize(m_dataBufferFile), 0));
}

void VTDataBuffer::clearCache()
{
    m_cacheDataBuffer.truncate(0);
    m_lengthSeen.store(0, std::memory_order_relaxed);
    if (!brindle::cachefile::truncateToEmpty(m_dataBufferFile))
        logWriteFailure(m_dataBufferFile);
}

QStringList VTDataBuffer::archiveClassNames()
{
    return {QStringLiteral("VTDataBuffer")};
}

std::shared_ptr<VTDataBuffer> VTDataBuffer::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    const QString path = coder.decodeStringForKey(kCachePathFileKey).value_or(QString());
    if (path.isEmpty() || !QFileInfo::exists(path)) {
        brindle::log(QStringLiteral("Warning: miss cache file(%1).").arg(path));
        return nullptr;
    }
    return std::shared_ptr<VTDataBuffer>(new VTDataBuffer(path, FromArchive{}));
}

QString VTDataBuffer::classNameForArchive() const
{
    return QStringLiteral("VTDataBuffer");
}

void VTDataBuffer::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    if (!m_cacheDataBuffer.isEmpty())
        appendHeldToFile();
    coder.encodeString(m_dataBufferFile, kCachePathFileKey);
}
