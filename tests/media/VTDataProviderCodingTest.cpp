// Archived providers, damaged cache files, and providers converted from the
// fields of older project files (among them inputs found by fuzzing the
// frame table against damaged cache files, each of which once crashed,
// tripped a sanitizer or broke a round trip).
#include "media/VTDataProvider.h"

#include "LogCapture.h"
#include "MediaFixtures.h"

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <thread>

using namespace brindle::test;

namespace {

QByteArray archive(const std::shared_ptr<VTDataProvider>& provider)
{
    return brindle::KeyedArchiver::archivedDataWithRootObject(provider);
}

std::shared_ptr<VTDataProvider> unarchive(const QByteArray& bytes)
{
    return brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTDataProvider>(bytes);
}

}  // namespace

// An archived provider comes back with its fields, table and samples (its
// sample offset starts at 0), unless its cache file is shorter than its
// table or missing.
TEST(VTDataProviderCodingTest, anArchivedProviderComesBackWhileItsCacheFileIsWhole)
{
    auto provider = importFresh(TestMedia::shared().mp3Cbr(ToneSpec{2, 44100, 30000, 21}));
    ASSERT_TRUE(provider);
    const QString cache = provider->cachePathFile();
    provider->setSampleOffset(10);
    const QByteArray bytes = archive(provider);
    auto decoded = unarchive(bytes);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->url(), provider->url());
    EXPECT_EQ(decoded->duration(), provider->duration());
    EXPECT_EQ(decoded->sampleFormat(), provider->sampleFormat());
    EXPECT_EQ(decoded->samplerate(), provider->samplerate());
    EXPECT_EQ(decoded->numberOfChannel(), provider->numberOfChannel());
    EXPECT_EQ(decoded->cachePathFile(), cache);
    EXPECT_EQ(decoded->dataBuffer()->cachePathFile(), cache);
    EXPECT_EQ(decoded->sampleOffset(), 0u);
    EXPECT_EQ(rowsOf(*decoded), rowsOf(*provider));
    EXPECT_EQ(decoded->numberOfSamples(), provider->numberOfSamples());
    EXPECT_EQ(decoded->readSampleOfCount(~uint64_t(0) / 64, 0), provider->readSampleOfCount(~uint64_t(0) / 64, 0));

    ASSERT_TRUE(QFile(cache).resize(provider->cacheTable().back()->offsetOfBuffer() - 1));
    {
        LogCapture log;
        EXPECT_FALSE(unarchive(bytes));
        EXPECT_EQ(log.lines(), QStringList{QStringLiteral("Warning, cache file crashed.")});
    }
    ASSERT_TRUE(QFile::remove(cache));
    LogCapture log;
    EXPECT_FALSE(unarchive(bytes));
    EXPECT_EQ(log.lines(), (QStringList{QStringLiteral("Warning: miss cache file(%1).").arg(cache),
                                        QStringLiteral("Warning, cache file crashed.")}));
}

TEST(VTDataProviderCodingTest, damagedRecordsEndReadsEarlyWithALogLineInsteadOfCrashing)
{
    auto provider = importFresh(TestMedia::shared().mp3Cbr(ToneSpec{2, 44100, 30000, 24}));
    ASSERT_TRUE(provider);
    const auto table = provider->cacheTable();
    ASSERT_GT(table.size(), 6u);
    const QByteArray whole = provider->readSampleOfCount(provider->numberOfSamples(), 0);
    const auto& broken = *table[3];
    {
        QFile file(provider->cachePathFile());
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        file.seek(broken.offsetOfBuffer() + broken.lengthOfBuffer() / 2);
        file.write(QByteArray(16, char(0x5a)));
    }
    const uint64_t bps = provider->bytesPerSample();
    LogCapture log;
    // Up to the damaged frame everything is delivered; from it on nothing.
    const QByteArray before = provider->readSampleOfCount(provider->numberOfSamples(), 1);
    EXPECT_EQ(before, whole.mid(qsizetype(bps), qsizetype((uint64_t(broken.indexOfSamples()) - 1) * bps)));
    EXPECT_TRUE(provider->readSampleOfCount(10, uint64_t(broken.indexOfSamples()) + 3).isEmpty());
    EXPECT_TRUE(log.containsText(QStringLiteral("Warning: damaged record")));
    // Frames after it are unharmed.
    const auto& later = *table[5];
    EXPECT_EQ(provider->readSampleOfCount(7, uint64_t(later.indexOfSamples())),
              whole.mid(qsizetype(uint64_t(later.indexOfSamples()) * bps), qsizetype(7 * bps)));

    // A cache file cut short after decoding: reads stop where the file does.
    // (Read on a new thread, which holds none of the frames this one inflated.)
    ASSERT_TRUE(QFile(provider->cachePathFile()).resize(table[5]->offsetOfBuffer() + 10));
    qsizetype cutRead = -1;
    std::thread reader([&] {
        cutRead = provider->readSampleOfCount(provider->numberOfSamples(), uint64_t(table[4]->indexOfSamples())).size();
    });
    reader.join();
    EXPECT_EQ(cutRead, qsizetype(uint64_t(table[4]->numberOfSamples()) * bps));
}

