// Damaged and hostile archives: every one is refused or decodes to nothing
// at the damaged place, with the damage reported, and never crashes.
#include "FoundationTestSupport.h"

#include <gtest/gtest.h>

using namespace brindle;
using namespace brindle::test;

namespace {

using Ref = HandArchive::Ref;
using Fields = HandArchive::Fields;

// Decodes the root generically: null, with the damage reported.
testing::AssertionResult rootIsRefused(const QByteArray& archive)
{
    KeyedUnarchiver coder(archive);
    const KeyedObjectPtr root = coder.decodeObjectForKey(QStringLiteral("root"));
    if (root)
        return testing::AssertionFailure() << "decoded a " << root->classNameForArchive().toStdString();
    if (!coder.hasDecodingError())
        return testing::AssertionFailure() << "no damage reported";
    return testing::AssertionSuccess();
}

testing::AssertionResult refusedWith(const std::function<void(HandArchive&)>& build)
{
    HandArchive a;
    build(a);
    return rootIsRefused(a.finish());
}

// A root object of the class, with the fields given.
testing::AssertionResult refusedAs(const char* className, const std::function<Fields(HandArchive&)>& fields)
{
    return refusedWith([&](HandArchive& a) {
        const uint32_t cls = a.classSlot(QString::fromUtf8(className));
        a.root(a.object(cls, fields(a)));
    });
}

QByteArray replaced(QByteArray bytes, const QByteArray& from, const QByteArray& to)
{
    const qsizetype at = bytes.indexOf(from);
    EXPECT_GE(at, 0) << from.toHex().toStdString();
    if (at >= 0)
        bytes.replace(at, from.size(), to);
    return bytes;
}

}  // namespace

TEST(KeyedUnarchiverTest, inputsThatAreNotKeyedArchivesAreRefused)
{
    std::vector<QByteArray> inputs = {
        QByteArray(), QByteArray("hello"), QByteArray("bplist00"), QByteArray("bplist00") + QByteArray(100, '\x01'),
        QByteArray("{\"root\": 1}"), QByteArray("<plist><dict><key>a</key></plist>"),
        QByteArray("<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"),
    };
    // A good archive with one top-level entry replaced or removed.
    auto variant = [&](const std::function<Fields(HandArchive&)>& replace) {
        HandArchive a;
        a.root(a.slot(a.s("text")));
        inputs.push_back(a.finish(replace(a)));
    };
    variant([](HandArchive&) { return Fields{{"$archiver", HandArchive::kDrop}}; });
    variant([](HandArchive&) { return Fields{{"$archiver", 0}}; });  // reference 0 is the root dictionary itself
    variant([](HandArchive& a) { return Fields{{"$archiver", a.s("NSArchiver")}}; });
    variant([](HandArchive& a) { return Fields{{"$version", a.integer(99999)}}; });
    variant([](HandArchive& a) { return Fields{{"$version", a.s("100000")}}; });
    variant([](HandArchive& a) { return Fields{{"$version", a.w.addDouble(100000.0)}}; });
    variant([](HandArchive& a) { return Fields{{"$top", a.array({})}}; });
    variant([](HandArchive& a) {
        const Ref key = a.integer(1), value = a.uid(1);
        return Fields{{"$top", a.w.addDictionary(&key, &value, 1)}};
    });
    variant([](HandArchive&) { return Fields{{"$objects", HandArchive::kDrop}}; });
    variant([](HandArchive& a) { return Fields{{"$objects", a.array({})}}; });
    variant([](HandArchive& a) { return Fields{{"$objects", a.dict({})}}; });
    BplistWriter writer;
    const Ref element = writer.addString(QStringLiteral("NSKeyedArchiver"));
    inputs.push_back(writer.finish(writer.addArray(&element, 1)));

    for (const QByteArray& input : inputs) {
        KeyedUnarchiver coder(input);
        EXPECT_FALSE(coder.isValid()) << input.toHex().toStdString();
        EXPECT_TRUE(coder.hasDecodingError());
        EXPECT_FALSE(coder.containsValueForKey(QStringLiteral("root")));
        EXPECT_FALSE(coder.decodeObjectForKey(QStringLiteral("root")));
        EXPECT_FALSE(coder.decodeArrayOfObjectsForKey(QStringLiteral("root")));
        EXPECT_EQ(coder.decodeInt64ForKey(QStringLiteral("root")), 0);
        EXPECT_TRUE(coder.currentClassChain().isEmpty());
        EXPECT_FALSE(KeyedUnarchiver::unarchiveObjectWithData(input));
    }
}

