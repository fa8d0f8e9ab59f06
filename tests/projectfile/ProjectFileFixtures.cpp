#include "projectfile/ProjectFileFixtures.h"

#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "support/TestMedia.h"

#include <QFile>
#include <QHash>

#include <gtest/gtest.h>

#include <mutex>

namespace brindle::test {

std::shared_ptr<VTDataProvider> registeredTone(int64_t milliseconds, uint32_t seed)
{
    static std::mutex mutex;
    static QHash<QString, std::shared_ptr<VTDataProvider>> made;
    std::lock_guard lock(mutex);
    ToneSpec spec;
    spec.sampleRate = 8000;
    spec.frames = milliseconds * 8;
    spec.seed = seed;
    const QString path = TestMedia::shared().wav(1, spec);
    if (auto found = made.value(path))
        return found;
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (!provider || !provider->startParserWithBlock({})) {
        ADD_FAILURE() << "cannot decode " << path.toStdString();
        return nullptr;
    }
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    made.insert(path, provider);
    return provider;
}

std::shared_ptr<VTProject> sampleProject()
{
    const auto longTone = registeredTone(10000, 1);
    const auto shortTone = registeredTone(4000, 2);
    auto project = std::make_shared<VTProject>();

    auto first = std::make_shared<VTTrack>();
    auto a = VTClip::initWithDataProviderIDs(longTone->identifier());
    a->setDurationOfTrack(6000);
    a->setTimestampOfDataProvider(1500);
    a->setTimestampOfTrack(2500);
    a->setVolume(0.1);
    a->setDurationOfFadeIn(700);
    a->setDurationOfFadeOut(900);
    a->setEnableFadeIn(true);
    a->setEnableFadeOut(true);
    first->importClip(a);
    auto b = VTClip::initWithDataProviderIDs(shortTone->identifier());
    b->setTimestampOfTrack(9000);
    b->setVolume(2.75);
    b->setDurationOfFadeOut(300);  // a length kept while the fade is off
    first->importClip(b);
    project->importTrack(first);

    auto second = std::make_shared<VTTrack>();
    auto c = VTClip::initWithDataProviderIDs(shortTone->identifier());
    c->setDurationOfTrack(1200);
    c->setTimestampOfDataProvider(2000);
    c->setEnableFadeIn(true);  // takes the default length
    second->importClip(c);
    project->importTrack(second);
    project->importTrack(std::make_shared<VTTrack>());

    project->setSelections({a->identifier(), c->identifier()});
    project->setTimePosition(4321);
    project->setUrl(QUrl::fromLocalFile(QStringLiteral("/somewhere/Song.loomwick")));
    project->setNeedSaved(true);
    return project;
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

}  // namespace brindle::test
