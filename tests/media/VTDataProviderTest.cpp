#include "media/VTDataProvider.h"

#include "MediaFixtures.h"
#include "foundation/Paths.h"
#include "support/TestMedia.h"

#include <QFileInfo>
#include <QSet>
#include <QUrl>

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <thread>
#include <vector>

using namespace brindle::test;

namespace {

struct MediaCase {
    const char* name;
    std::function<QString()> make;
};

ToneSpec tone(int channels, int rate, int64_t frames, uint32_t seed = 1)
{
    ToneSpec spec;
    spec.channels = channels;
    spec.sampleRate = rate;
    spec.frames = frames;
    spec.seed = seed;
    return spec;
}

std::vector<MediaCase> mediaCases()
{
    // Fixtures are made when a test runs: the test environment does not exist yet here.
    auto media = [] { return &TestMedia::shared(); };
    return {
        {"Wav8BitMono8000", [media] { return media()->wav(0, tone(1, 8000, 12000)); }},
        {"Wav16BitStereo44100", [media] { return media()->wav(1, tone(2, 44100, 50000)); }},
        {"Wav32BitThreeChannels48000", [media] { return media()->wav(2, tone(3, 48000, 30000)); }},
        {"WavFloatSixChannels22050", [media] { return media()->wav(3, tone(6, 22050, 20000)); }},
        {"WavDoubleStereo96000", [media] { return media()->wav(4, tone(2, 96000, 40000)); }},
        {"Wav24Bit", [media] { return media()->wav24(tone(2, 44100, 30000)); }},
        {"Mp3Cbr", [media] { return media()->mp3Cbr(); }},
        {"Mp3VbrWithoutXing", [media] { return media()->mp3VbrNoXing(); }},
        {"Mp3WithCoverArt", [media] { return media()->mp3WithCoverArt(); }},
        {"M4a", [media] { return media()->m4a(); }},
        {"Flac", [media] { return media()->flac(tone(1, 32000, 40000)); }},
        {"OggVorbis", [media] { return media()->oggVorbis(); }},
    };
}

class VTDataProviderDecodeTest : public testing::TestWithParam<MediaCase> {
protected:
    const ImportedMedia& media()
    {
        const QString path = GetParam().make();
        EXPECT_FALSE(path.isEmpty());
        const ImportedMedia& imported = importedMedia(path);
        EXPECT_TRUE(imported.provider) << path.toStdString();
        EXPECT_FALSE(imported.reference.isEmpty()) << path.toStdString();
        return imported;
    }
};

}  // namespace

TEST_P(VTDataProviderDecodeTest, wholeStreamEqualsFfmpegsDecodeAndTheTableEndsWithTheMarker)
{
    const ImportedMedia& imported = media();
    ASSERT_TRUE(imported.provider && !imported.reference.isEmpty());
    const VTDataProvider& provider = *imported.provider;
    EXPECT_EQ(provider.numberOfSamples(), imported.referenceSamples());
    EXPECT_EQ(provider.readSampleOfCount(provider.numberOfSamples() + 100, 0), imported.reference);

    const auto& table = provider.cacheTable();
    ASSERT_GE(table.size(), 2u);
    const VTAudioFrameInfo& end = *table.back();
    EXPECT_EQ(end.lengthOfBuffer(), kVTAudioFrameEndValue);
    EXPECT_EQ(end.numberOfSamples(), kVTAudioFrameEndValue);
    EXPECT_EQ(uint64_t(end.indexOfSamples()), provider.numberOfSamples());
    EXPECT_EQ(uint64_t(end.offsetOfBuffer()), provider.dataBuffer()->length());
    EXPECT_EQ(QFileInfo(provider.cachePathFile()).size(), end.offsetOfBuffer());

    // Rows follow each other without gaps, in the file and in the stream.
    int64_t offset = 0;
    int64_t index = 0;
    for (size_t i = 0; i + 1 < table.size(); ++i) {
        EXPECT_EQ(table[i]->offsetOfBuffer(), offset);
        EXPECT_EQ(table[i]->indexOfSamples(), index);
        offset += table[i]->lengthOfBuffer();
        index += table[i]->numberOfSamples();
    }
    EXPECT_EQ(offset, end.offsetOfBuffer());
}

