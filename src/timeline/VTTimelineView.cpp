// The view's set-up, zoom and geometry, document size and scrolling, the
// waveform cache dictionary, and the routing of the viewport's events.
#include "timeline/VTTimelineView.h"

#include "timeline/KRGLUImage.h"
#include "timeline/VTTimelineClipBatch.h"
#include "timeline/VTTimelineGLWidget.h"
#include "timeline/VTTimelineLanes.h"
#include "timeline/VTTimelineTextCache.h"
#include "timeline/VTWaveCache.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMouseEvent>
#include <QOpenGLContext>
#include <QScrollBar>
#include <QTimer>
#include <QWheelEvent>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>

namespace {

using brindle::timeline::kLaneHeight;
using brindle::timeline::kLanePitch;
using brindle::timeline::kRulerHeight;
constexpr double kClipInset = 4;
constexpr double kClipHeight = 60;
constexpr double kEdgeWidth = 8;
constexpr double kFadeHandleWidth = 8;
constexpr double kMaxExtraWidth = 400;
constexpr uint64_t kDefaultTrackLimit = 16;
constexpr uint64_t kDefaultDurationPerPixel = 45;
constexpr uint64_t kMinDurationPerPixel = 3;
constexpr uint64_t kMaxDurationPerPixel = 300;
// Pixels per scroll-bar step, and steps per wheel notch.
constexpr int kScrollStep = 20;
constexpr int kStepsPerNotch = 3;
// While waveform points stream in, the view shows them at most this often
// (milliseconds), so that redraws do not take the time the points need.
constexpr int kWaveformRedrawInterval = 40;

int scrollRange(double documentLength, int visibleLength)
{
    const double range = std::ceil(documentLength - visibleLength);
    return int(std::clamp(range, 0.0, double(INT_MAX / 2)));
}

}  // namespace

VTTimelineView::VTTimelineView(QWidget* parent) :
    QAbstractScrollArea(parent),
    m_textCache(std::make_unique<VTTimelineTextCache>()),
    m_clipBatch(std::make_unique<brindle::timeline::VTTimelineClipBatch>())
{
    m_glWidget = new VTTimelineGLWidget(this);
    QWidget* container = QWidget::createWindowContainer(m_glWidget, this);
    container->setFocusPolicy(Qt::NoFocus);
    m_glWidget->setEventTarget(container);
    setViewport(container);
    viewport()->setMouseTracking(true);
    viewport()->setAcceptDrops(true);
    setAcceptDrops(true);
    setFocusPolicy(acceptsFirstResponder() ? Qt::StrongFocus : Qt::NoFocus);
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    horizontalScrollBar()->setSingleStep(kScrollStep);
    verticalScrollBar()->setSingleStep(kScrollStep);
    setFrame(QRectF());
}

VTTimelineView::~VTTimelineView()
{
    m_glWidget->detachView();
    withGLContext([this] { releaseGLResources(); });
}

// --- Data source --------------------------------------------------------

void VTTimelineView::setDataSource(std::shared_ptr<VTTimelineViewDataSource> dataSource)
{
    m_dataSource = std::move(dataSource);
    clearClipCaches();
    reloadData();
}

// --- Zoom ---------------------------------------------------------------

uint64_t VTTimelineView::durationPerPixel()
{
    if (m_durationPerPixel == 0)
        m_durationPerPixel = kDefaultDurationPerPixel;
    else if (m_durationPerPixel < kMinDurationPerPixel)
        m_durationPerPixel = kMinDurationPerPixel;
    else if (m_durationPerPixel > kMaxDurationPerPixel)
        m_durationPerPixel = kMaxDurationPerPixel;
    return m_durationPerPixel;
}

double VTTimelineView::zoomValue()
{
    const double duration = double(durationPerPixel());
    if (duration == 45)
        return 0.5;
    if (duration < 45)
        return (45 - duration) / 84 + 0.5;
    return (duration - 45) / -510 + 0.5;
}

