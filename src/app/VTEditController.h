// Every change to the project, recorded for undo: the menu's and the
// control row's editing actions, and the timeline view's delegate callbacks.
//
// Contract
// - Each edit makes a command, begins it (snapshot before), runs the model
//   operation and, only when that reports a change, marks the project as
//   needing a save, reloads the timeline, ends the command (snapshot after)
//   and pushes it on the shared undo stack. An edit that changes nothing
//   pushes nothing.
// - Snapshots (KRCommandContext): remove, add and exchange commands archive
//   the whole project; edit commands archive only the selected clips and
//   their track indexes, so that moves, trims, fades and volume stay cheap
//   on big projects. Restoring a whole project installs a fresh project
//   (through a new adapter); restoring an edit puts the clips back on their
//   tracks and drops their waveform caches.
// - A drag in the timeline is one undo step: the view's will/did bracket
//   opens and closes one edit command (kept in the drag's attributes under
//   "kVTCommandObject").
// - Edits that move clips in time or across tracks, trims, fades, the
//   check boxes and drag-out stop playback first; cut, paste, delete, the
//   keyboard moves and volume changes do not.
// - Main thread only.
#pragma once

#include "app/KRCommand.h"
#include "timeline/VTTimelineViewDelegate.h"

#include <QObject>

#include <memory>

class AppDelegate;
class VTMixedCheckBox;

class VTEditController final : public QObject, public VTTimelineViewDelegate, public KRCommandContext {
    Q_OBJECT
public:
    static const QString kVTCommandObject;

    explicit VTEditController(AppDelegate& app);
    ~VTEditController() override;

    // Menu and control actions.
    void undo();
    void redo();
    void copy();
    void cut();
    void paste();
    void delete_();
    void selectAll();
    void moveLeft();
    void moveRight();
    void splitClk();
    void checkFadeIn(VTMixedCheckBox* sender);
    void checkFadeOut(VTMixedCheckBox* sender);
    void setSelectionFade(VTMixedCheckBox* checkBox);
    void minVolumeClk();
    void maxVolumeClk();
    void onVolumeChanged();
    void setSelectsVolume(double volume);
    void minZoomClk();
    void maxZoomClk();
    void onZoomChanged();
    void setTimelineViewZoomvalue(double zoomValue);
    // The View menu's zoom: a step a person notices (a tenth of the range).
    void zoomIn();
    void zoomOut();

    // KRCommandContext.
    std::optional<QByteArray> saveContextState(const KRCommand& command) override;
    void restoreContextState(const QByteArray& state, const KRCommand& withCommand) override;

    // VTTimelineViewDelegate.
    bool respondsTo(Operation operation) const override;
    void selectionsChanged(const QStringList& selections, VTTimelineView* timelineView) override;
    void currentPositionChanged(int64_t timestamp, VTTimelineView* timelineView) override;
    Attributes timelineViewWillContinueChange(VTTimelineView* timelineView) override;
    void timelineViewDidContinueChange(VTTimelineView* timelineView, const Attributes& attributes) override;
    void fadeInDurationChanged(const ValueDictionary& values, VTTimelineView* timelineView) override;
    void fadeOutDurationChanged(const ValueDictionary& values, VTTimelineView* timelineView) override;
    void timestampChanged(const ValueDictionary& values, VTTimelineView* timelineView) override;
    void cutAtStartClips(const ValueDictionary& values, VTTimelineView* timelineView) override;
    void cutAtEndClips(const ValueDictionary& values, VTTimelineView* timelineView) override;
    void moveClipsTrack(const TrackDictionary& values, VTTimelineView* timelineView) override;
    bool dragOutClips(const QStringList& identifiers, VTTimelineView* timelineView) override;
    bool dropOperationWithPasteboard(const QMimeData& pasteboard, uint64_t atTrackIndex, int64_t timestamp,
                                     VTTimelineView* timelineView) override;

private:
    // Ends a begun command and pushes it after a change: needSaved, reload, end, push.
    void commitChange(const std::shared_ptr<KRCommand>& command);
    QByteArray editSnapshot() const;
    void restoreEditSnapshot(const QByteArray& state);
    void restoreProjectSnapshot(const QByteArray& state);

    AppDelegate& m_app;
};
