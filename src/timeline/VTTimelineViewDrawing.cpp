// The view's drawing: lanes, clips with their waveform textures, titles and
// fade marks, the ruler, the play cursor and the rubber band, in y-up
// document coordinates over the visible rectangle. Runs inside paintGL, with
// the viewport's context current.
#include "timeline/VTTimelineView.h"

#include "timeline/GLSupport.h"
#include "timeline/KRGLUImage.h"
#include "timeline/KRGLUString.h"
#include "timeline/VTTimelineClipBatch.h"
#include "timeline/VTTimelineGLWidget.h"
#include "timeline/VTTimelineLanes.h"
#include "timeline/VTTimelineRuler.h"
#include "timeline/VTTimelineTextCache.h"
#include "timeline/VTWaveCache.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLFunctions_2_1>
#include <QPointer>
#include <QSurfaceFormat>

#include <algorithm>
#include <cmath>

namespace {

using brindle::timeline::kLaneHeight;
using brindle::timeline::kLanePitch;
using brindle::timeline::kRulerHeight;
constexpr double kClipRadius = 8;
constexpr double kTitleInset = 8;
constexpr double kSelectionWidth = 2;

using brindle::timeline::Colour;
using brindle::timeline::Corner;
using brindle::timeline::enableBlending;
using brindle::timeline::forEachArcPoint;

constexpr Colour grey(int value, float alpha = 1)
{
    return {value / 255.0f, value / 255.0f, value / 255.0f, alpha};
}
constexpr Colour kClearColour = grey(44);
constexpr Colour kLaneColour = grey(75);
constexpr Colour kRulerColour = grey(75);
constexpr Colour kTickColour = {0.2f, 0.2f, 0.2f, 1};
constexpr Colour kRulerLineColour = grey(31);
constexpr Colour kBodyTopColour = {180 / 255.0f, 181 / 255.0f, 188 / 255.0f, 1};
constexpr Colour kBodyBottomColour = {113 / 255.0f, 119 / 255.0f, 131 / 255.0f, 1};
constexpr Colour kOutlineColour = {0.2f, 0.2f, 0.2f, 1};
constexpr Colour kSelectionColour = {1, 1, 0, 1};
constexpr Colour kFadeColour = grey(92);
constexpr Colour kCursorBandColour = {1, 1, 1, 0.2f};
constexpr Colour kCursorLineColour = {227 / 255.0f, 11 / 255.0f, 32 / 255.0f, 1};
constexpr Colour kRubberBandColour = {1, 1, 0, 1};

void setColour(QOpenGLFunctions_2_1* gl, const Colour& colour)
{
    gl->glColor4f(colour.red, colour.green, colour.blue, colour.alpha);
}

void fillRect(QOpenGLFunctions_2_1* gl, const QRectF& rect)
{
    gl->glRectd(rect.x(), rect.y(), rect.x() + rect.width(), rect.y() + rect.height());
}

void line(QOpenGLFunctions_2_1* gl, double x0, double y0, double x1, double y1)
{
    gl->glBegin(GL_LINES);
    gl->glVertex2d(x0, y0);
    gl->glVertex2d(x1, y1);
    gl->glEnd();
}

// A texture over `rect`, horizontal texture coordinates s0…s1, vertical t0…t1.
void drawTexturedQuad(QOpenGLFunctions_2_1* gl, GLuint texture, const QRectF& rect, double s0, double s1,
                      double t0 = 0, double t1 = 1)
{
    if (texture == 0 || rect.width() <= 0 || rect.height() <= 0)
        return;
    gl->glEnable(GL_TEXTURE_2D);
    enableBlending(gl);
    gl->glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_REPLACE);
    gl->glBindTexture(GL_TEXTURE_2D, texture);
    const double left = rect.x(), right = rect.x() + rect.width();
    const double bottom = rect.y(), top = rect.y() + rect.height();
    gl->glBegin(GL_QUADS);
    gl->glTexCoord2d(s0, t0);
    gl->glVertex2d(left, bottom);
    gl->glTexCoord2d(s1, t0);
    gl->glVertex2d(right, bottom);
    gl->glTexCoord2d(s1, t1);
    gl->glVertex2d(right, top);
    gl->glTexCoord2d(s0, t1);
    gl->glVertex2d(left, top);
    gl->glEnd();
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    gl->glDisable(GL_TEXTURE_2D);
    gl->glDisable(GL_BLEND);
}

}  // namespace

