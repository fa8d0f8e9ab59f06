// Archives written by Apple's Foundation (tests/foundation/fixtures/README.md)
// decode into the objects they hold.
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"

#include <QFile>
#include <QHash>
#include <QUuid>

#include <gtest/gtest.h>

#include <variant>

using namespace brindle;

namespace {

QByteArray fixture(const char* name)
{
    QFile file(QStringLiteral(BRINDLE_TESTS_DIR "/foundation/fixtures/") + QString::fromUtf8(name));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

// A stand-in for the custom classes of the fixtures: it reads the fields
// listed for its class name and keeps them by key.
class RecordedObject final : public KeyedCoding {
public:
    enum class Kind { Object, Integer, Bool, Real };
    using Value = std::variant<KeyedObjectPtr, int64_t, bool, double>;

    QStringList chain;
    QHash<QString, Value> fields;

    static const QHash<QString, QList<QPair<QString, Kind>>>& layouts()
    {
        using K = Kind;
        static const QHash<QString, QList<QPair<QString, Kind>>> table = {
            {"XXCustomObject", {{"foo", K::Object}, {"bar", K::Integer}}},
            {"NSAttributedString", {{"NSString", K::Object}, {"NSAttributes", K::Object}, {"NSAttributeInfo", K::Object}}},
            {"NSMeasurement", {{"NS.value", K::Real}, {"NS.unit", K::Object}}},
            {"NSUnitLength", {{"NS.specifier", K::Integer}, {"NS.symbol", K::Object}, {"NS.converter", K::Object}}},
            {"NSUnitConverterLinear", {{"NS.coefficient", K::Real}, {"NS.constant", K::Real}}},
            {"NSDateIntervalFormatter",
             {{"NS.dateStyle", K::Integer}, {"NS.timeStyle", K::Integer}, {"NS.modified", K::Bool},
              {"NS.useTemplate", K::Bool}, {"NS.dateTemplate", K::Object}, {"NS.locale", K::Object},
              {"NS.calendar", K::Object}, {"NS.timeZone", K::Object}}},
            {"NSLocale", {{"NS.identifier", K::Object}}},
            {"NSCalendar",
             {{"NS.identifier", K::Object}, {"NS.firstwkdy", K::Integer}, {"NS.gstartdate", K::Object},
              {"NS.timezone", K::Object}, {"NS.locale", K::Object}}},
            {"NSTimeZone", {{"NS.name", K::Object}, {"NS.data", K::Object}}},
            {"JNStreamTable",
             {{"tableID", K::Object}, {"rowHeader", K::Integer}, {"replyHeader", K::Integer},
              {"replyColumns", K::Object}, {"columns", K::Object}}},
            {"JNStreamTableUInt8Column", {{"keyPath", K::Object}, {"stopValue", K::Object}}},
            {"JNStreamTableUInt64Column", {{"keyPath", K::Object}, {"stopValue", K::Object}}},
            {"JNStreamTableStringColumn", {{"keyPath", K::Object}, {"stopValue", K::Object}}},
            {"JNStreamTablePackedValueColumn", {{"keyPath", K::Object}, {"stopValue", K::Object}}},
            {"JNStreamTableDictionaryColumn",
             {{"keyPath", K::Object}, {"keyColumn", K::Object}, {"valueColumn", K::Object}}},
        };
        return table;
    }

    static QStringList archiveClassNames() { return layouts().keys(); }
    static std::shared_ptr<RecordedObject> initWithCoder(KeyedUnarchiver& coder)
    {
        auto object = std::make_shared<RecordedObject>();
        object->chain = coder.currentClassChain();
        for (const auto& [key, kind] : layouts().value(object->chain.value(0))) {
            switch (kind) {
            case Kind::Object:
                object->fields.insert(key, coder.decodeObjectForKey(key));
                break;
            case Kind::Integer:
                object->fields.insert(key, coder.decodeInt64ForKey(key));
                break;
            case Kind::Bool:
                object->fields.insert(key, coder.decodeBoolForKey(key));
                break;
            case Kind::Real:
                object->fields.insert(key, coder.decodeDoubleForKey(key));
                break;
            }
        }
        return object;
    }

    QString classNameForArchive() const override { return chain.value(0); }
    void encodeWithCoder(KeyedArchiver&) const override {}

    template <class T>
    std::shared_ptr<T> object(const char* key) const
    {
        const Value value = fields.value(QString::fromUtf8(key));
        const auto* pointer = std::get_if<KeyedObjectPtr>(&value);
        return pointer ? std::dynamic_pointer_cast<T>(*pointer) : nullptr;
    }
    template <class T>
    T scalar(const char* key) const
    {
        const Value value = fields.value(QString::fromUtf8(key), Value(T()));
        const auto* pointer = std::get_if<T>(&value);
        return pointer ? *pointer : T();
    }
    int64_t integer(const char* key) const { return scalar<int64_t>(key); }
    double real(const char* key) const { return scalar<double>(key); }
    bool flag(const char* key) const { return scalar<bool>(key); }
    QString string(const char* key) const
    {
        auto value = object<KeyedString>(key);
        return value ? value->string() : QStringLiteral("<none>");
    }
};

class KeyedFixturesTest : public testing::Test {
protected:
    static void SetUpTestSuite() { KeyedClassRegistry::registerClass<RecordedObject>(); }
    static void TearDownTestSuite()
    {
        for (const QString& name : RecordedObject::archiveClassNames())
            KeyedClassRegistry::registerClass(name, nullptr);
    }

    // Decodes a fixture's root generically; the archive must have no damage.
    template <class T>
    std::shared_ptr<T> root(const char* name)
    {
        KeyedUnarchiver coder(fixture(name));
        EXPECT_TRUE(coder.isValid()) << name;
        auto object = std::dynamic_pointer_cast<T>(coder.decodeObjectForKey(QStringLiteral("root")));
        EXPECT_FALSE(coder.hasDecodingError()) << name;
        return object;
    }
};

QString stringAt(const KeyedArray& array, size_t index)
{
    auto string = array.objectAtIndex<KeyedString>(index);
    return string ? string->string() : QStringLiteral("<none>");
}

std::vector<int64_t> integersOf(const KeyedArray& array)
{
    std::vector<int64_t> values;
    for (size_t i = 0; i < array.count(); ++i) {
        auto number = array.objectAtIndex<KeyedNumber>(i);
        values.push_back(number ? number->int64Value() : -999);
    }
    return values;
}

}  // namespace

TEST_F(KeyedFixturesTest, complexDictionaryHoldsNullStringNumberNestedDictionaryURLAndUUID)
{
    auto dictionary = root<KeyedDictionary>("scf-ComplexTest.bplist");
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->count(), 4u);