void VTTimelineView::setZoomValue(double zoomValue)
{
    const double zoom = std::isnan(zoomValue) ? 0.5 : std::clamp(zoomValue, 0.0, 1.0);
    double duration = 45;
    if (zoom < 0.5)
        duration = (0.5 - zoom) * 255 * 2 + 45;
    else if (zoom > 0.5)
        duration = (zoom - 0.5) * -42 * 2 + 45;
    m_durationPerPixel = uint64_t(duration);
    clearClipCaches();
    // The document's width follows the zoom.
    reloadData();
}

double VTTimelineView::pixelWithTimestamp(int64_t timestamp)
{
    return double(timestamp) / double(durationPerPixel());
}

int64_t VTTimelineView::timestampWithPixel(double pixel)
{
    const double timestamp = double(durationPerPixel()) * pixel;
    if (std::isnan(timestamp))
        return 0;
    // Beyond the 64-bit range the value saturates instead of overflowing.
    if (timestamp >= 9.2e18)
        return std::numeric_limits<int64_t>::max();
    if (timestamp <= -9.2e18)
        return std::numeric_limits<int64_t>::min();
    return int64_t(timestamp);
}

// --- Document size ------------------------------------------------------

uint64_t VTTimelineView::maxTrackCountSupport()
{
    if (!m_dataSource)
        return kDefaultTrackLimit;
    return m_dataSource->maxNumberOfTracksAllowed(this).value_or(kDefaultTrackLimit);
}

double VTTimelineView::maxHeight()
{
    return (double(maxTrackCountSupport()) + 1) * kLaneHeight + kRulerHeight;
}

double VTTimelineView::needHeight()
{
    if (!m_dataSource)
        return kLaneHeight + kRulerHeight;
    return (double(m_dataSource->numberOfTracks(this)) + 1) * kLaneHeight + kRulerHeight;
}

double VTTimelineView::needWidth()
{
    const double duration = m_dataSource ? pixelWithTimestamp(m_dataSource->duration(this)) : 0;
    return std::max(duration, 0.0) + std::min(viewport()->width() / 3.0, kMaxExtraWidth);
}

void VTTimelineView::setFrame(const QRectF& frame)
{
    const QSize visible = viewport()->size();
    m_frame = QRectF(frame.topLeft(), QSizeF(std::max(needWidth(), double(visible.width())),
                                             std::max(needHeight(), double(visible.height()))));
    updateScrollBars();
    updateCursorTrackingArea();
}

void VTTimelineView::reloadData()
{
    setFrame(QRectF());
    markForRedraw();
}

QRectF VTTimelineView::bounds() const
{
    return QRectF(0, 0, m_frame.width(), m_frame.height());
}

QRectF VTTimelineView::visibleRect() const
{
    const QSize visible = viewport()->size();
    const double top = m_frame.height() - verticalScrollBar()->value();
    return QRectF(horizontalScrollBar()->value(), top - visible.height(), visible.width(), visible.height());
}

QPointF VTTimelineView::pointWithViewportPosition(const QPointF& position) const
{
    const QRectF visible = visibleRect();
    return QPointF(visible.x() + position.x(), visible.y() + visible.height() - position.y());
}

void VTTimelineView::updateScrollBars()
{
    const QSize visible = viewport()->size();
    QScrollBar* horizontal = horizontalScrollBar();
    horizontal->setPageStep(std::max(visible.width(), 1));
    horizontal->setRange(0, scrollRange(m_frame.width(), visible.width()));
    QScrollBar* vertical = verticalScrollBar();
    vertical->setPageStep(std::max(visible.height(), 1));
    vertical->setRange(0, scrollRange(m_frame.height(), visible.height()));
}

void VTTimelineView::updateCursorTrackingArea()
{
    // Qt delivers moves over the whole viewport once tracking is on.
    viewport()->setMouseTracking(true);
}

