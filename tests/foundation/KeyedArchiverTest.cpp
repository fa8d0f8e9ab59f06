// What the keyed archiver writes: values that come back unchanged, the
// archive layout Foundation expects, and a property list that CoreFoundation's
// reader rules and libplist's parser accept.
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

using namespace brindle;

namespace {

// ---- A model-like class graph

class TestClip final : public KeyedCoding {
public:
    QString identifier;
    int64_t start = 0;
    int64_t length = 0;
    float gain = 1.0f;
    double rate = 0.0;
    bool muted = false;
    QByteArray peaks;
    QUrl source;

    QString classNameForArchive() const override { return QStringLiteral("TestClip"); }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeString(identifier, QStringLiteral("_identifier"));
        coder.encodeInt64(start, QStringLiteral("_start"));
        coder.encodeInt64(length, QStringLiteral("_length"));
        coder.encodeFloat(gain, QStringLiteral("_gain"));
        coder.encodeDouble(rate, QStringLiteral("_rate"));
        coder.encodeBool(muted, QStringLiteral("_muted"));
        coder.encodeBytes(peaks, QStringLiteral("kTestPeaks"));
        coder.encodeURL(source, QStringLiteral("_source"));
    }
    static QStringList archiveClassNames() { return {QStringLiteral("TestClip")}; }
    static std::shared_ptr<TestClip> initWithCoder(KeyedUnarchiver& coder)
    {
        auto clip = std::make_shared<TestClip>();
        clip->identifier = coder.decodeStringForKey(QStringLiteral("_identifier")).value_or(QString());
        clip->start = coder.decodeInt64ForKey(QStringLiteral("_start"));
        clip->length = coder.decodeInt64ForKey(QStringLiteral("_length"));
        clip->gain = coder.decodeFloatForKey(QStringLiteral("_gain"));
        clip->rate = coder.decodeDoubleForKey(QStringLiteral("_rate"));
        clip->muted = coder.decodeBoolForKey(QStringLiteral("_muted"));
        clip->peaks = coder.decodeBytesForKey(QStringLiteral("kTestPeaks"));
        clip->source = coder.decodeURLForKey(QStringLiteral("_source")).value_or(QUrl());
        return clip;
    }
};

class TestTrack final : public KeyedCoding {
public:
    QString name;
    int32_t index = 0;
    std::vector<std::shared_ptr<TestClip>> clips;

    QString classNameForArchive() const override { return QStringLiteral("TestTrack"); }
    QStringList classChainForArchive() const override { return {"TestTrack", "TestNode", "NSObject"}; }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeString(name, QStringLiteral("_name"));
        coder.encodeInt32(index, QStringLiteral("_index"));
        coder.encodeArrayOf(clips, QStringLiteral("_clips"), true);
    }
    static QStringList archiveClassNames() { return {QStringLiteral("TestTrack")}; }
    static std::shared_ptr<TestTrack> initWithCoder(KeyedUnarchiver& coder)
    {
        auto clips = coder.decodeArrayOfClass<TestClip>(QStringLiteral("_clips"));
        if (!clips)
            return nullptr;
        auto track = std::make_shared<TestTrack>();
        track->name = coder.decodeStringForKey(QStringLiteral("_name")).value_or(QString());
        track->index = coder.decodeInt32ForKey(QStringLiteral("_index"));
        track->clips = std::move(*clips);
        return track;
    }
};

class TestProject final : public KeyedCoding {
public:
    QString title;
    QUrl url;
    std::vector<std::shared_ptr<TestTrack>> tracks;
    std::shared_ptr<TestClip> selected;  // also held by a track
    std::shared_ptr<TestProject> parent;  // may point back up: a cycle

