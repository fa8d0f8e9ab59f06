#include "projectfile/VTProjectInfo.h"

#include "BuildInfo.h"

namespace {
const QString kProjectInfoIDsKey = QStringLiteral("_projectInfoIDs");
const QString kVersionKey = QStringLiteral("_version");
const QString kCopyrightKey = QStringLiteral("_copyright");
}  // namespace

const QString& VTProjectInfo::currentFormatIdentifier()
{
    static const QString identifier = QStringLiteral("com.tarnwell.project.document.3.0.0");
    return identifier;
}

VTProjectInfo::VTProjectInfo() : VTProjectInfo(currentFormatIdentifier()) {}

VTProjectInfo::VTProjectInfo(QString projectInfoID)
    : VTProjectInfo(std::move(projectInfoID), QString::fromUtf8(brindle::buildinfo::kShortVersion),
                    QString::fromUtf8(brindle::buildinfo::kCopyright))
{
}

VTProjectInfo::VTProjectInfo(QString projectInfoID, QString version, QString copyright)
    : m_projectInfoIDs(std::move(projectInfoID)), m_version(std::move(version)), m_copyright(std::move(copyright))
{
}

std::shared_ptr<const VTProjectInfo> VTProjectInfo::currentProjectInfo()
{
    static const std::shared_ptr<const VTProjectInfo> shared = std::make_shared<const VTProjectInfo>();
    return shared;
}

QStringList VTProjectInfo::archiveClassNames()
{
    return {QStringLiteral("VTProjectInfo")};
}

std::shared_ptr<VTProjectInfo> VTProjectInfo::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    return std::shared_ptr<VTProjectInfo>(new VTProjectInfo(coder.decodeStringForKey(kProjectInfoIDsKey).value_or(QString()),
                                                            coder.decodeStringForKey(kVersionKey).value_or(QString()),
                                                            coder.decodeStringForKey(kCopyrightKey).value_or(QString())));
}

QString VTProjectInfo::classNameForArchive() const
{
    return QStringLiteral("VTProjectInfo");
}

void VTProjectInfo::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeString(m_projectInfoIDs, kProjectInfoIDsKey);
    coder.encodeString(m_version, kVersionKey);
    coder.encodeString(m_copyright, kCopyrightKey);
}
