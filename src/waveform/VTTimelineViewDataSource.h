// Where the timeline view takes everything it shows: tracks, clips,
// selection, play position and the project's length. The view passes itself
// as the last argument of every call; a data source may ignore it.
//
// Contract
// - Called on the main thread only.
// - Clips are handed out as VTTimelineClip objects; look-ups by Identifier
//   answer null when nothing matches. `clipsWithIdentifers` answers one clip
//   per Identifier that names a clip, in order, and never an empty entry.
// - Optional operations answer an empty optional when the source does not
//   answer them: without `trackIndexWithClipIdentifer` the view offers no
//   track moves; without `maxNumberOfTracksAllowed` it assumes 16.
// - The misspellings "Identifer" and "Identifers" belong to the interface.
// Headless: the view type is only named; no widget, GUI or GL type appears here.
#pragma once

#include "waveform/VTTimelineClip.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

class VTTimelineView;

class VTTimelineViewDataSource {
public:
    using ClipList = std::vector<std::shared_ptr<VTTimelineClip>>;

    virtual ~VTTimelineViewDataSource() = default;

    virtual uint64_t numberOfTracks(VTTimelineView* timelineView) = 0;
    virtual uint64_t numberOfClips(VTTimelineView* timelineView, uint64_t atTrackIndex) = 0;
    virtual std::shared_ptr<VTTimelineClip> clipAtIndex(uint64_t index, uint64_t ofTrackIndex,
                                                        VTTimelineView* timelineView) = 0;
    virtual std::shared_ptr<VTTimelineClip> clipWithIdentifer(const QString& identifier,
                                                              VTTimelineView* timelineView) = 0;
    virtual ClipList clipsWithIdentifers(const QStringList& identifiers, VTTimelineView* timelineView) = 0;
    // The project's length and the play position (Timestamps).
    virtual int64_t duration(VTTimelineView* timelineView) = 0;
    virtual int64_t currentPosition(VTTimelineView* timelineView) = 0;
    // The Identifiers of the selected clips.
    virtual QStringList selections(VTTimelineView* timelineView) = 0;
    virtual bool selectedClip(const QString& identifier, VTTimelineView* timelineView) = 0;

    // Optional.
    virtual std::optional<uint64_t> trackIndexWithClipIdentifer(const QString& /*identifier*/,
                                                                VTTimelineView* /*timelineView*/)
    {
        return std::nullopt;
    }
    virtual std::optional<uint64_t> maxNumberOfTracksAllowed(VTTimelineView* /*timelineView*/)
    {
        return std::nullopt;
    }
};