    QString classNameForArchive() const override { return QStringLiteral("TestProject"); }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeString(title, QStringLiteral("_title"));
        coder.encodeURL(url, QStringLiteral("_url"));
        coder.encodeArrayOf(tracks, QStringLiteral("_tracks"));
        coder.encodeObject(selected, QStringLiteral("_selected"));
        coder.encodeObject(parent, QStringLiteral("_parent"));
    }
    static QStringList archiveClassNames() { return {QStringLiteral("TestProject")}; }
    static std::shared_ptr<TestProject> initWithCoder(KeyedUnarchiver& coder)
    {
        auto tracks = coder.decodeArrayOfClass<TestTrack>(QStringLiteral("_tracks"));
        if (!tracks)
            return nullptr;
        auto project = std::make_shared<TestProject>();
        project->title = coder.decodeStringForKey(QStringLiteral("_title")).value_or(QString());
        project->url = coder.decodeURLForKey(QStringLiteral("_url")).value_or(QUrl());
        project->tracks = std::move(*tracks);
        project->selected = coder.decodeObjectOfClass<TestClip>(QStringLiteral("_selected"));
        project->parent = coder.decodeObjectOfClass<TestProject>(QStringLiteral("_parent"));
        return project;
    }
};

// A record shaped like a decoded audio frame: a few integers and a block of samples.
class TestFrame final : public KeyedCoding {
public:
    int32_t format = 1;
    int64_t channels = 2;
    int64_t rate = 48000;
    int32_t count = 1024;
    QByteArray samples;

    QString classNameForArchive() const override { return QStringLiteral("TestFrame"); }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeInt32(format, QStringLiteral("kTestFormat"));
        coder.encodeInt64(channels, QStringLiteral("kTestChannels"));
        coder.encodeInt64(rate, QStringLiteral("kTestRate"));
        coder.encodeInt32(count, QStringLiteral("kTestCount"));
        coder.encodeBytes(samples, QStringLiteral("kTestSamples"));
    }
    static QStringList archiveClassNames() { return {QStringLiteral("TestFrame")}; }
    static std::shared_ptr<TestFrame> initWithCoder(KeyedUnarchiver& coder)
    {
        auto frame = std::make_shared<TestFrame>();
        frame->format = coder.decodeInt32ForKey(QStringLiteral("kTestFormat"));
        frame->channels = coder.decodeInt64ForKey(QStringLiteral("kTestChannels"));
        frame->rate = coder.decodeInt64ForKey(QStringLiteral("kTestRate"));
        frame->count = coder.decodeInt32ForKey(QStringLiteral("kTestCount"));
        frame->samples = coder.decodeBytesForKey(QStringLiteral("kTestSamples"));
        return coder.hasDecodingError() ? nullptr : frame;
    }
};

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

plist_t slot(plist_t root, uint64_t index)
{
    return plist_array_get_item(plist_dict_get_item(root, "$objects"), static_cast<uint32_t>(index));
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

    std::vector<std::vector<uint64_t>> children(count);
    for (uint64_t ref = 0; ref < count; ++ref) {
        const uint64_t offset = bigEndian(bytes, tableOffset + ref * offsetSize, offsetSize);
        if (offset < 8 || offset >= tableOffset)
            return testing::AssertionFailure() << "offset of object " << ref << " out of the object table";
        const uint8_t marker = static_cast<unsigned char>(bytes[static_cast<qsizetype>(offset)]);
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
            const unsigned width = 1u << (static_cast<unsigned char>(bytes[static_cast<qsizetype>(at)]) & 0xF);
            elements = bigEndian(bytes, at + 1, width);
            at += 1 + width;
        }
        const uint64_t refs = type == 0xD ? 2 * elements : elements;
        for (uint64_t i = 0; i < refs; ++i) {
            const uint64_t child = bigEndian(bytes, at + i * refSize, refSize);
            if (child >= count)
                return testing::AssertionFailure() << "reference " << child << " out of range";
            children[ref].push_back(child);
            if (type == 0xD && i < elements) {
                const uint64_t keyOffset = bigEndian(bytes, tableOffset + child * offsetSize, offsetSize);
                const uint8_t keyType = static_cast<unsigned char>(bytes[static_cast<qsizetype>(keyOffset)]) >> 4;
                if (keyType != 0x5 && keyType != 0x6)
                    return testing::AssertionFailure() << "a dictionary key is not a string";
            }
        }
    }
    // No collection may contain itself: an iterative depth-first search for back edges.
    std::vector<uint8_t> colour(count, 0);
    std::vector<std::pair<uint64_t, size_t>> stack{{0, 0}};
    colour[0] = 1;
    while (!stack.empty()) {
        auto& [node, next] = stack.back();
        if (next == children[node].size()) {
            colour[node] = 2;
            stack.pop_back();
            continue;
        }
        const uint64_t child = children[node][next++];
        if (colour[child] == 1)
            return testing::AssertionFailure() << "object " << child << " contains itself";
        if (colour[child] == 0) {
            colour[child] = 1;
            stack.push_back({child, 0});
        }
    }
    return testing::AssertionSuccess();
}

