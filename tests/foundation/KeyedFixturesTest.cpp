// Archives written by Apple's Foundation (fixtures/README.md) decode into the
// values they hold, without damage. Each graph is compared whole through
// describe(), whose &N=… / *N marks show the objects that several slots share.
#include "FoundationTestSupport.h"

#include <QTimeZone>

#include <gtest/gtest.h>

using namespace brindle;
using namespace brindle::test;

namespace {

class KeyedFixturesTest : public testing::Test {
protected:
    static void SetUpTestSuite() { KeyedClassRegistry::registerClass<RecordedObject>(); }
    static void TearDownTestSuite()
    {
        for (const QString& name : RecordedObject::archiveClassNames())
            KeyedClassRegistry::registerClass(name, nullptr);
    }

    // The root decoded generically; for the archives of unkeyed values, which
    // have no root, the values "$0", "$1", … as one array, so that sharing
    // between them shows too.
    static std::string decoded(const char* name)
    {
        KeyedUnarchiver coder(fixture(QString::fromUtf8(name)));
        EXPECT_TRUE(coder.isValid());
        ConstKeyedObjectPtr value = coder.decodeObjectForKey(QStringLiteral("root"));
        if (!coder.containsValueForKey(QStringLiteral("root"))) {
            auto values = std::make_shared<KeyedArray>();
            for (int i = 0; coder.containsValueForKey(QStringLiteral("$%1").arg(i)); ++i)
                values->addObject(coder.decodeObjectForKey(QStringLiteral("$%1").arg(i)));
            value = values;
        }
        EXPECT_FALSE(coder.hasDecodingError());
        return describe(value);
    }
    void expectDecoded(const std::vector<std::pair<const char*, const char*>>& expected)
    {
        for (const auto& [name, value] : expected) {
            SCOPED_TRACE(name);
            EXPECT_EQ(decoded(name), value);
        }
    }
};

}  // namespace

TEST_F(KeyedFixturesTest, standardValueClassesDecodeWithTheirFlavourMutabilitySharingAndCycles)
{
    expectDecoded({
        {"scf-ComplexTest.bplist",
         R"({"array": [null, &1="hello", 34545, {"key": "val"}], "string": *1, )"
         R"("url": url(index.xml | url(https://www.swift.org)), "uuid": uuid(71dc068e-3420-45ff-919e-3a267d55ec22)})"},
        {"scf-URLTest.xml", "url(foo.xml | url(https://www.example.com))"},
        {"scf-UUIDTest.xml", "uuid(0ad863ba-7584-40cf-8896-bd87b3280c34)"},
        {"scf-ArrayTest.xml", R"([&1="baa", *1, "black", "sheep"])"},
        {"scf-NSSet-Numbers.bplist", "set[3, 2, 5, 1, 4]"},
        {"scf-NSMutableOrderedSet-Numbers.bplist", "moset[1, 2, 3, 4, 5]"},
        {"bpylist-data.bplist", "<cafebabe00010203>"},
        {"bpylist-mutable_data.bplist", "m<cafebabe00010203>"},
        {"gnustep-eszett1-osx.bplist", "\"\u00DF\""},
        // Three separately archived equal strings stay three instances.
        {"dp-primitives.bplist", R"([&1=1, *1, 1.0, 1.5, <61736466617364666164736661647366>, true, )"
                                 R"("Hello, World!", "Hello, World!", "Hello, World!", &2=false, *2, 42])"},
        {"dp-arrays.bplist", R"([[&1=1, *1, 1.0, 1.5, <61736466617364666164736661647366>, &2=true, "Hello, World!", )"
                             R"("Hello, World!", "Hello, World!", &3=false, *3, &4=42], m[*2, "Hello, World!", *4], )"
                             R"(set[*2], mset[*4, *2, "Hello, World!"]])"},
        {"dp-dict.bplist", R"([{"int": 1, &1="string": *1, "array": m[true, "Hello, World!", 42]}])"},
        {"sandin-nsdictionary_setconfig.bplist",
         R"({"ur": 500, "tc": [m{"kdf2": mset[630784000, 833617920, 830472456], "tk": 3, )"
         R"("uuid": m"2C46B61A-CDA9-4D59-B901-22E28B08C260"}], "rp": 10})"},
        {"sandin-nsarray_networking.bplist",
         "[&1=1, [<28 bytes: 1c1ec67500000000…>, <28 bytes: 1c1e000000000000…>, 10, -2, 131072, 0, 4, *1]]"},
        // A collection that holds itself: the back reference decodes as nil.
        {"bpylist-recursive_array.bplist", "[m[]]"},
        {"bpylist-recursive_dict.bplist", R"({"foo": m{}})"},
    });
}

