// What the timeline view tells its owner: every change the user makes with
// the mouse, as dictionaries from clip Identifier to the new value, and the
// files dropped on it. The view never edits the model; its delegate applies
// each change and the view redraws from its data source.
//
// Contract
// - Every call happens on the main thread, from inside the view's mouse or
//   drop handling; the delegate applies each change synchronously.
// - Operations marked "asked first" are sent only when `respondsTo` answers
//   true for them; a delegate that does not take one simply gets no call (a
//   drag then runs on without effect). The other operations are always sent.
// - A fade, trim or move drag is bracketed: `timelineViewWillContinueChange`
//   once at its start (its answer is kept for the drag) and
//   `timelineViewDidContinueChange` once at its end with that same answer,
//   when at least one drag step came and the clips were not dragged out.
// - Value dictionaries hold one entry per clip that was selected when the
//   drag began; each value is computed from the drag's start, never from
//   the previous step.
// - The misspellings "Identifer" belong to the interface.
#pragma once

#include <QHash>
#include <QMimeData>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <cstdint>
#include <limits>

class VTTimelineView;

class VTTimelineViewDelegate {
public:
    // Clip Identifier → new value (Timestamps and lengths in milliseconds).
    using ValueDictionary = QHash<QString, int64_t>;
    // Clip Identifier → new track index.
    using TrackDictionary = QHash<QString, uint64_t>;
    // What the delegate answers at the start of a drag and gets back at its end.
    using Attributes = QVariantMap;

    // The track index of a drop that is on no lane.
    static constexpr uint64_t kNotFound = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());

    // The operations a delegate may leave out.
    enum class Operation {
        selectionsChanged,
        currentPositionChanged,
        fadeInDurationChanged,
        fadeOutDurationChanged,
        timestampChanged,
        cutAtStartClips,
        cutAtEndClips,
        moveClipsTrack,
        dragOutClips,
        dropOperationWithPasteboard,
    };

    virtual ~VTTimelineViewDelegate() = default;

    // Whether the delegate takes an optional operation.
    virtual bool respondsTo(Operation operation) const = 0;

    // Asked first: the complete new selection.
    virtual void selectionsChanged(const QStringList& /*selections*/, VTTimelineView* /*timelineView*/) {}
    // Asked first: the new play position (may be negative; the delegate limits it).
    virtual void currentPositionChanged(int64_t /*timestamp*/, VTTimelineView* /*timelineView*/) {}

    // The start and end of a fade, trim or move drag.
    virtual Attributes timelineViewWillContinueChange(VTTimelineView* timelineView) = 0;
    virtual void timelineViewDidContinueChange(VTTimelineView* timelineView, const Attributes& attributes) = 0;

    // Asked first, on every step of the matching drag.
    virtual void fadeInDurationChanged(const ValueDictionary& /*values*/, VTTimelineView* /*timelineView*/) {}
    virtual void fadeOutDurationChanged(const ValueDictionary& /*values*/, VTTimelineView* /*timelineView*/) {}
    virtual void timestampChanged(const ValueDictionary& /*values*/, VTTimelineView* /*timelineView*/) {}
    virtual void cutAtStartClips(const ValueDictionary& /*values*/, VTTimelineView* /*timelineView*/) {}
    virtual void cutAtEndClips(const ValueDictionary& /*values*/, VTTimelineView* /*timelineView*/) {}
    virtual void moveClipsTrack(const TrackDictionary& /*values*/, VTTimelineView* /*timelineView*/) {}
    // Asked first: the clips were dragged out of the view; answers whether
    // they were taken out.
    virtual bool dragOutClips(const QStringList& /*identifiers*/, VTTimelineView* /*timelineView*/) { return false; }
    // Asked first: files were dropped on lane `atTrackIndex` (kNotFound when
    // on none); `timestamp` is the play position. Answers whether the drop
    // was accepted.
    virtual bool dropOperationWithPasteboard(const QMimeData& /*pasteboard*/, uint64_t /*atTrackIndex*/,
                                             int64_t /*timestamp*/, VTTimelineView* /*timelineView*/)
    {
        return false;
    }
};
