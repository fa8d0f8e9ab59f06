#include "media/VTDataBuffer.h"

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

TEST(VTDataBufferTest, readsServeHeldBytesBeforeTheFirstFlushAndStraddleFileAndHeldBytes)
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
    // Longer than what is left: the rest, never padded.
    EXPECT_EQ(buffer.readDataBuffer(uint64_t(1) << 40, inFile - 7), pattern(inFile - 7, 507));
    EXPECT_EQ(buffer.readDataBuffer(~uint64_t(0), inFile + 499), pattern(inFile + 499, 1));

    buffer.flushCacheDataBuffer();
    EXPECT_EQ(buffer.heldLength(), 0);
    EXPECT_EQ(buffer.length(), uint64_t(inFile + 500));
    EXPECT_EQ(buffer.readDataBuffer(20, inFile + 490), pattern(inFile + 490, 10));
}

TEST(VTDataBufferTest, readingAtOrPastTheEndAnswersNothingAndLogs)
{
    VTDataBuffer buffer(freshFile("databuffer-end"));
    buffer.writeDataBuffer(pattern(0, 64));
    LogCapture log;
    EXPECT_TRUE(buffer.readDataBuffer(10, 64).isEmpty());
    EXPECT_TRUE(buffer.readDataBuffer(10, ~uint64_t(0)).isEmpty());
    EXPECT_EQ(log.lines(), QStringList(2, QStringLiteral("reach to end of data buffer.")));
}

TEST(VTDataBufferTest, clearCacheEmptiesHeldBytesAndTheFileButKeepsIt)
{
    VTDataBuffer buffer(freshFile("databuffer-clear"));
    buffer.writeDataBuffer(pattern(0, kLimit + 10));
    buffer.writeDataBuffer(pattern(0, 10));
    buffer.clearCache();
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_EQ(buffer.heldLength(), 0);
    EXPECT_TRUE(QFileInfo::exists(buffer.cachePathFile()));
    buffer.writeDataBuffer(pattern(5, 3));
    EXPECT_EQ(buffer.readDataBuffer(3, 0), pattern(5, 3));
}

TEST(VTDataBufferTest, existingFilesAreKeptAndDefaultBuffersLiveInTheCachesFolder)
{
    const QString path = freshFile("databuffer-existing");
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("abc");
    }
    VTDataBuffer buffer(path);
    EXPECT_EQ(buffer.length(), 3u);
    EXPECT_EQ(buffer.pathfile(), path);

    VTDataBuffer temporary;
    EXPECT_TRUE(temporary.cachePathFile().startsWith(VTDataBuffer::cachePath() + QLatin1Char('/')));
    EXPECT_TRUE(temporary.cachePathFile().endsWith(QStringLiteral(".temp")));
    EXPECT_TRUE(VTDataBuffer::cachePath().endsWith(QStringLiteral("/com.tarnwell.brindle")));
    EXPECT_TRUE(QFileInfo::exists(temporary.cachePathFile()));
    EXPECT_TRUE(temporary.dataBufferQueue().label().endsWith(QStringLiteral(": databuffer")));
    EXPECT_EQ(&temporary.dataBufferQueue(), &temporary.dataBufferQueue());
}

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

    ASSERT_TRUE(QFile::remove(path));
    LogCapture log;
    EXPECT_FALSE(brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTDataBuffer>(archive));
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: miss cache file(%1).").arg(path)));
    EXPECT_FALSE(QFileInfo::exists(path));
}