double brindle::timeline::tickSpacing(double pointsPerSecond)
{
    const double step = 0.01 * pointsPerSecond;
    double spacing = pointsPerSecond / 100;
    if (spacing < 20)
        spacing = std::trunc(20 / step + 1) * step;
    if (spacing > 40) {
        const double steps = std::trunc(40 / step);
        spacing = step * (steps == 0 ? 1 : steps);
    }
    return spacing;
}

QSurfaceFormat VTTimelineView::defaultPixelFormat()
{
    static const QSurfaceFormat format = [] {
        QSurfaceFormat made;
        made.setRenderableType(QSurfaceFormat::OpenGL);
        made.setVersion(2, 1);
        made.setProfile(QSurfaceFormat::CompatibilityProfile);
        made.setRedBufferSize(8);
        made.setGreenBufferSize(8);
        made.setBlueBufferSize(8);
        made.setAlphaBufferSize(8);
        made.setDepthBufferSize(16);
        made.setSwapBehavior(QSurfaceFormat::DoubleBuffer);
        return made;
    }();
    return format;
}

void VTTimelineView::reshape()
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!gl)
        return;
    // Off-screen renders leave their own target bound; the widget's is never 0.
    if (QOpenGLFunctions* functions = brindle::gl::gl())
        functions->glBindFramebuffer(GL_FRAMEBUFFER, m_glWidget->defaultFramebufferObject());
    const QRectF visible = visibleRect();
    const double ratio = m_glWidget->devicePixelRatio();
    gl->glViewport(0, 0, GLsizei(std::lround(visible.width() * ratio)), GLsizei(std::lround(visible.height() * ratio)));
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glLoadIdentity();
    gl->glMatrixMode(GL_PROJECTION);
    gl->glLoadIdentity();
    gl->glOrtho(visible.x(), visible.x() + visible.width(), visible.y(), visible.y() + visible.height(), -1, 50);
    gl->glMatrixMode(GL_MODELVIEW);
    updateCursorTrackingArea();
}

KRGLUImage* VTTimelineView::cursorImage()
{
    if (!m_cursorImageLoaded && m_glWidget->context() && m_glWidget->isValid()) {
        withGLContext([this] { m_cursorImage = KRGLUImage::initWithImagePath(QStringLiteral(":/cursor.png")); });
        m_cursorImageLoaded = true;
    }
    return m_cursorImage.get();
}

void VTTimelineView::drawRect(const QRectF& dirtyRect)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!gl)
        return;
    reshape();
    gl->glDisable(GL_DEPTH_TEST);
    gl->glDisable(GL_TEXTURE_2D);
    gl->glDisable(GL_BLEND);
    gl->glLineWidth(1);
    gl->glClearColor(kClearColour.red, kClearColour.green, kClearColour.blue, 1);
    gl->glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);

    collectVisibleClips(dirtyRect);
    drawTrackBackground(dirtyRect);
    drawClips(dirtyRect);
    drawTicksmark(dirtyRect);
    drawPositionCursor(dirtyRect);

    if (!m_selectionRect.isEmpty()) {
        setColour(gl, kRubberBandColour);
        gl->glBegin(GL_LINE_LOOP);
        gl->glVertex2d(m_selectionRect.x(), m_selectionRect.y());
        gl->glVertex2d(m_selectionRect.x() + m_selectionRect.width(), m_selectionRect.y());
        gl->glVertex2d(m_selectionRect.x() + m_selectionRect.width(), m_selectionRect.y() + m_selectionRect.height());
        gl->glVertex2d(m_selectionRect.x(), m_selectionRect.y() + m_selectionRect.height());
        gl->glEnd();
    }
    m_textCache->endFrame();
    // The widget presents the frame when paintGL returns.
}

