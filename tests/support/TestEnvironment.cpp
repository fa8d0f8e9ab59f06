#include "support/TestEnvironment.h"

#include <QDir>

#include <cstdlib>

namespace brindle::test {

namespace {
TestEnvironment* g_current = nullptr;

void pointAt(const char* variable, const QString& path)
{
    QDir().mkpath(path);
    ::setenv(variable, path.toUtf8().constData(), 1);
}
}  // namespace

TestEnvironment::TestEnvironment()
    : m_dir(QDir::tempPath() + QStringLiteral("/brindle-test-XXXXXX"))
{
    // A test that starts a second process of itself hands it its own folders
    // (kSharedHomeVariable), so that both see the same settings and caches.
    const QString shared = qEnvironmentVariable(kSharedHomeVariable);
    const QString home = shared.isEmpty() ? m_dir.path() : shared;
    pointAt("XDG_CONFIG_HOME", home + QStringLiteral("/config"));
    pointAt("XDG_DATA_HOME", home + QStringLiteral("/data"));
    pointAt("XDG_CACHE_HOME", home + QStringLiteral("/cache"));
    g_current = this;
}

TestEnvironment::~TestEnvironment()
{
    g_current = nullptr;
}

TestEnvironment& TestEnvironment::current()
{
    return *g_current;
}

QString TestEnvironment::makeScratchDirectory(const QString& name) const
{
    QString path = m_dir.path() + QStringLiteral("/scratch/") + name;
    QDir(path).removeRecursively();
    QDir().mkpath(path);
    return path;
}

}  // namespace brindle::test
