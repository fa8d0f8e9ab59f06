// The view's mouse handling: the press dispatcher, hit-testing and click
// selection, the drags (play cursor, rubber band, fades, trims, moves and
// drag-out) as a state machine over press, move and release, the cursor
// shapes, and the file drop target. The view never edits the model: every
// change goes to the delegate, and the view redraws from its data source.
#include "timeline/VTTimelineView.h"

#include "timeline/VTTimelineGLWidget.h"
#include "timeline/VTTimelineLanes.h"

#include <QMimeData>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

using brindle::timeline::kLanePitch;
using brindle::timeline::kRulerHeight;
using Operation = VTTimelineViewDelegate::Operation;
constexpr uint64_t kNotFound = VTTimelineViewDelegate::kNotFound;
// How far beyond the visible area a move still counts as a move, not a drag-out.
constexpr double kDragOutMargin = 100;

// Cocoa's point-in-rectangle test: the left and bottom edges belong to the
// rectangle, the right and top edges do not; an empty rectangle holds nothing.
bool pointInRect(const QPointF& point, const QRectF& rect)
{
    return rect.width() > 0 && rect.height() > 0 && point.x() >= rect.x() && point.x() < rect.x() + rect.width()
           && point.y() >= rect.y() && point.y() < rect.y() + rect.height();
}

}  // namespace

// --- Press, move, release -----------------------------------------------------

void VTTimelineView::mouseDown(const QPointF& point, Qt::KeyboardModifiers modifiers)
{
    if (pointInRect(point, boundsOfCursor())) {
        dragDropCursorWithStartPoint(point);
        return;
    }
    if (pointInRect(point, boundsOfTicksmark())) {
        mouseDownAtTickmark(point.x());
        return;
    }
    uint64_t track = 0;
    const std::optional<QString> identifier = clipIdentiferWithMouseDown(point, modifiers, &track);
    if (!identifier) {
        if (m_delegate && m_delegate->respondsTo(Operation::selectionsChanged))
            m_delegate->selectionsChanged({}, this);
        rectSelectClipWithStartPoint(point);
        return;
    }
    const std::shared_ptr<VTTimelineClip> clip = m_dataSource->clipWithIdentifer(*identifier, this);
    if (!clip)
        return;
    const QRectF box = boundsOfClip(*clip, track);
    if (pointInRect(point, boundsOfClipFadeIn(*clip, track)))
        dragFadeWithStartPoint(point, initialValuesWithPropertyType(kPropertyFadeIn), true);
    else if (pointInRect(point, boundsOfClipFadeOut(*clip, track)))
        dragFadeWithStartPoint(point, initialValuesWithPropertyType(kPropertyFadeOut), false);
    else if (pointInRect(point, leftEdgeWithRect(box)))
        dragCutWithStartPoint(point, initialValuesWithPropertyType(kPropertyTimestampsOfTrack), true);
    else if (pointInRect(point, rightEdgeWithRect(box)))
        dragCutWithStartPoint(point, initialValuesWithPropertyType(kPropertyDurationOfTrack), false);
    else
        dragMoveWithStartPoint(point, initialValuesWithPropertyType(kPropertyTimestampsOfTrack));
}

void VTTimelineView::mouseDragged(const QPointF& point)
{
    switch (m_drag.kind) {
    case DragState::Kind::cursor:
        dragDropCursorStep(point);
        break;
    case DragState::Kind::rubberBand:
        rectSelectClipStep(point);
        break;
    case DragState::Kind::fade:
        dragFadeStep(point);
        break;
    case DragState::Kind::cut:
        dragCutStep(point);
        break;
    case DragState::Kind::move:
        dragMoveStep(point);
        break;
    case DragState::Kind::none:
        break;
    }
}