// ---- Equality of standard value graphs

bool sameValue(const KeyedCoding* a, const KeyedCoding* b, int depth = 0)
{
    if (!a || !b || depth > 64)
        return a == b;
    if (typeid(*a) != typeid(*b))
        return false;
    if (auto x = dynamic_cast<const KeyedString*>(a))
        return x->string() == static_cast<const KeyedString*>(b)->string() &&
               x->isMutable() == static_cast<const KeyedString*>(b)->isMutable();
    if (auto x = dynamic_cast<const KeyedData*>(a))
        return x->data() == static_cast<const KeyedData*>(b)->data() &&
               x->isMutable() == static_cast<const KeyedData*>(b)->isMutable();
    if (auto x = dynamic_cast<const KeyedNumber*>(a)) {
        auto y = static_cast<const KeyedNumber*>(b);
        return x->kind() == y->kind() && x->unsignedValue() == y->unsignedValue() &&
               (x->doubleValue() == y->doubleValue() || (std::isnan(x->doubleValue()) && std::isnan(y->doubleValue())));
    }
    if (auto x = dynamic_cast<const KeyedArray*>(a)) {
        auto y = static_cast<const KeyedArray*>(b);
        if (x->flavor() != y->flavor() || x->count() != y->count())
            return false;
        for (size_t i = 0; i < x->count(); ++i)
            if (!sameValue(x->objects()[i].get(), y->objects()[i].get(), depth + 1))
                return false;
        return true;
    }
    if (auto x = dynamic_cast<const KeyedDictionary*>(a)) {
        auto y = static_cast<const KeyedDictionary*>(b);
        if (x->isMutable() != y->isMutable() || x->count() != y->count())
            return false;
        for (size_t i = 0; i < x->count(); ++i)
            if (!sameValue(x->entries()[i].key.get(), y->entries()[i].key.get(), depth + 1) ||
                !sameValue(x->entries()[i].value.get(), y->entries()[i].value.get(), depth + 1))
                return false;
        return true;
    }
    if (auto x = dynamic_cast<const KeyedURL*>(a))
        return x->relativeString() == static_cast<const KeyedURL*>(b)->relativeString() &&
               sameValue(x->baseURL().get(), static_cast<const KeyedURL*>(b)->baseURL().get(), depth + 1);
    if (auto x = dynamic_cast<const KeyedUUID*>(a))
        return x->uuid() == static_cast<const KeyedUUID*>(b)->uuid();
    if (auto x = dynamic_cast<const KeyedDate*>(a))
        return x->timeIntervalSinceReferenceDate() == static_cast<const KeyedDate*>(b)->timeIntervalSinceReferenceDate();
    return dynamic_cast<const KeyedNull*>(a) != nullptr;
}

