#include "FuzzSupport.h"

#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"
#include "foundation/Log.h"
#include "foundation/UserDefaults.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "projectfile/KRDataProvider.h"
#include "projectfile/KRFileStorage.h"
#include "projectfile/KRMediaTimeline.h"
#include "projectfile/LegacyProjectParts.h"
#include "support/TestMedia.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <plist/plist.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace brindle::fuzz {
namespace {

using test::compressedArchive;
using test::legacyClip;
using test::legacyProviderBlock;

void pointAt(const char* variable, const QString& path)
{
    QDir().mkpath(path);
    ::setenv(variable, path.toUtf8().constData(), 1);
}

// The container's bytes, written through a scratch file; empty when a write fails.
QByteArray legacyContainer(const std::vector<QByteArray>& blocks, const QByteArray& trailer)
{
    const QString path = scratchFile(QStringLiteral("legacy-seed"));
    QFile::remove(path);
    QByteArray bytes;
    if (auto storage = KRFileStorage::initWithURL(QUrl::fromLocalFile(path))) {
        bool written = true;
        for (const QByteArray& block : blocks)
            written = written && storage->appendBlockData(block);
        if (!trailer.isEmpty())
            written = written && storage->updateFiletrailer(trailer);
        QFile file(path);
        if (written && file.open(QIODevice::ReadOnly))
            bytes = file.readAll();
    }
    QFile::remove(path);
    return bytes;
}

}  // namespace

void SeedFolder::add(const QString& name, const QByteArray& bytes)
{
    if (bytes.isEmpty())
        return;
    QDir().mkpath(m_folder);
    QFile file(QStringLiteral("%1/%2-%3").arg(m_folder).arg(m_count, 3, 10, QLatin1Char('0')).arg(name));
    if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size())
        ++m_count;
}

QString home()
{
    const QByteArray configured = qgetenv("BRINDLE_FUZZ_HOME");
    return configured.isEmpty() ? QStringLiteral("/tmp/brindle-fuzz-home") : QString::fromLocal8Bit(configured);
}

QString scratchFile(const QString& name)
{
    const QString folder = home() + QStringLiteral("/scratch");
    QDir().mkpath(folder);
    return QStringLiteral("%1/%2-%3").arg(folder).arg(::getpid()).arg(name);
}

bool writeFile(const QString& path, const uint8_t* data, size_t size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(reinterpret_cast<const char*>(data), qint64(size)) == qint64(size);
}

void initialize(const char* target, const SeedWriter& writeSeeds)
{
    const QString root = home();
    pointAt("XDG_CONFIG_HOME", root + QStringLiteral("/config/") + QString::fromLatin1(target));
    pointAt("XDG_DATA_HOME", root + QStringLiteral("/data"));
    pointAt("XDG_CACHE_HOME", root + QStringLiteral("/cache"));
    if (qgetenv("BRINDLE_FUZZ_LOG") != "1")
        setLogSink([](const QString&) {});

    const QByteArray seeds = qgetenv("BRINDLE_FUZZ_WRITE_SEEDS");
    if (seeds.isEmpty() || !writeSeeds)
        return;
    SeedFolder folder(QString::fromLocal8Bit(seeds));
    writeSeeds(folder);
    UserDefaults::standardUserDefaults().synchronize();
    std::fprintf(stderr, "wrote %d seeds to %s\n", folder.count(), seeds.constData());
    std::fflush(stderr);
    std::_Exit(folder.count() > 0 ? 0 : 1);
}

QByteArray xmlFromBinary(const QByteArray& binary)
{
    plist_t root = nullptr;
    plist_from_bin(binary.constData(), uint32_t(binary.size()), &root);
    if (!root)
        return {};
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    plist_free(root);
    if (!xml)
        return {};
    QByteArray result(xml, qsizetype(length));
    plist_to_xml_free(xml);
    return result;
}

