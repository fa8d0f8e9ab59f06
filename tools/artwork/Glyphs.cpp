#include "Glyphs.h"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace artwork {

namespace {

QImage transparentImage(int width, int height)
{
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    return image;
}

// The handle's outline in pixel-centre coordinates of a 13 x 14 grid: a
// rounded top, straight sides down to the shoulder, then a point at the
// bottom of the middle column.
QPainterPath cursorHandlePath()
{
    QPainterPath path;
    path.moveTo(0.5, 2.5);
    path.quadTo(0.5, 0.5, 2.5, 0.5);
    path.lineTo(10.5, 0.5);
    path.quadTo(12.5, 0.5, 12.5, 2.5);
    path.lineTo(12.5, 7.5);
    path.lineTo(6.5, 13.5);
    path.lineTo(0.5, 7.5);
    path.closeSubpath();
    return path;
}

const QColor kGlyphColor(234, 234, 234);
const QColor kGlyphShadow(0, 0, 0, 110);

// Draws `shape` (on a 24-unit grid) filled and with rounded corners, over a
// soft one-unit drop shadow that keeps it legible on a light button face too.
QImage drawGlyph(int size, const QPainterPath& shape)
{
    QImage image = transparentImage(size, size);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / 24.0, size / 24.0);
    const QPen roundedEdge(Qt::black, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);

    painter.save();
    painter.translate(0, 0.8);
    QPen shadowPen = roundedEdge;
    shadowPen.setColor(kGlyphShadow);
    painter.setPen(shadowPen);
    painter.setBrush(kGlyphShadow);
    painter.drawPath(shape);
    painter.restore();

    QPen glyphPen = roundedEdge;
    glyphPen.setColor(kGlyphColor);
    painter.setPen(glyphPen);
    painter.setBrush(kGlyphColor);
    painter.drawPath(shape);
    return image;
}

// One clip of the icon: a rounded box in `color` with a waveform overview in
// a darker tone of the same colour. `seed` varies the waveform per lane.
void drawIconClip(QPainter& painter, const QRectF& box, const QColor& color, double seed)
{
    QLinearGradient fill(box.topLeft(), box.bottomLeft());
    fill.setColorAt(0.0, color.lighter(112));
    fill.setColorAt(1.0, color);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(box, 9, 9);

    // A mirrored envelope: a slow swell times a faster beat, sampled every
    // two design units, so it reads as audio at 48 pixels as well as at 256.
    const double centre = box.center().y();
    const double maxAmplitude = box.height() * 0.36;
    QPolygonF upper;
    QPolygonF lower;
    for (double x = box.left() + 6; x <= box.right() - 6; x += 2.0) {
        const double u = (x - box.left()) / box.width();
        const double swell = 0.35 + 0.65 * std::sin(std::numbers::pi * u);
        const double beat = 0.55 + 0.45 * std::fabs(std::sin(x * 0.21 + seed) * std::cos(x * 0.067 + 2 * seed));
        const double amplitude = std::max(1.2, maxAmplitude * swell * beat);
        upper << QPointF(x, centre - amplitude);
        lower.prepend(QPointF(x, centre + amplitude));
    }
    painter.setBrush(color.darker(185));
    painter.drawPolygon(upper + lower);
}

}  // namespace

QImage drawCursorHandle()
{
    QImage image = transparentImage(13, 14);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient fill(0, 0, 0, 14);
    fill.setColorAt(0.0, QColor(246, 74, 88));
    fill.setColorAt(0.6, cursorLineColor());
    painter.setBrush(fill);
    painter.setPen(QPen(QColor(255, 238, 238, 235), 1.0, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin));
    painter.drawPath(cursorHandlePath());
    return image;
}

QImage drawPlayGlyph(int size)
{
    QPainterPath triangle;
    triangle.moveTo(8.0, 5.5);
    triangle.lineTo(18.5, 12.0);
    triangle.lineTo(8.0, 18.5);
    triangle.closeSubpath();
    return drawGlyph(size, triangle);
}

QImage drawPauseGlyph(int size)
{
    QPainterPath bars;
    bars.addRoundedRect(QRectF(6.8, 5.5, 3.6, 13.0), 1.0, 1.0);
    bars.addRoundedRect(QRectF(13.6, 5.5, 3.6, 13.0), 1.0, 1.0);
    return drawGlyph(size, bars);
}

QImage drawAppIcon(int size)
{
    QImage image = transparentImage(size, size);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / 256.0, size / 256.0);

    // The tile: a dark slate square with a faint light rim along the top.
    const QRectF tile(16, 16, 224, 224);
    QLinearGradient tileFill(tile.topLeft(), tile.bottomLeft());
    tileFill.setColorAt(0.0, QColor(74, 78, 88));
    tileFill.setColorAt(1.0, QColor(33, 35, 40));
    painter.setBrush(tileFill);
    painter.setPen(QPen(QColor(255, 255, 255, 30), 2.0));
    painter.drawRoundedRect(tile.adjusted(1, 1, -1, -1), 46, 46);

    // Three lanes with one clip each, staggered as clips are on tracks.
    struct Lane {
        double top;
        double clipLeft;
        double clipRight;
        QColor color;
    };
    const Lane lanes[] = {
        {60, 42, 150, QColor(242, 169, 59)},
        {110, 96, 214, QColor(222, 122, 60)},
        {160, 60, 180, QColor(235, 210, 162)},
    };
    const double laneHeight = 42;
    double seed = 0.4;
    for (const Lane& lane : lanes) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(255, 255, 255, 16));
        painter.drawRoundedRect(QRectF(36, lane.top, 184, laneHeight), 10, 10);
        drawIconClip(painter, QRectF(lane.clipLeft, lane.top + 2, lane.clipRight - lane.clipLeft, laneHeight - 4),
                     lane.color, seed);
        seed += 1.7;
    }

    // The play cursor: the red line across the lanes, its handle in the
    // band above them, outlined like the timeline's handle.
    const double cursorX = 138;
    painter.setPen(QPen(cursorLineColor(), 4.0, Qt::SolidLine, Qt::FlatCap));
    painter.drawLine(QPointF(cursorX, 44), QPointF(cursorX, 214));
    QPainterPath handle = cursorHandlePath();
    painter.save();
    painter.translate(cursorX - 6.5 * 1.6, 28);
    painter.scale(1.6, 1.6);
    painter.setBrush(cursorLineColor());
    painter.setPen(QPen(QColor(255, 238, 238), 0.8, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin));
    painter.drawPath(handle);
    painter.restore();
    return image;
}

}  // namespace artwork
