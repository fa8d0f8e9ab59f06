#include "projectfile/KRFileStorage.h"

#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

#include <QFileInfo>
#include <QtEndian>

namespace {

const QString kStructInfoKey = QStringLiteral("_fileStructInfo");
const QString kTrailerKey = QStringLiteral("_fileTrailer");
const QString kURLKey = QStringLiteral("_fileURL");
const QString kUsrFlagKey = QStringLiteral("_usrFlag");

void logDestroyed()
{
    brindle::log(QStringLiteral("Destroy file, can't read."));
}

// Whether [offset, offset + length) lies inside [0, end), without overflow.
bool rangeInside(int64_t offset, int64_t length, int64_t end)
{
    return offset >= 0 && length >= 0 && offset <= end && length <= end - offset;
}

bool writeAll(QFile& file, const QByteArray& bytes)
{
    return file.write(bytes) == bytes.size();
}

}  // namespace

QByteArray KRFileStorage::fileStorageUTI()
{
    return QByteArrayLiteral("com.Quarnely.testFileStorage");
}

int64_t KRFileStorage::lengthOfFileStorageUTI()
{
    return int64_t(fileStorageUTI().size());
}

std::shared_ptr<KRFileStorage> KRFileStorage::init()
{
    return initWithURL(QUrl());
}

std::shared_ptr<KRFileStorage> KRFileStorage::initWithURL(const QUrl& url)
{
    if (url.isEmpty()) {
        brindle::log(QStringLiteral("Must be set url for storage."));
        return nullptr;
    }
    std::shared_ptr<KRFileStorage> storage(new KRFileStorage());
    storage->m_fileURL = url;
    const QString path = url.toLocalFile();
    QFile file(path);
    if (!QFileInfo::exists(path)) {
        if (!file.open(QIODevice::WriteOnly)) {
            brindle::log(QStringLiteral("Failed to create file:%1.").arg(path));
            return nullptr;
        }
        return storage;
    }
    if (!file.open(QIODevice::ReadOnly)) {
        brindle::log(QStringLiteral("Failed to open file:%1 for read.").arg(path));
        return nullptr;
    }
    if (!storage->openExisting(file))
        return nullptr;
    return storage;
}

bool KRFileStorage::openExisting(QFile& file)
{
    const std::optional<QString> uti = readFileStorageUTI(file);
    if (!uti || uti->toUtf8() != fileStorageUTI()) {
        brindle::log(QStringLiteral("Invalid file type, can't recognize."));
        return false;
    }
    const int64_t fileSize = file.size();
    const int64_t u = lengthOfFileStorageUTI();
    const std::optional<uint64_t> structSize = readFileStructInfoSize(file);
    // S + 8 > E - U, with E >= U + 8 known from the size read above.
    if (!structSize || *structSize > uint64_t(fileSize - u - 8)) {
        logDestroyed();
        return false;
    }
    const int64_t s = int64_t(*structSize);
    if (!file.seek(fileSize - 8 - s - u)) {
        logDestroyed();
        return false;
    }
    const QByteArray archive = file.read(s);
    if (archive.size() != s) {
        logDestroyed();
        return false;
    }
    brindle::KeyedUnarchiver coder(archive);
    std::optional<BlockList> list;
    if (coder.isValid())
        list = coder.decodeArrayOfClass<KRFileBlockInfo>(QStringLiteral("root"));
    if (!list || list->empty()) {
        logDestroyed();
        return false;
    }
    const std::shared_ptr<KRFileBlockInfo> trailer = list->back();
    // (S + 8) + t.offset + t.length + U must be the file size exactly.
    const int64_t dataEnd = fileSize - u - 8 - s;
    if (trailer->offset() < 0 || trailer->length() < 0 || trailer->offset() > dataEnd
        || trailer->length() != dataEnd - trailer->offset()) {
        logDestroyed();
        return false;
    }
    m_fileTrailer = *trailer;
    list->pop_back();
    m_fileStructInfo = std::move(*list);
    return true;
}

std::optional<QString> KRFileStorage::readFileStorageUTI(QFile& handle) const
{
    const int64_t u = lengthOfFileStorageUTI();
    const int64_t size = handle.size();
    if (size < u || !handle.seek(size - u))
        return std::nullopt;
    const QByteArray bytes = handle.read(u);
    if (bytes.size() != u)
        return std::nullopt;
    return QString::fromUtf8(bytes);
}

std::optional<uint64_t> KRFileStorage::readFileStructInfoSize(QFile& handle) const
{
    const int64_t u = lengthOfFileStorageUTI();
    const int64_t size = handle.size();
    if (size < u + 8 || !handle.seek(size - u - 8))
        return std::nullopt;
    const QByteArray bytes = handle.read(8);
    if (bytes.size() != 8)
        return std::nullopt;
    return qFromLittleEndian<quint64>(bytes.constData());
}

QByteArray KRFileStorage::structInfoArchive() const
{
    std::vector<brindle::ConstKeyedObjectPtr> entries(m_fileStructInfo.begin(), m_fileStructInfo.end());
    entries.push_back(std::make_shared<KRFileBlockInfo>(m_fileTrailer));
    return brindle::KeyedArchiver::archivedDataWithRootObject(brindle::KeyedArray(std::move(entries)));
}

int64_t KRFileStorage::writeFileStructInfo(QFile& handle) const
{
    const QByteArray archive = structInfoArchive();
    QByteArray size(8, '\0');
    qToLittleEndian<quint64>(quint64(archive.size()), size.data());
    if (!writeAll(handle, archive) || !writeAll(handle, size))
        return -1;
    return int64_t(archive.size()) + 8;
}