TEST(KeyedUnarchiverTest, truncatedOrCorruptedContainersAreRefused)
{
    auto dictionary = std::make_shared<KeyedDictionary>();
    dictionary->setObjectForKey(std::make_shared<KeyedString>(QStringLiteral("value")), QStringLiteral("key"));
    dictionary->setObjectForKey(std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>{KeyedNumber::fromSigned(1)}),
                                QStringLiteral("list"));
    const QByteArray good = KeyedArchiver::archivedDataWithRootObject(dictionary);
    ASSERT_TRUE(KeyedUnarchiver(good).isValid());

    for (qsizetype length = 0; length < good.size(); ++length)
        EXPECT_FALSE(KeyedUnarchiver(good.left(length)).isValid()) << length;
    EXPECT_FALSE(KeyedUnarchiver(good + '\0').isValid());

    // Trailer fields: offset and reference widths, object count, top object, table offset;
    // the header's version; a byte between the offset table and the trailer.
    const qsizetype trailer = good.size() - 32;
    auto withByte = [&](qsizetype at, char value) {
        QByteArray bytes = good;
        bytes[at] = value;
        return bytes;
    };
    auto withField = [&](qsizetype at, uint64_t value) {
        QByteArray bytes = good;
        for (int i = 0; i < 8; ++i)
            bytes[at + i] = static_cast<char>(value >> (56 - 8 * i));
        return bytes;
    };
    const uint64_t count = static_cast<unsigned char>(good[trailer + 15]);
    for (const QByteArray& bad :
         {withByte(trailer + 6, 0), withByte(trailer + 6, 9), withByte(trailer + 7, 0), withByte(trailer + 7, 9),
          withField(trailer + 8, 0), withField(trailer + 8, count + 1), withField(trailer + 8, UINT64_MAX),
          withField(trailer + 16, count), withField(trailer + 16, UINT64_MAX), withField(trailer + 24, 0),
          withField(trailer + 24, 8), withField(trailer + 24, static_cast<uint64_t>(good.size())),
          withField(trailer + 24, UINT64_MAX - 5), withByte(7, '1'),
          good.left(trailer) + '\0' + good.mid(trailer)})
        EXPECT_FALSE(KeyedUnarchiver(bad).isValid());

    // Each offset in turn pointing outside the object table: never a crash.
    const uint64_t tableOffset = static_cast<unsigned char>(good[trailer + 31]) +
                                 256 * static_cast<unsigned char>(good[trailer + 30]);
    const int offsetSize = good[trailer + 6];
    for (uint64_t ref = 0; ref < count; ++ref) {
        for (char value : {'\0', '\xFF'}) {
            QByteArray bytes = good;
            for (int i = 0; i < offsetSize; ++i)
                bytes[static_cast<qsizetype>(tableOffset + ref * offsetSize) + i] = value;
            KeyedUnarchiver(bytes).decodeObjectForKey(QStringLiteral("root"));
        }
    }
}