void VTTimelineView::mouseUp(const QPointF& point)
{
    switch (m_drag.kind) {
    case DragState::Kind::rubberBand:
        m_selectionRect = QRectF();
        markForRedraw();
        break;
    case DragState::Kind::fade:
    case DragState::Kind::cut:
        if (m_drag.changed && m_delegate)
            m_delegate->timelineViewDidContinueChange(this, m_drag.attributes);
        break;
    case DragState::Kind::move:
        dragMoveEnd(point);
        break;
    case DragState::Kind::cursor:
    case DragState::Kind::none:
        break;
    }
    m_drag = DragState();
    cursorUpdate(point, false);
}

void VTTimelineView::mouseMoved(const QPointF& point, Qt::MouseButtons buttons)
{
    cursorUpdate(point, buttons & Qt::LeftButton);
}

void VTTimelineView::setViewportCursor(Qt::CursorShape shape)
{
    if (viewport()->cursor().shape() == shape)
        return;
    viewport()->setCursor(shape);
    // The drawing surface is a native window: the pointer shows its cursor.
    glWidget()->setCursor(shape);
}

std::optional<uint64_t> VTTimelineView::laneWithPoint(const QPointF& point, uint64_t laneCount)
{
    // Lanes do not overlap: only the one at the point's distance from the
    // top can hold it, so no lane needs to be looked at one by one.
    const QRectF whole = bounds();
    const double lane = std::floor((whole.y() + whole.height() - point.y() - kRulerHeight) / kLanePitch);
    if (!(lane >= 0 && lane < double(laneCount)))
        return std::nullopt;
    if (!pointInRect(point, boundsOfTrack(uint64_t(lane))))
        return std::nullopt;
    return uint64_t(lane);
}

void VTTimelineView::cursorUpdate(const QPointF& point, bool leftButtonDown)
{
    if (m_dataSource) {
        if (const std::optional<uint64_t> lane = laneWithPoint(point, m_dataSource->numberOfTracks(this))) {
            const uint64_t track = *lane;
            // The topmost clip (drawn last) decides.
            for (uint64_t index = m_dataSource->numberOfClips(this, track); index-- > 0;) {
                const std::shared_ptr<VTTimelineClip> clip = m_dataSource->clipAtIndex(index, track, this);
                if (!clip)
                    continue;
                const QRectF box = boundsOfClip(*clip, track);
                if (pointInRect(point, boundsOfClipFadeIn(*clip, track))
                    || pointInRect(point, boundsOfClipFadeOut(*clip, track))
                    || pointInRect(point, leftEdgeWithRect(box)) || pointInRect(point, rightEdgeWithRect(box))) {
                    setViewportCursor(Qt::SplitHCursor);
                    return;
                }
                if (pointInRect(point, box)) {
                    setViewportCursor(leftButtonDown ? Qt::ClosedHandCursor : Qt::OpenHandCursor);
                    return;
                }
            }
        }
    }
    setViewportCursor(Qt::ArrowCursor);
}

// --- Hit-testing and selection --------------------------------------------------

std::optional<QString> VTTimelineView::clipIdentiferWithMouseDown(const QPointF& point,
                                                                  Qt::KeyboardModifiers modifiers,
                                                                  uint64_t* trackIndex)
{
    if (!m_dataSource)
        return std::nullopt;
    std::shared_ptr<VTTimelineClip> hit;
    if (const std::optional<uint64_t> lane = laneWithPoint(point, m_dataSource->numberOfTracks(this))) {
        const uint64_t track = *lane;
        for (uint64_t index = m_dataSource->numberOfClips(this, track); index-- > 0;) {
            std::shared_ptr<VTTimelineClip> clip = m_dataSource->clipAtIndex(index, track, this);
            if (clip && pointInRect(point, boundsOfClip(*clip, track))) {
                hit = std::move(clip);
                break;
            }
        }
        if (trackIndex)
            *trackIndex = track;
    }
    if (!hit)
        return std::nullopt;
    const QString identifier = hit->identifier();
    if (m_dataSource->selectedClip(identifier, this))
        return identifier;
    QStringList selection;
    if (modifiers & (Qt::ShiftModifier | Qt::ControlModifier))
        selection = m_dataSource->selections(this);
    selection.append(identifier);
    if (m_delegate && m_delegate->respondsTo(Operation::selectionsChanged))
        m_delegate->selectionsChanged(selection, this);
    markForRedraw();
    return identifier;
}