TEST(VTDataProviderCodingTest, aLegacyProviderIsConvertedOntoItsOldCacheFileUnlessItIsUnusable)
{
    const ImportedMedia& imported = importedMedia(TestMedia::shared().flac());
    ASSERT_TRUE(imported.provider);
    const KRDataProviderLegacyFields legacy = legacyFieldsOf(*imported.provider);
    auto converted = VTDataProvider::initWithKRDataProvider(legacy);
    ASSERT_TRUE(converted);
    EXPECT_EQ(converted->url(), QUrl::fromLocalFile(legacy.pathfile));
    EXPECT_EQ(converted->identifier(), imported.provider->identifier());
    EXPECT_EQ(converted->cachePathFile(), legacy.cachePathFile);
    EXPECT_EQ(converted->duration(), legacy.duration);
    EXPECT_EQ(converted->readSampleOfCount(converted->numberOfSamples() + 1, 0), imported.reference);
    const QString fault = checkRead(*converted, imported.reference, 1000, 5000);
    EXPECT_TRUE(fault.isEmpty()) << fault.toStdString();

    // An absurd channel count; no media path (the provider would be known by
    // an empty name, which a saved project reads as "no media").
    KRDataProviderLegacyFields unusable = legacy;
    unusable.numbersOfComponent = int64_t(1) << 40;
    EXPECT_FALSE(VTDataProvider::initWithKRDataProvider(unusable));
    KRDataProviderLegacyFields pathless = legacy;
    pathless.pathfile.clear();
    LogCapture log;
    EXPECT_FALSE(VTDataProvider::initWithKRDataProvider(pathless));
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: legacy data provider without a media path; it is skipped.")));

    // A document naming a cache file that is not there creates no file: its reads fail instead.
    KRDataProviderLegacyFields elsewhere = legacy;
    elsewhere.cachePathFile = QFileInfo(legacy.cachePathFile).absolutePath() + QStringLiteral("/not-written-here.medialibrary");
    auto missing = VTDataProvider::initWithKRDataProvider(elsewhere);
    ASSERT_TRUE(missing);
    std::vector<char> buffer(size_t(64 * missing->bytesPerSample()));
    EXPECT_EQ(missing->readSampleOfCount(64, buffer.data(), 0), 0u);
    EXPECT_FALSE(QFileInfo::exists(elsewhere.cachePathFile));
}

// A table out of stream order is still searched row by row; rows whose
// fields are out of range (the fuzzer's random 64-bit values, a sample count
// whose byte size overflows) read as damaged.
TEST(VTDataProviderCodingTest, tablesOutOfOrderOrOutOfRangeAreReadRowByRowOrAsDamaged)
{
    const ImportedMedia& imported = importedMedia(TestMedia::shared().wav(2, ToneSpec{2, 44100, 30000, 25}));
    ASSERT_TRUE(imported.provider);
    KRDataProviderLegacyFields legacy = legacyFieldsOf(*imported.provider);
    ASSERT_GT(legacy.cacheTable.size(), 3u);
    std::reverse(legacy.cacheTable.begin(), legacy.cacheTable.end() - 1);
    auto shuffled = VTDataProvider::initWithKRDataProvider(legacy);
    ASSERT_TRUE(shuffled);
    const auto& firstRow = legacy.cacheTable[legacy.cacheTable.size() - 2];
    EXPECT_EQ(shuffled->frameInfoAtIndex(0)->offsetOfBuffer(), firstRow.offsetOfBuffer);
    const QString within = checkRead(*shuffled, imported.reference, 5, uint64_t(firstRow.numberOfSamples) - 5);
    EXPECT_TRUE(within.isEmpty()) << within.toStdString();
    EXPECT_EQ(shuffled->frameInfoAtIndex(shuffled->numberOfSamples() + 3), shuffled->cacheTable().back());

    const ImportedMedia& mono = importedMedia(TestMedia::shared().wav(3, ToneSpec{1, 22050, 3000}));
    ASSERT_TRUE(mono.provider);
    KRDataProviderLegacyFields fuzzed = legacyFieldsOf(*mono.provider);
    fuzzed.cacheTable = {{0, 545, 0, 47},
                         {8010, 2490, 1775, 1247301968226091584},
                         {3161868733417870346, -7929133762063285274, 7194134026572759215, 3998064048869333322}};
    auto damaged = VTDataProvider::initWithKRDataProvider(fuzzed);
    ASSERT_TRUE(damaged);
    LogCapture log;
    std::vector<char> buffer(64 * sizeof(float));
    EXPECT_EQ(damaged->readSampleOfCount(64, buffer.data(), 9449054082766156322ull), 0u);
    EXPECT_EQ(damaged->readSampleOfCount(64, buffer.data(), 1800), 0u);
    EXPECT_FALSE(log.lines().isEmpty());
}
