#include "projectfile/KRMediaProject.h"

#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"
#include "foundation/Log.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "projectfile/KRDataProvider.h"
#include "projectfile/KRFileStorage.h"
#include "projectfile/KRMediaTimeline.h"

#include <QFileInfo>

namespace {

// Inflates `bytes` and decodes its root as a T; null when either fails.
template <class T>
std::shared_ptr<T> decodeCompressed(const QByteArray& bytes)
{
    const std::optional<QByteArray> archive = KRZlibCompression::zlibCompressionUncompress(bytes);
    if (!archive)
        return nullptr;
    return brindle::KeyedUnarchiver::unarchivedObjectOfClass<T>(*archive);
}

}  // namespace

QStringList KRMediaProject::documentType()
{
    return VTProject::documentType();
}

void KRMediaProject::registerArchiveClasses()
{
    static const bool registered = [] {
        brindle::KeyedClassRegistry::registerClass<KRMediaTimeline>();
        brindle::KeyedClassRegistry::registerClass<KRMediaTrack>();
        brindle::KeyedClassRegistry::registerClass<KRMediaClip>();
        brindle::KeyedClassRegistry::registerClass<KRDataProvider>();
        brindle::KeyedClassRegistry::registerClass<KRFileBlockInfo>();
        brindle::KeyedClassRegistry::registerClass<KRFileStorage>();
        return true;
    }();
    (void)registered;
}

std::shared_ptr<VTProject> KRMediaProject::projectFromMediaProjectWithURL(const QUrl& url,
                                                                          const ProcessBlock& processBlock)
{
    registerArchiveClasses();
    const QString path = url.toLocalFile();
    // Opening a container creates a missing file; a reader must not.
    std::shared_ptr<KRFileStorage> storage;
    if (!path.isEmpty() && QFileInfo(path).isFile())
        storage = KRFileStorage::initWithURL(url);
    if (!storage) {
        brindle::log(QStringLiteral("Unknown file type(%1)").arg(path));
        return nullptr;
    }
    const auto report = [&processBlock](double percent) {
        if (processBlock)
            processBlock(percent);
    };

    const int64_t count = storage->blockDataCount();
    VTDataProviderMgr::ProviderList providers;
    for (int64_t i = 0; i < count; ++i) {
        const std::optional<QByteArray> block = storage->blockDataAtIndex(i);
        const std::shared_ptr<KRDataProvider> legacy = block ? decodeCompressed<KRDataProvider>(*block) : nullptr;
        if (!legacy) {
            brindle::log(QStringLiteral("Damaged data provider block %1 in %2.").arg(i).arg(path));
            return nullptr;
        }
        if (auto provider = VTDataProvider::initWithKRDataProvider(legacy->fields))
            providers.push_back(std::move(provider));
        report(double(float(i) * 100.0f / float(count)));
    }
    if (!providers.empty())
        VTDataProviderMgr::shareDataProviderMgr().importDataProviders(providers);

    std::shared_ptr<KRMediaTimeline> timeline;
    if (const std::optional<QByteArray> trailer = storage->filetrailerData()) {
        timeline = decodeCompressed<KRMediaTimeline>(*trailer);
        if (!timeline) {
            brindle::log(QStringLiteral("Damaged timeline in %1.").arg(path));
            return nullptr;
        }
    }
    report(100.0);
    return projectFromMediaTimeline(timeline.get());
}

std::shared_ptr<VTProject> KRMediaProject::projectFromMediaTimeline(const KRMediaTimeline* timeline)
{
    auto project = std::make_shared<VTProject>();
    if (!timeline)
        return project;
    for (const std::shared_ptr<KRMediaTrack>& track : timeline->tracks)
        project->importTrack(trackFromMediaTrack(*track));
    return project;
}

std::shared_ptr<VTTrack> KRMediaProject::trackFromMediaTrack(const KRMediaTrack& track)
{
    auto converted = std::make_shared<VTTrack>();
    for (const std::shared_ptr<KRMediaClip>& clip : track.clips) {
        if (auto convertedClip = clipFromMediaClip(*clip))
            converted->importClip(std::move(convertedClip));
    }
    return converted;
}

std::shared_ptr<VTClip> KRMediaProject::clipFromMediaClip(const KRMediaClip& clip)
{
    std::shared_ptr<VTClip> converted = VTClip::initWithDataProviderIDs(clip.dataProviderFilename);
    if (!converted) {
        brindle::log(QStringLiteral("Warning: legacy clip of %1 has no data provider; it is left out.")
                         .arg(clip.dataProviderFilename));
        return nullptr;
    }
    converted->setTimestampOfTrack(clip.startTimestamp);
    converted->setDurationOfTrack(clip.duration);
    converted->setVolume(double(float(clip.volume) / 100.0f));
    converted->setDurationOfFadeIn(clip.fadeInDuration);
    converted->setDurationOfFadeOut(clip.fadeOutDuration);
    converted->setEnableFadeIn(clip.fadeInValidate);
    converted->setEnableFadeOut(clip.fadeOutValidate);
    converted->setTimestampOfDataProvider(clip.timestampOfDataProvider);
    return converted;
}