int64_t KRFileStorage::writeFileStorageUTI(QFile& handle) const
{
    const QByteArray uti = fileStorageUTI();
    return writeAll(handle, uti) ? int64_t(uti.size()) : -1;
}

int64_t KRFileStorage::endOfBlocks() const
{
    if (m_fileStructInfo.empty())
        return 0;
    const KRFileBlockInfo& last = *m_fileStructInfo.back();
    return last.offset() + last.length();
}

std::optional<QByteArray> KRFileStorage::readRange(int64_t offset, int64_t length) const
{
    QFile file(m_fileURL.toLocalFile());
    if (!file.open(QIODevice::ReadOnly)) {
        brindle::log(QStringLiteral("Failed to open file:%1 for read.").arg(file.fileName()));
        return std::nullopt;
    }
    // Blocks and the trailer lie in the data area, before the structure list.
    const int64_t dataEnd = m_fileTrailer.offset() + m_fileTrailer.length();
    if (!rangeInside(offset, length, dataEnd) || dataEnd > file.size() || !file.seek(offset)) {
        logDestroyed();
        return std::nullopt;
    }
    QByteArray bytes = file.read(length);
    if (bytes.size() != length) {
        logDestroyed();
        return std::nullopt;
    }
    return bytes;
}

std::optional<QByteArray> KRFileStorage::blockDataAtIndex(int64_t index) const
{
    if (index < 0 || index >= blockDataCount()) {
        brindle::log(QStringLiteral("Out of block range."));
        return std::nullopt;
    }
    const KRFileBlockInfo& block = *m_fileStructInfo[size_t(index)];
    return readRange(block.offset(), block.length());
}

std::optional<QByteArray> KRFileStorage::filetrailerData() const
{
    if (m_fileTrailer.length() < 1)
        return std::nullopt;
    return readRange(m_fileTrailer.offset(), m_fileTrailer.length());
}

bool KRFileStorage::writeTail(QFile& file, const QByteArray& trailerBytes)
{
    if (!file.seek(m_fileTrailer.offset()) || !writeAll(file, trailerBytes))
        return false;
    const int64_t structWritten = writeFileStructInfo(file);
    const int64_t utiWritten = writeFileStorageUTI(file);
    if (structWritten < 0 || utiWritten < 0)
        return false;
    return file.resize(m_fileTrailer.offset() + m_fileTrailer.length() + structWritten + utiWritten) && file.flush();
}

bool KRFileStorage::appendBlockData(const QByteArray& data)
{
    QFile file(m_fileURL.toLocalFile());
    if (!file.open(QIODevice::ReadWrite)) {
        brindle::log(QStringLiteral("Failed to open file:%1 for write.").arg(file.fileName()));
        return false;
    }
    auto entry = std::make_shared<KRFileBlockInfo>(endOfBlocks(), int64_t(data.size()));
    QByteArray trailerBytes;
    if (m_fileTrailer.length() > 0) {
        std::optional<QByteArray> old = readRange(m_fileTrailer.offset(), m_fileTrailer.length());
        if (!old)
            return false;
        trailerBytes = std::move(*old);
    }
    if (!file.seek(entry->offset()) || !writeAll(file, data)) {
        brindle::log(QStringLiteral("Failed to write block to file:%1.").arg(file.fileName()));
        return false;
    }
    m_fileStructInfo.push_back(entry);
    m_fileTrailer.setOffset(entry->offset() + entry->length());
    if (!writeTail(file, trailerBytes)) {
        brindle::log(QStringLiteral("Failed to write block to file:%1.").arg(file.fileName()));
        return false;
    }
    return true;
}

bool KRFileStorage::updateFiletrailer(const QByteArray& data)
{
    QFile file(m_fileURL.toLocalFile());
    if (!file.open(QIODevice::ReadWrite)) {
        brindle::log(QStringLiteral("Failed to open file:%1 for write.").arg(file.fileName()));
        return false;
    }
    m_fileTrailer.setOffset(endOfBlocks());
    m_fileTrailer.setLength(int64_t(data.size()));
    if (!writeTail(file, data)) {
        brindle::log(QStringLiteral("Failed to write trailer to file:%1.").arg(file.fileName()));
        return false;
    }
    return true;
}

QStringList KRFileStorage::archiveClassNames()
{
    return {QStringLiteral("KRFileStorage")};
}

std::shared_ptr<KRFileStorage> KRFileStorage::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    std::shared_ptr<KRFileStorage> storage(new KRFileStorage());
    storage->m_fileStructInfo = coder.decodeArrayOfClass<KRFileBlockInfo>(kStructInfoKey).value_or(BlockList());
    if (auto trailer = coder.decodeObjectOfClass<KRFileBlockInfo>(kTrailerKey))
        storage->m_fileTrailer = *trailer;
    storage->m_fileURL = coder.decodeURLForKey(kURLKey).value_or(QUrl());
    storage->m_usrFlag = coder.decodeInt64ForKey(kUsrFlagKey);
    return storage;
}

QString KRFileStorage::classNameForArchive() const
{
    return QStringLiteral("KRFileStorage");
}

void KRFileStorage::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeArrayOf(m_fileStructInfo, kStructInfoKey, true);
    coder.encodeObject(m_fileTrailer, kTrailerKey);
    coder.encodeURL(m_fileURL, kURLKey);
    coder.encodeInt64(m_usrFlag, kUsrFlagKey);
}
