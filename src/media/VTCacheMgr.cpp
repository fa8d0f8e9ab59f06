#include "media/VTCacheMgr.h"

#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "media/CacheFileIO.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>

namespace {

// "<base>/<component>" with exactly one separator, like appending a path component.
QString appendingPathComponent(const QString& base, const QString& component)
{
    if (base.isEmpty())
        return component;
    if (base.endsWith(QLatin1Char('/')))
        return base + component;
    return base + QLatin1Char('/') + component;
}

QString directoryOfSearchPath(brindle::SearchDirectory directory)
{
    QString base = brindle::searchPathForDirectory(directory);
    if (base.startsWith(QLatin1Char('~')))
        base = QDir::homePath() + base.mid(1);
    const QString path = appendingPathComponent(base, brindle::bundleIdentifier());
    brindle::createDirectoryWithIntermediates(path);
    return path;
}

}  // namespace

VTCacheMgr::VTCacheMgr(const QUrl& url) : m_url(url) {}

VTCacheMgr::VTCacheMgr(brindle::SearchDirectory directory)
    : m_url(QUrl::fromLocalFile(directoryOfSearchPath(directory)))
{
}

VTCacheMgr::VTCacheMgr() : VTCacheMgr(brindle::SearchDirectory::Caches) {}

std::shared_ptr<VTCacheMgr> VTCacheMgr::cacheMgrWithURL(const QUrl& url)
{
    return std::make_shared<VTCacheMgr>(url);
}

std::shared_ptr<VTCacheMgr> VTCacheMgr::cacheMgrWithSearchDirectory(brindle::SearchDirectory directory)
{
    return std::make_shared<VTCacheMgr>(directory);
}

VTCacheMgr& VTCacheMgr::shareCacheMgr()
{
    static VTCacheMgr* instance = new VTCacheMgr();
    return *instance;
}

QString VTCacheMgr::Candidates::at(long n) const
{
    if (n == 0) {
        const QString file = appendingPathComponent(directory, name);
        return extension.isEmpty() ? file : file + QLatin1Char('.') + extension;
    }
    // "%@/%@ %ld.%@": one blank before the number, the dot always present.
    const QString numbered = name + QLatin1Char(' ') + QString::number(n);
    return appendingPathComponent(directory, numbered) + QLatin1Char('.') + extension;
}

VTCacheMgr::Candidates VTCacheMgr::candidatesFor(const QString& name, const QString& extension,
                                                 const QString& subPath) const
{
    Candidates candidates;
    candidates.name = name.isNull() ? VTBaseDefine::stringFromCurrentDate() : name;
    candidates.extension = extension.isNull() ? QString(QLatin1String("")) : extension;
    candidates.directory = m_url.isLocalFile() ? m_url.toLocalFile() : m_url.path();
    if (!subPath.isNull()) {
        candidates.directory = appendingPathComponent(candidates.directory, subPath);
        if (!QFileInfo::exists(candidates.directory))
            brindle::createDirectoryWithIntermediates(candidates.directory);
    }
    return candidates;
}

QString VTCacheMgr::createUniformURLWithName(const QString& name, const QString& extension,
                                             const QString& subPath) const
{
    const Candidates candidates = candidatesFor(name, extension, subPath);
    for (long n = 0;; ++n) {
        const QString path = candidates.at(n);
        if (!QFileInfo::exists(path))
            return path;
    }
}

QString VTCacheMgr::createUniformURLWithName(const QString& name, const QString& extension) const
{
    return createUniformURLWithName(name, extension, QString());
}

QString VTCacheMgr::createUNiformURLWithExtension(const QString& extension) const
{
    return createUniformURLWithName(QString(), extension, QString());
}

QString VTCacheMgr::reserveUniformPathWithName(const QString& name, const QString& extension,
                                               const QString& subPath) const
{
    const Candidates candidates = candidatesFor(name, extension, subPath);
    for (long n = 0;; ++n) {
        const QString path = candidates.at(n);
        if (brindle::cachefile::createExclusive(path))
            return path;
        if (errno != EEXIST) {
            brindle::log(QStringLiteral("Warning: can not create cache file %1: %2")
                             .arg(path, brindle::cachefile::errorText()));
            return QString();
        }
    }
}