std::vector<QString> seedMediaFiles(bool withEncoded)
{
    test::TestMedia media(home() + QStringLiteral("/seed-media"));
    // Short signals keep the seeds at a few KB each.
    test::ToneSpec mono{1, 8000, 600, 3, 0.5, 0.01};
    test::ToneSpec stereo{2, 22050, 1500, 5, 0.5, 0.01};
    std::vector<QString> files;
    for (int32_t format = 0; format <= 4; ++format)
        files.push_back(media.wav(format, format % 2 ? stereo : mono));
    if (withEncoded && test::TestMedia::ffmpegAvailable()) {
        files.push_back(media.wav24(mono));
        files.push_back(media.mp3Cbr(stereo));
        files.push_back(media.mp3VbrXing(mono));
        files.push_back(media.m4a(stereo));
        files.push_back(media.flac(mono));
        files.push_back(media.oggVorbis(stereo));
    }
    std::erase_if(files, [](const QString& path) { return path.isEmpty(); });
    return files;
}

std::vector<std::shared_ptr<VTDataProvider>> seedProviders()
{
    test::TestMedia media(home() + QStringLiteral("/seed-media"));
    std::vector<QString> paths = {
        media.wav(1, test::ToneSpec{2, 8000, 2500, 7, 0.5, 0.01}),
        media.wav(0, test::ToneSpec{1, 8000, 700, 8, 0.5, 0.01}),
        media.wav(3, test::ToneSpec{1, 11025, 900, 9, 0.5, 0.01}),
    };
    if (test::TestMedia::ffmpegAvailable())
        paths.push_back(media.mp3Cbr(test::ToneSpec{1, 22050, 3000, 10, 0.5, 0.01}));
    std::vector<std::shared_ptr<VTDataProvider>> providers;
    for (const QString& path : paths) {
        if (path.isEmpty())
            continue;
        std::shared_ptr<VTDataProvider> provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
        if (provider && provider->startParserWithBlock(nullptr))
            providers.push_back(std::move(provider));
    }
    return providers;
}

std::vector<QByteArray> legacyProjects(const std::vector<std::shared_ptr<VTDataProvider>>& providers)
{
    std::vector<QByteArray> containers;
    if (providers.empty())
        return containers;
    std::vector<QByteArray> blocks;
    for (const auto& provider : providers)
        blocks.push_back(legacyProviderBlock(*provider));

    KRMediaTimeline timeline;
    auto first = std::make_shared<KRMediaTrack>();
    auto second = std::make_shared<KRMediaTrack>();
    for (size_t i = 0; i < providers.size(); ++i) {
        auto clip = legacyClip(providers[i]->identifier(), int64_t(i) * 900, providers[i]->duration(), 40 + 60 * i);
        clip->timestampOfDataProvider = int64_t(i) * 50;
        clip->fadeInValidate = i % 2 == 0;
        clip->fadeInDuration = 200;
        clip->fadeOutValidate = i % 2 == 1;
        clip->fadeOutDuration = 300;
        (i % 2 ? second : first)->clips.push_back(clip);
    }
    first->clips.push_back(legacyClip(QStringLiteral("/gone/missing.wav"), 0, 1000, 100));
    timeline.tracks = {first, second};
    containers.push_back(legacyContainer(blocks, compressedArchive(timeline)));

    containers.push_back(legacyContainer({blocks.front()}, {}));

    KRMediaTimeline empty;
    empty.tracks = {std::make_shared<KRMediaTrack>()};
    containers.push_back(legacyContainer({}, compressedArchive(empty)));

    std::erase_if(containers, [](const QByteArray& bytes) { return bytes.isEmpty(); });
    return containers;
}

void forgetProvidersAddedSince(const std::vector<std::shared_ptr<VTDataProvider>>& before)
{
    VTDataProviderMgr& registry = VTDataProviderMgr::shareDataProviderMgr();
    VTDataProviderMgr::ProviderList added;
    for (const auto& provider : registry.dataProviders())
        if (std::find(before.begin(), before.end(), provider) == before.end())
            added.push_back(provider);
    if (!added.empty())
        registry.removeDataProviders(added);
}

}  // namespace brindle::fuzz