// The lanes that can meet the dirty rectangle: only those are looked at.
static std::pair<uint64_t, uint64_t> laneRange(double documentTop, const QRectF& dirtyRect, uint64_t laneCount)
{
    if (laneCount == 0)
        return {1, 0};
    // Lane i spans [top − 69 i − 87, top − 69 i − 19] in y.
    const double first =
        std::floor((documentTop - kRulerHeight - kLaneHeight - (dirtyRect.y() + dirtyRect.height())) / kLanePitch);
    const double last = std::ceil((documentTop - kRulerHeight - dirtyRect.y()) / kLanePitch);
    const double lastLane = double(laneCount - 1);
    if (last < 0 || first > lastLane)
        return {1, 0};
    return {uint64_t(std::max(first, 0.0)), uint64_t(std::min(last, lastLane))};
}

void VTTimelineView::collectVisibleClips(const QRectF& dirtyRect)
{
    m_visibleClips.clear();
    if (!m_dataSource)
        return;
    const uint64_t tracks = m_dataSource->numberOfTracks(this);
    if (tracks == 0)
        return;
    const auto [first, last] = laneRange(bounds().height(), dirtyRect, tracks);
    for (uint64_t track = first; track <= last && first <= last; ++track) {
        const uint64_t count = m_dataSource->numberOfClips(this, track);
        for (uint64_t index = 0; index < count; ++index) {
            std::shared_ptr<VTTimelineClip> clip = m_dataSource->clipAtIndex(index, track, this);
            if (!clip)
                continue;
            const QRectF box = boundsOfClip(*clip, track);
            if (box.intersects(dirtyRect))
                m_visibleClips.push_back(VisibleClip{std::move(clip), box, track});
        }
    }
}

void VTTimelineView::drawTrackBackground(const QRectF& dirtyRect)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    setColour(gl, kLaneColour);
    const auto [first, last] = laneRange(bounds().height(), dirtyRect, maxTrackCountSupport());
    for (uint64_t lane = first; lane <= last && first <= last; ++lane) {
        const QRectF fill = boundsOfTrack(lane).intersected(dirtyRect);
        if (!fill.isEmpty())
            fillLaneAroundClips(lane, fill);
    }
}

void VTTimelineView::fillLaneAroundClips(uint64_t track, const QRectF& fill)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    // The opaque middles of this lane's bodies, as x spans; all share one height.
    std::vector<std::pair<double, double>> middles;
    double low = 0, high = 0;
    for (const VisibleClip& visible : m_visibleClips) {
        if (visible.track != track)
            continue;
        const QRectF& box = visible.box;
        const double radius = brindle::timeline::VTTimelineClipBatch::bodyRadius(box);
        const double from = box.x() + radius, to = box.x() + box.width() - radius;
        if (to > from)
            middles.emplace_back(from, to);
        low = box.y();
        high = box.y() + box.height();
    }
    if (middles.empty()) {
        fillRect(gl, fill);
        return;
    }
    const double left = fill.x(), right = fill.x() + fill.width();
    const double bottom = fill.y(), top = fill.y() + fill.height();
    // Below and above the bodies, the whole width.
    if (bottom < low)
        gl->glRectd(left, bottom, right, std::min(low, top));
    if (top > high)
        gl->glRectd(left, std::max(high, bottom), right, top);
    const double bandLow = std::max(low, bottom), bandHigh = std::min(high, top);
    if (bandHigh <= bandLow)
        return;
    // Beside them, the gaps between the merged spans.
    std::sort(middles.begin(), middles.end());
    double x = left;
    for (const auto& [from, to] : middles) {
        if (from > x)
            gl->glRectd(x, bandLow, std::min(from, right), bandHigh);
        x = std::max(x, to);
        if (x >= right)
            return;
    }
    gl->glRectd(x, bandLow, right, bandHigh);
}

