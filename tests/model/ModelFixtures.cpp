#include "ModelFixtures.h"

#include "support/TestMedia.h"

#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTTrack.h"

#include <QUrl>

#include <gtest/gtest.h>

#include <map>
#include <mutex>

namespace brindle::test {

namespace {

// Decodes `path` into a provider and registers it; null (with a test
// failure) when it cannot be decoded.
std::shared_ptr<VTDataProvider> importMedia(const QString& path)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    EXPECT_TRUE(provider) << "cannot probe " << qPrintable(path);
    if (!provider)
        return nullptr;
    provider->startParserWithBlock(nullptr);
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    return provider;
}

}  // namespace

QString mediaWithSamples(const QString& name, int32_t sampleFormat, int channels, int sampleRate,
                         const QByteArray& interleaved)
{
    static std::mutex mutex;
    static std::map<QString, QString> made;
    std::lock_guard<std::mutex> lock(mutex);
    const QString fileName = QStringLiteral("%1-f%2-c%3-r%4.wav").arg(name).arg(sampleFormat).arg(channels).arg(sampleRate);
    auto found = made.find(fileName);
    if (found != made.end())
        return found->second;
    const QString path = TestMedia::shared().folder() + QLatin1Char('/') + fileName;
    EXPECT_TRUE(TestMedia::writeWav(path, sampleFormat, channels, sampleRate, interleaved));
    auto provider = importMedia(path);
    if (!provider)
        return {};
    made.emplace(fileName, provider->identifier());
    return provider->identifier();
}

QString silentMediaOfDuration(int64_t milliseconds)
{
    const int rate = 8000;
    const QByteArray silence(static_cast<qsizetype>(milliseconds * rate / 1000), char(128));
    return mediaWithSamples(QStringLiteral("silence-%1ms").arg(milliseconds), 0, 1, rate, silence);
}

std::shared_ptr<VTClip> clipAt(int64_t start, int64_t duration, const QString& media)
{
    auto clip = VTClip::initWithDataProviderIDs(media.isEmpty() ? silentMediaOfDuration(10000) : media);
    EXPECT_TRUE(clip);
    if (!clip)
        return nullptr;
    if (duration > 0)
        clip->setDurationOfTrack(duration);
    clip->setTimestampOfTrack(start);
    return clip;
}

std::shared_ptr<VTProject> projectWith(const std::vector<VTProject::ClipList>& tracks)
{
    auto project = std::make_shared<VTProject>();
    for (const auto& clips : tracks) {
        auto track = std::make_shared<VTTrack>();
        track->importClips(clips);
        project->importTrack(track);
    }
    return project;
}

}  // namespace brindle::test
