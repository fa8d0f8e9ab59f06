#include "media/VTDataBuffer.h"
#include "media/VTWaveBufferMgr.h"

#include "LogCapture.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using brindle::test::LogCapture;
using brindle::test::TestEnvironment;

namespace {

constexpr qsizetype kLimit = 8388608;  // 8 MiB, the largest amount held in memory

// `count` bytes of a pattern that identifies every position of the stream.
QByteArray pattern(qsizetype start, qsizetype count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (qsizetype i = 0; i < count; ++i)
        bytes[i] = char(((start + i) * 131 + (start + i) / 251) & 0xff);
    return bytes;
}

QString freshFile(const char* name)
{
    return TestEnvironment::current().makeScratchDirectory(QString::fromLatin1(name)) + QStringLiteral("/buffer.bin");
}

}  // namespace

TEST(VTDataBufferTest, holdsUpToEightMebibytesInclusiveAndWritesEverythingOnTheNextByte)
{
    VTDataBuffer buffer(freshFile("databuffer-limit"));
    EXPECT_TRUE(QFileInfo::exists(buffer.cachePathFile()));
    ASSERT_TRUE(buffer.writeDataBuffer(pattern(0, kLimit - 1)));
    ASSERT_TRUE(buffer.writeDataBuffer(pattern(kLimit - 1, 1)));
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_EQ(buffer.heldLength(), kLimit);
    ASSERT_TRUE(buffer.writeDataBuffer(pattern(kLimit, 1)));
    EXPECT_EQ(buffer.length(), uint64_t(kLimit + 1));
    EXPECT_EQ(buffer.heldLength(), 0);
    EXPECT_EQ(buffer.readDataBuffer(kLimit + 1, 0), pattern(0, kLimit + 1));
}

// Reads serve held bytes before the first flush, straddle file and held
// bytes, answer the rest (never padded) when asked for more, and nothing,
// with a log line, at or past the end.
TEST(VTDataBufferTest, readsStraddleFileAndHeldBytesAndStopAtTheEnd)
{
    VTDataBuffer buffer(freshFile("databuffer-straddle"));
    buffer.writeDataBuffer(pattern(0, 1000));
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_EQ(buffer.readDataBuffer(1000, 0), pattern(0, 1000));
    EXPECT_EQ(buffer.readDataBuffer(10, 995), pattern(995, 5));

    // One write over the limit puts everything in the file; later bytes are held.
    buffer.writeDataBuffer(pattern(1000, kLimit));
    const qsizetype inFile = kLimit + 1000;
    ASSERT_EQ(buffer.length(), uint64_t(inFile));
    buffer.writeDataBuffer(pattern(inFile, 500));
    ASSERT_EQ(buffer.heldLength(), 500);
    EXPECT_EQ(buffer.readDataBuffer(300, inFile - 100), pattern(inFile - 100, 300));
    EXPECT_EQ(buffer.readDataBuffer(50, inFile + 10), pattern(inFile + 10, 50));
    EXPECT_EQ(buffer.readDataBuffer(uint64_t(1) << 40, inFile - 7), pattern(inFile - 7, 507));
    EXPECT_EQ(buffer.readDataBuffer(~uint64_t(0), inFile + 499), pattern(inFile + 499, 1));
    {
        LogCapture log;
        EXPECT_TRUE(buffer.readDataBuffer(10, inFile + 500).isEmpty());
        EXPECT_TRUE(buffer.readDataBuffer(10, ~uint64_t(0)).isEmpty());
        EXPECT_EQ(log.lines(), QStringList(2, QStringLiteral("reach to end of data buffer.")));
    }
    buffer.flushCacheDataBuffer();
    EXPECT_EQ(buffer.heldLength(), 0);
    EXPECT_EQ(buffer.length(), uint64_t(inFile + 500));
    EXPECT_EQ(buffer.readDataBuffer(20, inFile + 490), pattern(inFile + 490, 10));

    // Clearing empties held bytes and the file but keeps it.
    buffer.writeDataBuffer(pattern(0, 10));
    buffer.clearCache();
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_EQ(buffer.heldLength(), 0);
    EXPECT_TRUE(QFileInfo::exists(buffer.cachePathFile()));
    buffer.writeDataBuffer(pattern(5, 3));
    EXPECT_EQ(buffer.readDataBuffer(3, 0), pattern(5, 3));
}

// Archiving flushes held bytes; the file is kept by the archive and by a
// buffer made on it, and unarchiving needs it.
TEST(VTDataBufferTest, archivingFlushesHeldBytesAndUnarchivingNeedsTheFile)
{
    const QString path = freshFile("databuffer-coding");
    auto buffer = VTDataBuffer::initWithCacheFile(path);
    buffer->writeDataBuffer(pattern(0, 100));
    const QByteArray archive = brindle::KeyedArchiver::archivedDataWithRootObject(buffer);
    EXPECT_EQ(buffer->length(), 100u);
    EXPECT_EQ(buffer->heldLength(), 0);
    auto decoded = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTDataBuffer>(archive);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->cachePathFile(), path);
    EXPECT_EQ(decoded->readDataBuffer(100, 0), pattern(0, 100));
    EXPECT_EQ(VTDataBuffer(path).length(), 100u);

    ASSERT_TRUE(QFile::remove(path));
    LogCapture log;
    EXPECT_FALSE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTDataBuffer>(archive));
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: miss cache file(%1).").arg(path)));
    EXPECT_FALSE(QFileInfo::exists(path));
}

// Removing a wave buffer, or clearing them all, only empties it, so the same
// object comes back for its identifier.
TEST(VTWaveBufferMgrTest, removingOrClearingOnlyEmptiesBuffersSoTheSameObjectsComeBack)
{
    VTWaveBufferMgr& manager = VTWaveBufferMgr::shareWaveBufferMgr();
    auto a = manager.dataBufferWithIdentifier(QStringLiteral("a"));
    auto b = manager.dataBufferWithIdentifier(QStringLiteral("b"));
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(a->isEmpty());
    a->append("samples");
    b->append("22");
    EXPECT_EQ(manager.dataBufferWithIdentifier(QStringLiteral("a")), a);
    manager.removeDataBufferWithIdentifier(QStringLiteral("a"));
    manager.removeDataBufferWithIdentifier(QStringLiteral("never registered"));
    EXPECT_EQ(manager.dataBufferWithIdentifier(QStringLiteral("a")), a);
    EXPECT_TRUE(a->isEmpty());
    EXPECT_EQ(*b, QByteArray("22"));
    a->append("1");
    manager.clearDataBuffer();
    EXPECT_TRUE(a->isEmpty() && b->isEmpty());
    EXPECT_EQ(manager.dataBufferWithIdentifier(QStringLiteral("b")), b);
}
