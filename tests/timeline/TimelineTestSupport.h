// Test doubles for the timeline view: clips that deliver synthetic waveform
// points from a pool thread, a data source over them, a delegate that records
// every call (and, like the editor, applies selection and play position to
// the source), and helpers for mouse events and pixels in document points.
#pragma once

#include "timeline/VTTimelineView.h"
#include "waveform/VTTimelineClip.h"
#include "waveform/VTTimelineViewDataSource.h"

#include <QColor>
#include <QImage>
#include <QMimeData>
#include <QSet>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace brindle::test {

// A clip whose every point is one channel with maximum +amplitude and
// minimum −amplitude, one point per zoom step strictly inside the request.
class FakeClip final : public VTTimelineClip, public std::enable_shared_from_this<FakeClip> {
public:
    FakeClip(QString identifier, int64_t start, int64_t duration, std::optional<QString> title = std::nullopt);

    int64_t timestampsOfTrack() const override { return start; }
    int64_t timestampsOfDataProvider() const override { return mediaStart; }
    int64_t durationOfTrack() const override { return duration; }
    bool fadeInValidate() const override { return fadeIn > 0; }
    bool fadeOutValidate() const override { return fadeOut > 0; }
    int64_t durationOfFadeIn() const override { return fadeIn; }
    int64_t durationOfFadeOut() const override { return fadeOut; }
    void featureSamplesAtTimestamps(int64_t timestamp, int64_t durationOfTrack, int64_t withDurationPerPixel,
                                    ProcessHandler processHandler) override;
    QString identifier() const override { return id; }
    std::optional<QString> description() const override { return title; }

    // True when the latest request has delivered all its points.
    bool idle() const { return m_pending.load() == 0; }
    int64_t requests() const { return m_requests.load(); }
    // Points the latest request delivered.
    int64_t delivered() const { return m_delivered.load(); }

    QString id;
    int64_t start = 0;
    int64_t mediaStart = 0;
    int64_t duration = 0;
    int64_t fadeIn = 0;
    int64_t fadeOut = 0;
    double amplitude = 0.5;
    std::optional<QString> title;

private:
    std::mutex m_deliveryMutex;
    uint64_t m_generation = 0;
    std::atomic<int64_t> m_pending{0};
    std::atomic<int64_t> m_requests{0};
    std::atomic<int64_t> m_delivered{0};
};

class FakeDataSource final : public VTTimelineViewDataSource {
public:
    // Adds a clip to track `track` (tracks are created up to it).
    std::shared_ptr<FakeClip> addClip(uint64_t track, const QString& identifier, int64_t start, int64_t duration,
                                      std::optional<QString> title = std::nullopt);
    // The clip with that Identifier and its track, or null.
    std::shared_ptr<FakeClip> clip(const QString& identifier, uint64_t* track = nullptr) const;

    uint64_t numberOfTracks(VTTimelineView*) override { return tracks.size(); }
    uint64_t numberOfClips(VTTimelineView*, uint64_t atTrackIndex) override;
    std::shared_ptr<VTTimelineClip> clipAtIndex(uint64_t index, uint64_t ofTrackIndex, VTTimelineView*) override;
    std::shared_ptr<VTTimelineClip> clipWithIdentifer(const QString& identifier, VTTimelineView*) override;
    ClipList clipsWithIdentifers(const QStringList& identifiers, VTTimelineView*) override;
    int64_t duration(VTTimelineView*) override;
    int64_t currentPosition(VTTimelineView*) override { return position; }
    QStringList selections(VTTimelineView*) override { return selection; }
    bool selectedClip(const QString& identifier, VTTimelineView*) override { return selection.contains(identifier); }
    std::optional<uint64_t> trackIndexWithClipIdentifer(const QString& identifier, VTTimelineView*) override;
    std::optional<uint64_t> maxNumberOfTracksAllowed(VTTimelineView*) override { return maxTracks; }

    std::vector<std::vector<std::shared_ptr<FakeClip>>> tracks;
    QStringList selection;
    int64_t position = 0;
    // The project's length; the end of the last clip when unset.
    std::optional<int64_t> projectDuration;
    std::optional<uint64_t> maxTracks;
    bool tellsTrackIndexes = true;
};

class RecordingDelegate final : public VTTimelineViewDelegate {
public:
    explicit RecordingDelegate(FakeDataSource* source = nullptr) : m_source(source) {}