    auto array = dictionary->objectOfClassForKey<KeyedArray>(QStringLiteral("array"));
    ASSERT_TRUE(array);
    ASSERT_EQ(array->count(), 4u);
    EXPECT_TRUE(array->objectAtIndex<KeyedNull>(0));
    EXPECT_EQ(stringAt(*array, 1), "hello");
    EXPECT_EQ(array->objectAtIndex<KeyedNumber>(2)->int64Value(), 34545);
    auto nested = array->objectAtIndex<KeyedDictionary>(3);
    ASSERT_TRUE(nested);
    EXPECT_EQ(nested->objectOfClassForKey<KeyedString>(QStringLiteral("key"))->string(), "val");

    // The string and the array element share one slot, so one instance.
    EXPECT_EQ(dictionary->objectForKey(QStringLiteral("string")), array->objects()[1]);

    auto url = dictionary->objectOfClassForKey<KeyedURL>(QStringLiteral("url"));
    ASSERT_TRUE(url);
    EXPECT_EQ(url->relativeString(), "index.xml");
    ASSERT_TRUE(url->baseURL());
    EXPECT_EQ(url->url(), QUrl(QStringLiteral("https://www.swift.org/index.xml")));

    auto uuid = dictionary->objectOfClassForKey<KeyedUUID>(QStringLiteral("uuid"));
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->uuid(), QUuid::fromRfc4122(QByteArray::fromHex("71dc068e342045ff919e3a267d55ec22")));
}