void VTTimelineView::drawClips(const QRectF& dirtyRect)
{
    if (!m_dataSource)
        return;
    m_clipBatch->clear();
    for (const VisibleClip& visible : m_visibleClips) {
        // A clip drawn over another one waits until those before it are drawn.
        const QRectF area = visible.box.adjusted(-kSelectionWidth, -kSelectionWidth, kSelectionWidth, kSelectionWidth);
        if (m_clipBatch->overlaps(area))
            flushClipBatch();
        m_clipBatch->addArea(area);
        drawClip(visible.clip, visible.box, dirtyRect);
        if (m_dataSource->selectedClip(visible.clip->identifier(), this))
            m_clipBatch->addSelection(visible.box);
    }
    flushClipBatch();
}

void VTTimelineView::flushClipBatch()
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!gl)
        return;
    m_clipBatch->flush(gl);
    setColour(gl, kSelectionColour);
    gl->glLineWidth(kSelectionWidth);
    for (const QRectF& box : m_clipBatch->selections())
        roundRect(box, kClipRadius, false);
    gl->glLineWidth(1);
    m_clipBatch->clear();
}

void VTTimelineView::drawClip(const std::shared_ptr<VTTimelineClip>& clip, const QRectF& withBounds,
                              const QRectF& dirtyRect)
{
    drawClipBackgroundWithBounds(withBounds, dirtyRect);

    const QRectF visible = rectForDrawWithBounds(withBounds, dirtyRect);
    const int64_t start = std::max(timestampWithPixel(visible.x()), clip->timestampsOfTrack());
    const int64_t length = std::min(timestampWithPixel(visible.width()), clip->durationOfTrack());
    const int64_t mediaStart = start - clip->timestampsOfTrack() + clip->timestampsOfDataProvider();
    VTWaveCache* cache = waveCacheForDrawing(clip, start, length);
    const auto [inkLow, inkHigh] = cache ? cache->inkedRows() : std::pair<double, double>();
    if (cache && cache->textureWidth() > 0 && cache->textureHeight() > 0 && inkHigh > inkLow) {
        const double width = double(cache->textureWidth());
        const double s0 = pixelWithTimestamp(mediaStart - cache->timestampsOfDataProvider()) / width;
        // The texture spans the box's height; only its inked rows are drawn
        // (the rest is transparent and would change no pixel).
        const double t0 = inkLow / cache->textureHeight(), t1 = inkHigh / cache->textureHeight();
        const QRectF inked(visible.x(), visible.y() + visible.height() * t0, visible.width(),
                           visible.height() * (t1 - t0));
        m_clipBatch->addWave(cache->textureID(), inked, s0, s0 + visible.width() / width, t0, t1);
    }

    drawClipFadeline(*clip, withBounds, dirtyRect);
    m_clipBatch->addRoundRectOutline(withBounds, kClipRadius, kOutlineColour);
    drawClipTitle(*clip, withBounds, dirtyRect);
}

void VTTimelineView::drawClipBackgroundWithBounds(const QRectF& bounds, const QRectF& /*dirtyRect*/)
{
    m_clipBatch->addBody(bounds, kBodyTopColour, kBodyBottomColour);
}

void VTTimelineView::drawClipFadeline(const VTTimelineClip& clip, const QRectF& withBounds, const QRectF& dirtyRect)
{
    const double bottom = withBounds.y(), top = withBounds.y() + withBounds.height();
    auto mark = [&](int64_t timestamp) {
        const double x = pixelWithTimestamp(timestamp);
        if (x >= dirtyRect.x() && x <= dirtyRect.x() + dirtyRect.width())
            m_clipBatch->addLine(x, bottom, x, top, kFadeColour);
    };
    if (clip.fadeInValidate())
        mark(clip.timestampsOfTrack() + clip.durationOfFadeIn());
    if (clip.fadeOutValidate())
        mark(clip.timestampsOfTrack() + clip.durationOfTrack() - clip.durationOfFadeOut());
}

