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
//   only sets the scroll bars' ranges: the viewport is a QOpenGLWidget that
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
#include <memory>
#include <optional>

class KRGLUImage;
class QOpenGLWidget;
class VTTimelineGLWidget;
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
    QOpenGLWidget* glWidget() const;

protected:
    void resizeEvent(QResizeEvent* event) override;
    void scrollContentsBy(int dx, int dy) override;
    bool viewportEvent(QEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;

private:
    friend class VTTimelineGLWidget;

    std::shared_ptr<VTTimelineViewDataSource> m_dataSource;
    VTTimelineViewDelegate* m_delegate = nullptr;
    uint64_t m_durationPerPixel = 0;
    QRectF m_frame;
    QRectF m_selectionRect;
    QStringList m_registeredDraggedTypes;
    std::shared_ptr<KRGLUImage> m_cursorImage;
    QHash<QString, std::shared_ptr<VTWaveCache>> m_clipsCaches;
    VTTimelineGLWidget* m_glWidget = nullptr;
};