TEST_F(KeyedFixturesTest, xmlArchivesReadTheirCFUIDDictionariesAsReferences)
{
    auto url = root<KeyedURL>("scf-URLTest.xml");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->url(), QUrl(QStringLiteral("https://www.example.com/foo.xml")));

    auto uuid = root<KeyedUUID>("scf-UUIDTest.xml");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->uuid(), QUuid(QStringLiteral("0AD863BA-7584-40CF-8896-BD87B3280C34")));

    auto array = root<KeyedArray>("scf-ArrayTest.xml");
    ASSERT_TRUE(array);
    ASSERT_EQ(array->count(), 4u);
    EXPECT_EQ(stringAt(*array, 0), "baa");
    EXPECT_EQ(stringAt(*array, 2), "black");
    EXPECT_EQ(stringAt(*array, 3), "sheep");
    EXPECT_EQ(array->objects()[0], array->objects()[1]);
}

TEST_F(KeyedFixturesTest, attributedStringKeepsEqualButDistinctDictionariesApartAndSharesTheirValues)
{
    auto string = root<RecordedObject>("scf-NSAttributedString.bplist");
    ASSERT_TRUE(string);
    EXPECT_EQ(string->string("NSString"), "0123456789");
    auto info = string->object<KeyedData>("NSAttributeInfo");
    ASSERT_TRUE(info);
    EXPECT_TRUE(info->isMutable());
    EXPECT_EQ(info->data(), QByteArray::fromHex("010001010402020101030100"));

    auto attributes = string->object<KeyedArray>("NSAttributes");
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->flavor(), KeyedArray::Flavor::MutableArray);
    ASSERT_EQ(attributes->count(), 4u);
    EXPECT_EQ(attributes->objectAtIndex<KeyedDictionary>(0)->count(), 0u);
    auto first = attributes->objectAtIndex<KeyedDictionary>(1);
    EXPECT_EQ(first->objectOfClassForKey<KeyedString>(QStringLiteral("Font"))->string(), "Helvetica");
    EXPECT_EQ(first->objectOfClassForKey<KeyedNumber>(QStringLiteral("Size"))->int64Value(), 123);
    auto second = attributes->objectAtIndex<KeyedDictionary>(2);
    auto third = attributes->objectAtIndex<KeyedDictionary>(3);
    ASSERT_TRUE(second && third);
    EXPECT_NE(second, third);
    EXPECT_EQ(second->objectOfClassForKey<KeyedString>(QStringLiteral("Font"))->string(), "Times");
    EXPECT_EQ(second->objectForKey(QStringLiteral("Size")), third->objectForKey(QStringLiteral("Size")));
}

TEST_F(KeyedFixturesTest, measurementReadsRealsAndAFourLevelClassChain)
{
    auto measurement = root<RecordedObject>("scf-NSMeasurement-Length.bplist");
    ASSERT_TRUE(measurement);
    EXPECT_EQ(measurement->real("NS.value"), 45.0);
    auto unit = measurement->object<RecordedObject>("NS.unit");
    ASSERT_TRUE(unit);
    EXPECT_EQ(unit->chain, QStringList({"NSUnitLength", "NSDimension", "NSUnit", "NSObject"}));
    EXPECT_EQ(unit->string("NS.symbol"), "mi");
    EXPECT_EQ(unit->integer("NS.specifier"), 1287);
    auto converter = unit->object<RecordedObject>("NS.converter");
    ASSERT_TRUE(converter);
    EXPECT_EQ(converter->real("NS.coefficient"), 1609.34);
    EXPECT_EQ(converter->real("NS.constant"), 0.0);
}

