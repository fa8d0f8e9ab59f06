#include "projectfile/KRMediaProject.h"

#include "projectfile/LegacyProjectParts.h"

#include "codec/KRZlibCompression.h"
#include "media/LogCapture.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "projectfile/KRDataProvider.h"
#include "projectfile/KRFileStorage.h"
#include "projectfile/KRMediaTimeline.h"
#include "projectfile/VTProjectDocument.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <QFile>

#include <gtest/gtest.h>

#include <random>

using brindle::test::compressedArchive;
using brindle::test::legacyClip;
using brindle::test::legacyProviderBlock;
using brindle::test::LogCapture;

namespace {

// A decoded provider that is not registered, as the media of an old project.
std::shared_ptr<VTDataProvider> unregisteredTone(int64_t milliseconds, uint32_t seed)
{
    brindle::test::ToneSpec spec;
    spec.sampleRate = 8000;
    spec.frames = milliseconds * 8;
    spec.seed = seed;
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(brindle::test::TestMedia::shared().wav(1, spec)));
    EXPECT_TRUE(provider && provider->startParserWithBlock({}));
    return provider;
}

QString writeLegacyProject(const QString& name, const std::vector<QByteArray>& blocks, const QByteArray& trailer)
{
    const QString path = brindle::test::TestEnvironment::current().makeScratchDirectory(name) + QStringLiteral("/Old Song.loomwick");
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

TEST(KRMediaProjectTest, ALegacyProjectIsConvertedWithItsProvidersAndReportsProgressPerBlock)
{
    const auto a = unregisteredTone(3000, 11);
    const auto b = unregisteredTone(4000, 12);
    const auto c = unregisteredTone(5000, 13);
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
}

TEST(KRMediaProjectTest, AnEmptyTrailerGivesAnEmptyProjectButRegistersTheProviders)
{
    const auto a = unregisteredTone(2000, 21);
    const QString path = writeLegacyProject(QStringLiteral("no-trailer"), {legacyProviderBlock(*a)}, {});
    std::vector<double> progress;
    const auto project = KRMediaProject::projectFromMediaProjectWithURL(
        QUrl::fromLocalFile(path), [&](double percent) { progress.push_back(percent); });
    ASSERT_TRUE(project);
    EXPECT_EQ(project->numberOfTracks(), 0);
    EXPECT_EQ(progress, (std::vector<double>{0.0, 100.0}));
    EXPECT_EQ(registeredCount(a->identifier()), 1);
}

TEST(KRMediaProjectTest, TheDocumentOpenerReadsLegacyFilesAndRefusesDamagedOnes)
{
    const auto a = unregisteredTone(2000, 31);
    KRMediaTimeline timeline;
    auto track = std::make_shared<KRMediaTrack>();
    track->clips = {legacyClip(a->identifier(), 0, 2000, 100)};
    timeline.tracks = {track};
    const QByteArray block = legacyProviderBlock(*a);
    const QString good = writeLegacyProject(QStringLiteral("open-good"), {block}, compressedArchive(timeline));
    const auto opened = VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(good), {});
    ASSERT_EQ(opened.errorCode, 0);
    ASSERT_EQ(opened.projects.size(), 1u);
    EXPECT_EQ(opened.projects.front()->url(), QUrl::fromLocalFile(good));
    EXPECT_EQ(opened.projects.front()->title(), QStringLiteral("Old Song"));

    const QByteArray notInflatable("this is not a zlib stream");
    const QByteArray notATimeline = compressedArchive(*track);
    const std::pair<std::vector<QByteArray>, QByteArray> damaged[] = {
        {{notInflatable}, compressedArchive(timeline)},
        {{block, KRZlibCompression::zlibCompressionCompress("not an archive")}, compressedArchive(timeline)},
        {{block}, notATimeline},
    };
    for (const auto& [blocks, trailer] : damaged) {
        const QString path = writeLegacyProject(QStringLiteral("open-damaged"), blocks, trailer);
        LogCapture log;
        const auto result = VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(path), {});
        EXPECT_EQ(result.errorCode, 1);
        EXPECT_TRUE(result.projects.empty());
        EXPECT_TRUE(log.contains(QStringLiteral("Unknown project document type.")));
    }
}

TEST(KRMediaProjectTest, DamagedBytesAnywhereInEitherGenerationNeverCrashTheOpener)
{
    const auto a = unregisteredTone(1000, 61);
    KRMediaTimeline timeline;
    auto track = std::make_shared<KRMediaTrack>();
    track->clips = {legacyClip(a->identifier(), 0, 1000, 80)};
    timeline.tracks = {track};
    const QString legacyPath = writeLegacyProject(QStringLiteral("fuzz"), {legacyProviderBlock(*a)}, compressedArchive(timeline));
    QFile legacyFile(legacyPath);
    ASSERT_TRUE(legacyFile.open(QIODevice::ReadOnly));
    const QByteArray legacy = legacyFile.readAll();
    legacyFile.close();
    const auto project = KRMediaProject::projectFromMediaTimeline(&timeline);
    const QByteArray current = VTProjectDocument::dataWithProject(*project);

    std::mt19937 random(1234);
    const QString path = brindle::test::TestEnvironment::current().makeScratchDirectory(QStringLiteral("fuzz-case"))
                         + QStringLiteral("/x.loomwick");
    for (int round = 0; round < 200; ++round) {
        QByteArray bytes = round % 2 ? legacy : current;
        if (round % 5 == 0) {
            bytes.truncate(qsizetype(random() % uint32_t(bytes.size())));
        } else {
            for (uint32_t n = 1 + random() % 4; n > 0; --n)
                bytes[qsizetype(random() % uint32_t(bytes.size()))] = char(random());
        }
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
        file.close();
        const auto opened = VTProjectDocument::openProjectWithURL(QUrl::fromLocalFile(path), {});
        EXPECT_TRUE(opened.errorCode == 0 || opened.errorCode == 1) << round;
        if (opened.errorCode == 1) {
            EXPECT_TRUE(opened.projects.empty()) << round;
        }
    }
}