ConstKeyedObjectPtr str(const char* text)
{
    return std::make_shared<KeyedString>(QString::fromUtf8(text));
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
    const std::vector<int64_t> integers = {0, 1, -1, 127, 128, 255, 256, 65535, 65536, 4294967295LL, 4294967296LL,
                                           std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
    const std::vector<float> floats = {0.0f, -0.0f, 1.5f, 0.1f, std::numeric_limits<float>::max(),
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
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));

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

TEST(KeyedArchiverTest, doublesAreEightByteRealsAndFloatsFourByteRealsWhateverTheirValue)
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

TEST(KeyedArchiverTest, archiveHasFoundationsTopLevelSlotOrderAndClassDictionaries)
{
    auto project = std::make_shared<TestProject>();
    project->title = QStringLiteral("Demo");
    auto track = std::make_shared<TestTrack>();
    track->name = QStringLiteral("Demo");  // the same text: one string slot
    project->tracks.push_back(track);
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(project);
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));

    Plist root = parseWithLibplist(archive);
    ASSERT_TRUE(root);
    EXPECT_EQ(plist_dict_get_size(root.get()), 4u);
    EXPECT_EQ(stringOf(plist_dict_get_item(root.get(), "$archiver")), "NSKeyedArchiver");
    uint64_t version = 0;
    plist_get_uint_val(plist_dict_get_item(root.get(), "$version"), &version);
    EXPECT_EQ(version, 100000u);
    plist_t top = plist_dict_get_item(root.get(), "$top");
    EXPECT_EQ(plist_dict_get_size(top), 1u);
    EXPECT_EQ(uidOf(plist_dict_get_item(top, "root")), 1u);
    EXPECT_EQ(stringOf(slot(root.get(), 0)), "$null");

    // Pre-order: [1] project, [2] its title, [3] the tracks array, [4] the track
    // (whose name reuses slot 2), [5] its clips array, [6] NSMutableArray's
    // class, [7] TestTrack's class, [8] NSArray's class, [9] TestProject's class.
    plist_t projectSlot = slot(root.get(), 1);
    EXPECT_EQ(uidOf(plist_dict_get_item(projectSlot, "_title")), 2u);
    EXPECT_EQ(uidOf(plist_dict_get_item(projectSlot, "_tracks")), 3u);
    EXPECT_EQ(uidOf(plist_dict_get_item(projectSlot, "_url")), 0u);
    EXPECT_EQ(uidOf(plist_dict_get_item(projectSlot, "_parent")), 0u);
    EXPECT_EQ(uidOf(plist_dict_get_item(slot(root.get(), 4), "_name")), 2u);
    EXPECT_EQ(uidOf(plist_dict_get_item(projectSlot, "$class")), 9u);
    plist_t trackClass = slot(root.get(), 7);
    EXPECT_EQ(stringOf(plist_dict_get_item(trackClass, "$classname")), "TestTrack");
    plist_t chain = plist_dict_get_item(trackClass, "$classes");
    ASSERT_EQ(plist_array_get_size(chain), 3u);
    EXPECT_EQ(stringOf(plist_array_get_item(chain, 2)), "NSObject");
    EXPECT_EQ(stringOf(plist_dict_get_item(slot(root.get(), 6), "$classname")), "NSMutableArray");
    EXPECT_EQ(plist_array_get_size(plist_dict_get_item(root.get(), "$objects")), 10u);

    // A nil root is UID 0.
    Plist nilRoot = parseWithLibplist(KeyedArchiver::archivedDataWithRootObject(ConstKeyedObjectPtr()));
    ASSERT_TRUE(nilRoot);
    EXPECT_EQ(uidOf(plist_dict_get_item(plist_dict_get_item(nilRoot.get(), "$top"), "root")), 0u);
}

TEST(KeyedArchiverTest, keysBeginningWithDollarAreEscapedAndDuplicateKeysKeepTheLastValue)
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

