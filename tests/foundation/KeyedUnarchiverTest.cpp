// Damaged and hostile archives: every one is refused or decodes to nothing
// at the damaged place, with the damage reported, and never crashes.
#include "foundation/BplistWriter.h"
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace brindle;

namespace {

using Ref = BplistWriter::Ref;
using Fields = std::vector<std::pair<QString, Ref>>;

// Builds keyed archives by hand, including ones our archiver never writes.
struct HandArchive {
    BplistWriter w;
    Ref rootRef = w.reserve();
    std::vector<Ref> objects{w.addString(QStringLiteral("$null"))};
    Fields top;

    Ref s(const QString& text) { return w.addString(text); }
    Ref uid(uint32_t value) { return w.addUID(value); }
    Ref integer(int64_t value) { return w.addInteger(value); }
    Ref array(const std::vector<Ref>& refs) { return w.addArray(refs.data(), refs.size()); }
    Ref uids(const std::vector<uint32_t>& values)
    {
        std::vector<Ref> refs;
        for (uint32_t value : values)
            refs.push_back(uid(value));
        return array(refs);
    }
    Ref dict(const Fields& fields)
    {
        std::vector<Ref> keys;
        std::vector<Ref> values;
        for (const auto& [key, value] : fields) {
            keys.push_back(s(key));
            values.push_back(value);
        }
        return w.addDictionary(keys.data(), values.data(), keys.size());
    }
    uint32_t slot(Ref object)
    {
        objects.push_back(object);
        return static_cast<uint32_t>(objects.size() - 1);
    }
    uint32_t classSlot(const QString& name)
    {
        return slot(dict({{"$classname", s(name)}, {"$classes", array({s(name), s("NSObject")})}}));
    }
    uint32_t object(uint32_t classSlot, Fields fields)
    {
        fields.push_back({"$class", uid(classSlot)});
        return slot(dict(fields));
    }
    void root(uint32_t value) { top.push_back({"root", uid(value)}); }

    // The archive; `replace` swaps (or, with kDrop, removes) top-level entries.
    static constexpr Ref kDrop = UINT32_MAX;
    QByteArray finish(const Fields& replace = {})
    {
        Fields entries = {{"$archiver", s("NSKeyedArchiver")},
                          {"$version", integer(100000)},
                          {"$top", dict(top)},
                          {"$objects", array(objects)}};
        for (const auto& [key, value] : replace) {
            auto at = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.first == key; });
            if (at == entries.end())
                entries.push_back({key, value});
            else if (value == kDrop)
                entries.erase(at);
            else
                at->second = value;
        }
        std::vector<Ref> keys;
        std::vector<Ref> values;
        for (const auto& [key, value] : entries) {
            keys.push_back(s(key));
            values.push_back(value);
        }
        w.setDictionary(rootRef, keys.data(), values.data(), keys.size());
        return w.finish(rootRef);
    }
};

// A custom class that counts its instances, to show what typed and generic
// decoding never instantiate.
class ProbeNode final : public KeyedCoding {
public:
    static inline std::atomic<int> instances{0};
    std::shared_ptr<ProbeNode> link;
    std::vector<std::shared_ptr<ProbeNode>> children;

    ProbeNode() { ++instances; }
    QString classNameForArchive() const override { return QStringLiteral("ProbeNode"); }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeObject(link, QStringLiteral("link"));
        coder.encodeArrayOf(children, QStringLiteral("children"));
    }
    static QStringList archiveClassNames() { return {QStringLiteral("ProbeNode")}; }
    static std::shared_ptr<ProbeNode> initWithCoder(KeyedUnarchiver& coder)
    {
        auto node = std::make_shared<ProbeNode>();
        node->link = coder.decodeObjectOfClass<ProbeNode>(QStringLiteral("link"));
        node->children = coder.decodeArrayOfClass<ProbeNode>(QStringLiteral("children")).value_or(node->children);
        return node;
    }
};