TEST(KeyedUnarchiverTest, referencesOutOfRangeDecodeAsNothingWhereverTheyAre)
{
    EXPECT_TRUE(refusedWith([](HandArchive& a) { a.root(1000); }));
    EXPECT_TRUE(refusedWith([](HandArchive& a) { a.root(a.slot(a.dict({{"$class", a.uid(77)}}))); }));
    {
        HandArchive a;  // an array element out of range
        a.root(a.object(a.classSlot("NSArray"), {{"NS.objects", a.uids({0, 5000})}}));
        const QByteArray archive = a.finish();
        EXPECT_TRUE(rootIsRefused(archive));
        KeyedUnarchiver coder(archive);
        EXPECT_FALSE(coder.decodeArrayOfClass<KeyedNumber>(QStringLiteral("root")));
        EXPECT_TRUE(coder.hasDecodingError());
    }
    EXPECT_TRUE(refusedAs("NSDictionary", [](HandArchive& a) {  // a dictionary key out of range
        return Fields{{"NS.keys", a.uids({999})}, {"NS.objects", a.uids({a.slot(a.s("v"))})}};
    }));
    {
        HandArchive a;  // a field of a custom object out of range
        a.root(a.object(a.classSlot("TestNode"), {{"link", a.uid(4242)}}));
        KeyedUnarchiver coder(a.finish());
        auto node = coder.decodeObjectOfClass<TestNode>(QStringLiteral("root"));
        ASSERT_TRUE(node);
        EXPECT_FALSE(node->link);
        EXPECT_TRUE(coder.hasDecodingError());
    }
}

TEST(KeyedUnarchiverTest, classReferencesMustLeadToAClassDictionaryWithAName)
{
    auto refusedWithClass = [](const std::function<Ref(HandArchive&)>& makeClass) {
        return refusedWith([&](HandArchive& a) {
            a.root(a.slot(a.dict({{"NS.objects", a.uids({})}, {"$class", makeClass(a)}})));
        });
    };
    auto classDictionary = [](HandArchive& a, const Fields& fields) { return a.uid(a.slot(a.dict(fields))); };
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.s("NSArray"); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(0); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(a.slot(a.s("NSArray"))); }));
    EXPECT_TRUE(refusedWithClass([&](HandArchive& a) { return classDictionary(a, {{"$classes", a.array({})}}); }));
    EXPECT_TRUE(refusedWithClass([&](HandArchive& a) { return classDictionary(a, {{"$classname", a.integer(1)}}); }));
    EXPECT_TRUE(refusedWithClass([&](HandArchive& a) { return classDictionary(a, {{"$classname", a.s("")}}); }));
    EXPECT_TRUE(refusedWithClass([&](HandArchive& a) {
        return classDictionary(a, {{"$classname", a.s("NSArray")}, {"$classes", a.s("NSArray")}});
    }));
    EXPECT_TRUE(refusedWithClass([&](HandArchive& a) {
        return classDictionary(a, {{"$classname", a.s("NSArray")}, {"$classes", a.array({a.integer(1)})}});
    }));
    // No $class: a plain dictionary where an object belongs; or the root is a class dictionary.
    EXPECT_TRUE(refusedWith([](HandArchive& a) { a.root(a.slot(a.dict({{"NS.objects", a.uids({})}}))); }));
    EXPECT_TRUE(refusedWith([](HandArchive& a) { a.root(a.classSlot("NSArray")); }));
    HandArchive a;  // without $classes the class name alone is the chain
    const Ref nameOnly = classDictionary(a, {{"$classname", a.s("NSMutableArray")}});
    a.root(a.slot(a.dict({{"NS.objects", a.uids({})}, {"$class", nameOnly}})));
    auto array = KeyedUnarchiver::unarchivedObjectOfClass<KeyedArray>(a.finish());
    ASSERT_TRUE(array);
    EXPECT_EQ(array->flavor(), KeyedArray::Flavor::MutableArray);
}

