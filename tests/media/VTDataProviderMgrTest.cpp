#include "media/VTDataProviderMgr.h"

#include "LogCapture.h"
#include "MediaFixtures.h"
#include "foundation/UserDefaults.h"
#include "support/TestMedia.h"

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace brindle::test;

namespace {

ToneSpec toneWithSeed(uint32_t seed)
{
    ToneSpec spec;
    spec.frames = 20000;
    spec.seed = seed;
    return spec;
}

// Each test starts with nothing stored.
class VTDataProviderMgrTest : public testing::Test {
protected:
    void SetUp() override { brindle::UserDefaults::standardUserDefaults().removeObjectForKey(VTDataProviderMgr::userDefaultsKey()); }
};

QStringList identifiersOf(const VTDataProviderMgr::ProviderList& providers)
{
    QStringList identifiers;
    for (const auto& provider : providers)
        identifiers.append(provider->identifier());
    return identifiers;
}

}  // namespace

TEST_F(VTDataProviderMgrTest, importingOneFileTwiceGivesTwoCacheFilesUnderOneIdentifier)
{
    const QString source = TestMedia::shared().wav(1, toneWithSeed(31));
    auto first = importFresh(source);
    auto second = importFresh(source);
    ASSERT_TRUE(first && second);
    VTDataProviderMgr manager;
    manager.importDataProviders({first, second});

    EXPECT_NE(first->cachePathFile(), second->cachePathFile());
    EXPECT_TRUE(second->cachePathFile().endsWith(QFileInfo(source).completeBaseName() + QStringLiteral(" 1.medialibrary")));
    EXPECT_EQ(manager.dataProviderWithIdentifier(source), first);
    EXPECT_EQ(manager.dataProviderWithURL(QUrl::fromLocalFile(source)), first);
    EXPECT_EQ(manager.dataProvidersWithIdentifiers({source}), (VTDataProviderMgr::ProviderList{first, second}));
    EXPECT_FALSE(manager.dataProviderWithIdentifier(QString()));
    EXPECT_FALSE(manager.dataProviderWithIdentifier(QStringLiteral("/nowhere.mp3")));
    EXPECT_FALSE(manager.dataProviderWithURL(QUrl::fromLocalFile(QStringLiteral("/nowhere.mp3"))));
}

TEST_F(VTDataProviderMgrTest, aFreshManagerReadsTheRegistryBackFromTheUserDefaults)
{
    auto a = importFresh(TestMedia::shared().wav(1, toneWithSeed(32)));
    auto b = importFresh(TestMedia::shared().mp3Cbr(toneWithSeed(33)));
    ASSERT_TRUE(a && b);
    {
        VTDataProviderMgr manager;
        EXPECT_TRUE(manager.dataProviders().empty());
        manager.importDataProviders({a, b, a});
    }
    VTDataProviderMgr reopened;
    const auto providers = reopened.dataProviders();
    ASSERT_EQ(providers.size(), 3u);
    EXPECT_EQ(identifiersOf(providers), (QStringList{a->identifier(), b->identifier(), a->identifier()}));
    // The same provider stored twice comes back as one object twice.
    EXPECT_EQ(providers[0], providers[2]);
    EXPECT_EQ(providers[1]->cachePathFile(), b->cachePathFile());
    EXPECT_EQ(providers[1]->numberOfSamples(), b->numberOfSamples());
    EXPECT_EQ(providers[1]->readSampleOfCount(5000, 1234), b->readSampleOfCount(5000, 1234));
}

