// Everything the keyed archiver writes comes back unchanged from the
// unarchiver (scalars, the standard value classes, custom class graphs with
// shared objects and cycles), in the property list layout Foundation expects,
// by CoreFoundation's reader rules, and readable by libplist.
#include "FoundationTestSupport.h"

#include <QUuid>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <cstring>
#include <limits>

using namespace brindle;
using namespace brindle::test;

namespace {

// ---- libplist views of the output

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist parseWithLibplist(const QByteArray& bytes)
{
    plist_t root = nullptr;
    plist_from_bin(bytes.constData(), static_cast<uint32_t>(bytes.size()), &root);
    return Plist(root);
}

QString stringOf(plist_t node)
{
    uint64_t length = 0;
    const char* text = node && plist_get_node_type(node) == PLIST_STRING ? plist_get_string_ptr(node, &length) : nullptr;
    return text ? QString::fromUtf8(text, static_cast<qsizetype>(length)) : QStringLiteral("<not a string>");
}

uint64_t uidOf(plist_t node)
{
    uint64_t value = UINT64_MAX;
    if (node && plist_get_node_type(node) == PLIST_UID)
        plist_get_uid_val(node, &value);
    return value;
}

// ---- CoreFoundation's reader rules, checked independently of our reader

uint64_t bigEndian(const QByteArray& bytes, uint64_t at, unsigned width)
{
    uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i)
        value = (value << 8) | static_cast<unsigned char>(bytes[static_cast<qsizetype>(at + i)]);
    return value;
}

unsigned smallestWidthAbove(uint64_t limit)
{
    for (unsigned width : {1u, 2u, 4u})
        if (limit < (uint64_t{1} << (8 * width)))
            return width;
    return 8;
}

// The trailer and offset table describe the file exactly, with the smallest
// widths; offsets and references stay in range, integers take their smallest
// width, dictionary keys are strings and no string is UTF-8.
testing::AssertionResult satisfiesCoreFoundationReader(const QByteArray& bytes)
{
    const uint64_t size = static_cast<uint64_t>(bytes.size());
    if (size < 42 || !bytes.startsWith("bplist00"))
        return testing::AssertionFailure() << "no header or too short";
    const uint64_t trailer = size - 32;
    const unsigned offsetSize = static_cast<unsigned char>(bytes[static_cast<qsizetype>(trailer + 6)]);
    const unsigned refSize = static_cast<unsigned char>(bytes[static_cast<qsizetype>(trailer + 7)]);
    const uint64_t count = bigEndian(bytes, trailer + 8, 8);
    const uint64_t top = bigEndian(bytes, trailer + 16, 8);
    const uint64_t tableOffset = bigEndian(bytes, trailer + 24, 8);
    if (top != 0 || count < 1 || tableOffset < 9 || size != tableOffset + count * offsetSize + 32)
        return testing::AssertionFailure() << "top " << top << ", count " << count << ", table at " << tableOffset;
    if (refSize != smallestWidthAbove(count) || offsetSize != smallestWidthAbove(tableOffset))
        return testing::AssertionFailure() << "widths " << refSize << "/" << offsetSize << " are not the smallest";

    auto offsetOf = [&](uint64_t ref) { return bigEndian(bytes, tableOffset + ref * offsetSize, offsetSize); };
    auto markerAt = [&](uint64_t offset) { return static_cast<uint8_t>(bytes[static_cast<qsizetype>(offset)]); };
    for (uint64_t ref = 0; ref < count; ++ref) {
        const uint64_t offset = offsetOf(ref);
        if (offset < 8 || offset >= tableOffset)
            return testing::AssertionFailure() << "offset of object " << ref << " out of the object table";
        const uint8_t marker = markerAt(offset);
        const uint8_t type = marker >> 4;
        if (type == 0x1) {
            const unsigned width = 1u << (marker & 0xF);
            const uint64_t value = bigEndian(bytes, offset + 1, std::min(width, 8u));
            const bool negative = width == 8 && (value >> 63) != 0;
            const unsigned minimal = negative ? 8 : (value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8);
            if (width < 16 && width != minimal)
                return testing::AssertionFailure() << "integer " << value << " uses " << width << " bytes";
        }
        if (type == 0x7)
            return testing::AssertionFailure() << "a UTF-8 string marker";
        if (type != 0xA && type != 0xD)
            continue;
        uint64_t elements = marker & 0xF;
        uint64_t at = offset + 1;
        if (elements == 0xF) {
            const unsigned width = 1u << (markerAt(at) & 0xF);
            elements = bigEndian(bytes, at + 1, width);
            at += 1 + width;
        }
        for (uint64_t i = 0; i < (type == 0xD ? 2 : 1) * elements; ++i) {
            const uint64_t child = bigEndian(bytes, at + i * refSize, refSize);
            if (child >= count)
                return testing::AssertionFailure() << "reference " << child << " out of range";
            const uint8_t childType = markerAt(offsetOf(child)) >> 4;
            if (type == 0xD && i < elements && childType != 0x5 && childType != 0x6)
                return testing::AssertionFailure() << "a dictionary key is not a string";
        }
    }
    return testing::AssertionSuccess();
}