TEST(KeyedArchiverTest, standardValueClassesRoundTripWithTheirFoundationClass)
{
    auto base = std::make_shared<KeyedURL>(QUrl(QStringLiteral("https://example.com/media/")));
    auto dictionary = std::make_shared<KeyedDictionary>(true);
    dictionary->setObjectForKey(str("ascii"), QStringLiteral("string"));
    dictionary->setObjectForKey(std::make_shared<KeyedString>(QStringLiteral("gr\u00FC\u00DFe \U0001F3B5"), true),
                                QStringLiteral("mutable string"));
    dictionary->setObjectForKey(std::make_shared<KeyedString>(QString()), QStringLiteral("empty string"));
    dictionary->setObjectForKey(std::make_shared<KeyedData>(QByteArray("\0\1\2", 3)), QStringLiteral("data"));
    dictionary->setObjectForKey(std::make_shared<KeyedData>(QByteArray("xyz"), true), QStringLiteral("mutable data"));
    dictionary->setObjectForKey(KeyedNumber::fromBool(true), QStringLiteral("bool"));
    dictionary->setObjectForKey(KeyedNumber::fromSigned(-7), QStringLiteral("signed"));
    dictionary->setObjectForKey(KeyedNumber::fromUnsigned(UINT64_MAX), QStringLiteral("huge unsigned"));
    dictionary->setObjectForKey(KeyedNumber::fromFloat(0.1f), QStringLiteral("float"));
    dictionary->setObjectForKey(KeyedNumber::fromDouble(0.1), QStringLiteral("double"));
    dictionary->setObjectForKey(KeyedNull::null(), QStringLiteral("null"));
    dictionary->setObjectForKey(std::make_shared<KeyedUUID>(QUuid::createUuid()), QStringLiteral("uuid"));
    dictionary->setObjectForKey(std::make_shared<KeyedDate>(-13197600000.0), QStringLiteral("date"));
    dictionary->setObjectForKey(std::make_shared<KeyedURL>(QStringLiteral("a b.wav"), base), QStringLiteral("url"));
    dictionary->setObjectForKey(std::make_shared<KeyedURL>(QUrl::fromLocalFile(QStringLiteral("/tmp/a b#.mp3"))),
                                QStringLiteral("file url"));
    dictionary->setObjectForKey(str("number key"), KeyedNumber::fromSigned(3));
    for (auto flavor : {KeyedArray::Flavor::Array, KeyedArray::Flavor::MutableArray, KeyedArray::Flavor::Set,
                        KeyedArray::Flavor::MutableSet, KeyedArray::Flavor::OrderedSet,
                        KeyedArray::Flavor::MutableOrderedSet}) {
        auto array = std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>{str("a"), nullptr, str("b")}, flavor);
        dictionary->setObjectForKey(array, QStringLiteral("array %1").arg(static_cast<int>(flavor)));
    }
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(dictionary);
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));

    KeyedUnarchiver coder(archive);
    auto decoded = coder.decodeObjectOfClass<KeyedDictionary>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(coder.hasDecodingError());
    EXPECT_TRUE(sameValue(dictionary.get(), decoded.get()));
    EXPECT_EQ(decoded->objectOfClassForKey<KeyedURL>(QStringLiteral("url"))->url(),
              QUrl(QStringLiteral("https://example.com/media/a%20b.wav")));
    EXPECT_EQ(decoded->objectOfClassForKey<KeyedURL>(QStringLiteral("file url"))->url().toLocalFile(),
              QStringLiteral("/tmp/a b#.mp3"));
    EXPECT_EQ(decoded->objectOfClassForKey<KeyedNumber>(QStringLiteral("huge unsigned"))->unsignedValue(), UINT64_MAX);
    EXPECT_EQ(decoded->objectOfClassForKey<KeyedArray>(QStringLiteral("array 0"))->count(), 2u);
    EXPECT_EQ(decoded->objectForKey(KeyedNumber::fromSigned(3)), nullptr);  // other keys compare by identity
    const auto numberKey = std::find_if(decoded->entries().begin(), decoded->entries().end(), [](const auto& entry) {
        auto key = std::dynamic_pointer_cast<const KeyedNumber>(entry.key);
        return key && key->int64Value() == 3;
    });
    ASSERT_NE(numberKey, decoded->entries().end());
    EXPECT_EQ(std::dynamic_pointer_cast<const KeyedString>(numberKey->value)->string(), "number key");

    // The convenience readers accept the mutable forms too.
    KeyedArchiver top;
    top.encodeObject(std::make_shared<KeyedString>(QStringLiteral("text"), true), QStringLiteral("s"));
    top.encodeObject(std::make_shared<KeyedData>(QByteArray("raw"), true), QStringLiteral("d"));
    KeyedUnarchiver topCoder(top.finishEncoding());
    EXPECT_EQ(topCoder.decodeStringForKey(QStringLiteral("s")), QStringLiteral("text"));
    EXPECT_EQ(topCoder.decodeDataForKey(QStringLiteral("d")), QByteArray("raw"));
}

