// Test main: every test process gets fresh, empty XDG config, data and cache
// folders, so that nothing of the person's own settings or caches is read or
// written, and a Qt core application so that the main queue works.
#include "support/TestEnvironment.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    brindle::test::TestEnvironment environment;
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
