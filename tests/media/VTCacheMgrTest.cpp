#include "media/VTCacheMgr.h"

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

void touch(const QString& path)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
}

QString scratch(const char* name)
{
    return TestEnvironment::current().makeScratchDirectory(QString::fromLatin1(name));
}

}  // namespace

TEST(VTCacheMgrTest, takenNamesAreFollowedByNumberedCandidatesWithoutCreatingFiles)
{
    const QString dir = scratch("cachemgr-numbered");
    const VTCacheMgr manager(QUrl::fromLocalFile(dir));

    const QString first = manager.createUniformURLWithName(QStringLiteral("clip"), QStringLiteral("medialibrary"));
    EXPECT_EQ(first, dir + QStringLiteral("/clip.medialibrary"));
    EXPECT_FALSE(QFileInfo::exists(first));
    EXPECT_EQ(manager.createUniformURLWithName(QStringLiteral("clip"), QStringLiteral("medialibrary")), first);

    touch(first);
    const QString second = manager.createUniformURLWithName(QStringLiteral("clip"), QStringLiteral("medialibrary"));
    EXPECT_EQ(second, dir + QStringLiteral("/clip 1.medialibrary"));
    touch(second);
    EXPECT_EQ(manager.createUniformURLWithName(QStringLiteral("clip"), QStringLiteral("medialibrary")),
              dir + QStringLiteral("/clip 2.medialibrary"));
}

TEST(VTCacheMgrTest, subPathIsCreatedAndMissingNameOrExtensionGetDefaults)
{
    const QString dir = scratch("cachemgr-defaults");
    const VTCacheMgr manager(QUrl::fromLocalFile(dir));

    const QString inSub = manager.createUniformURLWithName(QStringLiteral("a"), QStringLiteral("x"), QStringLiteral("sub/deeper"));
    EXPECT_EQ(inSub, dir + QStringLiteral("/sub/deeper/a.x"));
    EXPECT_TRUE(QFileInfo(dir + QStringLiteral("/sub/deeper")).isDir());

    EXPECT_EQ(manager.createUniformURLWithName(QStringLiteral("plain"), QString()), dir + QStringLiteral("/plain"));

    const QString dated = manager.createUNiformURLWithExtension(QStringLiteral("temp"));
    EXPECT_TRUE(dated.startsWith(dir + QLatin1Char('/')));
    EXPECT_TRUE(dated.endsWith(QStringLiteral(".temp")));
    EXPECT_GT(QFileInfo(dated).completeBaseName().size(), 10);
}

TEST(VTCacheMgrTest, reservationCreatesTheFileAndNeverHandsOutOneNameTwiceUnderContention)
{
    const QString dir = scratch("cachemgr-reserve");
    const VTCacheMgr manager(QUrl::fromLocalFile(dir));
    constexpr int kThreads = 8;
    constexpr int kPerThread = 5;
    std::mutex mutex;
    std::vector<QString> paths;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kPerThread; ++i) {
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
    EXPECT_EQ(distinct.size(), kThreads * kPerThread);
    EXPECT_TRUE(distinct.contains(dir + QStringLiteral("/song.medialibrary")));
    EXPECT_TRUE(distinct.contains(dir + QStringLiteral("/song 39.medialibrary")));
}

TEST(VTCacheMgrTest, reservationInAnUnwritableFolderAnswersEmptyInsteadOfLooping)
{
    const VTCacheMgr manager(QUrl::fromLocalFile(QStringLiteral("/proc/brindle-no-such-folder")));
    EXPECT_TRUE(manager.reserveUniformPathWithName(QStringLiteral("x"), QStringLiteral("y"), QString()).isEmpty());
}

TEST(VTCacheMgrTest, searchDirectoryManagersUseTheBundleFolderInsideTheUsersFolder)
{
    const VTCacheMgr support(brindle::SearchDirectory::ApplicationSupport);
    const QString expected = brindle::searchPathForDirectory(brindle::SearchDirectory::ApplicationSupport) +
                             QStringLiteral("/com.tarnwell.brindle");
    EXPECT_EQ(QDir::cleanPath(support.url().toLocalFile()), QDir::cleanPath(expected));
    EXPECT_TRUE(QFileInfo(expected).isDir());
    EXPECT_TRUE(expected.startsWith(TestEnvironment::current().root()));

    const QString caches = VTCacheMgr::shareCacheMgr().url().toLocalFile();
    EXPECT_TRUE(caches.endsWith(QStringLiteral("com.tarnwell.brindle")));
    EXPECT_EQ(&VTCacheMgr::shareCacheMgr(), &VTCacheMgr::shareCacheMgr());
}