TEST(KeyedArchiverTest, clipboardListOfDictionariesRoundTrips)
{
    std::vector<ConstKeyedObjectPtr> entries;
    for (uint64_t track = 0; track < 3; ++track) {
        auto entry = std::make_shared<KeyedDictionary>();
        entry->setObjectForKey(std::make_shared<KeyedData>(QByteArray(10, static_cast<char>('a' + track))),
                               QStringLiteral("com.clip.data"));
        entry->setObjectForKey(KeyedNumber::fromUnsigned(track), QStringLiteral("com.clip.track.index"));
        entries.push_back(entry);
    }
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(std::make_shared<KeyedArray>(entries));

    auto list = KeyedUnarchiver::unarchivedObjectOfClass<KeyedArray>(archive);
    ASSERT_TRUE(list);
    ASSERT_EQ(list->count(), 3u);
    for (uint64_t track = 0; track < 3; ++track) {
        auto entry = list->objectAtIndex<KeyedDictionary>(track);
        ASSERT_TRUE(entry);
        EXPECT_EQ(entry->objectOfClassForKey<KeyedData>(QStringLiteral("com.clip.data"))->data(),
                  QByteArray(10, static_cast<char>('a' + track)));
        auto index = entry->objectOfClassForKey<KeyedNumber>(QStringLiteral("com.clip.track.index"));
        ASSERT_TRUE(index);
        EXPECT_FALSE(index->isReal());
        EXPECT_EQ(index->unsignedValue(), track);
    }
}

TEST(KeyedArchiverTest, customGraphRoundTripsWithSharedObjectsStayingShared)
{
    auto project = std::make_shared<TestProject>();
    project->title = QStringLiteral("Session \u00E9t\u00E9");
    project->url = QUrl::fromLocalFile(QStringLiteral("/home/someone/Music/session one.loomwick"));
    for (int t = 0; t < 3; ++t) {
        auto track = std::make_shared<TestTrack>();
        track->name = QStringLiteral("Track %1").arg(t);
        track->index = t;
        for (int c = 0; c < 4; ++c) {
            auto clip = std::make_shared<TestClip>();
            clip->identifier = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
            clip->start = c == 0 ? std::numeric_limits<int64_t>::min() : c * 1000;
            clip->length = c == 3 ? std::numeric_limits<int64_t>::max() : 500;
            clip->gain = 0.1f * static_cast<float>(c + 1);
            clip->rate = 44100.0 / 3.0;
            clip->muted = c % 2 == 1;
            clip->peaks = QByteArray(c * 100, static_cast<char>(c));
            clip->source = QUrl::fromLocalFile(QStringLiteral("/media/take %1.wav").arg(c));
            track->clips.push_back(clip);
        }
        project->tracks.push_back(track);
    }
    project->selected = project->tracks[1]->clips[2];
    // The same clip twice in one track, and an equal but distinct copy.
    project->tracks[2]->clips.push_back(project->tracks[2]->clips[0]);
    project->tracks[2]->clips.push_back(std::make_shared<TestClip>(*project->tracks[2]->clips[0]));

    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(project);
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));
    KeyedUnarchiver coder(archive);
    auto decoded = coder.decodeObjectOfClass<TestProject>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(coder.hasDecodingError());
    EXPECT_EQ(decoded->title, project->title);
    EXPECT_EQ(decoded->url, project->url);
    ASSERT_EQ(decoded->tracks.size(), 3u);
    for (size_t t = 0; t < 3; ++t) {
        const auto& original = project->tracks[t];
        const auto& copy = decoded->tracks[t];
        EXPECT_EQ(copy->name, original->name);
        EXPECT_EQ(copy->index, original->index);
        ASSERT_EQ(copy->clips.size(), original->clips.size());
        for (size_t c = 0; c < copy->clips.size(); ++c) {
            EXPECT_EQ(copy->clips[c]->identifier, original->clips[c]->identifier);
            EXPECT_EQ(copy->clips[c]->start, original->clips[c]->start);
            EXPECT_EQ(copy->clips[c]->length, original->clips[c]->length);
            EXPECT_EQ(copy->clips[c]->gain, original->clips[c]->gain);
            EXPECT_EQ(copy->clips[c]->rate, original->clips[c]->rate);
            EXPECT_EQ(copy->clips[c]->muted, original->clips[c]->muted);
            EXPECT_EQ(copy->clips[c]->peaks, original->clips[c]->peaks);
            EXPECT_EQ(copy->clips[c]->source, original->clips[c]->source);
        }
    }
    EXPECT_EQ(decoded->selected, decoded->tracks[1]->clips[2]);
    EXPECT_EQ(decoded->tracks[2]->clips[4], decoded->tracks[2]->clips[0]);
    EXPECT_NE(decoded->tracks[2]->clips[5], decoded->tracks[2]->clips[0]);
}

