// The editor's main view: track lanes under a time ruler, each clip as a
// rounded box with its waveform, title and fade marks, the play cursor, and
// the rubber-band rectangle; and every mouse gesture turned into calls to
// its delegate.
//
// Contract
// - Everything shown comes from the data source; every change goes to the
//   delegate. The view never edits the model.
// - Geometry is in y-up document coordinates: the origin is the bottom left
//   of the whole (virtual) document, whose size is `bounds()`. Lane i's top
//   edge lies 19 + 69 i points below the document's top. The document size
//   only sets the scroll bars' ranges: the viewport holds a GL window that
//   renders the visible rectangle, nothing more. Qt's y-down positions are
//   converted once, where mouse events, scroll offsets and the viewport
//   rectangle come in.
// - Zoom: `zoomValue` in [0, 1] maps piecewise linearly onto
//   `durationPerPixel` (ms per point): 0 → 300, 0.5 → 45, 1 → 3.
// - Waveforms: one VTWaveCache (texture) per clip per zoom, kept under the
//   clip's Identifier until invalidated or the zoom changes.
// - Threads: main thread only. GL work runs only with the viewport's context
//   current; feature samples arriving on other threads never touch GL.
// - Lifetime: the delegate is not owned and must outlive the view or be
//   cleared first; the data source is held strongly.
#pragma once

#include "timeline/VTTimelineViewDelegate.h"
#include "waveform/VTTimelineViewDataSource.h"

#include <QAbstractScrollArea>
#include <QHash>
#include <QImage>
#include <QPointF>
#include <QRectF>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

class KRGLUImage;
class QMimeData;
class QSurfaceFormat;
class QOpenGLWindow;
class VTTimelineGLWidget;
class VTTimelineTextCache;
namespace brindle::timeline {
class VTTimelineClipBatch;
}
class VTWaveCache;

class VTTimelineView : public QAbstractScrollArea {
    Q_OBJECT
public:
    // Property types of `initialValuesWithPropertyType`.
    enum PropertyType : int {
        kPropertyFadeIn = 0,
        kPropertyFadeOut = 1,
        kPropertyDurationOfTrack = 2,
        kPropertyTimestampsOfTrack = 3,
        kPropertyTrackIndex = 4,
    };

    explicit VTTimelineView(QWidget* parent = nullptr);
    ~VTTimelineView() override;

    // Data source and delegate.
    const std::shared_ptr<VTTimelineViewDataSource>& dataSource() const { return m_dataSource; }
    void setDataSource(std::shared_ptr<VTTimelineViewDataSource> dataSource);
    VTTimelineViewDelegate* delegate() const { return m_delegate; }
    void setDelegate(VTTimelineViewDelegate* delegate) { m_delegate = delegate; }

    // Zoom.
    uint64_t durationPerPixel();
    double zoomValue();
    void setZoomValue(double zoomValue);
    double pixelWithTimestamp(int64_t timestamp);
    int64_t timestampWithPixel(double pixel);

    // Document size.
    uint64_t maxTrackCountSupport();
    double maxHeight();
    double needHeight();
    double needWidth();
    // Keeps the origin; sizes the document from the data source and the viewport.
    void setFrame(const QRectF& frame);
    void reloadData();
    // The whole document and the part of it that is shown, y-up.
    QRectF bounds() const;
    QRectF visibleRect() const;
    // Scrolls so that the visible rectangle's origin becomes `point` (y-up),
    // within the scroll ranges.
    void scrollPoint(const QPointF& point);

    // Waveform texture caches by clip Identifier.
    std::shared_ptr<VTWaveCache> clipCacheWithIdentifier(const QString& identifier) const;
    void setClipCache(std::shared_ptr<VTWaveCache> cache, const QString& withIdentifier);
    void invalidateClipCacheWithIdentifier(const QString& identifier);
    void invalidateClipCachesWithIdentifiers(const QStringList& identifiers);
    void clearClipCaches();

