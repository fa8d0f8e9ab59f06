// The small archive at the front of a project document that names the file's
// generation.
//
// Contract
// - Three read-only strings: `projectInfoIDs` (the format identifier
//   "com.tarnwell.project.document.3.0.0" when saving), `version` (the
//   application's short version) and `copyright` (its copyright line).
//   Only `projectInfoIDs` is checked when a file is read.
// - `currentProjectInfo` is one shared instance, made once, thread-safely.
// - Keyed coding, class "VTProjectInfo": "_projectInfoIDs", "_version",
//   "_copyright". A missing string decodes as empty (so an info without an
//   identifier names no known format).
// - Immutable, so it may be shared between threads.
#pragma once

#include "foundation/KeyedCoding.h"

#include <QString>

#include <memory>

class VTProjectInfo final : public brindle::KeyedCoding {
public:
    // The identifier of the current document format.
    static const QString& currentFormatIdentifier();

    // initWithProjectInfoID: with the current format identifier.
    VTProjectInfo();
    // Stores the identifier and reads the application's version and copyright.
    explicit VTProjectInfo(QString projectInfoID);
    static std::shared_ptr<const VTProjectInfo> currentProjectInfo();

    const QString& projectInfoIDs() const { return m_projectInfoIDs; }
    const QString& version() const { return m_version; }
    const QString& copyright() const { return m_copyright; }

    static QStringList archiveClassNames();
    static std::shared_ptr<VTProjectInfo> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    VTProjectInfo(QString projectInfoID, QString version, QString copyright);

    QString m_projectInfoIDs;
    QString m_version;
    QString m_copyright;
};
