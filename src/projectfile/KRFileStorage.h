// The block container of the earlier generation's project files.
//
// Layout, from the start of the file (integers are unsigned 64-bit,
// little-endian):
//   blocks        back to back from offset 0
//   trailer       directly after the last block
//   structure     S bytes: keyed archive of a list of KRFileBlockInfo, one per
//                 block in order, then the trailer's entry as the last element
//   size          8 bytes: S
//   identifier    U bytes: the UTF-8 text "com.Quarnely.testFileStorage"
//
// Contract
// - `initWithURL` opens an existing container (checked: identifier, sizes that
//   add up exactly to the file size, a structure list that decodes) or, when
//   no file exists at the path, creates an empty one. It answers null with the
//   log lines "Must be set url for storage.", "Failed to open file:<path> for
//   read.", "Invalid file type, can't recognize." or "Destroy file, can't read.".
// - Reads are bounded by the file: a block whose entry points outside the data
//   area gives nothing ("Destroy file, can't read."), never a read past the end.
//   Sizes are compared without unsigned wrap-around.
// - `appendBlockData` and `updateFiletrailer` rewrite the file in place (this is
//   the writer that tests and fuzzers use to make containers; the application
//   itself only reads them). They answer false, logged, when a write fails.
// - Not thread-safe: one storage object is used by one thread at a time.
#pragma once

#include "foundation/KeyedCoding.h"
#include "projectfile/KRFileBlockInfo.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QUrl>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class KRFileStorage final : public brindle::KeyedCoding {
public:
    using BlockList = std::vector<std::shared_ptr<KRFileBlockInfo>>;

    // The type identifier at the end of every container.
    static QByteArray fileStorageUTI();

    static std::shared_ptr<KRFileStorage> initWithURL(const QUrl& url);
    // initWithURL with no URL: always fails.
    static std::shared_ptr<KRFileStorage> init();

    const QUrl& fileURL() const { return m_fileURL; }
    // The blocks, without the trailer.
    const BlockList& fileStructInfo() const { return m_fileStructInfo; }
    const KRFileBlockInfo& fileTrailer() const { return m_fileTrailer; }
    int64_t usrFlag() const { return m_usrFlag; }
    void setUsrFlag(int64_t flag) { m_usrFlag = flag; }

    int64_t blockDataCount() const { return int64_t(m_fileStructInfo.size()); }
    // The block's bytes; nothing ("Out of block range.") for an index >= count.
    std::optional<QByteArray> blockDataAtIndex(int64_t index) const;
    // The trailer's bytes; nothing when its length is below 1.
    std::optional<QByteArray> filetrailerData() const;

    bool appendBlockData(const QByteArray& data);
    bool updateFiletrailer(const QByteArray& data);

    // U, the identifier's byte length.
    static int64_t lengthOfFileStorageUTI();
    // The last U bytes of the file as text; nothing when the file is shorter.
    std::optional<QString> readFileStorageUTI(QFile& handle) const;
    // The 64-bit value at file size - 8 - U; nothing when the file is shorter.
    std::optional<uint64_t> readFileStructInfoSize(QFile& handle) const;
    // Write the structure list with its size, and the identifier, at the
    // handle's position. They answer the bytes written (S + 8, and U), or -1.
    int64_t writeFileStructInfo(QFile& handle) const;
    int64_t writeFileStorageUTI(QFile& handle) const;

    // Keyed coding ("KRFileStorage"): "_fileStructInfo", "_fileTrailer",
    // "_fileURL", "_usrFlag". A decoded storage is a description only; it is
    // not checked against any file.
    static QStringList archiveClassNames();
    static std::shared_ptr<KRFileStorage> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    KRFileStorage() = default;

    bool openExisting(QFile& file);
    // The structure list as archived: the blocks, then the trailer.
    QByteArray structInfoArchive() const;
    // Reads `length` bytes at `offset`, bounded by the data area.
    std::optional<QByteArray> readRange(int64_t offset, int64_t length) const;
    // Writes the trailer, the structure, its size and the identifier from the
    // trailer's offset on, then truncates the file after them.
    bool writeTail(QFile& file, const QByteArray& trailerBytes);
    // The end of the last block, 0 without blocks.
    int64_t endOfBlocks() const;

    QUrl m_fileURL;
    BlockList m_fileStructInfo;
    KRFileBlockInfo m_fileTrailer;
    int64_t m_usrFlag = 0;
};