TEST_F(KeyedFixturesTest, dateIntervalFormatterReadsIntegersBooleansDatesAndNilData)
{
    auto formatter = root<RecordedObject>("scf-DateIntervalFormatter-ValuesSetWithTemplate.bplist");
    ASSERT_TRUE(formatter);
    EXPECT_EQ(formatter->integer("NS.dateStyle"), 1);
    EXPECT_TRUE(formatter->flag("NS.modified"));
    EXPECT_TRUE(formatter->flag("NS.useTemplate"));
    EXPECT_EQ(formatter->string("NS.dateTemplate"), "dd mm yyyy HH:MM");
    EXPECT_EQ(formatter->object<RecordedObject>("NS.locale")->string("NS.identifier"), "ja-JP");

    auto calendar = formatter->object<RecordedObject>("NS.calendar");
    ASSERT_TRUE(calendar);
    EXPECT_EQ(calendar->string("NS.identifier"), "gregorian");
    auto start = calendar->object<KeyedDate>("NS.gstartdate");
    ASSERT_TRUE(start);
    EXPECT_EQ(start->timeIntervalSinceReferenceDate(), -13197600000.0);
    EXPECT_EQ(start->dateTime().date().year(), 1582);
    auto calendarZone = calendar->object<RecordedObject>("NS.timezone");
    ASSERT_TRUE(calendarZone);
    EXPECT_EQ(calendarZone->string("NS.name"), "GMT");
    auto tzif = calendarZone->object<KeyedData>("NS.data");
    ASSERT_TRUE(tzif);
    EXPECT_TRUE(tzif->data().startsWith("TZif2"));

    auto zone = formatter->object<RecordedObject>("NS.timeZone");
    ASSERT_TRUE(zone);
    EXPECT_EQ(zone->string("NS.name"), "GMT+0100");
    EXPECT_FALSE(zone->object<KeyedCoding>("NS.data"));
}

TEST_F(KeyedFixturesTest, setsAndOrderedSetsBecomeArraysThatRememberTheirClass)
{
    auto set = root<KeyedArray>("scf-NSSet-Numbers.bplist");
    ASSERT_TRUE(set);
    EXPECT_EQ(set->flavor(), KeyedArray::Flavor::Set);
    EXPECT_EQ(integersOf(*set), std::vector<int64_t>({3, 2, 5, 1, 4}));

    auto ordered = root<KeyedArray>("scf-NSMutableOrderedSet-Numbers.bplist");
    ASSERT_TRUE(ordered);
    EXPECT_EQ(ordered->flavor(), KeyedArray::Flavor::MutableOrderedSet);
    EXPECT_EQ(integersOf(*ordered), std::vector<int64_t>({1, 2, 3, 4, 5}));
}

TEST_F(KeyedFixturesTest, customObjectReadsItsStringAndInteger)
{
    auto object = root<RecordedObject>("bpylist-opaque.bplist");
    ASSERT_TRUE(object);
    EXPECT_EQ(object->chain, QStringList({"XXCustomObject", "NSObject"}));
    EXPECT_EQ(object->string("foo"), "abc");
    EXPECT_EQ(object->integer("bar"), 42);
}

TEST_F(KeyedFixturesTest, cyclesThroughCollectionsDecodeTheBackReferenceAsNil)
{
    auto array = root<KeyedArray>("bpylist-recursive_array.bplist");
    ASSERT_TRUE(array);
    ASSERT_EQ(array->count(), 1u);
    auto inner = array->objectAtIndex<KeyedArray>(0);
    ASSERT_TRUE(inner);
    EXPECT_EQ(inner->flavor(), KeyedArray::Flavor::MutableArray);
    EXPECT_EQ(inner->count(), 0u);

    auto dictionary = root<KeyedDictionary>("bpylist-recursive_dict.bplist");
    ASSERT_TRUE(dictionary);
    auto innerDictionary = dictionary->objectOfClassForKey<KeyedDictionary>(QStringLiteral("foo"));
    ASSERT_TRUE(innerDictionary);
    EXPECT_TRUE(innerDictionary->isMutable());
    EXPECT_EQ(innerDictionary->count(), 0u);
}

