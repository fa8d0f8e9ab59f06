#include "foundation/Identifiers.h"
#include "foundation/VTBaseDefine.h"

#include <gtest/gtest.h>

#include <QDate>
#include <QDateTime>
#include <QRegularExpression>
#include <QSet>
#include <QTimeZone>

using namespace brindle;

TEST(IdentifiersTest, UUIDsAreUpperCaseCanonicalAndUnique)
{
    const QRegularExpression canonical(
        QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"));
    QSet<QString> seen;
    for (int i = 0; i < 500; ++i) {
        // The model's identifiers come from the same source.
        for (const QString& uuid : {newUUIDString(), VTBaseDefine::uuidString()}) {
            ASSERT_TRUE(canonical.match(uuid).hasMatch()) << qPrintable(uuid);
            seen.insert(uuid);
        }
    }
    EXPECT_EQ(seen.size(), 1000);
}

TEST(IdentifiersTest, DatesFollowTheirPatternAndZoneAndBadPatternsOrZonesGiveEmptyText)
{
    auto utc = [](int month, int day, int hour, int minute, int second) {
        return QDateTime(QDate(2021, month, day), QTime(hour, minute, second), QTimeZone::utc()).toMSecsSinceEpoch();
    };
    // "hh" is the twelve-hour clock, "zzz" the zone's name; the zone changes the wall-clock time too.
    EXPECT_EQ(formatDateWithPattern(QStringLiteral("yyyy-MM-dd hh-mm-ss zzz"), utc(3, 4, 14, 5, 9), QStringLiteral("UTC")),
              QStringLiteral("2021-03-04 02-05-09 UTC"));
    EXPECT_EQ(formatDateWithPattern(QStringLiteral("hh HH"), utc(3, 4, 0, 30, 0), QStringLiteral("UTC")),
              QStringLiteral("12 00"));
    EXPECT_EQ(formatDateWithPattern(QStringLiteral("HH:mm"), utc(7, 1, 12, 0, 0), QStringLiteral("Europe/Berlin")),
              QStringLiteral("14:00"));
    EXPECT_TRUE(formatDateWithPattern(QStringLiteral("yyyy"), 0, QStringLiteral("Not/AZone")).isEmpty());
    EXPECT_TRUE(formatDateWithPattern(QStringLiteral("yyyy j"), 0, QStringLiteral("UTC")).isEmpty());
    EXPECT_TRUE(formatCurrentDateWithStrftime(nullptr).isEmpty());

    const QString year = QString::number(QDate::currentDate().year());
    EXPECT_EQ(formatCurrentDateWithPattern(QStringLiteral("yyyy")), year);
    EXPECT_EQ(formatCurrentDateWithStrftime("%Y"), year);
    // Longer than any first guess at the buffer size.
    const QString repeated = formatCurrentDateWithStrftime(QByteArray("%Y ").repeated(200).constData());
    EXPECT_EQ(repeated, (year + u' ').repeated(200));
}
