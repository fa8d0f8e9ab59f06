// The clips of one redraw, collected and then drawn layer by layer: all
// bodies, then all waveform textures, then all fade marks and outlines, then
// all titles. A software rasteriser pays for every draw call and every tiny
// triangle, so a frame of a few hundred clips is a handful of draws instead of
// several per clip.
//
// Contract
// - Layering gives the same pixels as drawing each clip whole, one after the
//   other, as long as no two clips of a batch overlap: the view flushes the
//   batch before adding a clip whose box (grown by the selection outline's
//   width) meets one already in it (`overlaps`).
// - Rounded corners are quarter circles from one table of 41 points each;
//   small radii take every n-th point, so that no segment is longer than
//   about 3 points (which keeps the arc within 0.1 point of the circle, and
//   spares the rasteriser dozens of sub-pixel segments per corner).
// - `flush` needs the view's context current; it draws in the current
//   projection and leaves texturing, blending and the client arrays off.
// - Threads: the GUI thread only.
#pragma once

#include <QRectF>

#include <cstdint>
#include <vector>

class QOpenGLFunctions_2_1;

namespace brindle::timeline {

struct Colour {
    float red, green, blue, alpha;
};

enum class Corner { topLeft = 0, topRight = 1, bottomRight = 2, bottomLeft = 3 };

// Calls `point(x, y)` for the points of one quarter circle around (cx, cy),
// clockwise, from the table of 41 points with step π / 80.
template <class Point>
void forEachArcPoint(Corner corner, double cx, double cy, double radius, Point point);
// Source-alpha blending of the colour; the frame's alpha stays opaque.
void enableBlending(QOpenGLFunctions_2_1* gl);

class VTTimelineClipBatch {
public:
    // The radius of a body's caps: 8, less for boxes narrower than 16 or
    // lower than twice the radius. Between the caps the body is an opaque
    // rectangle: [x + radius, x + width − radius] × the box's height.
    static double bodyRadius(const QRectF& bounds);
    // The body of a clip box: a vertical gradient between the two colours
    // with rounded caps (radius 8, less for small boxes).
    void addBody(const QRectF& bounds, const Colour& top, const Colour& bottom);
    void addLine(double x0, double y0, double x1, double y1, const Colour& colour);
    void addRoundRectOutline(const QRectF& rect, double radius, const Colour& colour);
    void addWave(uint32_t texture, const QRectF& rect, double s0, double s1, double t0, double t1);
    void addTitle(uint32_t texture, const QRectF& rect, double s0, double s1, double t0, double t1);
    void addSelection(const QRectF& bounds) { m_selections.push_back(bounds); }
    // Records a clip's area for the overlap test.
    void addArea(const QRectF& area) { m_areas.push_back(area); }
    bool overlaps(const QRectF& area) const;
    bool isEmpty() const { return m_areas.empty(); }
    // The selected boxes of the batch, for outlines drawn after the flush.
    const std::vector<QRectF>& selections() const { return m_selections; }

    // Draws bodies, waves, lines and titles in that order, then forgets
    // everything but the selections (`clear` drops those).
    void flush(QOpenGLFunctions_2_1* gl);
    void clear();

private:
    struct Vertex {
        double x, y;
        uint8_t rgba[4];
    };
    // Textured quads: one texture each, four corners of x, y and s, t.
    struct Quads {
        std::vector<uint32_t> textures;
        std::vector<double> vertices;
        std::vector<double> coordinates;
        void clear()
        {
            textures.clear();
            vertices.clear();
            coordinates.clear();
        }
    };
    static Vertex vertex(double x, double y, const Colour& colour);
    static void addQuad(Quads& quads, uint32_t texture, const QRectF& rect, double s0, double s1, double t0,
                        double t1);
    static void drawQuads(QOpenGLFunctions_2_1* gl, const Quads& quads);
    void addFan(const std::vector<Vertex>& polygon);

    std::vector<Vertex> m_triangles;
    std::vector<Vertex> m_lines;
    Quads m_waves;
    Quads m_titles;
    std::vector<QRectF> m_selections;
    std::vector<QRectF> m_areas;
    std::vector<Vertex> m_polygon;
};

// --- Arc table ----------------------------------------------------------------

struct ArcTable {
    static constexpr int kPointsPerQuarter = 41;
    double cosine[4 * (kPointsPerQuarter - 1) + 1];
    double sine[4 * (kPointsPerQuarter - 1) + 1];
    ArcTable();
    static const ArcTable& shared();
    // Every n-th point for an arc of this radius (n divides 40).
    static int strideForRadius(double radius);
};

template <class Point>
void forEachArcPoint(Corner corner, double cx, double cy, double radius, Point point)
{
    const ArcTable& table = ArcTable::shared();
    const int first = int(corner) * (ArcTable::kPointsPerQuarter - 1);
    const int stride = ArcTable::strideForRadius(radius);
    for (int k = 0; k < ArcTable::kPointsPerQuarter; k += stride)
        point(cx + radius * table.cosine[first + k], cy + radius * table.sine[first + k]);
}

}  // namespace brindle::timeline
