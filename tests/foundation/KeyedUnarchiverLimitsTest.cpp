// The unarchiver's limits: nesting depth, shared references, work that a
// small archive can demand, XML depth, and randomly damaged archives.
#include "foundation/BplistWriter.h"
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>

using namespace brindle;

namespace {

using Ref = BplistWriter::Ref;

// Keyed archives of one class: slot 1 is the class, and each further slot an
// object of it holding the UIDs given for it, as an NSArray's `NS.objects`
// or, for ChainNode, as a single `next` reference.
QByteArray arraysArchive(const std::vector<std::vector<uint32_t>>& arrays, const char* className = "NSArray")
{
    const bool chain = std::strcmp(className, "ChainNode") == 0;
    BplistWriter w;
    const Ref root = w.reserve();
    auto dict = [&](std::vector<std::pair<const char*, Ref>> fields) {
        std::vector<Ref> keys;
        std::vector<Ref> values;
        for (const auto& [key, value] : fields) {
            keys.push_back(w.addString(QString::fromUtf8(key)));
            values.push_back(value);
        }
        return w.addDictionary(keys.data(), values.data(), keys.size());
    };
    std::vector<Ref> objects = {w.addString(QStringLiteral("$null"))};
    const Ref name = w.addString(QString::fromUtf8(className));
    const Ref classes[] = {name, w.addString(QStringLiteral("NSObject"))};
    objects.push_back(dict({{"$classname", name}, {"$classes", w.addArray(classes, 2)}}));
    const Ref classRef = w.addUID(1);
    for (const auto& elements : arrays) {
        if (chain) {
            objects.push_back(dict({{"next", w.addUID(elements.empty() ? 0 : elements[0])}, {"$class", classRef}}));
            continue;
        }
        std::vector<Ref> uids;
        for (uint32_t element : elements)
            uids.push_back(w.addUID(element));
        objects.push_back(dict({{"NS.objects", w.addArray(uids.data(), uids.size())}, {"$class", classRef}}));
    }
    const Ref top = dict({{"root", w.addUID(2)}});
    const Ref rootKeys[] = {w.addString(QStringLiteral("$archiver")), w.addString(QStringLiteral("$version")),
                            w.addString(QStringLiteral("$top")), w.addString(QStringLiteral("$objects"))};
    const Ref rootValues[] = {w.addString(QStringLiteral("NSKeyedArchiver")), w.addInteger(100000), top,
                              w.addArray(objects.data(), objects.size())};
    w.setDictionary(root, rootKeys, rootValues, 4);
    return w.finish(root);
}

int nestingOf(const KeyedArray& array)
{
    int depth = 1;
    for (auto at = array.objectAtIndex<KeyedArray>(0); at; at = at->objectAtIndex<KeyedArray>(0))
        ++depth;
    return depth;
}

class QuietLog {
public:
    QuietLog() { m_previous = setLogSink([](const QString&) {}); }
    ~QuietLog() { setLogSink(m_previous); }

private:
    LogSink m_previous;
};

// A linked list of custom objects, for typed recursion.
class ChainNode final : public KeyedCoding {
public:
    std::shared_ptr<ChainNode> next;
    QString classNameForArchive() const override { return QStringLiteral("ChainNode"); }
    void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeObject(next, QStringLiteral("next")); }
    static QStringList archiveClassNames() { return {QStringLiteral("ChainNode")}; }
    static std::shared_ptr<ChainNode> initWithCoder(KeyedUnarchiver& coder)
    {
        auto node = std::make_shared<ChainNode>();
        node->next = coder.decodeObjectOfClass<ChainNode>(QStringLiteral("next"));
        return node;
    }
};

// Applies a few random byte changes, sometimes a truncation or a repeated chunk.
QByteArray damaged(const QByteArray& original, std::mt19937& random)
{
    QByteArray bytes = original;
    if (bytes.isEmpty())
        return bytes;
    std::uniform_int_distribution<int> kind(0, 9);
    std::uniform_int_distribution<int> byteValue(0, 255);
    const int changes = 1 + kind(random) % 4;
    for (int i = 0; i < changes; ++i) {
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
        if (bytes.isEmpty())
            break;
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
    std::vector<std::vector<uint32_t>> arrays;
    for (uint32_t level = 0; level < kLevels; ++level)
        arrays.push_back(level + 1 < kLevels ? std::vector<uint32_t>{level + 3} : std::vector<uint32_t>{});
    const QByteArray archive = arraysArchive(arrays);

    QuietLog quiet;
    KeyedUnarchiver coder(archive);
    auto root = coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("root"));
    ASSERT_TRUE(root);
    EXPECT_EQ(nestingOf(*root), KeyedUnarchiver::kMaxDepth);
    EXPECT_TRUE(coder.hasDecodingError());

    // Typed recursion through custom classes is capped the same way.
    KeyedUnarchiver typedCoder(arraysArchive(arrays, "ChainNode"));
    auto chain = typedCoder.decodeObjectOfClass<ChainNode>(QStringLiteral("root"));
    ASSERT_TRUE(chain);
    int length = 1;
    for (auto at = chain; at->next; at = at->next)
        ++length;
    EXPECT_EQ(length, KeyedUnarchiver::kMaxDepth);
    EXPECT_TRUE(typedCoder.hasDecodingError());
}

