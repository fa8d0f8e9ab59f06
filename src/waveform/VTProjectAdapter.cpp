#include "waveform/VTProjectAdapter.h"

#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "waveform/VTClipAdapter.h"

#include <algorithm>

std::shared_ptr<VTProjectAdapter> VTProjectAdapter::initWithProject(std::shared_ptr<VTProject> project)
{
    if (!project)
        return nullptr;
    return std::shared_ptr<VTProjectAdapter>(new VTProjectAdapter(std::move(project)));
}

std::shared_ptr<VTClipAdapter> VTProjectAdapter::findAdapterWithClipIds(const QString& identifier) const
{
    std::lock_guard lock(m_mutex);
    for (const auto& adapter : m_clipAdapters) {
        if (adapter->clip()->identifier() == identifier)
            return adapter;
    }
    return nullptr;
}

std::shared_ptr<VTClipAdapter> VTProjectAdapter::findAdapterWithClip(const VTClip& clip) const
{
    return findAdapterWithClipIds(clip.identifier());
}

std::shared_ptr<VTClipAdapter> VTProjectAdapter::adapterWithClipIds(const QString& identifier)
{
    if (std::shared_ptr<VTClipAdapter> kept = findAdapterWithClipIds(identifier))
        return kept;
    std::shared_ptr<VTClipAdapter> adapter = VTClipAdapter::initWithClip(m_project->clipWithIdentifier(identifier));
    if (!adapter)
        return nullptr;
    std::lock_guard lock(m_mutex);
    // Another thread may have made one meanwhile: keep only the first.
    for (const auto& kept : m_clipAdapters) {
        if (kept->clip()->identifier() == identifier)
            return kept;
    }
    m_clipAdapters.push_back(adapter);
    return adapter;
}

VTProjectAdapter::ClipAdapterList VTProjectAdapter::adaptersWithClipIds(const QStringList& identifiers)
{
    ClipAdapterList adapters;
    adapters.reserve(size_t(identifiers.size()));
    for (const QString& identifier : identifiers) {
        if (std::shared_ptr<VTClipAdapter> adapter = adapterWithClipIds(identifier))
            adapters.push_back(std::move(adapter));
    }
    return adapters;
}

void VTProjectAdapter::addClipAdapter(std::shared_ptr<VTClipAdapter> adapter)
{
    if (!adapter)
        return;
    std::lock_guard lock(m_mutex);
    m_clipAdapters.push_back(std::move(adapter));
}

VTProjectAdapter::ClipAdapterList VTProjectAdapter::clipAdapters() const
{
    std::lock_guard lock(m_mutex);
    return m_clipAdapters;
}

void VTProjectAdapter::removeAllSampleCaches()
{
    ClipAdapterList forgotten;
    {
        std::lock_guard lock(m_mutex);
        forgotten.swap(m_clipAdapters);
    }
    // Released outside the lock: an adapter's end waits for its queue.
}

void VTProjectAdapter::removeSampleCachesWithClipIDs(const QStringList& identifiers)
{
    ClipAdapterList forgotten;
    {
        std::lock_guard lock(m_mutex);
        auto kept = std::stable_partition(m_clipAdapters.begin(), m_clipAdapters.end(), [&](const auto& adapter) {
            return !identifiers.contains(adapter->clip()->identifier());
        });
        std::move(kept, m_clipAdapters.end(), std::back_inserter(forgotten));
        m_clipAdapters.erase(kept, m_clipAdapters.end());
    }
}

void VTProjectAdapter::removeSampleCacheWithClipID(const QString& identifier)
{
    removeSampleCachesWithClipIDs(QStringList{identifier});
}

uint64_t VTProjectAdapter::numberOfTracks(VTTimelineView* /*timelineView*/)
{
    return uint64_t(std::max<int64_t>(m_project->numberOfTracks(), 0));
}

uint64_t VTProjectAdapter::numberOfClips(VTTimelineView* /*timelineView*/, uint64_t atTrackIndex)
{
    const VTProject::TrackListPointer tracks = m_project->tracks();
    if (!tracks || atTrackIndex >= tracks->size())
        return 0;
    return uint64_t(std::max<int64_t>((*tracks)[atTrackIndex]->numberOfClips(), 0));
}

std::shared_ptr<VTTimelineClip> VTProjectAdapter::clipAtIndex(uint64_t index, uint64_t ofTrackIndex,
                                                              VTTimelineView* /*timelineView*/)
{
    const VTProject::TrackListPointer tracks = m_project->tracks();
    if (!tracks || ofTrackIndex >= tracks->size())
        return nullptr;
    const VTTrack::ClipListPointer clips = (*tracks)[ofTrackIndex]->clips();
    if (!clips || index >= clips->size())
        return nullptr;
    return adapterWithClipIds((*clips)[index]->identifier());
}

std::shared_ptr<VTTimelineClip> VTProjectAdapter::clipWithIdentifer(const QString& identifier,
                                                                    VTTimelineView* /*timelineView*/)
{
    return adapterWithClipIds(identifier);
}

VTTimelineViewDataSource::ClipList VTProjectAdapter::clipsWithIdentifers(const QStringList& identifiers,
                                                                         VTTimelineView* /*timelineView*/)
{
    const ClipAdapterList adapters = adaptersWithClipIds(identifiers);
    return ClipList(adapters.begin(), adapters.end());
}

int64_t VTProjectAdapter::duration(VTTimelineView* /*timelineView*/)
{
    return m_project->duration();
}

int64_t VTProjectAdapter::currentPosition(VTTimelineView* /*timelineView*/)
{
    return m_project->timePosition();
}

QStringList VTProjectAdapter::selections(VTTimelineView* /*timelineView*/)
{
    return m_project->selections();
}

bool VTProjectAdapter::selectedClip(const QString& identifier, VTTimelineView* /*timelineView*/)
{
    return m_project->selections().contains(identifier);
}

std::optional<uint64_t> VTProjectAdapter::trackIndexWithClipIdentifer(const QString& identifier,
                                                                      VTTimelineView* /*timelineView*/)
{
    return uint64_t(m_project->trackIndexWithClipIds(identifier));
}

std::optional<uint64_t> VTProjectAdapter::maxNumberOfTracksAllowed(VTTimelineView* /*timelineView*/)
{
    return uint64_t(VTProject::supportMaxNumberOfTracks());
}