TEST(KeyedUnarchiverTest, typedDecodingInstantiatesOnlyTheExpectedClassAndGenericOnlyKnownOnes)
{
    auto node = std::make_shared<TestNode>();
    node->children.push_back(std::make_shared<TestNode>());
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(node);
    const int before = TestNode::instances;
    {
        KeyedUnarchiver coder(archive);
        EXPECT_FALSE(coder.decodeObjectOfClass<KeyedURL>(QStringLiteral("root")));
        EXPECT_TRUE(coder.hasDecodingError());
        EXPECT_FALSE(coder.decodeStringForKey(QStringLiteral("root")));
        EXPECT_FALSE(coder.decodeArrayOfClass<TestNode>(QStringLiteral("root")));
    }
    {
        LogCapture log;
        EXPECT_FALSE(KeyedUnarchiver(archive).decodeObjectForKey(QStringLiteral("root")));
        EXPECT_EQ(log.count(QStringLiteral("cannot decode object of class (TestNode)")), 1);
    }
    EXPECT_EQ(TestNode::instances, before);

    KeyedClassRegistry::registerClass<TestNode>();
    auto generic = std::dynamic_pointer_cast<TestNode>(KeyedUnarchiver::unarchiveObjectWithData(archive));
    KeyedClassRegistry::registerClass(QStringLiteral("TestNode"), nullptr);
    ASSERT_TRUE(generic);
    EXPECT_EQ(generic->children.size(), 1u);

    // A Foundation class name over fields of the wrong kind decodes as nothing.
    EXPECT_TRUE(refusedAs("NSURL", [](HandArchive& a) {
        return Fields{{"NS.relative", a.uid(a.slot(a.integer(3)))}, {"NS.base", a.uid(0)}};
    }));

    // Elements of another class make a typed array nothing; nil elements are skipped.
    HandArchive b;
    const uint32_t arrayClass = b.classSlot("NSArray");
    const uint32_t text = b.slot(b.s("text"));
    const uint32_t nullString = b.slot(b.s("$null"));
    const uint32_t number = b.slot(b.integer(1));
    b.top.push_back({"strings", b.uid(b.object(arrayClass, {{"NS.objects", b.uids({text, 0, nullString, text})}}))});
    b.top.push_back({"mixed", b.uid(b.object(arrayClass, {{"NS.objects", b.uids({text, number})}}))});
    KeyedUnarchiver coder(b.finish());
    auto strings = coder.decodeArrayOfClass<KeyedString>(QStringLiteral("strings"));
    ASSERT_TRUE(strings);
    ASSERT_EQ(strings->size(), 2u);
    EXPECT_EQ((*strings)[0], (*strings)[1]);
    EXPECT_FALSE(coder.hasDecodingError());
    EXPECT_FALSE(coder.decodeArrayOfClass<KeyedString>(QStringLiteral("mixed")));
    EXPECT_TRUE(coder.hasDecodingError());
}

TEST(KeyedUnarchiverTest, cyclesDecodeTheBackReferenceAsNil)
{
    HandArchive a;
    const uint32_t nodeClass = a.classSlot("TestNode");
    const uint32_t arrayClass = a.classSlot("NSArray");
    const uint32_t urlClass = a.classSlot("NSURL");
    // [4] links to itself; [5] and [6] link to each other; [7] holds itself in its children.
    a.object(nodeClass, {{"link", a.uid(4)}});
    a.object(nodeClass, {{"link", a.uid(6)}});
    a.object(nodeClass, {{"link", a.uid(5)}});
    a.object(nodeClass, {{"children", a.uid(8)}});
    a.object(arrayClass, {{"NS.objects", a.uids({7, 7})}});
    // [9] an array holding itself; [11] a URL based on itself, relative to [10].
    a.object(arrayClass, {{"NS.objects", a.uids({9})}});
    const uint32_t relative = a.slot(a.s("x"));
    a.object(urlClass, {{"NS.base", a.uid(11)}, {"NS.relative", a.uid(relative)}});
    for (uint32_t key : {4, 5, 7, 9, 11})
        a.top.push_back({QStringLiteral("k%1").arg(key), a.uid(key)});
    KeyedUnarchiver coder(a.finish());

    auto self = coder.decodeObjectOfClass<TestNode>(QStringLiteral("k4"));
    ASSERT_TRUE(self);
    EXPECT_FALSE(self->link);
    auto first = coder.decodeObjectOfClass<TestNode>(QStringLiteral("k5"));
    ASSERT_TRUE(first && first->link);
    EXPECT_FALSE(first->link->link);
    auto parent = coder.decodeObjectOfClass<TestNode>(QStringLiteral("k7"));
    ASSERT_TRUE(parent);
    EXPECT_TRUE(parent->children.empty());
    EXPECT_EQ(describe(coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("k9"))), "[]");
    EXPECT_EQ(coder.decodeURLForKey(QStringLiteral("k11")), QUrl(QStringLiteral("x")));
}