TEST_P(VTDataProviderDecodeTest, readsAtRandomPositionsAndLengthsMatchFfmpegsDecode)
{
    const ImportedMedia& imported = media();
    ASSERT_TRUE(imported.provider && !imported.reference.isEmpty());
    const VTDataProvider& provider = *imported.provider;
    const uint64_t total = provider.numberOfSamples();
    ASSERT_GT(total, 0u);
    const auto& table = provider.cacheTable();

    std::mt19937_64 random(17);
    std::vector<std::pair<uint64_t, uint64_t>> reads = {
        {0, 1}, {0, total}, {total - 1, 1}, {total - 1, 50}, {total, 1}, {total + 5, 10}, {0, total * 3},
        {total / 2, ~uint64_t(0) / 2}, {5, 0}};
    for (int i = 0; i < 120; ++i) {
        // Starts inside a random frame, lengths from a few samples to several frames.
        const auto& row = *table[size_t(random() % (table.size() - 1))];
        const uint64_t start = uint64_t(row.indexOfSamples()) + random() % uint64_t(row.numberOfSamples());
        const uint64_t length = 1 + random() % (uint64_t(row.numberOfSamples()) * (i % 4 == 0 ? 6 : 2));
        reads.emplace_back(start, length);
    }
    for (const auto& [index, count] : reads) {
        const QString fault = checkRead(provider, imported.reference, index, count);
        EXPECT_TRUE(fault.isEmpty()) << fault.toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Media, VTDataProviderDecodeTest, testing::ValuesIn(mediaCases()),
                         [](const testing::TestParamInfo<MediaCase>& info) { return std::string(info.param.name); });

TEST(VTDataProviderTest, locatingARowUsesUnsignedBoundsSoEveryIndexFromTheEndHitsTheMarker)
{
    const ImportedMedia& imported = importedMedia(TestMedia::shared().wav(1, tone(2, 44100, 50000)));
    ASSERT_TRUE(imported.provider);
    const VTDataProvider& provider = *imported.provider;
    const auto& table = provider.cacheTable();
    ASSERT_GE(table.size(), 3u);

    EXPECT_EQ(provider.frameInfoAtIndex(0), table[0]);
    const auto& second = table[1];
    EXPECT_EQ(provider.frameInfoAtIndex(uint64_t(second->indexOfSamples())), second);
    EXPECT_EQ(provider.frameInfoAtIndex(uint64_t(second->indexOfSamples() - 1)), table[0]);
    EXPECT_EQ(provider.frameInfoAtIndex(provider.numberOfSamples()), table.back());
    EXPECT_EQ(provider.frameInfoAtIndex(provider.numberOfSamples() + 1000000), table.back());

    EXPECT_EQ(provider.nextFrameInfo(table[0]), table[1]);
    EXPECT_EQ(provider.nextFrameInfo(table[table.size() - 2]), nullptr);
    EXPECT_EQ(provider.nextFrameInfo(VTAudioFrameInfo::initWithOffset(0, 1, 0, 1)), nullptr);
    EXPECT_EQ(provider.nextFrameInfo(nullptr), nullptr);
}

TEST(VTDataProviderTest, sampleOffsetIsClampedAndReadingThereDoesNotAdvanceIt)
{
    auto provider = importFresh(TestMedia::shared().wav(1, tone(1, 8000, 9000)));
    ASSERT_TRUE(provider);
    const QByteArray whole = provider->readSampleOfCount(provider->numberOfSamples(), 0);

    provider->setSampleOffset(100);
    EXPECT_EQ(provider->sampleOffset(), 100u);
    EXPECT_EQ(provider->readSampleOfCount(10), whole.mid(200, 20));
    EXPECT_EQ(provider->sampleOffset(), 100u);

    provider->seekToSampleOffset(1u << 30);
    EXPECT_EQ(provider->sampleOffset(), provider->numberOfSamples());
    EXPECT_TRUE(provider->readSampleOfCount(10).isEmpty());
}

TEST(VTDataProviderTest, progressIsReportedInOrderWithinZeroToHundred)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(TestMedia::shared().mp3Cbr(tone(2, 44100, 441000))));
    ASSERT_TRUE(provider);
    std::vector<double> reports;
    provider->startParserWithBlock([&](double percent) { reports.push_back(percent); });
    ASSERT_GE(reports.size(), 50u);
    for (size_t i = 0; i < reports.size(); ++i) {
        EXPECT_GE(reports[i], 0.0);
        EXPECT_LE(reports[i], 100.0);
        if (i > 0) {
            EXPECT_GE(reports[i], reports[i - 1]);
        }
    }
    EXPECT_GT(reports.back(), 90.0);
}

TEST(VTDataProviderTest, decodesOfOneFileGetNumberedCacheFilesInTheApplicationSupportFolder)
{
    const QString source = TestMedia::shared().wav(1, tone(2, 44100, 20000, 5));
    const QString folder = brindle::searchPathForDirectory(brindle::SearchDirectory::ApplicationSupport) +
                           QStringLiteral("/com.tarnwell.brindle/");
    const QString stem = QFileInfo(source).completeBaseName();

    auto first = importFresh(source);
    auto second = importFresh(source);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->cachePathFile(), folder + stem + QStringLiteral(".medialibrary"));
    EXPECT_EQ(second->cachePathFile(), folder + stem + QStringLiteral(" 1.medialibrary"));
    EXPECT_EQ(first->identifier(), second->identifier());
    EXPECT_EQ(first->identifier(), source);

    // Parallel decodes of one file never share a cache file.
    std::vector<std::shared_ptr<VTDataProvider>> parallel(4);
    std::vector<std::thread> threads;
    for (auto& slot : parallel)
        threads.emplace_back([&slot, &source] { slot = importFresh(source); });
    for (auto& thread : threads)
        thread.join();
    QSet<QString> paths{first->cachePathFile(), second->cachePathFile()};
    for (const auto& provider : parallel) {
        ASSERT_TRUE(provider);
        paths.insert(provider->cachePathFile());
        EXPECT_EQ(provider->readSampleOfCount(1u << 20, 0), first->readSampleOfCount(1u << 20, 0));
    }
    EXPECT_EQ(paths.size(), 6);
}

TEST(VTDataProviderTest, fourThreadsReadingAtOnceEachGetFfmpegsSamples)
{
    const ImportedMedia& imported = importedMedia(TestMedia::shared().mp3Cbr());
    ASSERT_TRUE(imported.provider && !imported.reference.isEmpty());
    const VTDataProvider& provider = *imported.provider;
    const uint64_t total = provider.numberOfSamples();
    std::vector<QString> faults(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937_64 random(uint64_t(100 + t));
            for (int i = 0; i < 150 && faults[size_t(t)].isEmpty(); ++i) {
                // Half sequential runs of small blocks (sharing frames), half random jumps.
                const uint64_t index = i % 2 ? random() % total : (uint64_t(i) * 700) % total;
                faults[size_t(t)] = checkRead(provider, imported.reference, index, 1 + random() % 3000);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (const QString& fault : faults)
        EXPECT_TRUE(fault.isEmpty()) << fault.toStdString();
}
