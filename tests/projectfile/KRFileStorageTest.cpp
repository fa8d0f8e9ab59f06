#include "projectfile/KRFileStorage.h"

#include "foundation/KeyedStandard.h"
#include "media/LogCapture.h"
#include "projectfile/ProjectFileFixtures.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QtEndian>

#include <gtest/gtest.h>

using brindle::test::fileBytes;
using brindle::test::LogCapture;
using brindle::test::writeBytes;

namespace {

QString containerPath(const QString& name)
{
    return brindle::test::TestEnvironment::current().makeScratchDirectory(name) + QStringLiteral("/project.loomwick");
}

std::shared_ptr<KRFileStorage> open(const QString& path)
{
    return KRFileStorage::initWithURL(QUrl::fromLocalFile(path));
}

// A container written by the storage's own writer: three blocks and a trailer.
QString writeContainer(const QString& name)
{
    const QString path = containerPath(name);
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

    // The trailer follows the last block; the file ends with the size and the identifier.
    const QByteArray bytes = fileBytes(path);
    EXPECT_EQ(bytes.mid(3012, 8), QByteArray("timeline"));
    EXPECT_TRUE(bytes.endsWith("com.Quarnely.testFileStorage"));

    // A shorter trailer truncates the file: nothing of the old tail remains.
    ASSERT_TRUE(storage->updateFiletrailer(QByteArray("t")));
    auto reopened = open(path);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->filetrailerData(), QByteArray("t"));
    EXPECT_EQ(reopened->blockDataCount(), 3);
    EXPECT_LT(fileBytes(path).size(), bytes.size());
}

TEST(KRFileStorageTest, IndexesOutsideTheBlocksAndAnEmptyTrailerGiveNothing)
{
    const QString path = containerPath(QStringLiteral("ranges"));
    auto storage = open(path);
    ASSERT_TRUE(storage);
    EXPECT_FALSE(storage->filetrailerData());
    ASSERT_TRUE(storage->appendBlockData(QByteArray("only")));
    auto reopened = open(path);
    ASSERT_TRUE(reopened);
    EXPECT_FALSE(reopened->filetrailerData());
    LogCapture log;
    EXPECT_FALSE(reopened->blockDataAtIndex(1));
    EXPECT_FALSE(reopened->blockDataAtIndex(-1));
    EXPECT_TRUE(log.contains(QStringLiteral("Out of block range.")));
}

TEST(KRFileStorageTest, AnotherIdentifierOrBytesAfterItAreNotAContainer)
{
    const QByteArray good = fileBytes(writeContainer(QStringLiteral("identifier")));
    QByteArray otherType = good;
    otherType.replace("testFileStorage", "xestFileStorage");
    const QByteArray cases[] = {otherType, good + 'x', QByteArray("tiny")};
    for (const QByteArray& bytes : cases) {
        const QString path = containerPath(QStringLiteral("identifier-case"));
        ASSERT_TRUE(writeBytes(path, bytes));
        LogCapture log;
        EXPECT_FALSE(open(path));
        EXPECT_TRUE(log.contains(QStringLiteral("Invalid file type, can't recognize.")));
    }
}

TEST(KRFileStorageTest, SizesThatDoNotAddUpToTheFileAreRefusedWithoutWrapping)
{
    const QByteArray good = fileBytes(writeContainer(QStringLiteral("sizes")));
    const qsizetype sizeAt = good.size() - qsizetype(KRFileStorage::lengthOfFileStorageUTI()) - 8;
    const auto withSize = [&](quint64 size) {
        QByteArray bytes = good;
        qToLittleEndian<quint64>(size, bytes.data() + sizeAt);
        return bytes;
    };
    const QByteArray cases[] = {
        // One byte inside the data area: the sum is one short of the file.
        good.left(5) + 'x' + good.mid(5),
        withSize(~quint64(0)),
        withSize(quint64(sizeAt) + 1),
        withSize(3),
        // A trailer entry that starts before the file.
        withStructure(good, {KRFileBlockInfo(0, 11), KRFileBlockInfo(-8, 3020)}),
        // A structure list with no entries at all.
        withStructure(good, {}),
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const QString path = containerPath(QStringLiteral("sizes-case"));
        ASSERT_TRUE(writeBytes(path, cases[i]));
        LogCapture log;
        EXPECT_FALSE(open(path));
        EXPECT_TRUE(log.contains(QStringLiteral("Destroy file, can't read.")));
    }
}

TEST(KRFileStorageTest, ABlockEntryPointingOutsideTheDataIsNotRead)
{
    const QByteArray good = fileBytes(writeContainer(QStringLiteral("block-range")));
    const QString path = containerPath(QStringLiteral("block-range-bad"));
    // Trailer entry as written (offset 3012, length 8); blocks that overlap it,
    // run past it or have a negative length.
    ASSERT_TRUE(writeBytes(path, withStructure(good, {KRFileBlockInfo(3000, 100), KRFileBlockInfo(5, -1),
                                                      KRFileBlockInfo(INT64_MAX, INT64_MAX), KRFileBlockInfo(3012, 8)})));
    auto storage = open(path);
    ASSERT_TRUE(storage);
    ASSERT_EQ(storage->blockDataCount(), 3);
    for (int64_t i = 0; i < 3; ++i)
        EXPECT_FALSE(storage->blockDataAtIndex(i)) << i;
    EXPECT_EQ(storage->filetrailerData(), QByteArray("timeline"));
}