TEST(KeyedUnarchiverTest, scalarsOfTheWrongKindGiveTheDefaultAndMarkDamage)
{
    HandArchive a;
    a.top = {{"real", a.w.addDouble(1.5)},      {"int", a.integer(7)},
             {"big", a.integer(5000000000LL)},  {"uid", a.uid(0)},
             {"data", a.w.addData("x", 1)},     {"string", a.s("t")},
             {"bool", a.w.addBool(true)},       {"one", a.integer(1)},
             {"two", a.integer(2)},             {"huge", a.w.addUnsigned(UINT64_MAX)},
             {"float", a.w.addFloat(2.5f)},     {"hugeReal", a.w.addDouble(1e300)},
             {"negative", a.integer(-3)}};
    const QByteArray archive = a.finish();
    // Each read on a fresh unarchiver: the value it gives and whether it reports damage.
    auto read = [&](auto decode) {
        KeyedUnarchiver coder(archive);
        const auto value = decode(coder);
        return std::make_pair(value, coder.hasDecodingError());
    };
    using C = KeyedUnarchiver;
    auto key = [](const char* name) { return QString::fromUtf8(name); };
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("real")); }), std::make_pair(int64_t{0}, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("uid")); }), std::make_pair(int64_t{0}, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("huge")); }), std::make_pair(int64_t{0}, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("string")); }), std::make_pair(int64_t{0}, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("big")); }), std::make_pair(int64_t{5000000000LL}, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("bool")); }), std::make_pair(int64_t{1}, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt32ForKey(key("big")); }), std::make_pair(int32_t{0}, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeInt32ForKey(key("negative")); }), std::make_pair(int32_t{-3}, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeDoubleForKey(key("int")); }), std::make_pair(0.0, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeDoubleForKey(key("float")); }), std::make_pair(2.5, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeFloatForKey(key("real")); }), std::make_pair(1.5f, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeFloatForKey(key("hugeReal")); }), std::make_pair(0.0f, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeFloatForKey(key("uid")); }), std::make_pair(0.0f, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeBoolForKey(key("one")); }), std::make_pair(true, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeBoolForKey(key("two")); }), std::make_pair(false, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeBoolForKey(key("data")); }), std::make_pair(false, true));
    EXPECT_EQ(read([&](C& c) { return c.decodeBytesForKey(key("string")); }), std::make_pair(QByteArray(), true));
    EXPECT_EQ(read([&](C& c) { return c.decodeStringForKey(key("string")); }),
              std::make_pair(std::optional<QString>(), true));
    EXPECT_EQ(read([&](C& c) { return c.decodeInlineStringForKey(key("uid")); }),
              std::make_pair(std::optional<QString>(), true));
    EXPECT_EQ(read([&](C& c) { return c.decodeObjectForKey(key("int")); }), std::make_pair(KeyedObjectPtr(), true));
    EXPECT_EQ(read([&](C& c) { return c.decodeArrayOfObjectsForKey(key("int")).has_value(); }),
              std::make_pair(false, true));
    // Missing keys give the defaults without damage.
    EXPECT_EQ(read([&](C& c) { return c.decodeInt64ForKey(key("missing")); }), std::make_pair(int64_t{0}, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeDoubleForKey(key("missing")); }), std::make_pair(0.0, false));
    EXPECT_EQ(read([&](C& c) { return c.decodeObjectForKey(key("missing")); }), std::make_pair(KeyedObjectPtr(), false));
    EXPECT_EQ(read([&](C& c) { return c.decodeStringForKey(key("uid")); }), std::make_pair(std::optional<QString>(), false));
}

