// The unarchiver's limits: nesting depth, shared references, work that a
// small archive can demand, XML depth, and randomly damaged archives.
#include "FoundationTestSupport.h"

#include <QDir>

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <thread>

using namespace brindle;
using namespace brindle::test;

namespace {

// Slot 1 is the class and slot 2 + i the i-th object, the root being slot 2.
// Each object refers to the slots listed for it: an NSArray through
// `NS.objects`, a TestNode through its `link` (to the first one, if any).
QByteArray linkedArchive(const std::vector<std::vector<uint32_t>>& refs, bool nodes = false)
{
    HandArchive a;
    const uint32_t cls = a.classSlot(nodes ? QStringLiteral("TestNode") : QStringLiteral("NSArray"));
    for (const auto& to : refs) {
        if (nodes)
            a.object(cls, {{"link", a.uid(to.empty() ? 0 : to[0])}});
        else
            a.object(cls, {{"NS.objects", a.uids(to)}});
    }
    a.root(2);
    return a.finish();
}

int nestingOf(const KeyedArray& array)
{
    int depth = 1;
    for (auto at = array.objectAtIndex<KeyedArray>(0); at; at = at->objectAtIndex<KeyedArray>(0))
        ++depth;
    return depth;
}

// Applies a few random byte changes, sometimes a truncation or a repeated chunk.
QByteArray damaged(const QByteArray& original, std::mt19937& random)
{
    QByteArray bytes = original;
    std::uniform_int_distribution<int> kind(0, 9);
    std::uniform_int_distribution<int> byteValue(0, 255);
    const int changes = 1 + kind(random) % 4;
    for (int i = 0; i < changes && !bytes.isEmpty(); ++i) {
        std::uniform_int_distribution<qsizetype> at(0, bytes.size() - 1);
        switch (kind(random)) {
        case 0:
            bytes.truncate(at(random));
            break;
        case 1: {
            const qsizetype from = at(random);
            bytes.insert(at(random), bytes.mid(from, 16));
            break;
        }
        default:
            bytes[at(random)] = static_cast<char>(byteValue(random));
        }
    }
    return bytes;
}

// Reads everything a caller might ask of a damaged archive.
void readEverything(const QByteArray& bytes)
{
    KeyedUnarchiver coder(bytes);
    coder.decodeObjectForKey(QStringLiteral("root"));
    for (int i = 0; i < 12; ++i)
        coder.decodeObjectForKey(QStringLiteral("$%1").arg(i));
    coder.decodeObjectOfClass<KeyedDictionary>(QStringLiteral("root"));
    coder.decodeArrayOfClass<KeyedString>(QStringLiteral("root"));
    coder.decodeURLForKey(QStringLiteral("root"));
    coder.decodeInt64ForKey(QStringLiteral("root"));
    coder.decodeBytesForKey(QStringLiteral("root"));
    coder.decodeArrayOfObjectsForKey(QStringLiteral("root"));
    KeyedUnarchiver::unarchiveObjectWithData(bytes);
}

}  // namespace

TEST(KeyedUnarchiverLimitsTest, deepNestingStopsAtTheDepthLimitWithoutExhaustingTheStack)
{
    constexpr uint32_t kLevels = 100000;
    std::vector<std::vector<uint32_t>> refs;
    for (uint32_t level = 0; level < kLevels; ++level)
        refs.push_back(level + 1 < kLevels ? std::vector<uint32_t>{level + 3} : std::vector<uint32_t>{});

    LogCapture quiet;
    KeyedUnarchiver coder(linkedArchive(refs));
    auto root = coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("root"));
    ASSERT_TRUE(root);
    EXPECT_EQ(nestingOf(*root), KeyedUnarchiver::kMaxDepth);
    EXPECT_TRUE(coder.hasDecodingError());

    // Typed recursion through custom classes is capped the same way.
    KeyedUnarchiver typedCoder(linkedArchive(refs, true));
    auto chain = typedCoder.decodeObjectOfClass<TestNode>(QStringLiteral("root"));
    ASSERT_TRUE(chain);
    int length = 1;
    for (auto at = chain; at->link; at = at->link)
        ++length;
    EXPECT_EQ(length, KeyedUnarchiver::kMaxDepth);
    EXPECT_TRUE(typedCoder.hasDecodingError());
}

TEST(KeyedUnarchiverLimitsTest, sharedReferencesDecodeOnceEvenWhenTheyDoubleAtEveryLevel)
{
    // Slot 2 + i holds slot 3 + i twice: 2^64 paths through 64 levels.
    std::vector<std::vector<uint32_t>> refs;
    for (uint32_t level = 0; level < 64; ++level)
        refs.push_back({level + 3, level + 3});
    refs.push_back({});
    // Decoding every path would never finish; the suite's time limit catches that.
    auto root = KeyedUnarchiver::unarchivedObjectOfClass<KeyedArray>(linkedArchive(refs));
    ASSERT_TRUE(root);
    EXPECT_EQ(root->objects()[0], root->objects()[1]);
    EXPECT_EQ(nestingOf(*root), 65);
}

