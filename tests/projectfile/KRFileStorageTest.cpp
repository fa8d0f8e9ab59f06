#include "projectfile/KRFileStorage.h"

#include "foundation/KeyedStandard.h"
#include "projectfile/ProjectFileFixtures.h"

#include <QtEndian>

#include <gtest/gtest.h>

using namespace brindle::test;

namespace {

std::shared_ptr<KRFileStorage> open(const QString& path)
{
    return KRFileStorage::initWithURL(QUrl::fromLocalFile(path));
}

// A container written by the storage's own writer: three blocks and a trailer.
QString writeContainer(const QString& name)
{
    const QString path = scratchFile(name, QStringLiteral("project.loomwick"));
    auto storage = open(path);
    EXPECT_TRUE(storage);
    EXPECT_TRUE(storage->updateFiletrailer(QByteArray("timeline")));
    EXPECT_TRUE(storage->appendBlockData(QByteArray("first block")));
    EXPECT_TRUE(storage->appendBlockData(QByteArray(3000, 'b')));
    EXPECT_TRUE(storage->appendBlockData(QByteArray("c")));
    return path;
}

// The container's bytes with its structure list replaced by `entries`.
QByteArray withStructure(const QByteArray& data, const std::vector<KRFileBlockInfo>& entries)
{
    std::vector<brindle::ConstKeyedObjectPtr> list;
    for (const KRFileBlockInfo& entry : entries)
        list.push_back(std::make_shared<KRFileBlockInfo>(entry));
    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(brindle::KeyedArray(list));
    const qsizetype u = qsizetype(KRFileStorage::lengthOfFileStorageUTI());
    const quint64 oldSize = qFromLittleEndian<quint64>(data.constData() + data.size() - u - 8);
    QByteArray size(8, '\0');
    qToLittleEndian<quint64>(quint64(archive.size()), size.data());
    return data.left(data.size() - u - 8 - qsizetype(oldSize)) + archive + size + KRFileStorage::fileStorageUTI();
}

}  // namespace

// Blocks and the trailer read back after reopening; the trailer follows the
// last block and the file ends with the little-endian size of the structure
// list and the identifier; a shorter trailer truncates the file. Indexes
// outside the blocks give nothing.
TEST(KRFileStorageTest, BlocksAndTrailerWrittenByTheWriterReadBackAfterReopening)
{
    const QString path = writeContainer(QStringLiteral("roundtrip"));
    auto storage = open(path);
    ASSERT_TRUE(storage);
    ASSERT_EQ(storage->blockDataCount(), 3);
    EXPECT_EQ(storage->blockDataAtIndex(0), QByteArray("first block"));
    EXPECT_EQ(storage->blockDataAtIndex(1), QByteArray(3000, 'b'));
    EXPECT_EQ(storage->blockDataAtIndex(2), QByteArray("c"));
    EXPECT_EQ(storage->filetrailerData(), QByteArray("timeline"));
    EXPECT_EQ(storage->fileTrailer().offset(), 11 + 3000 + 1);
    const QByteArray bytes = fileBytes(path);
    EXPECT_EQ(bytes.mid(3012, 8), QByteArray("timeline"));
    EXPECT_TRUE(bytes.endsWith("com.Quarnely.testFileStorage"));
    {
        LogCapture log;
        EXPECT_FALSE(storage->blockDataAtIndex(3));
        EXPECT_FALSE(storage->blockDataAtIndex(-1));
        EXPECT_EQ(log.lines(), QStringList(2, QStringLiteral("Out of block range.")));
    }
    ASSERT_TRUE(storage->updateFiletrailer(QByteArray("t")));
    auto reopened = open(path);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->filetrailerData(), QByteArray("t"));
    EXPECT_EQ(reopened->blockDataCount(), 3);
    EXPECT_LT(fileBytes(path).size(), bytes.size());

    const QString plain = scratchFile(QStringLiteral("no-trailer"), QStringLiteral("x.loomwick"));
    ASSERT_TRUE(open(plain)->appendBlockData(QByteArray("only")));
    auto noTrailer = open(plain);
    ASSERT_TRUE(noTrailer);
    EXPECT_EQ(noTrailer->blockDataAtIndex(0), QByteArray("only"));
    EXPECT_FALSE(noTrailer->filetrailerData());
}

// Another identifier, bytes after it, or sizes that do not add up to the
// file (checked without wrapping) are not a container.
TEST(KRFileStorageTest, FilesThatAreNotWholeContainersAreRefused)
{
    const QByteArray good = fileBytes(writeContainer(QStringLiteral("sizes")));
    const qsizetype sizeAt = good.size() - qsizetype(KRFileStorage::lengthOfFileStorageUTI()) - 8;
    const auto withSize = [&](quint64 size) {
        QByteArray bytes = good;
        qToLittleEndian<quint64>(size, bytes.data() + sizeAt);
        return bytes;
    };
    QByteArray otherType = good;
    otherType.replace("testFileStorage", "xestFileStorage");
    const QString invalid = QStringLiteral("Invalid file type, can't recognize.");
    const QString destroyed = QStringLiteral("Destroy file, can't read.");
    const std::pair<QByteArray, QString> cases[] = {
        {otherType, invalid},
        {good + 'x', invalid},
        {QByteArray("tiny"), invalid},
        {good.left(5) + 'x' + good.mid(5), destroyed},  // one byte more in the data area
        {withSize(~quint64(0)), destroyed},
        {withSize(quint64(sizeAt) + 1), destroyed},
        {withSize(3), destroyed},
        {withStructure(good, {KRFileBlockInfo(0, 11), KRFileBlockInfo(-8, 3020)}), destroyed},  // trailer before the file
        {withStructure(good, {}), destroyed},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const QString path = scratchFile(QStringLiteral("sizes-case"), QStringLiteral("x.loomwick"));
        ASSERT_TRUE(writeBytes(path, cases[i].first));
        LogCapture log;
        EXPECT_FALSE(open(path));
        EXPECT_TRUE(log.contains(cases[i].second));
    }
}

// Trailer entry as written (offset 3012, length 8); blocks that overlap it,
// run past it or have a negative length are not read.
TEST(KRFileStorageTest, ABlockEntryPointingOutsideTheDataIsNotRead)
{
    const QByteArray good = fileBytes(writeContainer(QStringLiteral("block-range")));
    const QString path = scratchFile(QStringLiteral("block-range-bad"), QStringLiteral("x.loomwick"));
    ASSERT_TRUE(writeBytes(path, withStructure(good, {KRFileBlockInfo(3000, 100), KRFileBlockInfo(5, -1),
                                                      KRFileBlockInfo(INT64_MAX, INT64_MAX), KRFileBlockInfo(3012, 8)})));
    auto storage = open(path);
    ASSERT_TRUE(storage);
    ASSERT_EQ(storage->blockDataCount(), 3);
    for (int64_t i = 0; i < 3; ++i)
        EXPECT_FALSE(storage->blockDataAtIndex(i)) << i;
    EXPECT_EQ(storage->filetrailerData(), QByteArray("timeline"));
}