TEST_F(KeyedFixturesTest, inlineAndMutableDataHoldTheSameBytes)
{
    const QByteArray bytes = QByteArray::fromHex("CAFEBABE00010203");
    auto data = root<KeyedData>("bpylist-data.bplist");
    ASSERT_TRUE(data);
    EXPECT_FALSE(data->isMutable());
    EXPECT_EQ(data->data(), bytes);
    auto mutableData = root<KeyedData>("bpylist-mutable_data.bplist");
    ASSERT_TRUE(mutableData);
    EXPECT_TRUE(mutableData->isMutable());
    EXPECT_EQ(mutableData->data(), bytes);

    // Typed decoding accepts both forms through the convenience reader.
    KeyedUnarchiver coder(fixture("bpylist-mutable_data.bplist"));
    EXPECT_EQ(coder.decodeDataForKey(QStringLiteral("root")), bytes);
}

TEST_F(KeyedFixturesTest, tableOfColumnsReadsClassChainsSharedClassesAndNils)
{
    auto table = root<RecordedObject>("bpylist-fullChangeLog.bplist");
    ASSERT_TRUE(table);
    EXPECT_EQ(table->string("tableID"), "fullChangeLog");
    EXPECT_EQ(table->integer("rowHeader"), 2);
    EXPECT_EQ(table->integer("replyHeader"), 0);
    EXPECT_FALSE(table->object<KeyedCoding>("replyColumns"));

    auto columns = table->object<KeyedArray>("columns");
    ASSERT_TRUE(columns);
    ASSERT_EQ(columns->count(), 7u);
    const QStringList keyPaths = {"changeType", "syncID", "changeLogID", "className", "primaryKey", "unneeded",
                                  "changeData"};
    for (size_t i = 0; i < 7; ++i) {
        auto column = columns->objectAtIndex<RecordedObject>(i);
        ASSERT_TRUE(column) << i;
        EXPECT_EQ(column->string("keyPath"), keyPaths[static_cast<qsizetype>(i)]);
        EXPECT_EQ(column->chain.value(1), "JNStreamTableColumn");
    }
    auto dictionaryColumn = columns->objectAtIndex<RecordedObject>(6);
    auto valueColumn = dictionaryColumn->object<RecordedObject>("valueColumn");
    ASSERT_TRUE(valueColumn);
    EXPECT_EQ(valueColumn->chain.size(), 4);
    auto keyColumn = dictionaryColumn->object<RecordedObject>("keyColumn");
    ASSERT_TRUE(keyColumn);
    EXPECT_EQ(keyColumn->string("stopValue"), "");
}

TEST_F(KeyedFixturesTest, unkeyedTopLevelValuesKeepTheirSharingAndKinds)
{
    KeyedUnarchiver coder(fixture("dp-primitives.bplist"));
    ASSERT_TRUE(coder.isValid());
    auto value = [&](int index) { return coder.decodeObjectForKey(QStringLiteral("$%1").arg(index)); };
    auto number = [&](int index) { return std::dynamic_pointer_cast<KeyedNumber>(value(index)); };

    EXPECT_EQ(value(0), value(1));
    EXPECT_EQ(number(0)->int64Value(), 1);
    EXPECT_EQ(number(2)->kind(), KeyedNumber::Kind::Double);
    EXPECT_EQ(number(2)->doubleValue(), 1.0);
    EXPECT_EQ(number(3)->doubleValue(), 1.5);
    EXPECT_EQ(std::dynamic_pointer_cast<KeyedData>(value(4))->data(), "asdfasdfadsfadsf");
    EXPECT_EQ(number(5)->kind(), KeyedNumber::Kind::Bool);
    EXPECT_TRUE(number(5)->boolValue());
    // Three separately archived equal strings stay three instances.
    EXPECT_NE(value(6), value(7));
    EXPECT_NE(value(7), value(8));
    EXPECT_EQ(std::dynamic_pointer_cast<KeyedString>(value(8))->string(), "Hello, World!");
    EXPECT_EQ(value(9), value(10));
    EXPECT_FALSE(number(9)->boolValue());
    EXPECT_EQ(number(11)->int64Value(), 42);
    EXPECT_FALSE(coder.hasDecodingError());
}

