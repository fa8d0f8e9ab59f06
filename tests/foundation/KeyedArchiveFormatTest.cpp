// The property list the keyed archiver writes: the archive layout Foundation
// expects, CoreFoundation's reader rules, and what libplist makes of it.
#include "FoundationTestSupport.h"

#include <QUuid>

#include <gtest/gtest.h>
#include <plist/plist.h>

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
    if (top != 0 || count < 1 || tableOffset < 9)
        return testing::AssertionFailure() << "top " << top << ", count " << count << ", table at " << tableOffset;
    if (size != tableOffset + count * offsetSize + 32)
        return testing::AssertionFailure() << "the file length does not match the trailer";
    if (refSize != smallestWidthAbove(count) || offsetSize != smallestWidthAbove(tableOffset))
        return testing::AssertionFailure() << "widths " << refSize << "/" << offsetSize << " are not the smallest";

    auto offsetOf = [&](uint64_t ref) { return bigEndian(bytes, tableOffset + ref * offsetSize, offsetSize); };
    auto markerAt = [&](uint64_t offset) { return static_cast<uint8_t>(bytes[static_cast<qsizetype>(offset)]); };
    std::vector<std::vector<uint64_t>> children(count);
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
            children[ref].push_back(child);
            const bool isKey = type == 0xD && i < elements;
            if (isKey && (markerAt(offsetOf(child)) >> 4) != 0x5 && (markerAt(offsetOf(child)) >> 4) != 0x6)
                return testing::AssertionFailure() << "a dictionary key is not a string";
        }
    }
    // No collection may contain itself: a depth-first search for back edges
    // (the containers of a keyed archive nest only a few levels deep).
    std::vector<uint8_t> colour(count, 0);  // unseen, on the current path, done
    std::function<bool(uint64_t)> acyclic = [&](uint64_t node) {
        colour[node] = 1;
        for (uint64_t child : children[node])
            if (colour[child] == 1 || (colour[child] == 0 && !acyclic(child)))
                return false;
        colour[node] = 2;
        return true;
    };
    if (!acyclic(0))
        return testing::AssertionFailure() << "a collection contains itself";
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

TEST(KeyedArchiveFormatTest, doublesAreEightByteRealsAndFloatsFourByteRealsWhateverTheirValue)
{
    KeyedArchiver archiver;
    archiver.encodeDouble(2.0, QStringLiteral("double"));
    archiver.encodeFloat(2.0f, QStringLiteral("float"));
    archiver.encodeInt64(100000, QStringLiteral("integer"));
    const QByteArray archive = archiver.finishEncoding();
    EXPECT_TRUE(archive.contains(bytesOf({0x23, 0x40, 0, 0, 0, 0, 0, 0, 0})));
    EXPECT_TRUE(archive.contains(bytesOf({0x22, 0x40, 0, 0, 0})));
    // $version and the integer: the smallest width, big-endian.
    EXPECT_TRUE(archive.contains(bytesOf({0x12, 0x00, 0x01, 0x86, 0xA0})));

    // libplist reads the 8-byte real back as the same double.
    Plist root = parseWithLibplist(archive);
    ASSERT_TRUE(root);
    double value = 0;
    plist_get_real_val(plist_dict_get_item(plist_dict_get_item(root.get(), "$top"), "double"), &value);
    EXPECT_EQ(value, 2.0);
}

