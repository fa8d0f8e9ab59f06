#include "projectfile/KRFileBlockInfo.h"

namespace {
const QString kOffsetKey = QStringLiteral("KRFileBlockOffset");
const QString kLengthKey = QStringLiteral("KRFileBlockLength");
}  // namespace

QStringList KRFileBlockInfo::archiveClassNames()
{
    return {QStringLiteral("KRFileBlockInfo")};
}

std::shared_ptr<KRFileBlockInfo> KRFileBlockInfo::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    return std::make_shared<KRFileBlockInfo>(coder.decodeInt64ForKey(kOffsetKey), coder.decodeInt64ForKey(kLengthKey));
}

QString KRFileBlockInfo::classNameForArchive() const
{
    return QStringLiteral("KRFileBlockInfo");
}

void KRFileBlockInfo::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeInt64(m_offset, kOffsetKey);
    coder.encodeInt64(m_length, kLengthKey);
}