void VTTimelineView::scrollPoint(const QPointF& point)
{
    const double fromTop = m_frame.height() - point.y() - viewport()->height();
    horizontalScrollBar()->setValue(int(std::lround(std::clamp(point.x(), 0.0, double(INT_MAX / 2)))));
    verticalScrollBar()->setValue(int(std::lround(std::clamp(fromTop, 0.0, double(INT_MAX / 2)))));
}

void VTTimelineView::scrollWithMouseDrag(double x)
{
    const QRectF visible = visibleRect();
    if (x < visible.x())
        scrollPoint(QPointF(std::max(0.0, x - 6), visible.y()));
    else if (x > visible.x() + visible.width())
        scrollPoint(QPointF(visible.x() + (x - (visible.x() + visible.width())) + 6, visible.y()));
}

void VTTimelineView::scrollToTimestamp(int64_t timestamp)
{
    const QRectF visible = visibleRect();
    const int64_t start = timestampWithPixel(visible.x());
    const int64_t span = timestampWithPixel(visible.width());
    if (start <= timestamp && timestamp < start + span)
        return;
    scrollPoint(QPointF(std::max(0.0, pixelWithTimestamp(timestamp) - visible.width() / 3), visible.y()));
}

void VTTimelineView::registerForDraggedTypes(const QStringList& types)
{
    for (const QString& type : types) {
        if (!m_registeredDraggedTypes.contains(type))
            m_registeredDraggedTypes.append(type);
    }
}

void VTTimelineView::markForRedraw()
{
    m_glWidget->update();
}

void VTTimelineView::markWaveformsForRedraw()
{
    if (m_waveformRedrawPending)
        return;
    m_waveformRedrawPending = true;
    QTimer::singleShot(kWaveformRedrawInterval, this, [this] {
        m_waveformRedrawPending = false;
        markForRedraw();
    });
}

// --- Waveform caches ----------------------------------------------------

std::shared_ptr<VTWaveCache> VTTimelineView::clipCacheWithIdentifier(const QString& identifier) const
{
    return m_clipsCaches.value(identifier);
}

void VTTimelineView::setClipCache(std::shared_ptr<VTWaveCache> cache, const QString& withIdentifier)
{
    if (m_clipsCaches.isEmpty())
        m_clipsCaches.reserve(4);
    m_clipsCaches.insert(withIdentifier, std::move(cache));
}

void VTTimelineView::invalidateClipCacheWithIdentifier(const QString& identifier)
{
    if (!m_clipsCaches.contains(identifier))
        return;
    withGLContext([&] { m_clipsCaches.remove(identifier); });
    markForRedraw();
}

void VTTimelineView::invalidateClipCachesWithIdentifiers(const QStringList& identifiers)
{
    withGLContext([&] {
        for (const QString& identifier : identifiers)
            m_clipsCaches.remove(identifier);
    });
    markForRedraw();
}

void VTTimelineView::clearClipCaches()
{
    if (m_clipsCaches.isEmpty())
        return;
    withGLContext([this] { m_clipsCaches.clear(); });
    markForRedraw();
}

void VTTimelineView::withGLContext(const std::function<void()>& work)
{
    QOpenGLContext* context = m_glWidget->context();
    if (!context || !m_glWidget->isValid() || QOpenGLContext::currentContext() == context) {
        work();
        return;
    }
    m_glWidget->makeCurrent();
    work();
    m_glWidget->doneCurrent();
}

void VTTimelineView::releaseGLResources()
{
    m_clipsCaches.clear();
    m_textCache->clear();
    m_cursorImage.reset();
    m_cursorImageLoaded = false;
}

QImage VTTimelineView::grabFramebuffer()
{
    return m_glWidget->renderAndGrab();
}

QOpenGLWindow* VTTimelineView::glWidget() const
{
    return m_glWidget;
}

// --- Events ---------------------------------------------------------------

void VTTimelineView::resizeEvent(QResizeEvent* /*event*/)
{
    setFrame(m_frame);
}

void VTTimelineView::scrollContentsBy(int /*dx*/, int /*dy*/)
{
    markForRedraw();
}