void VTTimelineView::drawClipTitle(const VTTimelineClip& clip, const QRectF& withBounds, const QRectF& dirtyRect)
{
    const std::optional<QString> description = clip.description();
    if (!description || !m_dataSource)
        return;
    const QString identifier = clip.identifier();
    const VTTimelineTextCache::PlacedText* title =
        m_textCache->title(identifier, *description, m_dataSource->selectedClip(identifier, this));
    if (!title)
        return;
    const double width = title->texels.width(), height = title->texels.height();
    // Whole points keep the text sharp.
    const double left = std::round(withBounds.x() + kTitleInset);
    const double bottom = std::round(withBounds.y() + (withBounds.height() - height) / 2);
    const QRectF cut = rectForDrawWithBounds(withBounds, dirtyRect);
    const double from = std::max(left, cut.x());
    const double to = std::min(left + width, cut.x() + cut.width());
    if (to <= from)
        return;
    // The part of the text that is drawn, as coordinates in its atlas page.
    const double pageWidth = title->pageSize.width(), pageHeight = title->pageSize.height();
    m_clipBatch->addTitle(title->texture, QRectF(from, bottom, to - from, height),
                          (title->texels.x() + from - left) / pageWidth, (title->texels.x() + to - left) / pageWidth,
                          title->texels.y() / pageHeight, (title->texels.y() + height) / pageHeight);
}

void VTTimelineView::drawTicksmark(const QRectF& dirtyRect)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    QRectF ruler = boundsOfTicksmark();
    ruler.setX(dirtyRect.x());
    ruler.setWidth(dirtyRect.width());
    setColour(gl, kRulerColour);
    fillRect(gl, ruler);

    const double pointsPerSecond = 1000.0 / double(durationPerPixel());
    const double spacing = brindle::timeline::tickSpacing(pointsPerSecond);
    int64_t index = int64_t(std::trunc(std::trunc(dirtyRect.x()) / spacing));
    double x = double(index) * spacing;
    std::vector<double> ticks;
    while (x < dirtyRect.x() + dirtyRect.width()) {
        const bool major = index % 5 == 0;
        ticks.push_back(x);
        ticks.push_back(ruler.y() + 1);
        ticks.push_back(x);
        ticks.push_back(ruler.y() + (major ? 6 : 3));
        if (major) {
            const int64_t milliseconds = int64_t(std::trunc(x * 1000 / pointsPerSecond));
            KRGLUString* label = m_textCache->label(formatTimer(milliseconds));
            if (label && label->textureID() != 0) {
                const double width = label->textureWidth();
                // The label of time 0 starts at 0, so that it is not cut off.
                const double left = milliseconds == 0 ? 0.0 : std::round(x - width / 2);
                drawTexturedQuad(gl, label->textureID(),
                                 QRectF(left, ruler.y() + 7, width, label->textureHeight()), 0, 1);
            }
        }
        ++index;
        x = double(index) * spacing;
    }
    setColour(gl, kTickColour);
    gl->glBindBuffer(GL_ARRAY_BUFFER, 0);
    gl->glEnableClientState(GL_VERTEX_ARRAY);
    gl->glVertexPointer(2, GL_DOUBLE, 0, ticks.data());
    gl->glDrawArrays(GL_LINES, 0, GLsizei(ticks.size() / 2));
    gl->glDisableClientState(GL_VERTEX_ARRAY);

    gl->glEnable(GL_LINE_STIPPLE);
    setColour(gl, kRulerLineColour);
    line(gl, ruler.x(), ruler.y(), ruler.x() + ruler.width(), ruler.y());
    gl->glDisable(GL_LINE_STIPPLE);
}

void VTTimelineView::drawPositionCursor(const QRectF& dirtyRect)
{
    const double position = pixelWithTimestamp(m_dataSource ? m_dataSource->currentPosition(this) : 0);
    if (!(dirtyRect.x() - 6.5 < position && position < dirtyRect.x() + dirtyRect.width() + 6.5))
        return;
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    const QRectF visible = visibleRect();
    const double top = visible.y() + visible.height();
    enableBlending(gl);
    setColour(gl, kCursorBandColour);
    gl->glRectd(position - 1, visible.y(), position + 2, top - kRulerHeight + 3);
    gl->glDisable(GL_BLEND);
    setColour(gl, kCursorLineColour);
    line(gl, position, visible.y(), position, top - 16);
    if (KRGLUImage* image = cursorImage())
        drawTexturedQuad(gl, image->textureID(), boundsOfCursor(), 0, 1);
}

