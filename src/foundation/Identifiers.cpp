#include "foundation/Identifiers.h"

#include "foundation/Log.h"

#include <QDateTime>
#include <QUuid>

#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <ctime>
#include <memory>
#include <vector>

namespace brindle {

namespace {

icu::UnicodeString toUnicodeString(const QString& text)
{
    return icu::UnicodeString(reinterpret_cast<const UChar*>(text.constData()), static_cast<int32_t>(text.size()));
}

QString fromUnicodeString(const icu::UnicodeString& text)
{
    return QString(reinterpret_cast<const QChar*>(text.getBuffer()), text.length());
}

}  // namespace

QString newUUIDString()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

QString formatCurrentDateWithPattern(const QString& unicodePattern)
{
    return formatDateWithPattern(unicodePattern, QDateTime::currentMSecsSinceEpoch());
}

QString formatDateWithPattern(const QString& unicodePattern, int64_t millisecondsSinceEpoch,
                              const QString& timeZoneID)
{
    UErrorCode status = U_ZERO_ERROR;
    // A new formatter per call, in the default locale and zone.
    icu::SimpleDateFormat formatter(toUnicodeString(unicodePattern), status);
    if (U_FAILURE(status)) {
        logf("Date format: cannot use the pattern \"%s\" (%s)", qUtf8Printable(unicodePattern), u_errorName(status));
        return {};
    }
    if (!timeZoneID.isEmpty()) {
        std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(toUnicodeString(timeZoneID)));
        if (!zone || *zone == icu::TimeZone::getUnknown()) {
            logf("Date format: unknown time zone \"%s\"", qUtf8Printable(timeZoneID));
            return {};
        }
        formatter.adoptTimeZone(zone.release());
    }
    // Some pattern letters are only refused when formatting ("j").
    icu::UnicodeString text;
    formatter.format(static_cast<UDate>(millisecondsSinceEpoch), text, nullptr, status);
    if (U_FAILURE(status)) {
        logf("Date format: cannot format with the pattern \"%s\" (%s)", qUtf8Printable(unicodePattern),
             u_errorName(status));
        return {};
    }
    return fromUnicodeString(text);
}

QString formatCurrentDateWithStrftime(const char* pattern)
{
    if (!pattern) {
        log(QStringLiteral("Date format: no strftime pattern given"));
        return {};
    }
    if (*pattern == '\0')
        return {};
    const std::time_t now = std::time(nullptr);
    std::tm local {};
    if (!localtime_r(&now, &local)) {
        log(QStringLiteral("Date format: cannot convert the current time to local time"));
        return {};
    }
    // strftime answers 0 both when the buffer is too small and when the text
    // is legitimately empty ("%p" in some locales): grow a few times, then give up.
    for (size_t capacity = 128; capacity <= 64 * 1024; capacity *= 8) {
        std::vector<char> buffer(capacity);
        const size_t length = std::strftime(buffer.data(), buffer.size(), pattern, &local);
        if (length > 0)
            return QString::fromLocal8Bit(buffer.data(), static_cast<qsizetype>(length));
    }
    return {};
}

}  // namespace brindle
