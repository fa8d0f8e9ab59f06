#include "timeline/VTTimelineClipBatch.h"

#include <QOpenGLFunctions_2_1>

#include <algorithm>
#include <cmath>

namespace brindle::timeline {

namespace {

// The angle step of the rounded corners, with π as the system has always taken it.
constexpr double kPi = 3.1415926;
constexpr double kArcStep = kPi / 80;
constexpr double kClipRadius = 8;
// The longest arc segment worth drawing, in points: a clip's corner (radius
// 8) takes 5 segments, which stay within 0.1 point of the circle.
constexpr double kLongestSegment = 3;

uint8_t channel(float value)
{
    return uint8_t(std::lround(std::clamp(value, 0.0f, 1.0f) * 255));
}

}  // namespace

ArcTable::ArcTable()
{
    for (int j = 0; j < 4 * (kPointsPerQuarter - 1) + 1; ++j) {
        cosine[j] = std::cos(kPi - j * kArcStep);
        sine[j] = std::sin(kPi - j * kArcStep);
    }
}

const ArcTable& ArcTable::shared()
{
    static const ArcTable table;
    return table;
}

int ArcTable::strideForRadius(double radius)
{
    static constexpr int kStrides[] = {40, 20, 10, 8, 5, 4, 2, 1};
    for (int stride : kStrides) {
        if (radius * kArcStep * stride <= kLongestSegment)
            return stride;
    }
    return 1;
}

void enableBlending(QOpenGLFunctions_2_1* gl)
{
    gl->glEnable(GL_BLEND);
    gl->glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE, GL_ONE_MINUS_SRC_ALPHA);
}

VTTimelineClipBatch::Vertex VTTimelineClipBatch::vertex(double x, double y, const Colour& colour)
{
    return Vertex{x, y, {channel(colour.red), channel(colour.green), channel(colour.blue), channel(colour.alpha)}};
}

void VTTimelineClipBatch::addFan(const std::vector<Vertex>& polygon)
{
    // A polygon as GL draws one: a fan around its first point.
    for (size_t i = 1; i + 1 < polygon.size(); ++i) {
        m_triangles.push_back(polygon[0]);
        m_triangles.push_back(polygon[i]);
        m_triangles.push_back(polygon[i + 1]);
    }
}

double VTTimelineClipBatch::bodyRadius(const QRectF& bounds)
{
    double radius = kClipRadius;
    if (bounds.width() < 2 * kClipRadius)
        radius = bounds.width() / 2;
    if (bounds.height() < 2 * radius)
        radius = bounds.height() / 2;
    return radius;
}

void VTTimelineClipBatch::addBody(const QRectF& bounds, const Colour& top, const Colour& bottom)
{
    const double radius = bodyRadius(bounds);
    const double left = bounds.x(), right = bounds.x() + bounds.width();
    const double low = bounds.y(), high = bounds.y() + bounds.height();

    const Vertex quad[4] = {vertex(left + radius, low, bottom), vertex(right - radius, low, bottom),
                            vertex(right - radius, high, top), vertex(left + radius, high, top)};
    for (int index : {0, 1, 2, 0, 2, 3})
        m_triangles.push_back(quad[index]);

    m_polygon.clear();
    forEachArcPoint(Corner::topLeft, left + radius, high - radius, radius,
                    [&](double x, double y) { m_polygon.push_back(vertex(x, y, top)); });
    forEachArcPoint(Corner::bottomLeft, left + radius, low + radius, radius,
                    [&](double x, double y) { m_polygon.push_back(vertex(x, y, bottom)); });
    addFan(m_polygon);
    m_polygon.clear();
    forEachArcPoint(Corner::topRight, right - radius, high - radius, radius,
                    [&](double x, double y) { m_polygon.push_back(vertex(x, y, top)); });
    forEachArcPoint(Corner::bottomRight, right - radius, low + radius, radius,
                    [&](double x, double y) { m_polygon.push_back(vertex(x, y, bottom)); });
    addFan(m_polygon);
}

void VTTimelineClipBatch::addLine(double x0, double y0, double x1, double y1, const Colour& colour)
{
    m_lines.push_back(vertex(x0, y0, colour));
    m_lines.push_back(vertex(x1, y1, colour));
}