VTTimelineView::ValueDictionary VTTimelineView::initialValuesWithPropertyType(int propertyType)
{
    ValueDictionary values;
    if (!m_dataSource || propertyType < kPropertyFadeIn || propertyType > kPropertyTrackIndex)
        return values;
    const VTTimelineViewDataSource::ClipList clips =
        m_dataSource->clipsWithIdentifers(m_dataSource->selections(this), this);
    for (const std::shared_ptr<VTTimelineClip>& clip : clips) {
        if (!clip)
            continue;
        const QString identifier = clip->identifier();
        switch (propertyType) {
        case kPropertyFadeIn:
            values.insert(identifier, clip->durationOfFadeIn());
            break;
        case kPropertyFadeOut:
            values.insert(identifier, clip->durationOfFadeOut());
            break;
        case kPropertyDurationOfTrack:
            values.insert(identifier, clip->durationOfTrack());
            break;
        case kPropertyTimestampsOfTrack:
            values.insert(identifier, clip->timestampsOfTrack());
            break;
        case kPropertyTrackIndex: {
            const std::optional<uint64_t> track = m_dataSource->trackIndexWithClipIdentifer(identifier, this);
            // A source that cannot tell track indexes offers no track moves.
            if (!track)
                return {};
            values.insert(identifier, int64_t(std::min(*track, kNotFound)));
            break;
        }
        default:
            break;
        }
    }
    return values;
}

std::pair<uint64_t, uint64_t> VTTimelineView::trackIndexRangeWithPropertyDictionary(const ValueDictionary& values)
{
    if (values.isEmpty())
        return {kNotFound, kNotFound};
    uint64_t lowest = std::numeric_limits<uint64_t>::max(), highest = 0;
    for (const int64_t value : values) {
        lowest = std::min(lowest, uint64_t(value));
        highest = std::max(highest, uint64_t(value));
    }
    return {lowest, highest};
}

// --- Starting the drags -------------------------------------------------------

void VTTimelineView::dragDropCursorWithStartPoint(const QPointF& startPoint)
{
    m_drag = DragState();
    m_drag.kind = DragState::Kind::cursor;
    m_drag.startPoint = startPoint;
}

void VTTimelineView::rectSelectClipWithStartPoint(const QPointF& startPoint)
{
    m_drag = DragState();
    m_drag.kind = DragState::Kind::rubberBand;
    m_drag.startPoint = startPoint;
}

void VTTimelineView::dragFadeWithStartPoint(const QPointF& startPoint, const ValueDictionary& initialValues,
                                            bool fadeIn)
{
    m_drag = DragState();
    m_drag.kind = DragState::Kind::fade;
    m_drag.startPoint = startPoint;
    m_drag.initialValues = initialValues;
    m_drag.leading = fadeIn;
    if (m_delegate)
        m_drag.attributes = m_delegate->timelineViewWillContinueChange(this);
}

void VTTimelineView::dragCutWithStartPoint(const QPointF& startPoint, const ValueDictionary& initialValues, bool start)
{
    m_drag = DragState();
    m_drag.kind = DragState::Kind::cut;
    m_drag.startPoint = startPoint;
    m_drag.initialValues = initialValues;
    m_drag.leading = start;
    if (m_delegate)
        m_drag.attributes = m_delegate->timelineViewWillContinueChange(this);
}

void VTTimelineView::dragMoveWithStartPoint(const QPointF& startPoint, const ValueDictionary& initialValues)
{
    m_drag = DragState();
    m_drag.kind = DragState::Kind::move;
    m_drag.startPoint = startPoint;
    m_drag.initialValues = initialValues;
    m_drag.startTrack = trackIndexWithPoint(startPoint);
    m_drag.trackValues = initialValuesWithPropertyType(kPropertyTrackIndex);
    if (m_delegate)
        m_drag.attributes = m_delegate->timelineViewWillContinueChange(this);
}

