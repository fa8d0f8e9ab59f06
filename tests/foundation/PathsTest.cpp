#include "foundation/Paths.h"

#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>

using namespace brindle;

TEST(PathsTest, SearchPathsAreTheXdgBaseFoldersWithoutTheBundleIdentifier)
{
    const QString root = test::TestEnvironment::current().root();
    EXPECT_EQ(searchPathForDirectory(SearchDirectory::Caches), root + QStringLiteral("/cache"));
    EXPECT_EQ(searchPathForDirectory(SearchDirectory::ApplicationSupport), root + QStringLiteral("/data"));
    EXPECT_EQ(bundleIdentifier(), QStringLiteral("com.tarnwell.brindle"));
    EXPECT_TRUE(QFileInfo(temporaryDirectory()).isDir());
}

TEST(PathsTest, FoldersAreMadeWithTheirParentsAndAnswerFalseOnlyWhenTheyCannotExist)
{
    const QString base = test::TestEnvironment::current().makeScratchDirectory(QStringLiteral("paths"));
    const QString deep = base + QStringLiteral("/a/b/c/") + bundleIdentifier();
    EXPECT_TRUE(createDirectoryWithIntermediates(deep));
    EXPECT_TRUE(QFileInfo(deep).isDir());
    EXPECT_TRUE(createDirectoryWithIntermediates(deep));

    QFile file(base + QStringLiteral("/plain"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    EXPECT_FALSE(createDirectoryWithIntermediates(file.fileName()));
    EXPECT_FALSE(createDirectoryWithIntermediates(file.fileName() + QStringLiteral("/below")));
    EXPECT_FALSE(createDirectoryWithIntermediates(QString()));
}