QByteArray bytesOf(std::initializer_list<int> values)
{
    QByteArray bytes;
    for (int value : values)
        bytes.append(static_cast<char>(value));
    return bytes;
}

}  // namespace

TEST(KeyedArchiverTest, scalarsOfEveryKindAndWidthComeBackUnchanged)
{
    const std::vector<int64_t> integers = {0, 1, -1, 127, 128, 255, 256, 65535, 65536, 100000, 4294967295LL,
                                           4294967296LL, std::numeric_limits<int64_t>::max(),
                                           std::numeric_limits<int64_t>::min()};
    const std::vector<float> floats = {0.0f, -0.0f, 2.0f, 0.1f, std::numeric_limits<float>::max(),
                                       std::numeric_limits<float>::denorm_min(), std::numeric_limits<float>::infinity()};
    const std::vector<double> doubles = {2.0, 0.1, 1.0 / 3.0, 1e300, -1e-300, std::numeric_limits<double>::denorm_min(),
                                         -std::numeric_limits<double>::infinity()};
    QByteArray block(4096, Qt::Uninitialized);
    for (int i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 7);

    KeyedArchiver archiver;
    for (size_t i = 0; i < integers.size(); ++i)
        archiver.encodeInt64(integers[i], QStringLiteral("i%1").arg(i));
    for (size_t i = 0; i < floats.size(); ++i)
        archiver.encodeFloat(floats[i], QStringLiteral("f%1").arg(i));
    for (size_t i = 0; i < doubles.size(); ++i)
        archiver.encodeDouble(doubles[i], QStringLiteral("d%1").arg(i));
    archiver.encodeFloat(std::numeric_limits<float>::quiet_NaN(), QStringLiteral("fnan"));
    archiver.encodeDouble(std::numeric_limits<double>::quiet_NaN(), QStringLiteral("dnan"));
    archiver.encodeInt32(std::numeric_limits<int32_t>::min(), QStringLiteral("int32min"));
    archiver.encodeBool(true, QStringLiteral("yes"));
    archiver.encodeBool(false, QStringLiteral("no"));
    archiver.encodeBytes(block, QStringLiteral("block"));
    archiver.encodeBytes(QByteArray(), QStringLiteral("empty"));
    const QByteArray archive = archiver.finishEncoding();
    // Doubles are 8-byte reals and floats 4-byte reals whatever their value;
    // integers take the smallest width, big-endian.
    EXPECT_TRUE(archive.contains(bytesOf({0x23, 0x40, 0, 0, 0, 0, 0, 0, 0})));
    EXPECT_TRUE(archive.contains(bytesOf({0x22, 0x40, 0, 0, 0})));
    EXPECT_TRUE(archive.contains(bytesOf({0x12, 0x00, 0x01, 0x86, 0xA0})));
    EXPECT_TRUE(satisfiesCoreFoundationReader(archive));

    KeyedUnarchiver coder(archive);
    ASSERT_TRUE(coder.isValid());
    for (size_t i = 0; i < integers.size(); ++i)
        EXPECT_EQ(coder.decodeInt64ForKey(QStringLiteral("i%1").arg(i)), integers[i]);
    for (size_t i = 0; i < floats.size(); ++i) {
        const float value = coder.decodeFloatForKey(QStringLiteral("f%1").arg(i));
        EXPECT_EQ(std::memcmp(&value, &floats[i], sizeof value), 0) << floats[i];
    }
    for (size_t i = 0; i < doubles.size(); ++i)
        EXPECT_EQ(coder.decodeDoubleForKey(QStringLiteral("d%1").arg(i)), doubles[i]);
    EXPECT_TRUE(std::isnan(coder.decodeFloatForKey(QStringLiteral("fnan"))));
    EXPECT_TRUE(std::isnan(coder.decodeDoubleForKey(QStringLiteral("dnan"))));
    EXPECT_EQ(coder.decodeInt32ForKey(QStringLiteral("int32min")), std::numeric_limits<int32_t>::min());
    EXPECT_TRUE(coder.decodeBoolForKey(QStringLiteral("yes")));
    EXPECT_FALSE(coder.decodeBoolForKey(QStringLiteral("no")));
    EXPECT_EQ(coder.decodeBytesForKey(QStringLiteral("block")), block);
    EXPECT_TRUE(coder.containsValueForKey(QStringLiteral("empty")));
    EXPECT_TRUE(coder.decodeBytesForKey(QStringLiteral("empty")).isEmpty());
    // A float decoded as a double is the float's exact value.
    EXPECT_EQ(coder.decodeDoubleForKey(QStringLiteral("f3")), static_cast<double>(0.1f));
    EXPECT_FALSE(coder.hasDecodingError());
}