TEST(KeyedArchiverTest, cycleInACustomGraphIsWrittenOnceAndReadBackAsNil)
{
    auto project = std::make_shared<TestProject>();
    project->parent = project;  // a cycle
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(project);
    project->parent.reset();

    Plist root = parseWithLibplist(archive);
    EXPECT_EQ(uidOf(plist_dict_get_item(slot(root.get(), 1), "_parent")), 1u);
    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<TestProject>(archive);
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(decoded->parent);
}

TEST(KeyedArchiverTest, objectsNestedBeyondTheDepthLimitAreWrittenAsNil)
{
    auto outer = std::make_shared<KeyedArray>();
    for (int i = 0; i < KeyedArchiver::kMaxDepth + 10; ++i)
        outer = std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>{outer});
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(outer);
    ASSERT_TRUE(satisfiesCoreFoundationReader(archive));
    KeyedUnarchiver coder(archive);
    auto decoded = coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    int depth = 1;
    for (std::shared_ptr<const KeyedArray> at = decoded; at->count() > 0; at = at->objectAtIndex<KeyedArray>(0))
        ++depth;
    EXPECT_EQ(depth, KeyedArchiver::kMaxDepth);
    EXPECT_FALSE(coder.hasDecodingError());
}

TEST(KeyedArchiverTest, largeArchivesWidenReferencesAndOffsetsAsCoreFoundationDoes)
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

TEST(KeyedArchiverTest, libplistParsesTheOutputAndItsXmlFormReadsBackThroughTheUnarchiver)
{
    auto project = std::make_shared<TestProject>();
    project->title = QStringLiteral("xml");
    auto track = std::make_shared<TestTrack>();
    auto clip = std::make_shared<TestClip>();
    clip->start = -5;
    clip->rate = 0.1;
    clip->peaks = QByteArray("peaks");
    track->clips.push_back(clip);
    project->tracks.push_back(track);
    project->selected = clip;
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(project);

    Plist root = parseWithLibplist(archive);
    ASSERT_TRUE(root);
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    ASSERT_TRUE(xml);
    const QByteArray xmlArchive(xml, static_cast<qsizetype>(length));
    plist_to_xml_free(xml);
    EXPECT_TRUE(xmlArchive.contains("<key>CF$UID</key>"));

    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<TestProject>(xmlArchive);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->tracks.size(), 1u);
    EXPECT_EQ(decoded->selected, decoded->tracks[0]->clips[0]);
    EXPECT_EQ(decoded->selected->start, -5);
    EXPECT_EQ(decoded->selected->rate, 0.1);
    EXPECT_EQ(decoded->selected->peaks, QByteArray("peaks"));
}