void VTTimelineView::mouseDownAtTickmark(double x)
{
    const int64_t timestamp = timestampWithPixel(x);
    if (m_delegate && m_delegate->respondsTo(Operation::currentPositionChanged))
        m_delegate->currentPositionChanged(timestamp, this);
    markForRedraw();
}

// --- Drag steps -----------------------------------------------------------------

VTTimelineView::ValueDictionary VTTimelineView::shiftedValues(const QPointF& point, int sign)
{
    const int64_t delta = timestampWithPixel(point.x() - m_drag.startPoint.x());
    ValueDictionary values;
    for (auto it = m_drag.initialValues.cbegin(); it != m_drag.initialValues.cend(); ++it)
        values.insert(it.key(), it.value() + sign * delta);
    return values;
}

void VTTimelineView::dragDropCursorStep(const QPointF& point)
{
    if (!pointInRect(point, visibleRect()))
        scrollWithMouseDrag(point.x());
    const int64_t timestamp = timestampWithPixel(point.x());
    if (m_delegate && m_delegate->respondsTo(Operation::currentPositionChanged))
        m_delegate->currentPositionChanged(timestamp, this);
    markForRedraw();
}

void VTTimelineView::rectSelectClipStep(const QPointF& point)
{
    m_selectionRect = makeRectWithPoint1(m_drag.startPoint, point);
    if (m_dataSource) {
        QStringList selection = m_dataSource->selections(this);
        bool changed = false;
        const uint64_t tracks = m_dataSource->numberOfTracks(this);
        for (uint64_t track = 0; track < tracks; ++track) {
            const uint64_t count = m_dataSource->numberOfClips(this, track);
            for (uint64_t index = 0; index < count; ++index) {
                const std::shared_ptr<VTTimelineClip> clip = m_dataSource->clipAtIndex(index, track, this);
                if (!clip)
                    continue;
                const QString identifier = clip->identifier();
                const bool touched = boundsOfClip(*clip, track).intersects(m_selectionRect);
                if (touched && !selection.contains(identifier)) {
                    selection.append(identifier);
                    changed = true;
                } else if (!touched && selection.removeAll(identifier) > 0) {
                    changed = true;
                }
            }
        }
        if (changed && m_delegate && m_delegate->respondsTo(Operation::selectionsChanged))
            m_delegate->selectionsChanged(selection, this);
    }
    markForRedraw();
}

void VTTimelineView::dragFadeStep(const QPointF& point)
{
    const bool fadeIn = m_drag.leading;
    const ValueDictionary values = shiftedValues(point, fadeIn ? 1 : -1);
    if (m_delegate) {
        if (fadeIn && m_delegate->respondsTo(Operation::fadeInDurationChanged))
            m_delegate->fadeInDurationChanged(values, this);
        else if (!fadeIn && m_delegate->respondsTo(Operation::fadeOutDurationChanged))
            m_delegate->fadeOutDurationChanged(values, this);
    }
    // The waveform textures show the fades.
    invalidateClipCachesWithIdentifiers(values.keys());
    markForRedraw();
    m_drag.changed = true;
}

void VTTimelineView::dragCutStep(const QPointF& point)
{
    const bool start = m_drag.leading;
    const ValueDictionary values = shiftedValues(point, 1);
    if (m_delegate) {
        if (start && m_delegate->respondsTo(Operation::cutAtStartClips))
            m_delegate->cutAtStartClips(values, this);
        else if (!start && m_delegate->respondsTo(Operation::cutAtEndClips))
            m_delegate->cutAtEndClips(values, this);
    }
    // A fade at the trimmed end moves with it, and so does its effect on the waveform.
    if (m_dataSource) {
        for (auto it = values.cbegin(); it != values.cend(); ++it) {
            const std::shared_ptr<VTTimelineClip> clip = m_dataSource->clipWithIdentifer(it.key(), this);
            if (clip && (start ? clip->fadeInValidate() : clip->fadeOutValidate()))
                invalidateClipCacheWithIdentifier(it.key());
        }
    }
    markForRedraw();
    m_drag.changed = true;
}

