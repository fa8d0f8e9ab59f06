#include "media/VTDataProviderMgr.h"

#include "LogCapture.h"
#include "MediaFixtures.h"
#include "foundation/UserDefaults.h"

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace brindle::test;
using ProviderList = VTDataProviderMgr::ProviderList;

namespace {

std::shared_ptr<VTDataProvider> importTone(int32_t format, uint32_t seed)
{
    return importFresh(TestMedia::shared().wav(format, ToneSpec{2, 44100, 20000, seed}));
}

QStringList identifiersOf(const ProviderList& providers)
{
    QStringList identifiers;
    for (const auto& provider : providers)
        identifiers.append(provider->identifier());
    return identifiers;
}

void forgetStoredRegistry()
{
    brindle::UserDefaults::standardUserDefaults().removeObjectForKey(VTDataProviderMgr::userDefaultsKey());
}

// Each test starts with nothing stored.
class VTDataProviderMgrTest : public testing::Test {
protected:
    void SetUp() override { forgetStoredRegistry(); }
};

}  // namespace

// One file imported twice gives two cache files under one identifier; the
// look-ups find the first, or all of them. The formats offered for import
// name the common types.
TEST_F(VTDataProviderMgrTest, importingOneFileTwiceGivesTwoCacheFilesUnderOneIdentifier)
{
    const QString source = TestMedia::shared().wav(1, ToneSpec{2, 44100, 20000, 31});
    auto first = importFresh(source);
    auto second = importFresh(source);
    ASSERT_TRUE(first && second);
    VTDataProviderMgr manager;
    manager.importDataProviders({first, second});
    EXPECT_TRUE(second->cachePathFile().endsWith(QFileInfo(source).completeBaseName() + QStringLiteral(" 1.medialibrary")));
    EXPECT_EQ(manager.dataProviderWithIdentifier(source), first);
    EXPECT_EQ(manager.dataProviderWithURL(QUrl::fromLocalFile(source)), first);
    EXPECT_EQ(manager.dataProvidersWithIdentifiers({source}), (ProviderList{first, second}));
    EXPECT_FALSE(manager.dataProviderWithIdentifier(QString()));
    EXPECT_FALSE(manager.dataProviderWithIdentifier(QStringLiteral("/nowhere.mp3")));
    EXPECT_FALSE(manager.dataProviderWithURL(QUrl::fromLocalFile(QStringLiteral("/nowhere.mp3"))));
    const QStringList formats = VTDataProviderMgr::supportFormats();
    for (const char* extension : {"mp3", "m4a", "wav", "flac", "ogg", "aiff"})
        EXPECT_TRUE(formats.contains(QLatin1String(extension))) << extension;
}

// Imports and removals are stored in the user defaults, where a fresh
// manager reads them back; the same provider stored twice comes back as one
// object twice. Removal drops every occurrence and keeps the cache files.
TEST_F(VTDataProviderMgrTest, importsAndRemovalsArePersistedForAFreshManager)
{
    auto a = importTone(1, 32);
    auto b = importFresh(TestMedia::shared().mp3Cbr(ToneSpec{2, 44100, 20000, 33}));
    auto c = importTone(0, 36);
    ASSERT_TRUE(a && b && c);
    {
        VTDataProviderMgr manager;
        EXPECT_TRUE(manager.dataProviders().empty());
        manager.importDataProviders({a, b, a});
    }
    VTDataProviderMgr reopened;
    const auto providers = reopened.dataProviders();
    ASSERT_EQ(identifiersOf(providers), (QStringList{a->identifier(), b->identifier(), a->identifier()}));
    EXPECT_EQ(providers[0], providers[2]);
    EXPECT_EQ(providers[1]->cachePathFile(), b->cachePathFile());
    EXPECT_EQ(providers[1]->readSampleOfCount(5000, 1234), b->readSampleOfCount(5000, 1234));

    forgetStoredRegistry();
    VTDataProviderMgr manager;
    manager.importDataProviders({a, b, a, c});
    manager.removeDataProvider(a);
    EXPECT_EQ(manager.dataProviders(), (ProviderList{b, c}));
    EXPECT_TRUE(QFileInfo::exists(a->cachePathFile()));
    manager.removeDataProviderWithIdentifier(c->identifier());
    EXPECT_EQ(manager.dataProviders(), (ProviderList{b}));
    EXPECT_EQ(identifiersOf(VTDataProviderMgr().dataProviders()), QStringList{b->identifier()});
    manager.importDataProviders({a, c});
    manager.removeDataProvidersWithIdentifiers({a->identifier(), b->identifier()});
    EXPECT_EQ(manager.dataProviders(), (ProviderList{c}));
    manager.removeDataProviders({c});
    EXPECT_TRUE(manager.dataProviders().empty());
    EXPECT_TRUE(VTDataProviderMgr().dataProviders().empty());
}

// Providers whose cache file is gone or cut are skipped when reading the
// registry; damaged registry bytes, or an archive of something else, leave
// it empty.
TEST_F(VTDataProviderMgrTest, lostCacheFilesAndDamagedRegistriesAreSkippedWithALogLine)
{
    auto kept = importTone(1, 37);
    auto lost = importTone(1, 38);
    auto cut = importTone(1, 39);
    ASSERT_TRUE(kept && lost && cut);
    VTDataProviderMgr().importDataProviders({lost, kept, cut});
    ASSERT_TRUE(QFile::remove(lost->cachePathFile()));
    ASSERT_TRUE(QFile(cut->cachePathFile()).resize(100));
    {
        LogCapture log;
        EXPECT_EQ(identifiersOf(VTDataProviderMgr().dataProviders()), QStringList{kept->identifier()});
        EXPECT_TRUE(log.contains(QStringLiteral("Warning: miss cache file(%1).").arg(lost->cachePathFile())));
        EXPECT_EQ(log.lines().count(QStringLiteral("Warning, cache file crashed.")), 2);
    }
    const QByteArray damaged[] = {QByteArray("not a property list"), QByteArray("bplist00") + QByteArray(40, '\xff'),
                                  brindle::KeyedArchiver::archivedDataWithRootObject(kept)};
    for (const QByteArray& bytes : damaged) {
        brindle::UserDefaults::standardUserDefaults().setData(bytes, VTDataProviderMgr::userDefaultsKey());
        LogCapture log;
        EXPECT_TRUE(VTDataProviderMgr().dataProviders().empty());
        EXPECT_TRUE(log.containsText(QStringLiteral("registry in the user defaults is damaged")));
    }
}