void VTTimelineView::wheelEvent(QWheelEvent* event)
{
    event->accept();
    if (m_drag.kind != DragState::Kind::none)
        return;
    QPoint delta = event->pixelDelta();
    if (delta.isNull())
        delta = event->angleDelta() * (kScrollStep * kStepsPerNotch) / 120;
    const bool horizontal = (event->modifiers() & Qt::ShiftModifier) || std::abs(delta.x()) > std::abs(delta.y());
    if (horizontal) {
        const int amount = delta.x() != 0 ? delta.x() : delta.y();
        horizontalScrollBar()->setValue(horizontalScrollBar()->value() - amount);
    } else {
        verticalScrollBar()->setValue(verticalScrollBar()->value() - delta.y());
    }
}

bool VTTimelineView::viewportEvent(QEvent* event)
{
    switch (event->type()) {
    case QEvent::Paint:
        // The viewport paints itself through paintGL.
        return false;
    case QEvent::Resize:
        QAbstractScrollArea::viewportEvent(event);
        // The GL widget resizes its own frame buffer too.
        return false;
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() == Qt::LeftButton && m_drag.kind == DragState::Kind::none)
            mouseDown(pointWithViewportPosition(mouse->position()), mouse->modifiers());
        return true;
    }
    case QEvent::MouseMove: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (m_drag.kind != DragState::Kind::none)
            mouseDragged(pointWithViewportPosition(mouse->position()));
        else
            mouseMoved(pointWithViewportPosition(mouse->position()), mouse->buttons());
        return true;
    }
    case QEvent::MouseButtonRelease: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() == Qt::LeftButton && m_drag.kind != DragState::Kind::none)
            mouseUp(pointWithViewportPosition(mouse->position()));
        return true;
    }
    case QEvent::DragEnter:
    case QEvent::DragMove: {
        auto* drag = static_cast<QDragMoveEvent*>(event);
        if (draggingEntered(drag->mimeData())) {
            drag->setDropAction(Qt::CopyAction);
            drag->accept();
        } else {
            drag->ignore();
        }
        return true;
    }
    case QEvent::Drop: {
        auto* drop = static_cast<QDropEvent*>(event);
        const bool accepted = drop->mimeData() && draggingEntered(drop->mimeData())
                              && performDragOperation(*drop->mimeData(), pointWithViewportPosition(drop->position()));
        if (accepted) {
            drop->setDropAction(Qt::CopyAction);
            drop->accept();
        } else {
            drop->ignore();
        }
        return true;
    }
    default:
        return QAbstractScrollArea::viewportEvent(event);
    }
}

// --- Element rectangles -----------------------------------------------------

QRectF VTTimelineView::boundsOfTrack(uint64_t trackIndex)
{
    const QRectF whole = bounds();
    const double y = whole.y() + whole.height() - ((double(trackIndex) + 1) * kLanePitch + kRulerHeight - 1);
    return QRectF(whole.x(), y, whole.width(), kLaneHeight);
}

QRectF VTTimelineView::boundsOfTicksmark()
{
    const QRectF whole = bounds();
    const QRectF visible = visibleRect();
    return QRectF(whole.x(), visible.y() + visible.height() - kRulerHeight, whole.width(), kRulerHeight);
}

QRectF VTTimelineView::boundsOfCursor()
{
    const double position = pixelWithTimestamp(m_dataSource ? m_dataSource->currentPosition(this) : 0);
    KRGLUImage* image = cursorImage();
    const double width = image ? double(image->textureWidth()) : 0;
    const double height = image ? double(image->textureHeight()) : 0;
    const QRectF visible = visibleRect();
    return QRectF(position - width / 2 + 0.5, visible.y() + visible.height() - kRulerHeight + 3, width, height);
}

