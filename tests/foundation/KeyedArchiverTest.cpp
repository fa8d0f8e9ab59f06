// Everything the keyed archiver writes comes back unchanged from the
// unarchiver: scalars, the standard value classes, and custom class graphs
// with shared objects and cycles.
#include "FoundationTestSupport.h"

#include <QUuid>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

using namespace brindle;
using namespace brindle::test;

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

    KeyedUnarchiver coder(archiver.finishEncoding());
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

TEST(KeyedArchiverTest, standardValueClassesRoundTripWithTheirFoundationClass)
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

    KeyedUnarchiver coder(KeyedArchiver::archivedDataWithRootObject(dictionary));
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

TEST(KeyedArchiverTest, customGraphRoundTripsWithSharedObjectsStayingSharedAndCyclesReadAsNil)
{
    auto project = TestNode::named(QStringLiteral("Session \u00E9t\u00E9"));
    project->url = QUrl::fromLocalFile(QStringLiteral("/home/someone/Music/session one.loomwick"));
    for (int t = 0; t < 3; ++t) {
        auto track = TestNode::named(QStringLiteral("Track %1").arg(t));
        track->number = t;
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

    KeyedUnarchiver coder(KeyedArchiver::archivedDataWithRootObject(project));
    project->children[0]->link.reset();
    auto decoded = coder.decodeObjectOfClass<TestNode>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(coder.hasDecodingError());
    std::function<void(const TestNode&, const TestNode&)> expectSame = [&](const TestNode& copy, const TestNode& original) {
        EXPECT_EQ(copy.name, original.name);
        EXPECT_EQ(copy.number, original.number);
        EXPECT_EQ(copy.real, original.real);
        EXPECT_EQ(copy.gain, original.gain);
        EXPECT_EQ(copy.flag, original.flag);
        EXPECT_EQ(copy.bytes, original.bytes);
        EXPECT_EQ(copy.url, original.url);
        ASSERT_EQ(copy.children.size(), original.children.size());
        for (size_t i = 0; i < copy.children.size(); ++i)
            expectSame(*copy.children[i], *original.children[i]);
    };
    expectSame(*decoded, *project);
    EXPECT_EQ(decoded->link, decoded->children[1]->children[2]);
    EXPECT_FALSE(decoded->children[0]->link);
    const auto& decodedClips = decoded->children[2]->children;
    EXPECT_EQ(decodedClips[4], decodedClips[0]);
    EXPECT_NE(decodedClips[5], decodedClips[0]);
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
