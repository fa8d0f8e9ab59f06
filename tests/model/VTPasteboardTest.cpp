#include "model/VTPasteboard.h"

#include <gtest/gtest.h>

TEST(VTPasteboardTest, declaringTypesClearsTheContentsAndOnlyDeclaredTypesTakeData)
{
    brindle::MemoryPasteboard pasteboard;
    EXPECT_TRUE(pasteboard.types().isEmpty());
    pasteboard.declareTypes({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("a")});
    EXPECT_EQ(pasteboard.types(), (QStringList{QStringLiteral("a"), QStringLiteral("b")}));
    EXPECT_TRUE(pasteboard.setData("one", QStringLiteral("a")));
    EXPECT_FALSE(pasteboard.setData("two", QStringLiteral("c")));
    EXPECT_EQ(pasteboard.dataForType(QStringLiteral("a")), QByteArray("one"));
    EXPECT_FALSE(pasteboard.dataForType(QStringLiteral("b")));
    pasteboard.declareTypes({QStringLiteral("b")});
    EXPECT_FALSE(pasteboard.dataForType(QStringLiteral("a")));
}

TEST(VTPasteboardTest, theGeneralPasteboardIsTheInstalledOneOrAProcessDefault)
{
    auto fallback = VTPasteboard::generalPasteboard();
    ASSERT_TRUE(fallback);
    EXPECT_EQ(VTPasteboard::generalPasteboard(), fallback);
    auto mine = std::make_shared<brindle::MemoryPasteboard>();
    VTPasteboard::setGeneralPasteboard(mine);
    EXPECT_EQ(VTPasteboard::generalPasteboard(), mine);
    VTPasteboard::setGeneralPasteboard(nullptr);
    EXPECT_NE(VTPasteboard::generalPasteboard(), mine);
}
