#include "projectfile/KRMediaProject.h"

#include "codec/KRZlibCompression.h"
#include "projectfile/KRFileStorage.h"
#include "projectfile/KRMediaTimeline.h"
#include "projectfile/LegacyProjectParts.h"
#include "projectfile/ProjectFileFixtures.h"
#include "projectfile/VTProjectDocument.h"

#include <gtest/gtest.h>

#include <random>

using namespace brindle::test;

namespace {

QString writeLegacyProject(const QString& name, const std::vector<QByteArray>& blocks, const QByteArray& trailer)
{
    const QString path = scratchFile(name, QStringLiteral("Old Song.loomwick"));
    auto storage = KRFileStorage::initWithURL(QUrl::fromLocalFile(path));
    EXPECT_TRUE(storage);
    for (const QByteArray& block : blocks) {
        EXPECT_TRUE(storage->appendBlockData(block));
    }
    if (!trailer.isEmpty()) {
        EXPECT_TRUE(storage->updateFiletrailer(trailer));
    }
    return path;
}

int64_t registeredCount(const QString& identifier)
{
    return int64_t(VTDataProviderMgr::shareDataProviderMgr().dataProvidersWithIdentifiers({identifier}).size());
}

}  // namespace

// Providers are registered, clips converted field by field (the volume from
// a percentage), a clip of missing media left out, and progress reported
// per block.
TEST(KRMediaProjectTest, ALegacyProjectIsConvertedWithItsProvidersAndReportsProgressPerBlock)
{
    const auto a = decodedTone(3000, 11, false);
    const auto b = decodedTone(4000, 12, false);
    const auto c = decodedTone(5000, 13, false);
    ASSERT_TRUE(a && b && c);
    ASSERT_EQ(registeredCount(a->identifier()), 0);

    KRMediaTimeline timeline;
    auto first = std::make_shared<KRMediaTrack>();
    auto faded = legacyClip(a->identifier(), 1000, 2000, 50);
    faded->timestampOfDataProvider = 500;
    faded->fadeInValidate = true;
    faded->fadeInDuration = 300;
    faded->fadeOutDuration = 400;
    first->clips = {faded, legacyClip(b->identifier(), 0, 4000, 100),
                    legacyClip(QStringLiteral("/gone/missing.wav"), 0, 1000, 100)};
    auto second = std::make_shared<KRMediaTrack>();
    second->clips = {legacyClip(c->identifier(), 250, 1000, 275)};
    timeline.tracks = {first, second};
    const QString path = writeLegacyProject(QStringLiteral("legacy"),
                                            {legacyProviderBlock(*a), legacyProviderBlock(*b), legacyProviderBlock(*c)},
                                            compressedArchive(timeline));
    std::vector<double> progress;
    const auto project = KRMediaProject::projectFromMediaProjectWithURL(
        QUrl::fromLocalFile(path), [&](double percent) { progress.push_back(percent); });
    ASSERT_TRUE(project);
    EXPECT_EQ(progress, (std::vector<double>{0.0, double(100.0f / 3.0f), double(200.0f / 3.0f), 100.0}));
    EXPECT_EQ(registeredCount(a->identifier()), 1);
    EXPECT_EQ(registeredCount(c->identifier()), 1);

    const auto tracks = project->tracks();
    ASSERT_EQ(tracks->size(), 2u);
    const auto firstClips = (*tracks)[0]->clips();
    ASSERT_EQ(firstClips->size(), 2u) << "the clip of the missing media is left out";
    const VTClip& converted = *(*firstClips)[0];
    EXPECT_EQ(converted.dataProviderIds(), a->identifier());
    EXPECT_EQ(converted.timestampOfTrack(), 1000);
    EXPECT_EQ(converted.durationOfTrack(), 2000);
    EXPECT_EQ(converted.timestampOfDataProvider(), 500);
    EXPECT_EQ(converted.volume(), 0.5);
    EXPECT_TRUE(converted.enableFadeIn());
    EXPECT_EQ(converted.durationOfFadeIn(), 300);
    EXPECT_FALSE(converted.enableFadeOut());
    EXPECT_EQ(converted.durationOfFadeOut(), 400);
    EXPECT_EQ((*(*tracks)[1]->clips())[0]->volume(), double(2.75f));

    // The converted provider reads the old cache file as it is.
    const auto registered = VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(b->identifier());
    ASSERT_TRUE(registered);
    EXPECT_EQ(registered->readSampleOfCount(500, 100), b->readSampleOfCount(500, 100));

    // Without a trailer the project is empty, but its providers are registered.
    const auto d = decodedTone(2000, 21, false);
    const QString bare = writeLegacyProject(QStringLiteral("no-trailer"), {legacyProviderBlock(*d)}, {});
    progress.clear();
    const auto empty = KRMediaProject::projectFromMediaProjectWithURL(
        QUrl::fromLocalFile(bare), [&](double percent) { progress.push_back(percent); });
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->numberOfTracks(), 0);
    EXPECT_EQ(progress, (std::vector<double>{0.0, 100.0}));
    EXPECT_EQ(registeredCount(d->identifier()), 1);
}