TEST(KeyedArchiveFormatTest, archiveHasFoundationsTopLevelSlotOrderAndClassDictionaries)
{
    auto root = TestNode::named(QStringLiteral("Demo"));
    root->children.push_back(TestNode::named(QStringLiteral("Demo")));  // the same text: one string slot
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(root);
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));

    Plist plist = parseWithLibplist(archive);
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist_dict_get_size(plist.get()), 4u);
    EXPECT_EQ(stringOf(plist_dict_get_item(plist.get(), "$archiver")), "NSKeyedArchiver");
    uint64_t version = 0;
    plist_get_uint_val(plist_dict_get_item(plist.get(), "$version"), &version);
    EXPECT_EQ(version, 100000u);
    plist_t top = plist_dict_get_item(plist.get(), "$top");
    EXPECT_EQ(plist_dict_get_size(top), 1u);
    EXPECT_EQ(uidOf(plist_dict_get_item(top, "root")), 1u);
    plist_t objects = plist_dict_get_item(plist.get(), "$objects");
    EXPECT_EQ(plist_array_get_size(objects), 8u);
    auto slot = [&](uint32_t index) { return plist_array_get_item(objects, index); };
    auto field = [&](uint32_t index, const char* key) { return uidOf(plist_dict_get_item(slot(index), key)); };
    EXPECT_EQ(stringOf(slot(0)), "$null");

    // Pre-order: [1] root, [2] its name, [3] its children array, [4] the child
    // (whose name reuses slot 2), [5] the child's empty children array, [6]
    // NSMutableArray's class after that array, [7] TestNode's class after the child.
    EXPECT_EQ(field(1, "name"), 2u);
    EXPECT_EQ(field(1, "children"), 3u);
    EXPECT_EQ(field(1, "link"), 0u);
    EXPECT_EQ(field(1, "url"), 0u);  // an empty URL is nil
    EXPECT_EQ(field(1, "$class"), 7u);
    EXPECT_EQ(field(4, "name"), 2u);
    EXPECT_EQ(field(4, "children"), 5u);
    EXPECT_EQ(field(4, "$class"), 7u);
    EXPECT_EQ(uidOf(plist_array_get_item(plist_dict_get_item(slot(3), "NS.objects"), 0)), 4u);
    EXPECT_EQ(stringOf(plist_dict_get_item(slot(6), "$classname")), "NSMutableArray");
    EXPECT_EQ(stringOf(plist_dict_get_item(slot(7), "$classname")), "TestNode");
    plist_t chain = plist_dict_get_item(slot(7), "$classes");
    ASSERT_EQ(plist_array_get_size(chain), 3u);
    EXPECT_EQ(stringOf(plist_array_get_item(chain, 1)), "TestBase");
    EXPECT_EQ(stringOf(plist_array_get_item(chain, 2)), "NSObject");

    // A nil root is UID 0.
    Plist nilRoot = parseWithLibplist(KeyedArchiver::archivedDataWithRootObject(ConstKeyedObjectPtr()));
    ASSERT_TRUE(nilRoot);
    EXPECT_EQ(uidOf(plist_dict_get_item(plist_dict_get_item(nilRoot.get(), "$top"), "root")), 0u);
}

TEST(KeyedArchiveFormatTest, keysBeginningWithDollarAreEscapedAndDuplicateKeysKeepTheLastValue)
{
    KeyedArchiver archiver;
    archiver.encodeInt64(5, QStringLiteral("$class"));
    archiver.encodeInt64(1, QStringLiteral("twice"));
    archiver.encodeInt64(2, QStringLiteral("twice"));
    const QByteArray archive = archiver.finishEncoding();

    Plist root = parseWithLibplist(archive);
    plist_t top = plist_dict_get_item(root.get(), "$top");
    EXPECT_TRUE(plist_dict_get_item(top, "$$class"));
    EXPECT_FALSE(plist_dict_get_item(top, "$class"));
    EXPECT_EQ(plist_dict_get_size(top), 2u);

    KeyedUnarchiver coder(archive);
    EXPECT_EQ(coder.decodeInt64ForKey(QStringLiteral("$class")), 5);
    EXPECT_EQ(coder.decodeInt64ForKey(QStringLiteral("twice")), 2);
}

