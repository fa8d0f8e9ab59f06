// Everything the keyed archiver writes comes back unchanged from the
// unarchiver: scalars, the standard value classes, and custom class graphs
// with shared objects and cycles.
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"

#include <QFile>

#include <gtest/gtest.h>

#include <cmath>
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
    KeyedUnarchiver coder(archive);
    auto decoded = coder.decodeObjectOfClass<KeyedArray>(QStringLiteral("root"));
    ASSERT_TRUE(decoded);
    int depth = 1;
    for (std::shared_ptr<const KeyedArray> at = decoded; at->count() > 0; at = at->objectAtIndex<KeyedArray>(0))
        ++depth;
    EXPECT_EQ(depth, KeyedArchiver::kMaxDepth);
    EXPECT_FALSE(coder.hasDecodingError());
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
            auto copy = KeyedUnarchiver::unarchiveObjectWithData(archive);
        EXPECT_TRUE(sameValue(original.get(), copy.get())) << name;
    }
}