void VTTimelineView::roundRect(const QRectF& rect, double radius, bool needFill)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!gl)
        return;
    if (radius == 0) {
        fillRect(gl, rect);
        return;
    }
    const double width = rect.width(), height = rect.height();
    double r = radius;
    if (width < 2 * r)
        r = width / 2;
    if (height < 2 * r)
        r = height / 2;
    const double left = rect.x(), right = rect.x() + width;
    const double bottom = rect.y(), top = rect.y() + height;
    auto point = [gl](double x, double y) { gl->glVertex2d(x, y); };
    gl->glBegin(needFill ? GL_POLYGON : GL_LINE_LOOP);
    forEachArcPoint(Corner::topLeft, left + r, top - r, r, point);
    forEachArcPoint(Corner::topRight, right - r, top - r, r, point);
    forEachArcPoint(Corner::bottomRight, right - r, bottom + r, r, point);
    forEachArcPoint(Corner::bottomLeft, left + r, bottom + r, r, point);
    gl->glEnd();
}

// --- Waveform textures ------------------------------------------------------

VTWaveCache* VTTimelineView::waveCacheForDrawing(const std::shared_ptr<VTTimelineClip>& clip, int64_t visibleStart,
                                                 int64_t visibleLength)
{
    const QString identifier = clip->identifier();
    const uint64_t zoom = durationPerPixel();
    const int64_t mediaStart = visibleStart - clip->timestampsOfTrack() + clip->timestampsOfDataProvider();
    // The visible media stretch, as far as the clip goes.
    const int64_t mediaEnd =
        std::min(mediaStart + visibleLength, clip->timestampsOfDataProvider() + clip->durationOfTrack());
    std::shared_ptr<VTWaveCache> cache = m_clipsCaches.value(identifier);
    const bool covers = cache && cache->dpp() == zoom && cache->timestampsOfDataProvider() <= mediaStart
                        && mediaEnd <= cache->timestampsOfDataProvider() + cache->durationOfTrack();
    if (covers) {
        if (!cache->drawComplete()) {
            const VTWaveCache::FrameBufferPair frameBuffers =
                cache->beginDrawFBOWithTexture(cache->textureID(), cache->textureWidth(), cache->textureHeight());
            if (frameBuffers.frameBuffer != 0) {
                cache->drawWave();
                cache->endDrawFBO(frameBuffers);
            }
            cache->setDrawComplete(true);
            reshape();
        }
        return cache.get();
    }

    // Ask for half a screen more on either side, so that scrolling a little
    // keeps the texture; never more than the widest texture holds. A new
    // texture (a new clip in sight, a new zoom) asks from the visible start,
    // so that the points in sight, which come first, are not held up.
    const int64_t widest = (int64_t(VTWaveCache::maxTextureSize()) - 2) * int64_t(zoom);
    const int64_t room = std::max<int64_t>(widest - visibleLength, 0) / 2;
    const int64_t margin = std::min(timestampWithPixel(visibleRect().width() / 2), room);
    const int64_t requestStart = std::max(clip->timestampsOfTrack(), visibleStart - (cache ? margin : 0));
    const int64_t requestEnd = std::max(std::min(clip->timestampsOfTrack() + clip->durationOfTrack(),
                                                 visibleStart + visibleLength + margin),
                                        visibleStart);
    const int64_t requestLength = requestEnd - requestStart;
    if (cache) {
        cache->redrawWaveWithTimestamps(requestStart, requestLength, clip, zoom, waveArrivalHandler(cache));
    } else {
        cache = VTWaveCache::initWithClip(clip, zoom);
        setClipCache(cache, identifier);
        cache->drawWaveWithTimestamps(requestStart, requestLength, waveArrivalHandler(cache));
    }
    reshape();
    return cache.get();
}

std::function<void()> VTTimelineView::waveArrivalHandler(const std::shared_ptr<VTWaveCache>& cache)
{
    QPointer<VTTimelineView> view(this);
    std::weak_ptr<VTWaveCache> weakCache = cache;
    return [view, weakCache] {
        if (std::shared_ptr<VTWaveCache> arrived = weakCache.lock())
            arrived->setDrawComplete(false);
        if (view)
            view->markWaveformsForRedraw();
    };
}