TEST(KeyedArchiveFormatTest, outputWithEveryKindOfValueSatisfiesCoreFoundationsReader)
{
    auto dictionary = std::make_shared<KeyedDictionary>();
    dictionary->setObjectForKey(std::make_shared<KeyedString>(QStringLiteral("\u00DF\U0001F3B5")), QStringLiteral("wide"));
    dictionary->setObjectForKey(std::make_shared<KeyedString>(QStringLiteral("text"), true), QStringLiteral("mutable"));
    dictionary->setObjectForKey(std::make_shared<KeyedData>(QByteArray(20, 'd'), true), QStringLiteral("data"));
    dictionary->setObjectForKey(KeyedNumber::fromUnsigned(UINT64_MAX), QStringLiteral("huge"));
    dictionary->setObjectForKey(KeyedNumber::fromSigned(-1), QStringLiteral("negative"));
    dictionary->setObjectForKey(KeyedNumber::fromFloat(0.5f), QStringLiteral("float"));
    dictionary->setObjectForKey(KeyedNull::null(), QStringLiteral("null"));
    dictionary->setObjectForKey(std::make_shared<KeyedUUID>(QUuid::createUuid()), QStringLiteral("uuid"));
    dictionary->setObjectForKey(std::make_shared<KeyedDate>(1.5), QStringLiteral("date"));
    dictionary->setObjectForKey(std::make_shared<KeyedURL>(QUrl(QStringLiteral("file:///x"))), QStringLiteral("url"));
    dictionary->setObjectForKey(std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>(20, KeyedNull::null()),
                                                             KeyedArray::Flavor::OrderedSet),
                                QStringLiteral("ordered"));
    KeyedArchiver archiver;
    archiver.encodeObject(dictionary, QStringLiteral("dictionary"));
    archiver.encodeBool(true, QStringLiteral("bool"));
    archiver.encodeInt64(-5, QStringLiteral("int"));
    archiver.encodeInt64(300, QStringLiteral("two-byte int"));
    archiver.encodeBytes(QByteArray(300, 'b'), QStringLiteral("bytes"));
    const QByteArray archive = archiver.finishEncoding();
    EXPECT_TRUE(satisfiesCoreFoundationReader(archive));
    EXPECT_TRUE(parseWithLibplist(archive));
}

TEST(KeyedArchiveFormatTest, largeArchivesWidenReferencesAndOffsetsAsCoreFoundationDoes)
{
    // Over 65536 objects and over 4 GiB is out of reach; 70000 strings need
    // 4-byte references and a 1 MB block 4-byte offsets.
    std::vector<ConstKeyedObjectPtr> strings;
    for (int i = 0; i < 70000; ++i)
        strings.push_back(std::make_shared<KeyedString>(QString::number(i)));
    KeyedArchiver archiver;
    archiver.encodeArray(strings, QStringLiteral("strings"));
    archiver.encodeBytes(QByteArray(1 << 20, 'x'), QStringLiteral("block"));
    const QByteArray archive = archiver.finishEncoding();
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));
    EXPECT_EQ(archive[archive.size() - 32 + 7], 4);  // objectRefSize
    EXPECT_EQ(archive[archive.size() - 32 + 6], 4);  // offsetIntSize

    KeyedUnarchiver coder(archive);
    auto decoded = coder.decodeArrayOfClass<KeyedString>(QStringLiteral("strings"));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->size(), 70000u);
    EXPECT_EQ((*decoded)[69999]->string(), "69999");
    EXPECT_EQ(coder.decodeBytesForKey(QStringLiteral("block")).size(), 1 << 20);
}

TEST(KeyedArchiveFormatTest, libplistParsesTheOutputAndItsXmlFormReadsBackThroughTheUnarchiver)
{
    auto root = TestNode::named(QStringLiteral("xml"));
    auto child = TestNode::named(QStringLiteral("child"));
    child->number = -5;
    child->real = 0.1;
    root->children.push_back(child);
    root->link = child;
    Plist plist = parseWithLibplist(KeyedArchiver::archivedDataWithRootObject(root));
    ASSERT_TRUE(plist);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(plist.get(), &xml, &length);
    ASSERT_TRUE(xml);
    const QByteArray xmlArchive(xml, static_cast<qsizetype>(length));
    plist_to_xml_free(xml);
    EXPECT_TRUE(xmlArchive.contains("<key>CF$UID</key>"));
    EXPECT_TRUE(xmlArchive.contains("<string>NSKeyedArchiver</string>"));

    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<TestNode>(xmlArchive);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->children.size(), 1u);
    EXPECT_EQ(decoded->link, decoded->children[0]);
    EXPECT_EQ(decoded->link->number, -5);
    EXPECT_EQ(decoded->link->real, 0.1);
    EXPECT_EQ(decoded->link->name, "child");
}
