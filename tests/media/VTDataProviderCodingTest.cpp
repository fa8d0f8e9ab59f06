#include "media/VTDataProvider.h"

#include "LogCapture.h"
#include "MediaFixtures.h"
#include "support/TestMedia.h"

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <thread>

#include <algorithm>

using namespace brindle::test;

namespace {

ToneSpec shortTone(uint32_t seed)
{
    ToneSpec spec;
    spec.frames = 30000;
    spec.seed = seed;
    return spec;
}

QByteArray archive(const std::shared_ptr<VTDataProvider>& provider)
{
    return brindle::KeyedArchiver::archivedDataWithRootObject(provider);
}

std::shared_ptr<VTDataProvider> unarchive(const QByteArray& bytes)
{
    return brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTDataProvider>(bytes);
}

bool resizeFile(const QString& path, qint64 size)
{
    QFile file(path);
    return file.resize(size);
}

KRDataProviderLegacyFields legacyFieldsOf(const VTDataProvider& provider)
{
    KRDataProviderLegacyFields legacy;
    legacy.pathfile = provider.identifier();
    legacy.sampleFormat = provider.sampleFormat();
    legacy.samplerate = provider.samplerate();
    legacy.numbersOfComponent = provider.numberOfChannel();
    legacy.cachePathFile = provider.cachePathFile();
    legacy.duration = provider.duration();
    for (const auto& row : provider.cacheTable())
        legacy.cacheTable.push_back({row->offsetOfBuffer(), row->lengthOfBuffer(), row->indexOfSamples(), row->numberOfSamples()});
    return legacy;
}

}  // namespace

TEST(VTDataProviderCodingTest, anArchivedProviderComesBackWithItsFieldsTableAndSamples)
{
    auto provider = importFresh(TestMedia::shared().mp3Cbr(shortTone(21)));
    ASSERT_TRUE(provider);
    provider->setSampleOffset(10);
    auto decoded = unarchive(archive(provider));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->url(), provider->url());
    EXPECT_EQ(decoded->duration(), provider->duration());
    EXPECT_EQ(decoded->sampleFormat(), provider->sampleFormat());
    EXPECT_EQ(decoded->samplerate(), provider->samplerate());
    EXPECT_EQ(decoded->numberOfChannel(), provider->numberOfChannel());
    EXPECT_EQ(decoded->cachePathFile(), provider->cachePathFile());
    EXPECT_EQ(decoded->dataBuffer()->cachePathFile(), provider->cachePathFile());
    EXPECT_EQ(decoded->sampleOffset(), 0u);
    ASSERT_EQ(decoded->cacheTable().size(), provider->cacheTable().size());
    for (size_t i = 0; i < decoded->cacheTable().size(); ++i) {
        const auto& a = *decoded->cacheTable()[i];
        const auto& b = *provider->cacheTable()[i];
        EXPECT_EQ(a.offsetOfBuffer(), b.offsetOfBuffer());
        EXPECT_EQ(a.lengthOfBuffer(), b.lengthOfBuffer());
        EXPECT_EQ(a.indexOfSamples(), b.indexOfSamples());
        EXPECT_EQ(a.numberOfSamples(), b.numberOfSamples());
    }
    EXPECT_EQ(decoded->numberOfSamples(), provider->numberOfSamples());
    EXPECT_EQ(decoded->readSampleOfCount(~uint64_t(0) / 64, 0), provider->readSampleOfCount(~uint64_t(0) / 64, 0));
}

TEST(VTDataProviderCodingTest, aMissingCacheFileRejectsTheArchiveWithBothWarnings)
{
    auto provider = importFresh(TestMedia::shared().wav(1, shortTone(22)));
    ASSERT_TRUE(provider);
    const QByteArray bytes = archive(provider);
    ASSERT_TRUE(QFile::remove(provider->cachePathFile()));
    LogCapture log;
    EXPECT_FALSE(unarchive(bytes));
    EXPECT_EQ(log.lines(), (QStringList{QStringLiteral("Warning: miss cache file(%1).").arg(provider->cachePathFile()),
                                        QStringLiteral("Warning, cache file crashed.")}));
}

TEST(VTDataProviderCodingTest, aCacheFileShorterThanItsTableIsRejectedAsCrashed)
{
    auto provider = importFresh(TestMedia::shared().wav(1, shortTone(23)));
    ASSERT_TRUE(provider);
    const QByteArray bytes = archive(provider);
    const qint64 size = provider->cacheTable().back()->offsetOfBuffer();
    EXPECT_TRUE(unarchive(bytes));

    ASSERT_TRUE(resizeFile(provider->cachePathFile(), size - 1));
    LogCapture log;
    EXPECT_FALSE(unarchive(bytes));
    EXPECT_EQ(log.lines(), QStringList{QStringLiteral("Warning, cache file crashed.")});
}

TEST(VTDataProviderCodingTest, damagedRecordsEndReadsEarlyWithALogLineInsteadOfCrashing)
{
    const QString source = TestMedia::shared().mp3Cbr(shortTone(24));
    auto provider = importFresh(source);
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
    ASSERT_TRUE(resizeFile(provider->cachePathFile(), table[5]->offsetOfBuffer() + 10));
    qsizetype cutRead = -1;
    std::thread reader([&] {
        cutRead = provider->readSampleOfCount(provider->numberOfSamples(), uint64_t(table[4]->indexOfSamples())).size();
    });
    reader.join();
    EXPECT_EQ(cutRead, qsizetype(uint64_t(table[4]->numberOfSamples()) * bps));
}

TEST(VTDataProviderCodingTest, aLegacyProviderIsConvertedOntoItsOldCacheFile)
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
    EXPECT_EQ(converted->numberOfSamples(), imported.provider->numberOfSamples());
    EXPECT_EQ(converted->readSampleOfCount(converted->numberOfSamples(), 0), imported.reference);
    const QString fault = checkRead(*converted, imported.reference, 1000, 5000);
    EXPECT_TRUE(fault.isEmpty()) << fault.toStdString();

    KRDataProviderLegacyFields unusable = legacy;
    unusable.numbersOfComponent = int64_t(1) << 40;
    EXPECT_FALSE(VTDataProvider::initWithKRDataProvider(unusable));

    // A document naming a cache file that is not there creates no file: its
    // reads fail instead.
    KRDataProviderLegacyFields elsewhere = legacy;
    elsewhere.cachePathFile = QFileInfo(legacy.cachePathFile).absolutePath() + QStringLiteral("/not-written-here.medialibrary");
    auto missing = VTDataProvider::initWithKRDataProvider(elsewhere);
    ASSERT_TRUE(missing);
    EXPECT_FALSE(QFileInfo::exists(elsewhere.cachePathFile));
    LogCapture log;
    std::vector<char> buffer(size_t(64 * missing->bytesPerSample()));
    EXPECT_EQ(missing->readSampleOfCount(64, buffer.data(), 0), 0u);
    EXPECT_FALSE(QFileInfo::exists(elsewhere.cachePathFile));
}

TEST(VTDataProviderCodingTest, aTableOutOfStreamOrderIsStillSearchedRowByRow)
{
    const ImportedMedia& imported = importedMedia(TestMedia::shared().wav(2, shortTone(25)));
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
}