TEST(KeyedUnarchiverTest, fieldsOfTheWrongShapeMakeStandardObjectsNothing)
{
    EXPECT_TRUE(refusedAs("NSDictionary", [](HandArchive& a) {
        const uint32_t text = a.slot(a.s("k"));
        return Fields{{"NS.keys", a.uids({text, text})}, {"NS.objects", a.uids({text})}};
    }));
    EXPECT_TRUE(refusedAs("NSDictionary", [](HandArchive& a) { return Fields{{"NS.objects", a.uids({})}}; }));
    EXPECT_TRUE(refusedAs("NSArray", [](HandArchive& a) { return Fields{{"NS.objects", a.s("x")}}; }));
    EXPECT_TRUE(refusedAs("NSArray", [](HandArchive& a) { return Fields{{"NS.objects", a.array({a.integer(1)})}}; }));
    EXPECT_TRUE(refusedAs("NSUUID", [](HandArchive& a) {  // 15 bytes, or a string
        return Fields{{"NS.uuidbytes", a.w.addData(QByteArray(15, 'u'))}};
    }));
    EXPECT_TRUE(refusedAs("NSUUID", [](HandArchive& a) { return Fields{{"NS.uuidbytes", a.s("0123456789abcdef")}}; }));
    EXPECT_TRUE(refusedAs("NSDate", [](HandArchive& a) { return Fields{{"NS.time", a.s("yesterday")}}; }));
    EXPECT_TRUE(refusedAs("NSDate", [](HandArchive& a) { return Fields{{"NS.time", a.integer(5)}}; }));
    EXPECT_TRUE(refusedAs("NSDate", [](HandArchive&) { return Fields{}; }));
    EXPECT_TRUE(refusedAs("NSMutableString", [](HandArchive& a) { return Fields{{"NS.string", a.integer(5)}}; }));
    EXPECT_TRUE(refusedAs("NSMutableData", [](HandArchive&) { return Fields{}; }));
    EXPECT_TRUE(refusedAs("NSURL", [](HandArchive&) { return Fields{}; }));
    EXPECT_TRUE(refusedAs("NSNumber", [](HandArchive& a) { return Fields{{"NS.intval", a.integer(5)}}; }));
    EXPECT_TRUE(refusedWith([](HandArchive& a) {  // an object dictionary with a key that is not a string
        const Ref keys[] = {a.s("$class"), a.integer(1)};
        const Ref values[] = {a.uid(a.classSlot("NSNull")), a.integer(2)};
        a.root(a.slot(a.w.addDictionary(keys, values, 2)));
    }));
}

TEST(KeyedUnarchiverTest, malformedPropertyListObjectsInsideAValidContainerAreRefused)
{
    // A lone high or low surrogate in a UTF-16 string.
    const QByteArray wide = KeyedArchiver::archivedDataWithRootObject(std::make_shared<KeyedString>(QStringLiteral("\u00E9ab")));
    for (const char* units : {"63d80000610062", "6300e9dc000062"})
        EXPECT_TRUE(rootIsRefused(replaced(wide, QByteArray::fromHex("6300e900610062"), QByteArray::fromHex(units)))) << units;

    // Data whose length runs far past the object table, or is negative.
    const QByteArray data = KeyedArchiver::archivedDataWithRootObject(std::make_shared<KeyedData>(QByteArray(9, 'P')));
    const QByteArray placeholder = QByteArray("\x49") + QByteArray(9, 'P');
    for (const char* length : {"4f137fffffffffffffff", "4f13ffffffffffffffff", "4f1700000000000000ff"})
        EXPECT_TRUE(rootIsRefused(replaced(data, placeholder, QByteArray::fromHex(length)))) << length;

    // Integers: a width that does not exist, a 128-bit value that fits no 64-bit type.
    const QByteArray number = KeyedArchiver::archivedDataWithRootObject(KeyedNumber::fromSigned(200));
    EXPECT_TRUE(rootIsRefused(replaced(number, QByteArray::fromHex("10c8"), QByteArray::fromHex("15c8"))));
    const QByteArray huge = KeyedArchiver::archivedDataWithRootObject(KeyedNumber::fromUnsigned(UINT64_MAX));
    EXPECT_TRUE(rootIsRefused(replaced(huge, QByteArray::fromHex("140000000000000000"), QByteArray::fromHex("140000000000000001"))));

    // A UID wider than 8 bytes, and the markers bplist00 does not have.
    const QByteArray simple = KeyedArchiver::archivedDataWithRootObject(KeyedNull::null());
    EXPECT_TRUE(rootIsRefused(replaced(simple, QByteArray::fromHex("8001"), QByteArray::fromHex("8801"))));
    for (const char* marker : {"70", "c0", "00", "0f", "e0", "24"}) {
        const QByteArray bytes = replaced(wide, QByteArray::fromHex("6300e9"), QByteArray::fromHex(marker) + QByteArray::fromHex("00e9"));
        EXPECT_TRUE(rootIsRefused(bytes)) << marker;
    }
}