void VTTimelineView::dragMoveStep(const QPointF& point)
{
    const QRectF visible = visibleRect();
    const QRectF extended = extendRect(visible, kDragOutMargin, 0);
    m_drag.changed = true;
    if (pointInRect(point, visible)) {
        setViewportCursor(Qt::ClosedHandCursor);
        const ValueDictionary starts = shiftedValues(point, 1);
        if (m_delegate && m_delegate->respondsTo(Operation::timestampChanged))
            m_delegate->timestampChanged(starts, this);
        if (m_delegate && m_delegate->respondsTo(Operation::moveClipsTrack) && !m_drag.trackValues.isEmpty()) {
            const uint64_t current = trackIndexWithPoint(point);
            const auto [lowest, highest] = trackIndexRangeWithPropertyDictionary(m_drag.trackValues);
            const int64_t lastLane = int64_t(maxTrackCountSupport()) - 1;
            const int64_t start = int64_t(m_drag.startTrack);
            int64_t shift = 0;
            if (int64_t(current) > start) {
                const int64_t room = lastLane - int64_t(highest);
                shift = room > 0 ? std::min(int64_t(current) - start, room) : 0;
            } else if (int64_t(current) < start && lowest != 0) {
                shift = -std::min(start - int64_t(current), int64_t(lowest));
            }
            VTTimelineViewDelegate::TrackDictionary tracks;
            for (auto it = m_drag.trackValues.cbegin(); it != m_drag.trackValues.cend(); ++it)
                tracks.insert(it.key(), uint64_t(it.value() + shift));
            m_delegate->moveClipsTrack(tracks, this);
        }
        reloadData();
        return;
    }
    if (pointInRect(point, extended)) {
        scrollWithMouseDrag(point.x());
        if (m_delegate && m_delegate->respondsTo(Operation::timestampChanged))
            m_delegate->timestampChanged(shiftedValues(point, 1), this);
        return;
    }
    // Releasing here takes the clips out.
    setViewportCursor(Qt::ForbiddenCursor);
}

void VTTimelineView::dragMoveEnd(const QPointF& point)
{
    const QRectF extended = extendRect(visibleRect(), kDragOutMargin, 0);
    if (!pointInRect(point, extended) && m_delegate && m_delegate->respondsTo(Operation::dragOutClips)) {
        if (m_delegate->dragOutClips(m_drag.initialValues.keys(), this))
            reloadData();
        return;
    }
    if (m_drag.changed && m_delegate)
        m_delegate->timelineViewDidContinueChange(this, m_drag.attributes);
}

// --- Drop target ------------------------------------------------------------------

bool VTTimelineView::draggingEntered(const QMimeData* mimeData) const
{
    if (!mimeData)
        return false;
    const QStringList formats = mimeData->formats();
    return std::any_of(m_registeredDraggedTypes.cbegin(), m_registeredDraggedTypes.cend(),
                       [&](const QString& type) { return formats.contains(type); });
}

bool VTTimelineView::performDragOperation(const QMimeData& mimeData, const QPointF& point)
{
    if (!m_delegate || !m_delegate->respondsTo(Operation::dropOperationWithPasteboard))
        return false;
    const uint64_t tracks = m_dataSource ? m_dataSource->numberOfTracks(this) : 0;
    const uint64_t track = laneWithPoint(point, tracks).value_or(kNotFound);
    const int64_t timestamp = m_dataSource ? m_dataSource->currentPosition(this) : 0;
    return m_delegate->dropOperationWithPasteboard(mimeData, track, timestamp, this);
}