    // Element rectangles (y-up document coordinates).
    QRectF boundsOfTrack(uint64_t trackIndex);
    QRectF boundsOfTicksmark();
    QRectF boundsOfCursor();
    QRectF boundsOfClip(const VTTimelineClip& clip, uint64_t atTrackIndex);
    QRectF boundsOfClipFadeIn(const VTTimelineClip& clip, uint64_t atTrackIndex);
    QRectF boundsOfClipFadeOut(const VTTimelineClip& clip, uint64_t atTrackIndex);
    static QRectF leftEdgeWithRect(const QRectF& rect);
    static QRectF rightEdgeWithRect(const QRectF& rect);
    uint64_t trackIndexWithPoint(const QPointF& point);
    static QRectF extendRect(const QRectF& rect, double withDeltaX, double deltaY);
    static QRectF rectForDrawWithBounds(const QRectF& bounds, const QRectF& dirtyRect);
    static QRectF makeRectWithPoint1(const QPointF& point1, const QPointF& point2);
    // The ruler's text of a Timestamp: "HH:MM:SS.hh".
    static QString formatTimer(int64_t timestamp);

    // Interaction helpers the owner uses.
    // Scrolls so that `timestamp` is visible (a third of the width from the left).
    void scrollToTimestamp(int64_t timestamp);
    void scrollWithMouseDrag(double x);
    // The MIME types of drops the view offers to its delegate (the owner
    // registers "text/uri-list").
    void registerForDraggedTypes(const QStringList& types);
    QStringList registeredDraggedTypes() const { return m_registeredDraggedTypes; }

    // The rubber band while one is dragged; empty otherwise.
    QRectF selectionRect() const { return m_selectionRect; }

