// Media and projects for the project-file tests: small WAV files decoded into
// real data providers, a project with every field away from its default,
// scratch files and their bytes.
#pragma once

#include "media/LogCapture.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <QFile>
#include <QHash>

#include <gtest/gtest.h>

#include <mutex>

namespace brindle::test {

// A decoded provider of a 16-bit stereo tone of `milliseconds` at 8000 Hz;
// registered with the shared registry (once per length and seed) unless it
// stands for the media of an older project, which registers them itself.
inline std::shared_ptr<VTDataProvider> decodedTone(int64_t milliseconds, uint32_t seed, bool registered = true)
{
    static std::mutex mutex;
    static QHash<QString, std::shared_ptr<VTDataProvider>> made;
    std::lock_guard lock(mutex);
    const QString path = TestMedia::shared().wav(1, ToneSpec{2, 8000, milliseconds * 8, seed});
    if (auto found = made.value(path); found && registered)
        return found;
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (!provider || !provider->startParserWithBlock({})) {
        ADD_FAILURE() << "cannot decode " << path.toStdString();
        return nullptr;
    }
    if (registered) {
        VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
        made.insert(path, provider);
    }
    return provider;
}

// A project of two tracks (and an empty third) whose clips have every field
// away from its default, with a selection, a time position and a URL.
inline std::shared_ptr<VTProject> sampleProject()
{
    const auto longTone = decodedTone(10000, 1);
    const auto shortTone = decodedTone(4000, 2);
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

// `name` in a fresh folder of the test environment.
inline QString scratchFile(const QString& folder, const QString& name)
{
    return TestEnvironment::current().makeScratchDirectory(folder) + u'/' + name;
}

// The whole file, or an empty array.
inline QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

}  // namespace brindle::test
