#include "media/VTWaveBufferMgr.h"

#include <gtest/gtest.h>

TEST(VTWaveBufferMgrTest, removingOnlyEmptiesTheBufferSoTheSameObjectComesBack)
{
    VTWaveBufferMgr manager;
    auto first = manager.dataBufferWithIdentifier(QStringLiteral("a"));
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->isEmpty());
    first->append("samples");
    EXPECT_EQ(manager.dataBufferWithIdentifier(QStringLiteral("a")), first);

    manager.removeDataBufferWithIdentifier(QStringLiteral("a"));
    auto again = manager.dataBufferWithIdentifier(QStringLiteral("a"));
    EXPECT_EQ(again, first);
    EXPECT_TRUE(again->isEmpty());

    manager.removeDataBufferWithIdentifier(QStringLiteral("never registered"));
}

TEST(VTWaveBufferMgrTest, clearingEmptiesEveryBufferAndKeepsTheEntries)
{
    auto& manager = VTWaveBufferMgr::shareWaveBufferMgr();
    EXPECT_EQ(&manager, &VTWaveBufferMgr::shareWaveBufferMgr());
    auto a = manager.dataBufferWithIdentifier(QStringLiteral("clear-a"));
    auto b = manager.dataBufferWithIdentifier(QStringLiteral("clear-b"));
    a->append("1");
    b->append("22");
    manager.clearDataBuffer();
    EXPECT_TRUE(a->isEmpty());
    EXPECT_TRUE(b->isEmpty());
    EXPECT_EQ(manager.dataBufferWithIdentifier(QStringLiteral("clear-b")), b);
}