TEST_F(VTDataProviderMgrTest, removalDropsEveryOccurrenceAndIsPersisted)
{
    auto a = importFresh(TestMedia::shared().wav(1, toneWithSeed(34)));
    auto b = importFresh(TestMedia::shared().wav(3, toneWithSeed(35)));
    auto c = importFresh(TestMedia::shared().wav(0, toneWithSeed(36)));
    ASSERT_TRUE(a && b && c);
    VTDataProviderMgr manager;
    manager.importDataProviders({a, b, a, c});

    manager.removeDataProvider(a);
    EXPECT_EQ(manager.dataProviders(), (VTDataProviderMgr::ProviderList{b, c}));
    EXPECT_TRUE(QFileInfo::exists(a->cachePathFile()));  // cache files are kept

    manager.removeDataProviderWithIdentifier(c->identifier());
    EXPECT_EQ(manager.dataProviders(), (VTDataProviderMgr::ProviderList{b}));
    EXPECT_EQ(identifiersOf(VTDataProviderMgr().dataProviders()), QStringList{b->identifier()});

    manager.importDataProviders({a, c});
    manager.removeDataProvidersWithIdentifiers({a->identifier(), b->identifier()});
    EXPECT_EQ(manager.dataProviders(), (VTDataProviderMgr::ProviderList{c}));
    manager.removeDataProviders({c});
    EXPECT_TRUE(manager.dataProviders().empty());
    EXPECT_TRUE(VTDataProviderMgr().dataProviders().empty());
}

TEST_F(VTDataProviderMgrTest, providersWhoseCacheFileIsGoneAreSkippedWhenReading)
{
    auto kept = importFresh(TestMedia::shared().wav(1, toneWithSeed(37)));
    auto lost = importFresh(TestMedia::shared().wav(1, toneWithSeed(38)));
    auto cut = importFresh(TestMedia::shared().wav(1, toneWithSeed(39)));
    ASSERT_TRUE(kept && lost && cut);
    VTDataProviderMgr().importDataProviders({lost, kept, cut});
    ASSERT_TRUE(QFile::remove(lost->cachePathFile()));
    ASSERT_TRUE(QFile(cut->cachePathFile()).resize(100));

    LogCapture log;
    VTDataProviderMgr reopened;
    EXPECT_EQ(identifiersOf(reopened.dataProviders()), QStringList{kept->identifier()});
    EXPECT_TRUE(log.contains(QStringLiteral("Warning: miss cache file(%1).").arg(lost->cachePathFile())));
    EXPECT_EQ(log.lines().count(QStringLiteral("Warning, cache file crashed.")), 2);
}

TEST_F(VTDataProviderMgrTest, damagedRegistryBytesLeaveTheRegistryEmptyWithALogLine)
{
    const QList<QByteArray> damaged = {
        QByteArray("not a property list"),
        QByteArray("bplist00") + QByteArray(40, '\xff'),
    };
    for (const QByteArray& bytes : damaged) {
        brindle::UserDefaults::standardUserDefaults().setData(bytes, VTDataProviderMgr::userDefaultsKey());
        LogCapture log;
        VTDataProviderMgr manager;
        EXPECT_TRUE(manager.dataProviders().empty());
        EXPECT_TRUE(log.containsText(QStringLiteral("registry in the user defaults is damaged")));
    }

    // A well-formed archive of something else is not a registry either.
    auto provider = importFresh(TestMedia::shared().wav(1, toneWithSeed(40)));
    ASSERT_TRUE(provider);
    brindle::UserDefaults::standardUserDefaults().setData(brindle::KeyedArchiver::archivedDataWithRootObject(provider),
                                                          VTDataProviderMgr::userDefaultsKey());
    EXPECT_TRUE(VTDataProviderMgr().dataProviders().empty());
}

TEST_F(VTDataProviderMgrTest, theSharedRegistryIsOneInstanceAndTheFormatListNamesCommonTypes)
{
    EXPECT_EQ(&VTDataProviderMgr::shareDataProviderMgr(), &VTDataProviderMgr::shareDataProviderMgr());
    const QStringList formats = VTDataProviderMgr::supportFormats();
    for (const char* extension : {"mp3", "m4a", "wav", "flac", "ogg", "aiff"})
        EXPECT_TRUE(formats.contains(QLatin1String(extension))) << extension;
}