TEST(KeyedArchiverTest, standardValueClassesRoundTripWithTheirFoundationClassByCoreFoundationsRules)
{
    auto str = [](const QString& text, bool mutableString = false) {
        return std::make_shared<KeyedString>(text, mutableString);
    };
    auto base = std::make_shared<KeyedURL>(QUrl(QStringLiteral("https://example.com/media/")));
    const std::pair<const char*, ConstKeyedObjectPtr> values[] = {
        {"string", str(QStringLiteral("ascii"))},
        {"mutable string", str(QStringLiteral("gr\u00FC\u00DFe \U0001F3B5"), true)},
        {"empty string", str(QString())},
        {"data", std::make_shared<KeyedData>(QByteArray("\0\1\2", 3))},
        {"mutable data", std::make_shared<KeyedData>(QByteArray("xyz"), true)},
        {"bool", KeyedNumber::fromBool(true)},
        {"signed", KeyedNumber::fromSigned(-7)},
        {"huge unsigned", KeyedNumber::fromUnsigned(UINT64_MAX)},
        {"float", KeyedNumber::fromFloat(0.1f)},
        {"double", KeyedNumber::fromDouble(0.1)},
        {"null", KeyedNull::null()},
        {"uuid", std::make_shared<KeyedUUID>(QUuid::createUuid())},
        {"date", std::make_shared<KeyedDate>(-13197600000.0)},
        {"url", std::make_shared<KeyedURL>(QStringLiteral("a b.wav"), base)},
        {"file url", std::make_shared<KeyedURL>(QUrl::fromLocalFile(QStringLiteral("/tmp/a b#.mp3")))},
    };
    auto dictionary = std::make_shared<KeyedDictionary>(true);
    for (const auto& [key, value] : values)
        dictionary->setObjectForKey(value, QString::fromUtf8(key));
    dictionary->setObjectForKey(str(QStringLiteral("number key")), KeyedNumber::fromSigned(3));
    for (int flavor = 0; flavor <= static_cast<int>(KeyedArray::Flavor::MutableOrderedSet); ++flavor) {
        const std::vector<ConstKeyedObjectPtr> elements = {str(QStringLiteral("a")), nullptr, str(QStringLiteral("b"))};
        dictionary->setObjectForKey(std::make_shared<KeyedArray>(elements, static_cast<KeyedArray::Flavor>(flavor)),
                                    QStringLiteral("array %1").arg(flavor));
    }

    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(dictionary);
    EXPECT_TRUE(satisfiesCoreFoundationReader(archive));
    KeyedUnarchiver coder(archive);
    auto decoded = coder.decodeObjectOfClass<KeyedDictionary>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(coder.hasDecodingError());
    EXPECT_EQ(describe(decoded, false), describe(dictionary, false));
    EXPECT_EQ(decoded->objectOfClassForKey<KeyedURL>(QStringLiteral("url"))->url(),
              QUrl(QStringLiteral("https://example.com/media/a%20b.wav")));
    EXPECT_EQ(decoded->objectOfClassForKey<KeyedURL>(QStringLiteral("file url"))->url().toLocalFile(),
              QStringLiteral("/tmp/a b#.mp3"));
    EXPECT_EQ(decoded->objectForKey(KeyedNumber::fromSigned(3)), nullptr);  // other keys compare by identity
    EXPECT_EQ(describe(decoded->entries()[std::size(values)].key), "3");

    // The convenience readers accept the mutable forms too; a small unsigned
    // number comes back as an integer of the same value.
    KeyedArchiver top;
    top.encodeObject(str(QStringLiteral("text"), true), QStringLiteral("s"));
    top.encodeObject(std::make_shared<KeyedData>(QByteArray("raw"), true), QStringLiteral("d"));
    top.encodeObject(KeyedNumber::fromUnsigned(7), QStringLiteral("n"));
    KeyedUnarchiver topCoder(top.finishEncoding());
    EXPECT_EQ(topCoder.decodeStringForKey(QStringLiteral("s")), QStringLiteral("text"));
    EXPECT_EQ(topCoder.decodeDataForKey(QStringLiteral("d")), QByteArray("raw"));
    EXPECT_EQ(describe(topCoder.decodeObjectForKey(QStringLiteral("n"))), "7");
}