// Collects log lines while alive.
class LogCapture {
public:
    LogCapture()
    {
        m_previous = setLogSink([this](const QString& line) { lines.append(line); });
    }
    ~LogCapture() { setLogSink(m_previous); }
    bool contains(const QString& text) const
    {
        return std::any_of(lines.begin(), lines.end(), [&](const QString& line) { return line.contains(text); });
    }
    QStringList lines;

private:
    LogSink m_previous;
};

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
    auto variant = [&](const Fields& replace) {
        HandArchive archive;
        archive.root(archive.slot(archive.s("text")));
        inputs.push_back(archive.finish(replace));
    };
    variant({{"$archiver", HandArchive::kDrop}});
    variant({{"$archiver", 0}});  // reference 0 is the root dictionary itself
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$archiver", a.s("NSArchiver")}}));
    }
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$version", a.integer(99999)}}));
    }
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$version", a.s("100000")}}));
    }
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$version", a.w.addDouble(100000.0)}}));
    }
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$top", a.array({})}}));
    }
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$top", a.w.addDictionary(std::vector<Ref>{a.integer(1)}.data(),
                                                               std::vector<Ref>{a.uid(1)}.data(), 1)}}));
    }
    variant({{"$objects", HandArchive::kDrop}});
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$objects", a.array({})}}));
    }
    {
        HandArchive a;
        inputs.push_back(a.finish({{"$objects", a.dict({})}}));
    }
    {
        BplistWriter writer;
        const Ref element = writer.addString(QStringLiteral("NSKeyedArchiver"));
        inputs.push_back(writer.finish(writer.addArray(&element, 1)));
    }

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

    // Trailer fields: offset and reference widths, object count, top object, table offset.
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
          withField(trailer + 24, UINT64_MAX - 5), withByte(7, '1')})
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
            KeyedUnarchiver coder(bytes);
            coder.decodeObjectForKey(QStringLiteral("root"));
        }
    }
}

TEST(KeyedUnarchiverTest, referencesOutOfRangeDecodeAsNothingWhereverTheyAre)
{
    {
        HandArchive a;
        a.root(1000);
        EXPECT_TRUE(rootIsRefused(a.finish()));
    }
    {
        HandArchive a;  // $class out of range
        a.root(a.slot(a.dict({{"$class", a.uid(77)}})));
        EXPECT_TRUE(rootIsRefused(a.finish()));
    }
    {
        HandArchive a;  // an array element out of range
        const uint32_t arrayClass = a.classSlot("NSArray");
        a.root(a.object(arrayClass, {{"NS.objects", a.uids({0, 5000})}}));
        const QByteArray archive = a.finish();
        EXPECT_TRUE(rootIsRefused(archive));
        KeyedUnarchiver coder(archive);
        EXPECT_FALSE(coder.decodeArrayOfClass<KeyedNumber>(QStringLiteral("root")));
        EXPECT_TRUE(coder.hasDecodingError());
    }
    {
        HandArchive a;  // a dictionary key out of range
        const uint32_t dictionaryClass = a.classSlot("NSDictionary");
        const uint32_t value = a.slot(a.s("v"));
        a.root(a.object(dictionaryClass, {{"NS.keys", a.uids({999})}, {"NS.objects", a.uids({value})}}));
        EXPECT_TRUE(rootIsRefused(a.finish()));
    }
    {
        HandArchive a;  // a field of a custom object out of range
        const uint32_t probeClass = a.classSlot("ProbeNode");
        a.root(a.object(probeClass, {{"link", a.uid(4242)}}));
        KeyedUnarchiver coder(a.finish());
        auto node = coder.decodeObjectOfClass<ProbeNode>(QStringLiteral("root"));
        ASSERT_TRUE(node);
        EXPECT_FALSE(node->link);
        EXPECT_TRUE(coder.hasDecodingError());
    }
}

TEST(KeyedUnarchiverTest, classReferencesMustLeadToAClassDictionaryWithAName)
{
    auto refusedWithClass = [](const std::function<Ref(HandArchive&)>& makeClass) {
        HandArchive a;
        a.root(a.slot(a.dict({{"NS.objects", a.uids({})}, {"$class", makeClass(a)}})));
        return rootIsRefused(a.finish());
    };
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.s("NSArray"); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(0); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(a.slot(a.s("NSArray"))); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(a.slot(a.dict({{"$classes", a.array({})}}))); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(a.slot(a.dict({{"$classname", a.integer(1)}}))); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) { return a.uid(a.slot(a.dict({{"$classname", a.s("")}}))); }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) {
        return a.uid(a.slot(a.dict({{"$classname", a.s("NSArray")}, {"$classes", a.s("NSArray")}})));
    }));
    EXPECT_TRUE(refusedWithClass([](HandArchive& a) {
        return a.uid(a.slot(a.dict({{"$classname", a.s("NSArray")}, {"$classes", a.array({a.integer(1)})}})));
    }));
    {
        HandArchive a;  // no $class: a plain dictionary where an object belongs
        a.root(a.slot(a.dict({{"NS.objects", a.uids({})}})));
        EXPECT_TRUE(rootIsRefused(a.finish()));
    }
    {
        HandArchive a;  // the root is a class dictionary
        a.root(a.classSlot("NSArray"));
        EXPECT_TRUE(rootIsRefused(a.finish()));
    }
    {
        HandArchive a;  // without $classes the class name alone is the chain
        a.root(a.slot(a.dict({{"NS.objects", a.uids({})},
                               {"$class", a.uid(a.slot(a.dict({{"$classname", a.s("NSMutableArray")}})))}})));
        auto array = KeyedUnarchiver::unarchivedObjectOfClass<KeyedArray>(a.finish());
        ASSERT_TRUE(array);
        EXPECT_EQ(array->flavor(), KeyedArray::Flavor::MutableArray);
    }
}

