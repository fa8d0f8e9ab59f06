// UUIDs and date texts.
#pragma once

#include <QString>

namespace brindle {

// A new UUID in upper-case canonical 36-character text.
QString newUUIDString();
// The current date and time formatted with a Unicode (ICU) date pattern, in the
// default time zone and locale: "zzz" is a zone name, "hh" the 12-hour clock.
QString formatCurrentDateWithPattern(const QString& unicodePattern);
// The current date and time formatted with a strftime pattern ("%Y-%m-%d …").
QString formatCurrentDateWithStrftime(const char* pattern);

}  // namespace brindle