TEST(KeyedUnarchiverLimitsTest, oneLargeObjectSharedByManySlotsCannotMultiplyTheWork)
{
    // 20000 slots share one property-list dictionary that lists 5000 UIDs: a
    // small file asking for 10^8 element decodes.
    HandArchive a;
    const uint32_t arrayClass = a.classSlot("NSArray");
    const HandArchive::Ref shared =
        a.dict({{"NS.objects", a.array(std::vector<HandArchive::Ref>(5000, a.uid(2)))}, {"$class", a.uid(arrayClass)}});
    std::vector<uint32_t> elements(20000);
    std::iota(elements.begin(), elements.end(), 3);
    a.root(a.object(arrayClass, {{"NS.objects", a.uids(elements)}}));
    a.objects.insert(a.objects.end(), 20000, shared);
    const QByteArray archive = a.finish();
    ASSERT_LT(archive.size(), 300000);

    LogCapture log;
    KeyedUnarchiver coder(archive);
    coder.decodeObjectForKey(QStringLiteral("root"));
    EXPECT_TRUE(coder.hasDecodingError());
    EXPECT_EQ(log.count(QStringLiteral("far more work than its size justifies")), 1) << log.lines().join('\n').toStdString();
}

TEST(KeyedUnarchiverLimitsTest, xmlIsCheckedBeforeAndAfterLibplistParsesIt)
{
    LogCapture quiet;
    const QByteArray deep = "<?xml version=\"1.0\"?><plist version=\"1.0\">" + QByteArray("<array>").repeated(1000000) +
                            QByteArray("</array>").repeated(1000000) + "</plist>";
    EXPECT_FALSE(KeyedUnarchiver(deep).isValid());

    auto archive = [](const char* top, const char* objects) {
        return QByteArray("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                          "<key>$archiver</key><string>NSKeyedArchiver</string>"
                          "<key>$version</key><integer>100000</integer><key>$top</key><dict>") +
               top + "</dict><key>$objects</key><array><string>$null</string>" + objects + "</array></dict></plist>";
    };
    // Signed and unsigned 64-bit integers keep their meaning through libplist.
    KeyedUnarchiver integers(archive("<key>negative</key><integer>-2</integer>"
                                     "<key>large</key><integer>18446744073709551615</integer>",
                                     ""));
    ASSERT_TRUE(integers.isValid());
    EXPECT_EQ(integers.decodeInt64ForKey(QStringLiteral("negative")), -2);
    EXPECT_FALSE(integers.hasDecodingError());
    EXPECT_EQ(integers.decodeInt64ForKey(QStringLiteral("large")), 0);
    EXPECT_TRUE(integers.hasDecodingError());

    // Only a one-entry {CF$UID: integer} dictionary is a reference.
    EXPECT_FALSE(KeyedUnarchiver(archive("<key>root</key><dict><key>CF$UID</key><integer>99999999999</integer></dict>", ""))
                     .isValid());
    KeyedUnarchiver notReference(archive(
        "<key>root</key><dict><key>CF$UID</key><integer>1</integer><key>x</key><true/></dict>", "<string>s</string>"));
    ASSERT_TRUE(notReference.isValid());
    EXPECT_FALSE(notReference.decodeObjectForKey(QStringLiteral("root")));
    EXPECT_TRUE(notReference.hasDecodingError());
    KeyedUnarchiver reference(archive("<key>root</key><dict><key>CF$UID</key><integer>1</integer></dict>",
                                      "<string>s</string>"));
    EXPECT_EQ(reference.decodeStringForKey(QStringLiteral("root")), QStringLiteral("s"));
}

TEST(KeyedUnarchiverLimitsTest, randomlyDamagedArchivesNeverCrash)
{
    std::vector<QByteArray> originals;
    const QDir fixtures(QStringLiteral(BRINDLE_TESTS_DIR "/foundation/fixtures"));
    for (const QString& name : fixtures.entryList({"*.bplist", "*.xml"}, QDir::Files)) {
        originals.push_back(fixture(name));
        ASSERT_FALSE(originals.back().isEmpty()) << name.toStdString();
    }
    auto dictionary = std::make_shared<KeyedDictionary>();
    dictionary->setObjectForKey(std::make_shared<KeyedURL>(QUrl(QStringLiteral("file:///a"))), QStringLiteral("url"));
    dictionary->setObjectForKey(std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>{
                                    KeyedNumber::fromSigned(-1), std::make_shared<KeyedString>(QStringLiteral("\u00E9")),
                                    std::make_shared<KeyedDate>(3.0), std::make_shared<KeyedUUID>(QUuid::createUuid())}),
                                QStringLiteral("list"));
    originals.push_back(KeyedArchiver::archivedDataWithRootObject(dictionary));

    LogCapture quiet;
    std::mt19937 random(20240611);
    int decoded = 0;
    for (const QByteArray& original : originals) {
        for (int round = 0; round < 300; ++round) {
            const QByteArray bytes = damaged(original, random);
            readEverything(bytes);
            decoded += KeyedUnarchiver(bytes).isValid() ? 1 : 0;
        }
    }
    // Some damage leaves the container readable, so the archive layer's checks ran too.
    EXPECT_GT(decoded, 100);
}

TEST(KeyedUnarchiverLimitsTest, unarchiversOnSeveralThreadsAndRegistrationsDoNotInterfere)
{
    auto list = std::make_shared<KeyedArray>();
    for (int i = 0; i < 50; ++i)
        list->addObject(std::make_shared<KeyedString>(QString::number(i)));
    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(list);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                if (t == 0)
                    KeyedClassRegistry::registerClass<TestNode>();
                auto decoded = KeyedUnarchiver::unarchivedObjectOfClass<KeyedArray>(archive);
                if (!decoded || decoded->count() != 50)
                    ++failures;
                if (KeyedArchiver::archivedDataWithRootObject(decoded) != archive)
                    ++failures;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    KeyedClassRegistry::registerClass(QStringLiteral("TestNode"), nullptr);
    EXPECT_EQ(failures, 0);
}