TEST(KeyedUnarchiverTest, typedDecodingInstantiatesOnlyTheExpectedClassAndGenericOnlyKnownOnes)
{
    auto node = std::make_shared<ProbeNode>();
    node->children.push_back(std::make_shared<ProbeNode>());
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(node);
    const int before = ProbeNode::instances;

    {
        KeyedUnarchiver coder(archive);
        EXPECT_FALSE(coder.decodeObjectOfClass<KeyedURL>(QStringLiteral("root")));
        EXPECT_TRUE(coder.hasDecodingError());
        EXPECT_FALSE(coder.decodeStringForKey(QStringLiteral("root")));
        EXPECT_FALSE(coder.decodeArrayOfClass<ProbeNode>(QStringLiteral("root")));
    }
    {
        LogCapture log;
        KeyedUnarchiver coder(archive);
        EXPECT_FALSE(coder.decodeObjectForKey(QStringLiteral("root")));
        EXPECT_TRUE(log.contains(QStringLiteral("cannot decode object of class (ProbeNode)")));
    }
    EXPECT_EQ(ProbeNode::instances, before);

    KeyedClassRegistry::registerClass<ProbeNode>();
    auto generic = std::dynamic_pointer_cast<ProbeNode>(KeyedUnarchiver::unarchiveObjectWithData(archive));
    KeyedClassRegistry::registerClass(QStringLiteral("ProbeNode"), nullptr);
    ASSERT_TRUE(generic);
    EXPECT_EQ(generic->children.size(), 1u);

    // A Foundation class name over fields of the wrong kind decodes as nothing.
    HandArchive a;
    const uint32_t urlClass = a.classSlot("NSURL");
    a.root(a.object(urlClass, {{"NS.relative", a.uid(a.slot(a.integer(3)))}, {"NS.base", a.uid(0)}}));
    EXPECT_TRUE(rootIsRefused(a.finish()));

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
    const uint32_t probeClass = a.classSlot("ProbeNode");
    const uint32_t arrayClass = a.classSlot("NSArray");
    const uint32_t urlClass = a.classSlot("NSURL");
    // [4] links to itself; [5] and [6] link to each other; [7] holds itself in its children.
    a.slot(a.dict({{"link", a.uid(4)}, {"$class", a.uid(probeClass)}}));
    a.slot(a.dict({{"link", a.uid(6)}, {"$class", a.uid(probeClass)}}));
    a.slot(a.dict({{"link", a.uid(5)}, {"$class", a.uid(probeClass)}}));
    a.slot(a.dict({{"children", a.uid(8)}, {"$class", a.uid(probeClass)}}));
    a.slot(a.dict({{"NS.objects", a.uids({7, 7})}, {"$class", a.uid(arrayClass)}}));
    // [9] an array holding itself; [11] a URL based on itself, relative to [10].
    a.slot(a.dict({{"NS.objects", a.uids({9})}, {"$class", a.uid(arrayClass)}}));
    const uint32_t relative = a.slot(a.s("x"));
    a.slot(a.dict({{"NS.base", a.uid(11)}, {"NS.relative", a.uid(relative)}, {"$class", a.uid(urlClass)}}));
    for (uint32_t key : {4, 5, 7, 9, 11})
        a.top.push_back({QStringLiteral("k%1").arg(key), a.uid(key)});
    KeyedUnarchiver coder(a.finish());

    auto self = coder.decodeObjectOfClass<ProbeNode>(QStringLiteral("k4"));
    ASSERT_TRUE(self);
    EXPECT_FALSE(self->link);
    auto first = coder.decodeObjectOfClass<ProbeNode>(QStringLiteral("k5"));
    ASSERT_TRUE(first && first->link);
    EXPECT_FALSE(first->link->link);
    auto parent = coder.decodeObjectOfClass<ProbeNode>(QStringLiteral("k7"));
    ASSERT_TRUE(parent);
    EXPECT_TRUE(parent->children.empty());
    auto array = coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("k9"));
    ASSERT_TRUE(array);
    EXPECT_EQ(array->count(), 0u);
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
    auto refused = [](const char* className, const std::function<Fields(HandArchive&)>& fields) {
        HandArchive a;
        const uint32_t cls = a.classSlot(QString::fromUtf8(className));
        a.root(a.object(cls, fields(a)));
        return rootIsRefused(a.finish());
    };
    EXPECT_TRUE(refused("NSDictionary", [](HandArchive& a) -> Fields {
        const uint32_t text = a.slot(a.s("k"));
        return {{"NS.keys", a.uids({text, text})}, {"NS.objects", a.uids({text})}};
    }));
    EXPECT_TRUE(refused("NSDictionary", [](HandArchive& a) -> Fields { return {{"NS.objects", a.uids({})}}; }));
    EXPECT_TRUE(refused("NSArray", [](HandArchive& a) -> Fields { return {{"NS.objects", a.s("x")}}; }));
    EXPECT_TRUE(refused("NSArray", [](HandArchive& a) -> Fields { return {{"NS.objects", a.array({a.integer(1)})}}; }));
    EXPECT_TRUE(refused("NSUUID", [](HandArchive& a) -> Fields { return {{"NS.uuidbytes", a.w.addData(QByteArray(15, 'u'))}}; }));
    EXPECT_TRUE(refused("NSUUID", [](HandArchive& a) -> Fields { return {{"NS.uuidbytes", a.s("0123456789abcdef")}}; }));
    EXPECT_TRUE(refused("NSDate", [](HandArchive& a) -> Fields { return {{"NS.time", a.s("yesterday")}}; }));
    EXPECT_TRUE(refused("NSDate", [](HandArchive& a) -> Fields { return {{"NS.time", a.integer(5)}}; }));
    EXPECT_TRUE(refused("NSDate", [](HandArchive&) -> Fields { return {}; }));
    EXPECT_TRUE(refused("NSMutableString", [](HandArchive& a) -> Fields { return {{"NS.string", a.integer(5)}}; }));
    EXPECT_TRUE(refused("NSMutableData", [](HandArchive&) -> Fields { return {}; }));
    EXPECT_TRUE(refused("NSURL", [](HandArchive&) -> Fields { return {}; }));
    EXPECT_TRUE(refused("NSNumber", [](HandArchive& a) -> Fields { return {{"NS.intval", a.integer(5)}}; }));
    {
        HandArchive a;  // an object dictionary with a key that is not a string
        const uint32_t cls = a.classSlot("NSNull");
        const Ref keys[] = {a.s("$class"), a.integer(1)};
        const Ref values[] = {a.uid(cls), a.integer(2)};
        a.root(a.slot(a.w.addDictionary(keys, values, 2)));
        EXPECT_TRUE(rootIsRefused(a.finish()));
    }
}

TEST(KeyedUnarchiverTest, malformedPropertyListObjectsInsideAValidContainerAreRefused)
{
    // A lone surrogate in a UTF-16 string.
    const QByteArray wide = KeyedArchiver::archivedDataWithRootObject(std::make_shared<KeyedString>(QStringLiteral("\u00E9ab")));
    EXPECT_TRUE(rootIsRefused(replaced(wide, QByteArray::fromHex("6300e900610062"), QByteArray::fromHex("63d80000610062"))));

    // Data whose length runs far past the object table, or is negative.
    const QByteArray data = KeyedArchiver::archivedDataWithRootObject(std::make_shared<KeyedData>(QByteArray(9, 'P')));
    const QByteArray placeholder = QByteArray("\x49") + QByteArray(9, 'P');
    EXPECT_TRUE(rootIsRefused(replaced(data, placeholder, QByteArray::fromHex("4f137fffffffffffffff"))));
    EXPECT_TRUE(rootIsRefused(replaced(data, placeholder, QByteArray::fromHex("4f13ffffffffffffffff"))));
    EXPECT_TRUE(rootIsRefused(replaced(data, placeholder, QByteArray::fromHex("4f1700000000000000ff"))));

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