void VTTimelineClipBatch::addRoundRectOutline(const QRectF& rect, double radius, const Colour& colour)
{
    double r = radius;
    if (rect.width() < 2 * r)
        r = rect.width() / 2;
    if (rect.height() < 2 * r)
        r = rect.height() / 2;
    const double left = rect.x(), right = rect.x() + rect.width();
    const double low = rect.y(), high = rect.y() + rect.height();
    m_polygon.clear();
    auto add = [&](double x, double y) { m_polygon.push_back(vertex(x, y, colour)); };
    forEachArcPoint(Corner::topLeft, left + r, high - r, r, add);
    forEachArcPoint(Corner::topRight, right - r, high - r, r, add);
    forEachArcPoint(Corner::bottomRight, right - r, low + r, r, add);
    forEachArcPoint(Corner::bottomLeft, left + r, low + r, r, add);
    // A closed loop, as segments.
    for (size_t i = 0; i < m_polygon.size(); ++i) {
        m_lines.push_back(m_polygon[i]);
        m_lines.push_back(m_polygon[(i + 1) % m_polygon.size()]);
    }
}

void VTTimelineClipBatch::addQuad(Quads& quads, uint32_t texture, const QRectF& rect, double s0, double s1,
                                  double t0, double t1)
{
    if (texture == 0 || rect.width() <= 0 || rect.height() <= 0)
        return;
    const double left = rect.x(), right = rect.x() + rect.width();
    const double low = rect.y(), high = rect.y() + rect.height();
    quads.textures.push_back(texture);
    quads.vertices.insert(quads.vertices.end(), {left, low, right, low, right, high, left, high});
    quads.coordinates.insert(quads.coordinates.end(), {s0, t0, s1, t0, s1, t1, s0, t1});
}

void VTTimelineClipBatch::addWave(uint32_t texture, const QRectF& rect, double s0, double s1, double t0, double t1)
{
    addQuad(m_waves, texture, rect, s0, s1, t0, t1);
}

void VTTimelineClipBatch::addTitle(uint32_t texture, const QRectF& rect, double s0, double s1, double t0, double t1)
{
    addQuad(m_titles, texture, rect, s0, s1, t0, t1);
}

bool VTTimelineClipBatch::overlaps(const QRectF& area) const
{
    return std::any_of(m_areas.begin(), m_areas.end(), [&](const QRectF& kept) { return kept.intersects(area); });
}

void VTTimelineClipBatch::drawQuads(QOpenGLFunctions_2_1* gl, const Quads& quads)
{
    if (quads.textures.empty())
        return;
    gl->glEnable(GL_TEXTURE_2D);
    enableBlending(gl);
    gl->glTexEnvi(GL_TEXTURE_ENV, GL_TEXTURE_ENV_MODE, GL_REPLACE);
    gl->glEnableClientState(GL_TEXTURE_COORD_ARRAY);
    // Quads of one texture in a row are one draw.
    const size_t count = quads.textures.size();
    for (size_t first = 0; first < count;) {
        size_t end = first + 1;
        while (end < count && quads.textures[end] == quads.textures[first])
            ++end;
        gl->glBindTexture(GL_TEXTURE_2D, quads.textures[first]);
        gl->glVertexPointer(2, GL_DOUBLE, 0, &quads.vertices[first * 8]);
        gl->glTexCoordPointer(2, GL_DOUBLE, 0, &quads.coordinates[first * 8]);
        gl->glDrawArrays(GL_QUADS, 0, GLsizei((end - first) * 4));
        first = end;
    }
    gl->glDisableClientState(GL_TEXTURE_COORD_ARRAY);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    gl->glDisable(GL_TEXTURE_2D);
    gl->glDisable(GL_BLEND);
}

void VTTimelineClipBatch::flush(QOpenGLFunctions_2_1* gl)
{
    gl->glBindBuffer(GL_ARRAY_BUFFER, 0);
    gl->glEnableClientState(GL_VERTEX_ARRAY);
    auto drawColoured = [&](const std::vector<Vertex>& vertices, GLenum mode) {
        if (vertices.empty())
            return;
        gl->glEnableClientState(GL_COLOR_ARRAY);
        gl->glVertexPointer(2, GL_DOUBLE, sizeof(Vertex), &vertices[0].x);
        gl->glColorPointer(4, GL_UNSIGNED_BYTE, sizeof(Vertex), vertices[0].rgba);
        gl->glDrawArrays(mode, 0, GLsizei(vertices.size()));
        gl->glDisableClientState(GL_COLOR_ARRAY);
    };
    // The body colours are opaque: blending would not change a pixel.
    gl->glDisable(GL_BLEND);
    drawColoured(m_triangles, GL_TRIANGLES);
    drawQuads(gl, m_waves);
    drawColoured(m_lines, GL_LINES);
    drawQuads(gl, m_titles);
    gl->glDisableClientState(GL_VERTEX_ARRAY);

    m_triangles.clear();
    m_lines.clear();
    m_waves.clear();
    m_titles.clear();
    m_areas.clear();
}

void VTTimelineClipBatch::clear()
{
    m_triangles.clear();
    m_lines.clear();
    m_waves.clear();
    m_titles.clear();
    m_areas.clear();
    m_selections.clear();
}

}  // namespace brindle::timeline
