// Where cache files live, and file names there that do not collide.
//
// Contract
// - `url` is the base directory, fixed at construction. Managers made on a
//   search directory use "<the user's folder>/com.tarnwell.brindle" (Caches is
//   the XDG cache home, Application Support the XDG data home), created with
//   intermediate folders if missing; errors are ignored.
// - `createUniformURLWithName(name, extension, subPath)` answers a path
//   string (not a URL) at which no file exists, without creating it:
//   "<dir>/<name>.<extension>", then "<dir>/<name> 1.<extension>",
//   "<dir>/<name> 2.<extension>", … A null name stands for the current date
//   text (VTBaseDefine::stringFromCurrentDate), a null extension for "".
//   A non-null sub-path is appended to the base and created if missing.
// - `reserveUniformPathWithName` walks the same candidates but takes a name
//   by creating the file exclusively (O_EXCL), so that two threads or
//   processes asking at once never receive the same path. It answers the path
//   of the new, empty file, or an empty string (with a log line) when no file
//   can be created in the directory.
// - Thread-safe: a manager is immutable after construction.
#pragma once

#include "foundation/Paths.h"

#include <QString>
#include <QUrl>

#include <memory>

class VTCacheMgr {
public:
    // initWithCacheURL: uses the directory as it is.
    explicit VTCacheMgr(const QUrl& url);
    // initWithSearchDirectory: the user's folder plus the bundle identifier.
    explicit VTCacheMgr(brindle::SearchDirectory directory);
    // init: initWithSearchDirectory on the user's Caches directory.
    VTCacheMgr();

    static std::shared_ptr<VTCacheMgr> cacheMgrWithURL(const QUrl& url);
    static std::shared_ptr<VTCacheMgr> cacheMgrWithSearchDirectory(brindle::SearchDirectory directory);
    // The process-wide manager on the Caches directory, created once.
    static VTCacheMgr& shareCacheMgr();

    const QUrl& url() const { return m_url; }

    QString createUniformURLWithName(const QString& name, const QString& extension, const QString& subPath) const;
    QString createUniformURLWithName(const QString& name, const QString& extension) const;
    QString createUNiformURLWithExtension(const QString& extension) const;

    // As createUniformURLWithName, but creates the chosen file exclusively.
    QString reserveUniformPathWithName(const QString& name, const QString& extension, const QString& subPath) const;

private:
    // The directory for a sub-path (created if needed), and the name and
    // extension with their defaults applied.
    struct Candidates {
        QString directory;
        QString name;
        QString extension;
        QString at(long n) const;  // n = 0 is the plain name
    };
    Candidates candidatesFor(const QString& name, const QString& extension, const QString& subPath) const;

    QUrl m_url;
};
