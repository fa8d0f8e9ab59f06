#include "media/VTDataProvider.h"

#include "MediaFixtures.h"
#include "foundation/Paths.h"

#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <thread>
#include <vector>

using namespace brindle::test;

namespace {

struct MediaCase {
    const char* name;
    std::function<QString(TestMedia&)> make;
};

// Fixtures are made when a test runs: the test environment does not exist yet here.
const MediaCase kMediaCases[] = {
    {"Wav8BitMono8000", [](TestMedia& m) { return m.wav(0, ToneSpec{1, 8000, 12000}); }},
    {"Wav16BitStereo44100", [](TestMedia& m) { return m.wav(1, ToneSpec{2, 44100, 50000}); }},
    {"Wav32BitThreeChannels48000", [](TestMedia& m) { return m.wav(2, ToneSpec{3, 48000, 30000}); }},
    {"WavFloatSixChannels22050", [](TestMedia& m) { return m.wav(3, ToneSpec{6, 22050, 20000}); }},
    {"WavDoubleStereo96000", [](TestMedia& m) { return m.wav(4, ToneSpec{2, 96000, 40000}); }},
    {"Wav24Bit", [](TestMedia& m) { return m.wav24(ToneSpec{2, 44100, 30000}); }},
    {"Mp3Cbr", [](TestMedia& m) { return m.mp3Cbr(); }},
    {"Mp3VbrWithoutXing", [](TestMedia& m) { return m.mp3VbrNoXing(); }},
    {"Mp3WithCoverArt", [](TestMedia& m) { return m.mp3WithCoverArt(); }},
    {"M4a", [](TestMedia& m) { return m.m4a(); }},
    {"Flac", [](TestMedia& m) { return m.flac(ToneSpec{1, 32000, 40000}); }},
    {"OggVorbis", [](TestMedia& m) { return m.oggVorbis(); }},
    // Silence: its records are run-length coded.
    {"WavSilence", [](TestMedia& m) { return m.wav(1, ToneSpec{2, 44100, 30000, 1, 0.0, 0.0}); }},
};

class VTDataProviderDecodeTest : public testing::TestWithParam<MediaCase> {};

}  // namespace