TEST(KeyedUnarchiverLimitsTest, sharedReferencesDecodeOnceEvenWhenTheyDoubleAtEveryLevel)
{
    // Slot 2 + i holds slot 3 + i twice: 2^64 paths through 64 levels.
    std::vector<std::vector<uint32_t>> arrays;
    for (uint32_t level = 0; level < 64; ++level)
        arrays.push_back({level + 3, level + 3});
    arrays.push_back({});
    // Decoding every path would never finish; the suite's time limit catches that.
    auto root = KeyedUnarchiver::unarchivedObjectOfClass<KeyedArray>(arraysArchive(arrays));
    ASSERT_TRUE(root);
    EXPECT_EQ(root->objects()[0], root->objects()[1]);
    EXPECT_EQ(nestingOf(*root), 65);
}

TEST(KeyedUnarchiverLimitsTest, oneLargeObjectSharedByManySlotsCannotMultiplyTheWork)
{
    // 20000 slots share one property-list dictionary that lists 5000 UIDs: a
    // small file asking for 10^8 element decodes.
    BplistWriter w;
    const Ref root = w.reserve();
    std::vector<Ref> uids(5000, w.addUID(2));
    const Ref name = w.addString(QStringLiteral("NSArray"));
    const Ref chain[] = {name, w.addString(QStringLiteral("NSObject"))};
    const Ref classKeys[] = {w.addString(QStringLiteral("$classname")), w.addString(QStringLiteral("$classes"))};
    const Ref classValues[] = {name, w.addArray(chain, 2)};
    const Ref shared[] = {w.addString(QStringLiteral("NS.objects")), w.addString(QStringLiteral("$class"))};
    std::vector<Ref> elementUIDs;
    for (uint32_t slot = 3; slot < 20003; ++slot)
        elementUIDs.push_back(w.addUID(slot));
    const Ref sharedValues[] = {w.addArray(uids.data(), uids.size()), w.addUID(1)};
    const Ref sharedArray = w.addDictionary(shared, sharedValues, 2);
    const Ref rootValues2[] = {w.addArray(elementUIDs.data(), elementUIDs.size()), w.addUID(1)};
    std::vector<Ref> objects = {w.addString(QStringLiteral("$null")), w.addDictionary(classKeys, classValues, 2),
                                w.addDictionary(shared, rootValues2, 2)};
    objects.insert(objects.end(), 20000, sharedArray);
    const Ref topKey = w.addString(QStringLiteral("root"));
    const Ref topValue = w.addUID(2);
    const Ref keys[] = {w.addString(QStringLiteral("$archiver")), w.addString(QStringLiteral("$version")),
                        w.addString(QStringLiteral("$top")), w.addString(QStringLiteral("$objects"))};
    const Ref values[] = {w.addString(QStringLiteral("NSKeyedArchiver")), w.addInteger(100000),
                          w.addDictionary(&topKey, &topValue, 1), w.addArray(objects.data(), objects.size())};
    w.setDictionary(root, keys, values, 4);
    const QByteArray archive = w.finish(root);
    ASSERT_LT(archive.size(), 300000);

    QStringList lines;
    const LogSink previous = setLogSink([&](const QString& line) { lines.append(line); });
    KeyedUnarchiver coder(archive);
    coder.decodeObjectForKey(QStringLiteral("root"));
    setLogSink(previous);
    EXPECT_TRUE(coder.hasDecodingError());
    EXPECT_TRUE(lines.filter(QStringLiteral("far more work than its size justifies")).size() == 1) << lines.join('\n').toStdString();
}

TEST(KeyedUnarchiverLimitsTest, xmlIsCheckedBeforeAndAfterLibplistParsesIt)
{
    QuietLog quiet;
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
        QFile file(fixtures.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        originals.push_back(file.readAll());
    }
    auto dictionary = std::make_shared<KeyedDictionary>();
    dictionary->setObjectForKey(std::make_shared<KeyedURL>(QUrl(QStringLiteral("file:///a"))), QStringLiteral("url"));
    dictionary->setObjectForKey(std::make_shared<KeyedArray>(std::vector<ConstKeyedObjectPtr>{
                                    KeyedNumber::fromSigned(-1), std::make_shared<KeyedString>(QStringLiteral("\u00E9")),
                                    std::make_shared<KeyedDate>(3.0), std::make_shared<KeyedUUID>(QUuid::createUuid())}),
                                QStringLiteral("list"));
    originals.push_back(KeyedArchiver::archivedDataWithRootObject(dictionary));

    QuietLog quiet;
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
                    KeyedClassRegistry::registerClass<ChainNode>();
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
    KeyedClassRegistry::registerClass(QStringLiteral("ChainNode"), nullptr);
    EXPECT_EQ(failures, 0);
}
