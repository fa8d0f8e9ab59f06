// The timeline's data source over one project: tracks, clips, selection and
// play position, with one VTClipAdapter per model clip.
//
// Contract
// - Hands out at most one clip adapter per clip Identifier and keeps it
//   until the owner forgets it (`removeAllSampleCaches`,
//   `removeSampleCachesWithClipIDs`, `removeSampleCacheWithClipID`); a
//   forgotten adapter is made afresh, with a fresh queue, on the next request.
//   The owner forgets adapters after edits that replace or change clips.
// - Look-ups of an Identifier the project does not hold answer null;
//   `adaptersWithClipIds` and `clipsWithIdentifers` skip such Identifiers
//   (a list never holds an empty entry).
// - `trackIndexWithClipIdentifer` answers the project's index (the largest
//   64-bit value when not found); `maxNumberOfTracksAllowed` answers
//   VTProject::supportMaxNumberOfTracks.
// - Threads: meant for the main thread; the kept adapters are guarded by a
//   lock, so a request from another thread is safe too.
#pragma once

#include "waveform/VTTimelineViewDataSource.h"

#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>
#include <vector>

class VTClip;
class VTClipAdapter;
class VTProject;

class VTProjectAdapter final : public VTTimelineViewDataSource {
public:
    using ClipAdapterList = std::vector<std::shared_ptr<VTClipAdapter>>;

    // Null when `project` is null.
    static std::shared_ptr<VTProjectAdapter> initWithProject(std::shared_ptr<VTProject> project);
    static std::shared_ptr<VTProjectAdapter> init() { return initWithProject(nullptr); }

    const std::shared_ptr<VTProject>& project() const { return m_project; }

    std::shared_ptr<VTClipAdapter> findAdapterWithClipIds(const QString& identifier) const;
    std::shared_ptr<VTClipAdapter> findAdapterWithClip(const VTClip& clip) const;
    std::shared_ptr<VTClipAdapter> adapterWithClipIds(const QString& identifier);
    ClipAdapterList adaptersWithClipIds(const QStringList& identifiers);
    void addClipAdapter(std::shared_ptr<VTClipAdapter> adapter);
    // The adapters kept now, in the order they were made.
    ClipAdapterList clipAdapters() const;

    void removeAllSampleCaches();
    void removeSampleCachesWithClipIDs(const QStringList& identifiers);
    void removeSampleCacheWithClipID(const QString& identifier);

    // VTTimelineViewDataSource.
    uint64_t numberOfTracks(VTTimelineView* timelineView) override;
    uint64_t numberOfClips(VTTimelineView* timelineView, uint64_t atTrackIndex) override;
    std::shared_ptr<VTTimelineClip> clipAtIndex(uint64_t index, uint64_t ofTrackIndex,
                                                VTTimelineView* timelineView) override;
    std::shared_ptr<VTTimelineClip> clipWithIdentifer(const QString& identifier, VTTimelineView* timelineView) override;
    ClipList clipsWithIdentifers(const QStringList& identifiers, VTTimelineView* timelineView) override;
    int64_t duration(VTTimelineView* timelineView) override;
    int64_t currentPosition(VTTimelineView* timelineView) override;
    QStringList selections(VTTimelineView* timelineView) override;
    bool selectedClip(const QString& identifier, VTTimelineView* timelineView) override;
    std::optional<uint64_t> trackIndexWithClipIdentifer(const QString& identifier,
                                                        VTTimelineView* timelineView) override;
    std::optional<uint64_t> maxNumberOfTracksAllowed(VTTimelineView* timelineView) override;

private:
    explicit VTProjectAdapter(std::shared_ptr<VTProject> project) : m_project(std::move(project)) {}

    const std::shared_ptr<VTProject> m_project;
    mutable std::mutex m_mutex;
    ClipAdapterList m_clipAdapters;
};