// The whole stream equals FFmpeg's decode; the table's rows follow each
// other without gaps, in the file and in the stream, and end with the
// marker; reads at the edges and at random positions and lengths, several
// at once, match.
TEST_P(VTDataProviderDecodeTest, cacheTableAndEveryReadMatchFfmpegsDecode)
{
    const QString path = GetParam().make(TestMedia::shared());
    const ImportedMedia& imported = importedMedia(path);
    ASSERT_TRUE(imported.provider && !imported.reference.isEmpty()) << path.toStdString();
    const VTDataProvider& provider = *imported.provider;
    const uint64_t total = provider.numberOfSamples();
    EXPECT_EQ(total, uint64_t(imported.reference.size()) / provider.bytesPerSample());
    EXPECT_EQ(provider.readSampleOfCount(total + 100, 0), imported.reference);

    const auto& table = provider.cacheTable();
    ASSERT_GE(table.size(), 2u);
    const VTAudioFrameInfo& end = *table.back();
    EXPECT_EQ(end.lengthOfBuffer(), kVTAudioFrameEndValue);
    EXPECT_EQ(end.numberOfSamples(), kVTAudioFrameEndValue);
    EXPECT_EQ(uint64_t(end.indexOfSamples()), total);
    EXPECT_EQ(uint64_t(end.offsetOfBuffer()), provider.dataBuffer()->length());
    EXPECT_EQ(QFileInfo(provider.cachePathFile()).size(), end.offsetOfBuffer());
    int64_t offset = 0;
    int64_t index = 0;
    for (size_t i = 0; i + 1 < table.size(); ++i) {
        EXPECT_EQ(table[i]->offsetOfBuffer(), offset);
        EXPECT_EQ(table[i]->indexOfSamples(), index);
        offset += table[i]->lengthOfBuffer();
        index += table[i]->numberOfSamples();
    }
    EXPECT_EQ(offset, end.offsetOfBuffer());
    // The file holds exactly the records of the frames in stream order.
    QFile cacheFile(provider.cachePathFile());
    ASSERT_TRUE(cacheFile.open(QIODevice::ReadOnly));
    EXPECT_TRUE(cacheFile.readAll() == cacheFileOfDecode(path));

    std::vector<std::pair<uint64_t, uint64_t>> edges = {
        {0, 1}, {0, total}, {total - 1, 1}, {total - 1, 50}, {total, 1}, {total + 5, 10}, {0, total * 3},
        {total / 2, ~uint64_t(0) / 2}, {5, 0}};
    for (const auto& [at, count] : edges) {
        const QString fault = checkRead(provider, imported.reference, at, count);
        EXPECT_TRUE(fault.isEmpty()) << fault.toStdString();
    }
    // Four threads at once, each alternating runs of small blocks that share
    // frames with reads that start inside a random frame and span up to
    // several frames.
    std::vector<QString> faults(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < faults.size(); ++t) {
        threads.emplace_back([&, t] {
            std::mt19937_64 random(17 + t);
            for (uint64_t i = 0; i < 60 && faults[t].isEmpty(); ++i) {
                const auto& row = *table[size_t(random() % (table.size() - 1))];
                const uint64_t rowSamples = uint64_t(row.numberOfSamples());
                faults[t] = i % 2 ? checkRead(provider, imported.reference, (i * 700) % total, 1 + random() % 3000)
                                  : checkRead(provider, imported.reference, uint64_t(row.indexOfSamples()) + random() % rowSamples,
                                              1 + random() % (rowSamples * (i % 4 == 0 ? 6 : 2)));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (const QString& fault : faults)
        EXPECT_TRUE(fault.isEmpty()) << fault.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Media, VTDataProviderDecodeTest, testing::ValuesIn(kMediaCases),
                         [](const testing::TestParamInfo<MediaCase>& info) { return std::string(info.param.name); });

// Row look-ups use unsigned bounds, so every index from the end on hits the
// marker; the row after the last frame is none. The sample offset is
// clamped to the stream, and reading there does not advance it.
TEST(VTDataProviderTest, rowsAndTheSampleOffsetAreFoundByIndexUpToTheEnd)
{
    auto provider = importFresh(TestMedia::shared().wav(1, ToneSpec{2, 8000, 9000}));
    ASSERT_TRUE(provider);
    const auto& table = provider->cacheTable();
    ASSERT_GE(table.size(), 3u);
    EXPECT_EQ(provider->frameInfoAtIndex(0), table[0]);
    EXPECT_EQ(provider->frameInfoAtIndex(uint64_t(table[1]->indexOfSamples())), table[1]);
    EXPECT_EQ(provider->frameInfoAtIndex(uint64_t(table[1]->indexOfSamples() - 1)), table[0]);
    EXPECT_EQ(provider->frameInfoAtIndex(provider->numberOfSamples()), table.back());
    EXPECT_EQ(provider->frameInfoAtIndex(provider->numberOfSamples() + 1000000), table.back());
    EXPECT_EQ(provider->nextFrameInfo(table[0]), table[1]);
    EXPECT_EQ(provider->nextFrameInfo(table[table.size() - 2]), nullptr);
    EXPECT_EQ(provider->nextFrameInfo(VTAudioFrameInfo::initWithOffset(0, 1, 0, 1)), nullptr);
    EXPECT_EQ(provider->nextFrameInfo(nullptr), nullptr);

    const QByteArray whole = provider->readSampleOfCount(provider->numberOfSamples(), 0);
    provider->setSampleOffset(100);
    EXPECT_EQ(provider->readSampleOfCount(10), whole.mid(400, 40));
    EXPECT_EQ(provider->sampleOffset(), 100u);
    provider->seekToSampleOffset(1u << 30);
    EXPECT_EQ(provider->sampleOffset(), provider->numberOfSamples());
    EXPECT_TRUE(provider->readSampleOfCount(10).isEmpty());
}

TEST(VTDataProviderTest, progressIsReportedInOrderWithinZeroToHundred)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(TestMedia::shared().mp3Cbr(ToneSpec{2, 44100, 441000})));
    ASSERT_TRUE(provider);
    std::vector<double> reports;
    provider->startParserWithBlock([&](double percent) { reports.push_back(percent); });
    ASSERT_GE(reports.size(), 50u);
    EXPECT_GE(reports.front(), 0.0);
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_LE(reports.back(), 100.0);
    EXPECT_GT(reports.back(), 90.0);
}

// Decodes of one file, in turn or in parallel, each reserve their own
// numbered cache file in the application support folder.
TEST(VTDataProviderTest, decodesOfOneFileGetNumberedCacheFilesInTheApplicationSupportFolder)
{
    const QString source = TestMedia::shared().wav(1, ToneSpec{2, 44100, 20000, 5});
    const QString stem = brindle::searchPathForDirectory(brindle::SearchDirectory::ApplicationSupport) +
                         QStringLiteral("/com.tarnwell.brindle/") + QFileInfo(source).completeBaseName();
    auto first = importFresh(source);
    auto second = importFresh(source);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->cachePathFile(), stem + QStringLiteral(".medialibrary"));
    EXPECT_EQ(second->cachePathFile(), stem + QStringLiteral(" 1.medialibrary"));
    EXPECT_EQ(first->identifier(), source);
    EXPECT_EQ(second->identifier(), source);

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