TEST_F(KeyedFixturesTest, unkeyedCollectionsDecodeEveryFlavour)
{
    KeyedUnarchiver coder(fixture("dp-arrays.bplist"));
    ASSERT_TRUE(coder.isValid());
    auto array = [&](int index) {
        return std::dynamic_pointer_cast<KeyedArray>(coder.decodeObjectForKey(QStringLiteral("$%1").arg(index)));
    };
    ASSERT_TRUE(array(0) && array(1) && array(2) && array(3));
    EXPECT_EQ(array(0)->count(), 12u);
    EXPECT_EQ(array(0)->objects()[0], array(0)->objects()[1]);
    EXPECT_EQ(array(1)->flavor(), KeyedArray::Flavor::MutableArray);
    EXPECT_EQ(stringAt(*array(1), 1), "Hello, World!");
    EXPECT_EQ(array(2)->flavor(), KeyedArray::Flavor::Set);
    EXPECT_EQ(array(2)->count(), 1u);
    EXPECT_EQ(array(3)->flavor(), KeyedArray::Flavor::MutableSet);
    EXPECT_EQ(array(3)->count(), 3u);

    KeyedUnarchiver dictionaryCoder(fixture("dp-dict.bplist"));
    auto dictionary = std::dynamic_pointer_cast<KeyedDictionary>(dictionaryCoder.decodeObjectForKey(QStringLiteral("$0")));
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->objectOfClassForKey<KeyedNumber>(QStringLiteral("int"))->int64Value(), 1);
    // Key and value "string" share a slot.
    EXPECT_EQ(dictionary->objectForKey(QStringLiteral("string")), dictionary->entries()[1].key);
    EXPECT_EQ(dictionary->objectOfClassForKey<KeyedArray>(QStringLiteral("array"))->count(), 3u);
}

TEST_F(KeyedFixturesTest, deviceMessagesReadMutableStringsSetsAndWideIntegers)
{
    auto dictionary = root<KeyedDictionary>("sandin-nsdictionary_setconfig.bplist");
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(dictionary->objectOfClassForKey<KeyedNumber>(QStringLiteral("ur"))->int64Value(), 500);
    EXPECT_EQ(dictionary->objectOfClassForKey<KeyedNumber>(QStringLiteral("rp"))->int64Value(), 10);
    auto list = dictionary->objectOfClassForKey<KeyedArray>(QStringLiteral("tc"));
    ASSERT_TRUE(list);
    auto config = list->objectAtIndex<KeyedDictionary>(0);
    ASSERT_TRUE(config);
    EXPECT_TRUE(config->isMutable());
    auto uuid = config->objectOfClassForKey<KeyedString>(QStringLiteral("uuid"));
    ASSERT_TRUE(uuid);
    EXPECT_TRUE(uuid->isMutable());
    EXPECT_EQ(uuid->string(), "2C46B61A-CDA9-4D59-B901-22E28B08C260");
    auto set = config->objectOfClassForKey<KeyedArray>(QStringLiteral("kdf2"));
    ASSERT_TRUE(set);
    EXPECT_EQ(set->flavor(), KeyedArray::Flavor::MutableSet);
    EXPECT_EQ(integersOf(*set), std::vector<int64_t>({630784000, 833617920, 830472456}));

    auto networking = root<KeyedArray>("sandin-nsarray_networking.bplist");
    ASSERT_TRUE(networking);
    auto inner = networking->objectAtIndex<KeyedArray>(1);
    ASSERT_TRUE(inner);
    ASSERT_EQ(inner->count(), 8u);
    EXPECT_EQ(inner->objectAtIndex<KeyedData>(0)->data().size(), 28);
    EXPECT_EQ(inner->objectAtIndex<KeyedNumber>(3)->int64Value(), -2);
    EXPECT_EQ(inner->objectAtIndex<KeyedNumber>(4)->int64Value(), 131072);
    EXPECT_EQ(inner->objects()[7], networking->objects()[0]);
}

TEST_F(KeyedFixturesTest, utf16StringDecodesToItsText)
{
    auto string = root<KeyedString>("gnustep-eszett1-osx.bplist");
    ASSERT_TRUE(string);
    EXPECT_EQ(string->string(), QString(QChar(0x00DF)));
}