TEST(KeyedArchiverTest, customGraphRoundTripsInBinaryAndXmlFormWithSharedObjectsStayingSharedAndCyclesReadAsNil)
{
    auto project = TestNode::named(QStringLiteral("Session \u00E9t\u00E9"));
    project->url = QUrl::fromLocalFile(QStringLiteral("/home/someone/Music/session one.loomwick"));
    for (int t = 0; t < 3; ++t) {
        auto track = TestNode::named(QStringLiteral("Track %1").arg(t));
        for (int c = 0; c < 4; ++c) {
            auto clip = TestNode::named(QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
            clip->number = c == 0 ? std::numeric_limits<int64_t>::min() : c == 3 ? std::numeric_limits<int64_t>::max() : c;
            clip->gain = 0.1f * static_cast<float>(c + 1);
            clip->real = 44100.0 / 3.0;
            clip->flag = c % 2 == 1;
            clip->bytes = QByteArray(c * 100, static_cast<char>(c));
            clip->url = QUrl::fromLocalFile(QStringLiteral("/media/take %1.wav").arg(c));
            track->children.push_back(clip);
        }
        project->children.push_back(track);
    }
    project->link = project->children[1]->children[2];  // also held by a track
    project->children[0]->link = project;  // back up to the root: a cycle
    // The same clip twice in one track, and an equal but distinct copy.
    auto& clips = project->children[2]->children;
    clips.push_back(clips[0]);
    clips.push_back(std::make_shared<TestNode>(*clips[0]));

    // The binary archive, and the XML form libplist makes of it.
    const QByteArray binary = KeyedArchiver::archivedDataWithRootObject(project);
    project->children[0]->link.reset();
    Plist plist = parseWithLibplist(binary);
    ASSERT_TRUE(plist);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(plist.get(), &xml, &length);
    ASSERT_TRUE(xml);
    const QByteArray xmlArchive(xml, static_cast<qsizetype>(length));
    plist_to_xml_free(xml);
    for (const QByteArray& archive : {binary, xmlArchive}) {
        KeyedUnarchiver coder(archive);
        auto decoded = coder.decodeObjectOfClass<TestNode>(QStringLiteral("root"));
        ASSERT_TRUE(decoded);
        EXPECT_FALSE(coder.hasDecodingError());
        // Archived again, the copy gives the same bytes as the original without
        // its cycle: every field, and which objects are one instance, came back.
        EXPECT_EQ(KeyedArchiver::archivedDataWithRootObject(decoded), KeyedArchiver::archivedDataWithRootObject(project));
        const TestNode& clip = *decoded->children[1]->children[3];
        EXPECT_EQ(std::tie(clip.number, clip.real, clip.gain, clip.flag, clip.bytes),
                  std::make_tuple(std::numeric_limits<int64_t>::max(), 44100.0 / 3.0, 0.4f, true, QByteArray(300, 3)));
        EXPECT_EQ(clip.url, QUrl::fromLocalFile(QStringLiteral("/media/take 3.wav")));
        EXPECT_EQ(decoded->link, decoded->children[1]->children[2]);
        EXPECT_FALSE(decoded->children[0]->link);
        const auto& decodedClips = decoded->children[2]->children;
        EXPECT_EQ(decodedClips[4], decodedClips[0]);
        EXPECT_NE(decodedClips[5], decodedClips[0]);
    }
}

TEST(KeyedArchiverTest, objectsNestedBeyondTheDepthLimitAreWrittenAsNil)
{
    auto outer = std::make_shared<KeyedArray>();
    for (int i = 0; i < KeyedArchiver::kMaxDepth + 10; ++i)
        outer = std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>{outer});
    KeyedUnarchiver coder(KeyedArchiver::archivedDataWithRootObject(outer));
    auto decoded = coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    int depth = 1;
    for (std::shared_ptr<const KeyedArray> at = decoded; at->count() > 0; at = at->objectAtIndex<KeyedArray>(0))
        ++depth;
    EXPECT_EQ(depth, KeyedArchiver::kMaxDepth);
    EXPECT_FALSE(coder.hasDecodingError());
}