    // The rendered viewport as an image (for tests and screenshots).
    QImage grabFramebuffer();
    QOpenGLWindow* glWidget() const;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    bool viewportEvent(QEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    friend class VTTimelineGLWidget;
    using ValueDictionary = VTTimelineViewDelegate::ValueDictionary;

    // A gesture between a left-button press and its release: the modal drag
    // loops as a state machine. Each step computes from the start point and
    // the initial values only.
    struct DragState {
        enum class Kind { none, cursor, rubberBand, fade, cut, move };
        Kind kind = Kind::none;
        QPointF startPoint;
        ValueDictionary initialValues;
        // Move: the clips' track indexes when the drag began, and the lane under the start.
        ValueDictionary trackValues;
        uint64_t startTrack = 0;
        VTTimelineViewDelegate::Attributes attributes;
        // Fade: the fade-in handle (else fade-out). Trim: the start (else the end).
        bool leading = false;
        bool changed = false;
    };

    // --- VTTimelineView.cpp: positions, frame, scrolling, caches, events.
    // A viewport position (Qt pixels, y down) in document points (y up).
    QPointF pointWithViewportPosition(const QPointF& position) const;
    void updateScrollBars();
    void updateCursorTrackingArea();
    bool acceptsFirstResponder() const { return true; }
    void markForRedraw();
    // A redraw for newly arrived waveform points, at most one per interval.
    void markWaveformsForRedraw();
    // Runs `work` with the viewport's context current (when it has one), for
    // freeing GL names outside a paint.
    void withGLContext(const std::function<void()>& work);
    // Frees every texture and frame buffer made with the viewport's context
    // (called with that context current).
    void releaseGLResources();

    // A clip of the redraw under way, with its box and track.
    struct VisibleClip {
        std::shared_ptr<VTTimelineClip> clip;
        QRectF box;
        uint64_t track = 0;
    };

    // --- VTTimelineViewDrawing.cpp: drawing, with the viewport's context current.
    static QSurfaceFormat defaultPixelFormat();
    // Viewport and projection over the visible rectangle (GL = document coordinates).
    void reshape();
    KRGLUImage* cursorImage();
    void drawRect(const QRectF& dirtyRect);
    // The clips whose boxes meet the dirty rectangle, in drawing order.
    void collectVisibleClips(const QRectF& dirtyRect);
    // Fills lane `track` within `fill`, leaving out the opaque middles of its
    // visible clip bodies (drawn over it anyway).
    void fillLaneAroundClips(uint64_t track, const QRectF& fill);
    void drawTrackBackground(const QRectF& dirtyRect);
    void drawClips(const QRectF& dirtyRect);
    void drawClip(const std::shared_ptr<VTTimelineClip>& clip, const QRectF& withBounds, const QRectF& dirtyRect);
    void drawClipBackgroundWithBounds(const QRectF& bounds, const QRectF& dirtyRect);
    void drawClipFadeline(const VTTimelineClip& clip, const QRectF& withBounds, const QRectF& dirtyRect);
    void drawClipTitle(const VTTimelineClip& clip, const QRectF& withBounds, const QRectF& dirtyRect);
    void drawTicksmark(const QRectF& dirtyRect);
    void drawPositionCursor(const QRectF& dirtyRect);
    static void roundRect(const QRectF& rect, double radius, bool needFill);
    // Draws the clips collected so far, layer by layer, then their selection outlines.
    void flushClipBatch();
    // The clip's waveform cache, made, re-requested or rendered as its
    // visible stretch needs; null when the clip has none.
    VTWaveCache* waveCacheForDrawing(const std::shared_ptr<VTTimelineClip>& clip, int64_t visibleStart,
                                     int64_t visibleLength);
    // The process block of a wave request: re-render on the next redraw.
    std::function<void()> waveArrivalHandler(const std::shared_ptr<VTWaveCache>& cache);

    // --- VTTimelineViewInteraction.cpp: mouse, cursor shapes, drops.
    void mouseDown(const QPointF& point, Qt::KeyboardModifiers modifiers);
    void mouseDragged(const QPointF& point);
    void mouseUp(const QPointF& point);
    void mouseMoved(const QPointF& point, Qt::MouseButtons buttons);
    void cursorUpdate(const QPointF& point, bool leftButtonDown);
    // The first of `laneCount` lanes whose bounds hold the point (at most one does).
    std::optional<uint64_t> laneWithPoint(const QPointF& point, uint64_t laneCount);
    // Hit-test and click selection: the Identifier of the clip under the
    // point (the topmost), with its track index.
    std::optional<QString> clipIdentiferWithMouseDown(const QPointF& point, Qt::KeyboardModifiers modifiers,
                                                      uint64_t* trackIndex);
    ValueDictionary initialValuesWithPropertyType(int propertyType);
    static std::pair<uint64_t, uint64_t> trackIndexRangeWithPropertyDictionary(const ValueDictionary& values);
    void dragDropCursorWithStartPoint(const QPointF& startPoint);
    void rectSelectClipWithStartPoint(const QPointF& startPoint);
    void dragFadeWithStartPoint(const QPointF& startPoint, const ValueDictionary& initialValues, bool fadeIn);
    void dragCutWithStartPoint(const QPointF& startPoint, const ValueDictionary& initialValues, bool start);
    void dragMoveWithStartPoint(const QPointF& startPoint, const ValueDictionary& initialValues);
    void mouseDownAtTickmark(double x);
    void dragDropCursorStep(const QPointF& point);
    void rectSelectClipStep(const QPointF& point);
    void dragFadeStep(const QPointF& point);
    void dragCutStep(const QPointF& point);
    void dragMoveStep(const QPointF& point);
    void dragMoveEnd(const QPointF& point);
    // The new values of a fade, trim or move step: initial + sign × Δ.
    ValueDictionary shiftedValues(const QPointF& point, int sign);
    void setViewportCursor(Qt::CursorShape shape);
    bool draggingEntered(const QMimeData* mimeData) const;
    bool performDragOperation(const QMimeData& mimeData, const QPointF& point);

    std::shared_ptr<VTTimelineViewDataSource> m_dataSource;
    VTTimelineViewDelegate* m_delegate = nullptr;
    uint64_t m_durationPerPixel = 0;
    QRectF m_frame;
    QRectF m_selectionRect;
    QStringList m_registeredDraggedTypes;
    std::shared_ptr<KRGLUImage> m_cursorImage;
    // The cursor image was looked for with the current context (it may be missing).
    bool m_cursorImageLoaded = false;
    QHash<QString, std::shared_ptr<VTWaveCache>> m_clipsCaches;
    std::unique_ptr<VTTimelineTextCache> m_textCache;
    // The clips of the redraw under way (drawClip adds to it).
    std::unique_ptr<brindle::timeline::VTTimelineClipBatch> m_clipBatch;
    std::vector<VisibleClip> m_visibleClips;
    DragState m_drag;
    bool m_waveformRedrawPending = false;
    VTTimelineGLWidget* m_glWidget = nullptr;
};
