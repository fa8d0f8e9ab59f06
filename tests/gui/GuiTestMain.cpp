// Test main for widget and GL tests: fresh XDG folders (as every test has),
// Mesa's software GL, and a QApplication on an X display. Without a display
// the process runs itself again under `xvfb-run`, so that the tests work the
// same from ctest, from a shell and in CI (where the whole run already has one).
#include "support/TestEnvironment.h"

#include <QApplication>
#include <QByteArray>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace {

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer exempts the X, GL and Qt GUI libraries (tests/tsan.supp)
// but stops the process when an exempted library is unloaded, and Mesa
// unloads its GLX vendor library and driver (with the libraries they
// brought in) when the last GL context goes. Loading them once more, never
// to be unloaded, keeps them in place for the whole run.
void keepGLDriverLoaded()
{
    for (const char* path : {"libGLX_mesa.so.0", "/usr/lib/x86_64-linux-gnu/dri/swrast_dri.so"})
        ::dlopen(path, RTLD_LAZY | RTLD_LOCAL | RTLD_NODELETE);
}
#else
void keepGLDriverLoaded() {}
#endif

// Replaces this process with `xvfb-run -a -s "-screen 0 1600x1000x24" <argv>`.
int rerunUnderXvfb(const std::vector<char*>& arguments)
{
    std::vector<char*> command = {const_cast<char*>("xvfb-run"), const_cast<char*>("-a"), const_cast<char*>("-s"),
                                  const_cast<char*>("-screen 0 1600x1000x24")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    command.push_back(nullptr);
    ::execvp("xvfb-run", command.data());
    std::perror("GUI tests need an X display, and xvfb-run could not be started");
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<char*> originalArguments(argv, argv + argc);
    testing::InitGoogleTest(&argc, argv);
    if (GTEST_FLAG_GET(list_tests))
        return RUN_ALL_TESTS();
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return rerunUnderXvfb(originalArguments);

    qputenv("LIBGL_ALWAYS_SOFTWARE", "1");
    qputenv("QT_QPA_PLATFORM", "xcb");
    keepGLDriverLoaded();
    brindle::test::TestEnvironment environment;
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
