// Fuzzes the project document opener as the editor's Open reads a file: the
// input is the whole document (magic, info length, info archive, project
// archive), opened from memory with the legacy reader falling back to the
// same bytes in a scratch file. A project that opens is written as a document
// again and must reopen with the same tracks, clips and fields.
#include "FuzzSupport.h"

#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "projectfile/VTProjectDocument.h"

#include <QFile>
#include <QUrl>

#include <algorithm>
#include <cstdlib>

using namespace brindle;

namespace {

void checkProgress(double percent)
{
    if (!(percent >= 0.0 && percent <= 100.0))
        std::abort();
}

void exerciseProject(const VTProject& project)
{
    (void)project.duration();
    (void)project.title();
    for (const auto tracks = project.tracks(); const auto& track : *tracks) {
        (void)track->duration();
        for (const auto clips = track->clips(); const auto& clip : *clips) {
            if (project.trackIndexWithClip(*clip) == VTProject::kNotFound)
                std::abort();
            (void)clip->description();
            (void)clip->fadeInValidate();
            (void)clip->fadeOutValidate();
        }
    }
    for (const QString& identifier : project.selections())
        (void)project.clipWithIdentifier(identifier);
}

bool sameClip(const VTClip& a, const VTClip& b)
{
    return a.identifier() == b.identifier() && a.dataProviderIds() == b.dataProviderIds() &&
           a.timestampOfTrack() == b.timestampOfTrack() && a.durationOfTrack() == b.durationOfTrack() &&
           a.timestampOfDataProvider() == b.timestampOfDataProvider() && a.volume() == b.volume() &&
           a.enableFadeIn() == b.enableFadeIn() && a.enableFadeOut() == b.enableFadeOut() &&
           a.durationOfFadeIn() == b.durationOfFadeIn() && a.durationOfFadeOut() == b.durationOfFadeOut();
}

bool sameProject(const VTProject& a, const VTProject& b)
{
    const auto tracksA = a.tracks();
    const auto tracksB = b.tracks();
    if (tracksA->size() != tracksB->size() || a.selections() != b.selections() || a.timePosition() != b.timePosition() ||
        a.url() != b.url())
        return false;
    for (size_t t = 0; t < tracksA->size(); ++t) {
        const auto clipsA = (*tracksA)[t]->clips();
        const auto clipsB = (*tracksB)[t]->clips();
        if ((*tracksA)[t]->identifier() != (*tracksB)[t]->identifier() || clipsA->size() != clipsB->size())
            return false;
        for (size_t c = 0; c < clipsA->size(); ++c)
            if (!sameClip(*(*clipsA)[c], *(*clipsB)[c]))
                return false;
    }
    return true;
}

std::shared_ptr<VTClip> clipOf(const VTDataProvider& provider, int64_t start)
{
    auto clip = VTClip::initWithDataProviderIDs(provider.identifier());
    if (clip)
        clip->setTimestampOfTrack(start);
    return clip;
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    const auto providers = fuzz::seedProviders();
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders(providers);
    if (providers.empty())
        return;

    // Two tracks sharing the media, with gain, fades, trims and a selection.
    auto project = std::make_shared<VTProject>();
    for (size_t t = 0; t < 2; ++t) {
        auto track = std::make_shared<VTTrack>();
        for (size_t i = t; i < providers.size(); i += 2) {
            auto clip = clipOf(*providers[i], int64_t(i) * 800);
            if (!clip)
                continue;
            clip->setVolume(0.25 + 0.5 * double(i));
            clip->setTimestampOfDataProvider(100);
            clip->setDurationOfTrack(clip->durationOfTrack() - 200);
            clip->setEnableFadeIn(true);
            clip->setDurationOfFadeIn(150);
            clip->setEnableFadeOut(i % 2 == 0);
            track->importClip(clip);
        }
        project->importTrack(track);
    }
    if (const auto first = project->trackAtIndex(0); first && first->numberOfClips() > 0)
        project->setSelections({(*first->clips())[0]->identifier()});
    project->setTimePosition(1234);
    project->setUrl(QUrl::fromLocalFile(fuzz::home() + QStringLiteral("/Song.loomwick")));
    seeds.add(QStringLiteral("two-tracks.loomwick"), VTProjectDocument::dataWithProject(*project));

    // One clip of each media on a track of its own, up to the track limit.
    auto spread = std::make_shared<VTProject>();
    for (size_t i = 0; i < providers.size() && int64_t(i) < VTProject::supportMaxNumberOfTracks(); ++i) {
        auto track = std::make_shared<VTTrack>();
        if (auto clip = clipOf(*providers[i], 0))
            track->importClip(clip);
        spread->importTrack(track);
    }
    seeds.add(QStringLiteral("spread.loomwick"), VTProjectDocument::dataWithProject(*spread));

    // An empty project, and a track holding the same media twice.
    seeds.add(QStringLiteral("empty.loomwick"), VTProjectDocument::dataWithProject(VTProject()));
    auto repeated = std::make_shared<VTProject>();
    auto track = std::make_shared<VTTrack>();
    for (int64_t start : {0, 5000})
        if (auto clip = clipOf(*providers.front(), start))
            track->importClip(clip);
    repeated->importTrack(track);
    seeds.add(QStringLiteral("repeated.loomwick"), VTProjectDocument::dataWithProject(*repeated));

    // Older project files, which the opener hands to the legacy reader.
    for (const QByteArray& container : fuzz::legacyProjects(providers))
        seeds.add(QStringLiteral("legacy.loomwick"), container);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("project_document", writeSeeds);
    // Clips resolve their providers through the shared registry; load it before fuzzing.
    (void)VTDataProviderMgr::shareDataProviderMgr();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The legacy reader reads from the file the URL names.
    const QString path = fuzz::scratchFile(QStringLiteral("document.loomwick"));
    if (!fuzz::writeFile(path, data, size))
        return 0;
    const QUrl url = QUrl::fromLocalFile(path);
    const VTDataProviderMgr::ProviderList before = VTDataProviderMgr::shareDataProviderMgr().dataProviders();

    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    const VTProjectDocument::OpenResult opened = VTProjectDocument::openProjectWithData(bytes, url, checkProgress);
    if (opened.errorCode != 0 && opened.errorCode != 1)
        std::abort();
    if (opened.projects.size() > 1 || (opened.errorCode != 0 && !opened.projects.empty()))
        std::abort();
    if (!opened.projects.empty()) {
        if (!opened.projects.front())
            std::abort();
        const VTProject& project = *opened.projects.front();
        exerciseProject(project);
        // Saved again, the project must reopen as it is (without the legacy
        // reader, which an empty URL would make fail).
        const VTProjectDocument::OpenResult again =
            VTProjectDocument::openProjectWithData(VTProjectDocument::dataWithProject(project), QUrl(), checkProgress);
        if (again.errorCode != 0 || again.projects.size() != 1 || !sameProject(project, *again.projects.front()))
            std::abort();
    }
    fuzz::forgetProvidersAddedSince(before);
    QFile::remove(path);
    return 0;
}