TEST(KeyedArchiverTest, reArchivedFixturesDecodeToTheSameValuesAndSharing)
{
    for (const char* name : {"scf-ComplexTest.bplist", "scf-NSSet-Numbers.bplist", "bpylist-mutable_data.bplist",
                             "sandin-nsdictionary_setconfig.bplist", "sandin-nsarray_networking.bplist",
                             "scf-NSMutableOrderedSet-Numbers.bplist", "scf-URLTest.xml", "gnustep-eszett1-osx.bplist"}) {
        auto original = KeyedUnarchiver::unarchiveObjectWithData(fixture(QString::fromUtf8(name)));
        ASSERT_TRUE(original) << name;
        auto copy = KeyedUnarchiver::unarchiveObjectWithData(KeyedArchiver::archivedDataWithRootObject(original));
        EXPECT_EQ(describe(copy), describe(original)) << name;
    }
}

TEST(KeyedArchiverTest, theArchiveHasFoundationsLayoutSlotOrderClassDictionariesAndEscapedKeys)
{
    auto root = TestNode::named(QStringLiteral("Demo"));
    root->children.push_back(TestNode::named(QStringLiteral("Demo")));  // the same text: one string slot
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(root);
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));
    Plist plist = parseWithLibplist(archive);
    ASSERT_TRUE(plist);
    auto item = [&](const char* key) { return plist_dict_get_item(plist.get(), key); };
    EXPECT_EQ(plist_dict_get_size(plist.get()), 4u);
    EXPECT_EQ(stringOf(item("$archiver")), "NSKeyedArchiver");
    uint64_t version = 0;
    plist_get_uint_val(item("$version"), &version);
    EXPECT_EQ(version, 100000u);
    EXPECT_EQ(plist_dict_get_size(item("$top")), 1u);
    EXPECT_EQ(uidOf(plist_dict_get_item(item("$top"), "root")), 1u);
    plist_t objects = item("$objects");
    auto slot = [&](uint64_t index) { return plist_array_get_item(objects, static_cast<uint32_t>(index)); };
    auto field = [&](uint64_t index, const char* key) { return uidOf(plist_dict_get_item(slot(index), key)); };
    EXPECT_EQ(stringOf(slot(0)), "$null");

    // Pre-order: [1] root, [2] its name, [3] its children array, [4] the child
    // (whose name reuses slot 2), [5] the child's empty children array, [6]
    // NSMutableArray's class after that array, [7] TestNode's class after the
    // child. An empty URL and a missing link are nil.
    EXPECT_EQ(plist_array_get_size(objects), 8u);
    const std::tuple<uint64_t, const char*, uint64_t> fields[] = {
        {1, "name", 2}, {1, "children", 3}, {1, "link", 0}, {1, "url", 0},
        {1, "$class", 7}, {4, "name", 2}, {4, "children", 5}, {4, "$class", 7}, {5, "$class", 6}};
    for (const auto& [index, key, value] : fields)
        EXPECT_EQ(field(index, key), value) << index << " " << key;
    EXPECT_EQ(uidOf(plist_array_get_item(plist_dict_get_item(slot(3), "NS.objects"), 0)), 4u);
    EXPECT_EQ(stringOf(plist_dict_get_item(slot(6), "$classname")), "NSMutableArray");
    EXPECT_EQ(stringOf(plist_dict_get_item(slot(7), "$classname")), "TestNode");
    plist_t chain = plist_dict_get_item(slot(7), "$classes");
    ASSERT_EQ(plist_array_get_size(chain), 3u);
    EXPECT_EQ(stringOf(plist_array_get_item(chain, 1)), "TestBase");
    EXPECT_EQ(stringOf(plist_array_get_item(chain, 2)), "NSObject");
    Plist nilRoot = parseWithLibplist(KeyedArchiver::archivedDataWithRootObject(ConstKeyedObjectPtr()));
    ASSERT_TRUE(nilRoot);
    EXPECT_EQ(uidOf(plist_dict_get_item(plist_dict_get_item(nilRoot.get(), "$top"), "root")), 0u);

    // Keys beginning with '$' get one more, so that they never meet the
    // reserved keys; a key encoded twice keeps its last value.
    KeyedArchiver archiver;
    archiver.encodeInt64(5, QStringLiteral("$class"));
    archiver.encodeInt64(1, QStringLiteral("twice"));
    archiver.encodeInt64(2, QStringLiteral("twice"));
    const QByteArray escaped = archiver.finishEncoding();
    Plist escapedPlist = parseWithLibplist(escaped);
    plist_t escapedTop = plist_dict_get_item(escapedPlist.get(), "$top");
    EXPECT_TRUE(plist_dict_get_item(escapedTop, "$$class"));
    EXPECT_EQ(plist_dict_get_size(escapedTop), 2u);
    KeyedUnarchiver coder(escaped);
    EXPECT_EQ(coder.decodeInt64ForKey(QStringLiteral("$class")), 5);
    EXPECT_EQ(coder.decodeInt64ForKey(QStringLiteral("twice")), 2);
}