    bool respondsTo(Operation operation) const override { return !refused.contains(operation); }
    void selectionsChanged(const QStringList& selection, VTTimelineView*) override
    {
        record("selectionsChanged", selections, selection);
        if (m_source)
            m_source->selection = selection;
    }
    void currentPositionChanged(int64_t timestamp, VTTimelineView*) override
    {
        record("currentPositionChanged", positions, timestamp);
        if (m_source)
            m_source->position = std::max<int64_t>(timestamp, 0);
    }
    Attributes timelineViewWillContinueChange(VTTimelineView*) override
    {
        calls << QStringLiteral("will");
        return Attributes{{QStringLiteral("bracket"), ++m_brackets}};
    }
    void timelineViewDidContinueChange(VTTimelineView*, const Attributes& attributes) override
    {
        calls << QStringLiteral("did");
        lastAttributes = attributes;
    }
    void fadeInDurationChanged(const ValueDictionary& values, VTTimelineView*) override
    {
        record("fadeIn", fadeIns, values);
    }
    void fadeOutDurationChanged(const ValueDictionary& values, VTTimelineView*) override
    {
        record("fadeOut", fadeOuts, values);
    }
    void timestampChanged(const ValueDictionary& values, VTTimelineView*) override
    {
        record("timestamp", starts, values);
    }
    void cutAtStartClips(const ValueDictionary& values, VTTimelineView*) override
    {
        record("cutStart", cutStarts, values);
    }
    void cutAtEndClips(const ValueDictionary& values, VTTimelineView*) override { record("cutEnd", cutEnds, values); }
    void moveClipsTrack(const TrackDictionary& values, VTTimelineView*) override
    {
        record("moveTrack", trackMoves, values);
    }
    bool dragOutClips(const QStringList& identifiers, VTTimelineView*) override
    {
        record("dragOut", dragOuts, identifiers);
        return true;
    }
    bool dropOperationWithPasteboard(const QMimeData& pasteboard, uint64_t atTrackIndex, int64_t timestamp,
                                     VTTimelineView*) override
    {
        record("drop", drops, Drop{pasteboard.formats(), atTrackIndex, timestamp});
        return true;
    }

    struct Drop {
        QStringList formats;
        uint64_t track = 0;
        int64_t timestamp = 0;
    };

    QSet<Operation> refused;
    // Every call by name, in order, and the values of each kind.
    QStringList calls;
    std::vector<QStringList> selections, dragOuts;
    std::vector<int64_t> positions;
    std::vector<ValueDictionary> fadeIns, fadeOuts, starts, cutStarts, cutEnds;
    std::vector<TrackDictionary> trackMoves;
    std::vector<Drop> drops;
    Attributes lastAttributes;

private:
    template <class T>
    void record(const char* call, std::vector<T>& into, const T& value)
    {
        calls << QString::fromLatin1(call);
        into.push_back(value);
    }

    FakeDataSource* m_source = nullptr;
    int m_brackets = 0;
};

// --- Mouse events on the viewport: at viewport pixels (y down), or at
// document points (y up) converted with the current scroll position.
enum class MouseAction { press, drag, release, hover };
void mouseAtViewport(VTTimelineView& view, MouseAction action, const QPointF& position,
                     Qt::KeyboardModifiers modifiers = Qt::NoModifier);
QPointF viewportPosition(VTTimelineView& view, const QPointF& documentPoint);
inline void press(VTTimelineView& view, const QPointF& point, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
{
    mouseAtViewport(view, MouseAction::press, viewportPosition(view, point), modifiers);
}
inline void dragTo(VTTimelineView& view, const QPointF& point)
{
    mouseAtViewport(view, MouseAction::drag, viewportPosition(view, point));
}
inline void release(VTTimelineView& view, const QPointF& point)
{
    mouseAtViewport(view, MouseAction::release, viewportPosition(view, point));
}
inline void hover(VTTimelineView& view, const QPointF& point)
{
    mouseAtViewport(view, MouseAction::hover, viewportPosition(view, point));
}

// The grabbed pixel covering document point `documentPoint` of the visible rectangle.
QColor pixelAt(const QImage& frame, VTTimelineView& view, const QPointF& documentPoint);
::testing::AssertionResult colourNear(const QColor& actual, int red, int green, int blue, int tolerance = 3);
// Whether one of the pixels within `radius` columns of x has the colour.
::testing::AssertionResult columnNear(const QImage& frame, VTTimelineView& view, double x, double y, int red,
                                      int green, int blue, int radius = 1);

// Waits until every clip's latest request has delivered and the view's cache
// of it holds all the points.
bool waitForWaveforms(VTTimelineView& view, const std::vector<std::shared_ptr<FakeClip>>& clips);

}  // namespace brindle::test
