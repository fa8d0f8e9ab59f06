#include "foundation/VTBaseDefine.h"

#include "foundation/Identifiers.h"

QString VTBaseDefine::uuidString()
{
    return brindle::newUUIDString();
}

QString VTBaseDefine::stringFromCurrentDateWithFormat(const QString& pattern)
{
    return brindle::formatCurrentDateWithPattern(pattern);
}

QString VTBaseDefine::stringFromCurrentDate()
{
    return stringFromCurrentDateWithFormat(QStringLiteral("yyyy-MM-dd hh-mm-ss zzz"));
}