TEST(KeyedArchiverTest, largeArchivesWidenReferencesAndOffsetsAsCoreFoundationDoes)
{
    // Over 65536 objects and over 4 GiB is out of reach; 70000 strings need
    // 4-byte references and a 1 MB block 4-byte offsets.
    std::vector<ConstKeyedObjectPtr> strings;
    for (int i = 0; i < 70000; ++i)
        strings.push_back(std::make_shared<KeyedString>(QString::number(i)));
    KeyedArchiver large;
    large.encodeArray(strings, QStringLiteral("strings"));
    large.encodeBytes(QByteArray(1 << 20, 'x'), QStringLiteral("block"));
    const QByteArray wide = large.finishEncoding();
    ASSERT_TRUE(satisfiesCoreFoundationReader(wide));
    EXPECT_EQ(wide[wide.size() - 32 + 7], 4);  // objectRefSize
    EXPECT_EQ(wide[wide.size() - 32 + 6], 4);  // offsetIntSize
    KeyedUnarchiver coder(wide);
    auto decoded = coder.decodeArrayOfClass<KeyedString>(QStringLiteral("strings"));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 70000u);
    EXPECT_EQ((*decoded)[69999]->string(), "69999");
    EXPECT_EQ(coder.decodeBytesForKey(QStringLiteral("block")).size(), 1 << 20);
}