// Found by fuzzing project documents: "file:" with one bit flipped was
// handed on as an invalid URL, which the archiver wrote back as an empty one.
TEST(KeyedUnarchiverTest, aUrlStringOrBaseThatDoesNotParseDecodesAsNoUrlWithALogLine)
{
    const std::pair<QString, QString> damaged[] = {
        {QStringLiteral("f)le:///work/Song.loomwick"), QString()},
        {QStringLiteral("http://a b/"), QString()},
        {QStringLiteral("file://[::1"), QString()},
        {QStringLiteral("Song.loomwick"), QStringLiteral("http://a b/")},
    };
    for (const auto& [relative, base] : damaged) {
        SCOPED_TRACE(relative.toStdString());
        LogCapture log;
        KeyedUnarchiver coder(KeyedArchiver::archivedDataWithRootObject(
            KeyedURL(relative, base.isNull() ? nullptr : std::make_shared<KeyedURL>(base, nullptr))));
        ASSERT_TRUE(coder.isValid());
        EXPECT_FALSE(coder.decodeURLForKey(QStringLiteral("root")));
        EXPECT_TRUE(coder.hasDecodingError());
        EXPECT_EQ(log.lines().size(), 1);
        EXPECT_EQ(log.count(QStringLiteral("'root' does not parse")), 1);
    }
}

TEST(KeyedUnarchiverTest, urlsThatParseStillDecodeAndArchiveAgainUnchanged)
{
    const auto base = std::make_shared<KeyedURL>(QStringLiteral("file:///a/"), nullptr);
    const std::pair<KeyedURL, QUrl> stored[] = {
        {KeyedURL(QStringLiteral("x"), nullptr), QUrl(QStringLiteral("x"))},
        {KeyedURL(QStringLiteral("file:///a%20b"), nullptr), QUrl::fromLocalFile(QStringLiteral("/a b"))},
        {KeyedURL(QStringLiteral("b/c"), base), QUrl::fromLocalFile(QStringLiteral("/a/b/c"))},
        {KeyedURL(QString(), nullptr), QUrl()},
    };
    for (const auto& [url, expected] : stored) {
        SCOPED_TRACE(expected.toString().toStdString());
        KeyedUnarchiver coder(KeyedArchiver::archivedDataWithRootObject(url));
        const std::optional<QUrl> decoded = coder.decodeURLForKey(QStringLiteral("root"));
        ASSERT_TRUE(decoded);
        EXPECT_EQ(*decoded, expected);
        EXPECT_FALSE(coder.hasDecodingError());
        if (decoded->isEmpty())
            continue;
        KeyedUnarchiver again(KeyedArchiver::archivedDataWithRootObject(KeyedURL(*decoded)));
        EXPECT_EQ(again.decodeURLForKey(QStringLiteral("root")), expected);
    }
}