// The document opener reads a legacy file under its own URL and title, and
// refuses one whose blocks or trailer do not decode; random damage anywhere
// in either generation of document never crashes it.
TEST(KRMediaProjectTest, TheDocumentOpenerReadsLegacyFilesAndRefusesDamagedOnesWithoutCrashing)
{
    const auto a = decodedTone(2000, 31, false);
    KRMediaTimeline timeline;
    timeline.tracks = {std::make_shared<KRMediaTrack>()};
    timeline.tracks[0]->clips = {legacyClip(a->identifier(), 0, 2000, 80)};
    const QByteArray block = legacyProviderBlock(*a);
    const QByteArray trailer = compressedArchive(timeline);
    const QString good = writeLegacyProject(QStringLiteral("open-good"), {block}, trailer);
    const auto opened = VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(good), {});
    ASSERT_EQ(opened.errorCode, 0);
    ASSERT_EQ(opened.projects.size(), 1u);
    EXPECT_EQ(opened.projects.front()->url(), QUrl::fromLocalFile(good));
    EXPECT_EQ(opened.projects.front()->title(), QStringLiteral("Old Song"));

    const std::pair<std::vector<QByteArray>, QByteArray> damaged[] = {
        {{QByteArray("this is not a zlib stream")}, trailer},
        {{block, KRZlibCompression::zlibCompressionCompress("not an archive")}, trailer},
        {{block}, compressedArchive(KRMediaTrack())},
    };
    for (const auto& [blocks, damagedTrailer] : damaged) {
        const QString path = writeLegacyProject(QStringLiteral("open-damaged"), blocks, damagedTrailer);
        LogCapture log;
        const auto result = VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(path), {});
        EXPECT_EQ(result.errorCode, 1);
        EXPECT_TRUE(result.projects.empty());
        EXPECT_TRUE(log.contains(QStringLiteral("Unknown project document type.")));
    }

    const QByteArray legacy = fileBytes(good);
    const QByteArray current = VTProjectDocument::dataWithProject(*KRMediaProject::projectFromMediaTimeline(&timeline));
    std::mt19937 random(1234);
    const QString path = scratchFile(QStringLiteral("fuzz-case"), QStringLiteral("x.loomwick"));
    for (int round = 0; round < 200; ++round) {
        QByteArray bytes = round % 2 ? legacy : current;
        if (round % 5 == 0) {
            bytes.truncate(qsizetype(random() % uint32_t(bytes.size())));
        } else {
            for (uint32_t n = 1 + random() % 4; n > 0; --n)
                bytes[qsizetype(random() % uint32_t(bytes.size()))] = char(random());
        }
        ASSERT_TRUE(writeBytes(path, bytes));
        const auto result = VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(path), {});
        EXPECT_TRUE(result.errorCode == 0 || result.errorCode == 1) << round;
        if (result.errorCode == 1) {
            EXPECT_TRUE(result.projects.empty()) << round;
        }
    }
}
