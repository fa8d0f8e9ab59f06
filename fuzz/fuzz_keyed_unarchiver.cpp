// Fuzzes the keyed unarchiver with every root class the editor decodes:
// the first byte picks the class, the rest is the archive (binary or XML).
// Whatever decodes is archived again and must decode again.
#include "FuzzSupport.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/KeyedCoding.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"

#include <QByteArray>

#include <cstdlib>

using namespace brindle;

namespace {

enum RootClass : uint8_t { Generic, Project, Track, Clip, Frame, Provider, Registry, FrameInfo, ClassCount };

// Archives `object` again and decodes it as T: what the archiver writes of an
// accepted object must be accepted in turn.
template <KeyedDecodable T>
void checkRoundTrip(const std::shared_ptr<T>& object)
{
    if (!object)
        return;
    const QByteArray again = KeyedArchiver::archivedDataWithRootObject(*object);
    if (!KeyedUnarchiver::unarchivedObjectOfClass<T>(again))
        std::abort();
}

void exerciseProject(const VTProject& project)
{
    (void)project.duration();
    for (const auto tracks = project.tracks(); const auto& track : *tracks) {
        (void)track->duration();
        for (const auto clips = track->clips(); const auto& clip : *clips)
            (void)project.trackIndexWithClip(*clip);
    }
    for (const QString& identifier : project.selections())
        (void)project.clipWithIdentifier(identifier);
}

void decode(uint8_t rootClass, const QByteArray& archive)
{
    switch (rootClass % ClassCount) {
    case Generic:
        (void)KeyedUnarchiver::unarchiveObjectWithData(archive);
        break;
    case Project: {
        auto project = KeyedUnarchiver::unarchivedObjectOfClass<VTProject>(archive);
        if (project)
            exerciseProject(*project);
        checkRoundTrip(project);
        break;
    }
    case Track:
        checkRoundTrip(KeyedUnarchiver::unarchivedObjectOfClass<VTTrack>(archive));
        break;
    case Clip:
        checkRoundTrip(KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(archive));
        break;
    case Frame:
        checkRoundTrip(KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(archive));
        break;
    case Provider:
        checkRoundTrip(KeyedUnarchiver::unarchivedObjectOfClass<VTDataProvider>(archive));
        break;
    case Registry:
        checkRoundTrip(KeyedUnarchiver::unarchivedObjectOfClass<VTDataProviderMgr>(archive));
        break;
    case FrameInfo:
        checkRoundTrip(KeyedUnarchiver::unarchivedObjectOfClass<VTAudioFrameInfo>(archive));
        break;
    }
}

QByteArray withClass(RootClass rootClass, const QByteArray& archive)
{
    return QByteArray(1, char(rootClass)) + archive;
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    const auto providers = fuzz::seedProviders();
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders(providers);

    auto project = std::make_shared<VTProject>();
    for (size_t t = 0; t < 2; ++t) {
        auto track = std::make_shared<VTTrack>();
        for (size_t i = t; i < providers.size(); i += 2) {
            auto clip = VTClip::initWithDataProviderIDs(providers[i]->identifier());
            if (!clip)
                continue;
            clip->setTimestampOfTrack(int64_t(i) * 700);
            clip->setVolume(1.5);
            clip->setEnableFadeIn(true);
            clip->setDurationOfFadeIn(100);
            track->importClip(clip);
        }
        project->importTrack(track);
    }
    if (const auto first = project->trackAtIndex(0); first && first->numberOfClips() > 0)
        project->setSelections({(*first->clips())[0]->identifier()});

    std::vector<std::pair<RootClass, QByteArray>> archives;
    archives.emplace_back(Project, KeyedArchiver::archivedDataWithRootObject(*project));
    for (const auto tracks = project->tracks(); const auto& track : *tracks) {
        archives.emplace_back(Track, KeyedArchiver::archivedDataWithRootObject(*track));
        for (const auto clips = track->clips(); const auto& clip : *clips)
            archives.emplace_back(Clip, KeyedArchiver::archivedDataWithRootObject(*clip));
    }
    for (const auto& provider : providers) {
        archives.emplace_back(Provider, KeyedArchiver::archivedDataWithRootObject(*provider));
        if (!provider->cacheTable().empty())
            archives.emplace_back(FrameInfo, KeyedArchiver::archivedDataWithRootObject(*provider->cacheTable().front()));
    }
    archives.emplace_back(Registry, KeyedArchiver::archivedDataWithRootObject(VTDataProviderMgr::shareDataProviderMgr()));
    const int16_t samples[8] = {0, 1000, -1000, 32767, -32768, 5, 6, 7};
    for (int32_t format = 0; format <= 4; ++format) {
        const int32_t count = int32_t(sizeof(samples) / KRAudioFrame2::bytesForSampleFormat(format));
        if (auto frame = KRAudioFrame2::initWithSampleFormat(format, 1, 8000, count, samples))
            archives.emplace_back(Frame, KeyedArchiver::archivedDataWithRootObject(*frame));
    }
    archives.emplace_back(Generic, KeyedArchiver::archivedDataWithRootObject(*project));

    for (const auto& [rootClass, archive] : archives) {
        seeds.add(QStringLiteral("class%1.bplist").arg(int(rootClass)), withClass(rootClass, archive));
        seeds.add(QStringLiteral("class%1.xml").arg(int(rootClass)), withClass(rootClass, fuzz::xmlFromBinary(archive)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("keyed_unarchiver", writeSeeds);
    KeyedClassRegistry::registerClass<VTProject>();
    KeyedClassRegistry::registerClass<VTTrack>();
    KeyedClassRegistry::registerClass<VTClip>();
    KeyedClassRegistry::registerClass<KRAudioFrame2>();
    KeyedClassRegistry::registerClass<VTDataProvider>();
    KeyedClassRegistry::registerClass<VTDataProviderMgr>();
    KeyedClassRegistry::registerClass<VTAudioFrameInfo>();
    KeyedClassRegistry::registerClass<VTDataBuffer>();
    // Clips resolve their providers through the shared registry; load it before fuzzing.
    (void)VTDataProviderMgr::shareDataProviderMgr();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    decode(data[0], QByteArray::fromRawData(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1)));
    return 0;
}
