#include "media/VTCacheMgr.h"
#include "media/VTDataBuffer.h"

#include "foundation/Paths.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

using brindle::test::TestEnvironment;

namespace {

QString scratch(const char* name)
{
    return TestEnvironment::current().makeScratchDirectory(QString::fromLatin1(name));
}

}  // namespace

// Taken names are followed by numbered candidates ("clip 1"), none of them
// created; a sub-path is created; a missing extension gives none, a missing
// name a dated one.
TEST(VTCacheMgrTest, candidateNamesAreNumberedPastTakenOnesWithoutCreatingFiles)
{
    const QString dir = scratch("cachemgr-numbered");
    const VTCacheMgr manager(QUrl::fromLocalFile(dir));
    const auto candidate = [&] { return manager.createUniformURLWithName(QStringLiteral("clip"), QStringLiteral("medialibrary")); };
    for (const char* expected : {"/clip.medialibrary", "/clip 1.medialibrary", "/clip 2.medialibrary"}) {
        const QString path = candidate();
        EXPECT_EQ(path, dir + QLatin1String(expected));
        EXPECT_EQ(candidate(), path) << "not reserved";
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    }
    EXPECT_EQ(manager.createUniformURLWithName(QStringLiteral("a"), QStringLiteral("x"), QStringLiteral("sub/deeper")),
              dir + QStringLiteral("/sub/deeper/a.x"));
    EXPECT_TRUE(QFileInfo(dir + QStringLiteral("/sub/deeper")).isDir());
    EXPECT_EQ(manager.createUniformURLWithName(QStringLiteral("plain"), QString()), dir + QStringLiteral("/plain"));
    const QString dated = manager.createUNiformURLWithExtension(QStringLiteral("temp"));
    EXPECT_TRUE(dated.startsWith(dir + QLatin1Char('/')) && dated.endsWith(QStringLiteral(".temp")));
    EXPECT_GT(QFileInfo(dated).completeBaseName().size(), 10);
}

// Reservation creates the file, so threads racing for one name never get the
// same path; in a folder that cannot be written it answers empty instead of looping.
TEST(VTCacheMgrTest, reservationNeverHandsOutOneNameTwiceUnderContention)
{
    const QString dir = scratch("cachemgr-reserve");
    const VTCacheMgr manager(QUrl::fromLocalFile(dir));
    std::mutex mutex;
    std::vector<QString> paths;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5; ++i) {
                const QString path = manager.reserveUniformPathWithName(QStringLiteral("song"), QStringLiteral("medialibrary"), QString());
                std::lock_guard lock(mutex);
                paths.push_back(path);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    QSet<QString> distinct;
    for (const QString& path : paths) {
        EXPECT_TRUE(QFileInfo(path).isFile()) << path.toStdString();
        distinct.insert(path);
    }
    EXPECT_EQ(distinct.size(), 40);
    EXPECT_TRUE(distinct.contains(dir + QStringLiteral("/song.medialibrary")));
    EXPECT_TRUE(distinct.contains(dir + QStringLiteral("/song 39.medialibrary")));

    const VTCacheMgr unwritable(QUrl::fromLocalFile(QStringLiteral("/proc/brindle-no-such-folder")));
    EXPECT_TRUE(unwritable.reserveUniformPathWithName(QStringLiteral("x"), QStringLiteral("y"), QString()).isEmpty());
}

// Managers of a search directory, and data buffers without a file of their
// own, use the bundle's folder inside the person's folders, which the test
// environment keeps apart.
TEST(VTCacheMgrTest, defaultFoldersAreTheBundleFolderInsideTheUsersFolders)
{
    const VTCacheMgr support(brindle::SearchDirectory::ApplicationSupport);
    const QString expected = brindle::searchPathForDirectory(brindle::SearchDirectory::ApplicationSupport) +
                             QStringLiteral("/com.tarnwell.brindle");
    EXPECT_EQ(QDir::cleanPath(support.url().toLocalFile()), QDir::cleanPath(expected));
    EXPECT_TRUE(QFileInfo(expected).isDir());
    EXPECT_TRUE(expected.startsWith(TestEnvironment::current().root()));
    EXPECT_TRUE(VTCacheMgr::shareCacheMgr().url().toLocalFile().endsWith(QStringLiteral("com.tarnwell.brindle")));
    VTDataBuffer temporary;
    EXPECT_TRUE(VTDataBuffer::cachePath().endsWith(QStringLiteral("/com.tarnwell.brindle")));
    EXPECT_TRUE(VTDataBuffer::cachePath().startsWith(TestEnvironment::current().root()));
    EXPECT_TRUE(temporary.cachePathFile().startsWith(VTDataBuffer::cachePath() + QLatin1Char('/')));
    EXPECT_TRUE(temporary.cachePathFile().endsWith(QStringLiteral(".temp")));
    EXPECT_TRUE(QFileInfo::exists(temporary.cachePathFile()));
}
