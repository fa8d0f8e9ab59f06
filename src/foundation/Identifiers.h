// UUIDs and date texts.
#pragma once

#include <QString>

#include <cstdint>

namespace brindle {

// A new UUID in upper-case canonical 36-character text.
QString newUUIDString();
// The current date and time formatted with a Unicode (ICU) date pattern, in the
// default time zone and locale: "zzz" is a zone name, "hh" the 12-hour clock.
// An invalid pattern gives an empty string and a log line.
QString formatCurrentDateWithPattern(const QString& unicodePattern);
// As above for a given instant (milliseconds since 1970-01-01 UTC) and, when
// `timeZoneID` is not empty, an Olson zone ("UTC", "Europe/Berlin") instead of
// the default zone. An unknown zone gives an empty string and a log line.
QString formatDateWithPattern(const QString& unicodePattern, int64_t millisecondsSinceEpoch,
                              const QString& timeZoneID = QString());
// The current date and time formatted with a strftime pattern ("%Y-%m-%d …"),
// in local time.
QString formatCurrentDateWithStrftime(const char* pattern);

}  // namespace brindle
