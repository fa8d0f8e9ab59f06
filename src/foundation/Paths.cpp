#include "foundation/Paths.h"

#include "foundation/Log.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace brindle {

QString bundleIdentifier()
{
    return QStringLiteral("com.tarnwell.brindle");
}

QString searchPathForDirectory(SearchDirectory directory)
{
    switch (directory) {
    case SearchDirectory::Caches:
        return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    case SearchDirectory::ApplicationSupport:
        return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    }
    logf("searchPathForDirectory: unknown directory %d", static_cast<int>(directory));
    return {};
}

QString temporaryDirectory()
{
    return QDir::tempPath();
}

bool createDirectoryWithIntermediates(const QString& path)
{
    if (path.isEmpty()) {
        log(QStringLiteral("createDirectoryWithIntermediates: empty path"));
        return false;
    }
    if (!QDir().mkpath(path))
        logf("createDirectoryWithIntermediates: cannot create %s", qUtf8Printable(path));
    return QFileInfo(path).isDir();
}

}  // namespace brindle