TEST_F(KeyedFixturesTest, customClassesDecodeThroughTheirClassChainsWithSharedClassesAndNils)
{
    expectDecoded({
        {"bpylist-opaque.bplist", R"(XXCustomObject:NSObject{foo: "abc", bar: 42})"},
        // Two equal but distinct dictionaries that share their strings and numbers.
        {"scf-NSAttributedString.bplist",
         R"(NSAttributedString:NSObject{NSString: "0123456789", NSAttributes: m[{}, {&1="Font": "Helvetica", )"
         R"(&2="Size": 123}, {*2: &3=456, *1: &4="Times"}, {*2: *3, *1: *4}], )"
         R"(NSAttributeInfo: m<010001010402020101030100>})"},
        {"scf-NSMeasurement-Length.bplist",
         R"(NSMeasurement:NSObject{NS.value: 45.0, NS.unit: NSUnitLength:NSDimension:NSUnit:NSObject{NS.specifier: 1287, )"
         R"(NS.symbol: "mi", NS.converter: NSUnitConverterLinear:NSUnitConverter:NSObject{NS.coefficient: 1609.34, )"
         R"(NS.constant: 0.0}}})"},
        {"scf-DateIntervalFormatter-ValuesSetWithTemplate.bplist",
         R"(NSDateIntervalFormatter:NSFormatter:NSObject{NS.dateStyle: 1, NS.timeStyle: 1, NS.modified: true, )"
         R"(NS.useTemplate: true, NS.dateTemplate: "dd mm yyyy HH:MM", NS.locale: NSLocale:NSObject{NS.identifier: )"
         R"(&1="ja-JP"}, NS.calendar: NSCalendar:NSObject{NS.identifier: "gregorian", NS.firstwkdy: 1, )"
         R"(NS.gstartdate: date(-13197600000), NS.timezone: NSTimeZone:NSObject{NS.name: "GMT", )"
         R"(NS.data: m<118 bytes: 545a696632000000…>}, NS.locale: NSLocale:NSObject{NS.identifier: *1}}, )"
         R"(NS.timeZone: NSTimeZone:NSObject{NS.name: "GMT+0100", NS.data: nil}})"},
        {"bpylist-fullChangeLog.bplist",
         R"(JNStreamTable:NSObject{tableID: "fullChangeLog", rowHeader: 2, replyHeader: 0, replyColumns: nil, columns: [)"
         R"(JNStreamTableUInt8Column:JNStreamTableColumn:NSObject{keyPath: "changeType", stopValue: nil}, )"
         R"(JNStreamTableUInt64Column:JNStreamTableColumn:NSObject{keyPath: "syncID", stopValue: nil}, )"
         R"(JNStreamTableUInt64Column:JNStreamTableColumn:NSObject{keyPath: "changeLogID", stopValue: nil}, )"
         R"(JNStreamTableStringColumn:JNStreamTableColumn:NSObject{keyPath: "className", stopValue: nil}, )"
         R"(JNStreamTableUInt64Column:JNStreamTableColumn:NSObject{keyPath: "primaryKey", stopValue: nil}, )"
         R"(JNStreamTableUInt8Column:JNStreamTableColumn:NSObject{keyPath: "unneeded", stopValue: nil}, )"
         R"(JNStreamTableDictionaryColumn:JNStreamTableColumn:NSObject{keyPath: "changeData", keyColumn: )"
         R"(JNStreamTableStringColumn:JNStreamTableColumn:NSObject{keyPath: "key", stopValue: ""}, valueColumn: )"
         R"(JNStreamTablePackedValueColumn:JNStreamTableDataColumn:JNStreamTableColumn:NSObject{keyPath: "value", )"
         R"(stopValue: nil}}]})"},
    });
    // The formatter's calendar starts on the first day of the Gregorian calendar.
    EXPECT_EQ(KeyedDate(-13197600000.0).dateTime(), QDateTime(QDate(1582, 10, 15), QTime(0, 0), QTimeZone::utc()));
}