TEST(KeyedArchiverTest, plistutilConvertsTheOutputToXmlWithTheExpectedStructure)
{
    const QString plistutil = QStandardPaths::findExecutable(QStringLiteral("plistutil"));
    if (plistutil.isEmpty())
        GTEST_SKIP() << "plistutil (libplist-utils) is not installed";
    QTemporaryDir directory;
    const QString input = directory.filePath(QStringLiteral("archive.bplist"));
    const QString output = directory.filePath(QStringLiteral("archive.xml"));
    QFile file(input);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    auto clip = std::make_shared<TestClip>();
    clip->identifier = QStringLiteral("clip-1");
    file.write(KeyedArchiver::archivedDataWithRootObject(clip));
    file.close();

    QProcess process;
    process.start(plistutil, {QStringLiteral("-i"), input, QStringLiteral("-o"), output});
    ASSERT_TRUE(process.waitForFinished(10000));
    ASSERT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    QFile xmlFile(output);
    ASSERT_TRUE(xmlFile.open(QIODevice::ReadOnly));
    const QByteArray xml = xmlFile.readAll();
    EXPECT_TRUE(xml.contains("<string>NSKeyedArchiver</string>"));
    EXPECT_TRUE(xml.contains("<integer>100000</integer>"));
    EXPECT_TRUE(xml.contains("<key>root</key>"));
    EXPECT_TRUE(xml.contains("<string>$null</string>"));
    EXPECT_TRUE(xml.contains("<string>clip-1</string>"));
    EXPECT_TRUE(xml.contains("<key>$classname</key>"));
    EXPECT_TRUE(xml.contains("<string>TestClip</string>"));

    auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<TestClip>(xml);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->identifier, "clip-1");
}

TEST(KeyedArchiverTest, smallRecordWithAFourKilobyteBlockArchivesAndUnarchivesQuickly)
{
    TestFrame frame;
    frame.samples = QByteArray(4096, 'p');
    constexpr int kCalls = 5000;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < kCalls; ++i) {
        frame.count = i;
        auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<TestFrame>(KeyedArchiver::archivedDataWithRootObject(frame));
        ASSERT_TRUE(decoded);
        ASSERT_EQ(decoded->count, i);
    }
    const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    const double perSecond = kCalls / seconds;
    std::printf("[ measure  ] archive + unarchive of a record with 4 KB of samples: %.0f calls/s\n", perSecond);
    // A generous floor that still catches work per call growing by orders of magnitude.
    EXPECT_GT(perSecond, 2000.0);
}

TEST(KeyedArchiverTest, reArchivedFixturesDecodeToTheSameValues)
{
    for (const char* name : {"scf-ComplexTest.bplist", "scf-NSSet-Numbers.bplist", "bpylist-mutable_data.bplist", "sandin-nsdictionary_setconfig.bplist",
                             "sandin-nsarray_networking.bplist", "scf-NSMutableOrderedSet-Numbers.bplist",
                             "scf-URLTest.xml", "gnustep-eszett1-osx.bplist"}) {
        QFile file(QStringLiteral(BRINDLE_TESTS_DIR "/foundation/fixtures/") + QString::fromUtf8(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        auto original = KeyedUnarchiver::unarchiveObjectWithData(file.readAll());
        ASSERT_TRUE(original) << name;
        const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(original);
        EXPECT_TRUE(satisfiesCoreFoundationReader(archive)) << name;
        auto copy = KeyedUnarchiver::unarchiveObjectWithData(archive);
        EXPECT_TRUE(sameValue(original.get(), copy.get())) << name;
    }
}