QRectF VTTimelineView::boundsOfClip(const VTTimelineClip& clip, uint64_t atTrackIndex)
{
    if (clip.durationOfTrack() == 0)
        return QRectF();
    const QRectF lane = boundsOfTrack(atTrackIndex);
    return QRectF(pixelWithTimestamp(clip.timestampsOfTrack()), lane.y() + kClipInset,
                  pixelWithTimestamp(clip.durationOfTrack()), kClipHeight);
}

QRectF VTTimelineView::boundsOfClipFadeIn(const VTTimelineClip& clip, uint64_t atTrackIndex)
{
    if (!clip.fadeInValidate())
        return QRectF();
    const QRectF lane = boundsOfTrack(atTrackIndex);
    const double x = pixelWithTimestamp(clip.timestampsOfTrack() + clip.durationOfFadeIn()) - kFadeHandleWidth / 2;
    return QRectF(x, lane.y() + kClipInset, kFadeHandleWidth, kClipHeight);
}

QRectF VTTimelineView::boundsOfClipFadeOut(const VTTimelineClip& clip, uint64_t atTrackIndex)
{
    if (!clip.fadeOutValidate())
        return QRectF();
    const QRectF lane = boundsOfTrack(atTrackIndex);
    const double x = pixelWithTimestamp(clip.timestampsOfTrack() + clip.durationOfTrack() - clip.durationOfFadeOut())
                     - kFadeHandleWidth / 2;
    return QRectF(x, lane.y() + kClipInset, kFadeHandleWidth, kClipHeight);
}

QRectF VTTimelineView::leftEdgeWithRect(const QRectF& rect)
{
    return QRectF(rect.x(), rect.y(), kEdgeWidth, rect.height());
}

QRectF VTTimelineView::rightEdgeWithRect(const QRectF& rect)
{
    return QRectF(rect.x() + rect.width() - kEdgeWidth, rect.y(), kEdgeWidth, rect.height());
}

uint64_t VTTimelineView::trackIndexWithPoint(const QPointF& point)
{
    const QRectF whole = bounds();
    const double fromTop = whole.y() + whole.height() - point.y();
    if (fromTop <= kRulerHeight)
        return 0;
    const double lane = std::trunc((fromTop - kRulerHeight) / kLanePitch);
    const uint64_t limit = maxTrackCountSupport();
    if (limit == 0)
        return 0;
    if (!(lane < double(limit)))
        return limit - 1;
    return uint64_t(lane);
}

QRectF VTTimelineView::extendRect(const QRectF& rect, double withDeltaX, double deltaY)
{
    if ((withDeltaX < 0 && -2 * withDeltaX >= rect.width()) || (deltaY < 0 && -2 * deltaY >= rect.height()))
        return QRectF();
    return QRectF(rect.x() - withDeltaX, rect.y() - deltaY, rect.width() + 2 * withDeltaX,
                  rect.height() + 2 * deltaY);
}

QRectF VTTimelineView::rectForDrawWithBounds(const QRectF& bounds, const QRectF& dirtyRect)
{
    const double left = std::max(bounds.left(), dirtyRect.left());
    const double right = std::min(bounds.right(), dirtyRect.right());
    if (right <= left)
        return QRectF(left, bounds.y(), 0, bounds.height());
    return QRectF(left, bounds.y(), right - left + 0.5, bounds.height());
}

QRectF VTTimelineView::makeRectWithPoint1(const QPointF& point1, const QPointF& point2)
{
    return QRectF(std::min(point1.x(), point2.x()), std::min(point1.y(), point2.y()),
                  std::fabs(point1.x() - point2.x()), std::fabs(point1.y() - point2.y()));
}

QString VTTimelineView::formatTimer(int64_t timestamp)
{
    const uint64_t milliseconds = uint64_t(timestamp);
    const uint64_t seconds = milliseconds / 1000;
    return QString::asprintf("%02llu:%02llu:%02llu.%02llu", static_cast<unsigned long long>(seconds / 3600),
                             static_cast<unsigned long long>((seconds / 60) % 60),
                             static_cast<unsigned long long>(seconds % 60),
                             static_cast<unsigned long long>((milliseconds % 1000) / 10));
}
