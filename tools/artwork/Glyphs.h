// The editor's own bitmap artwork, drawn with QPainter: the play-cursor
// handle, the play and pause button glyphs and the application icon.
//
// Contract
// - Every function returns a new ARGB32-premultiplied image with a
//   transparent background; nothing is read from disk or from a theme.
// - The cursor handle is 13 x 14 pixels: an odd width, so that the view's
//   placement x = p - w/2 + 0.5 centres its middle column on the cursor
//   line's column p, and its point touches the line's top end.
// - Glyphs and icons are drawn as vectors at the requested size, so the
//   @2x and hicolor variants are sharp rather than scaled bitmaps.
// - Needs a QGuiApplication (any platform, offscreen included); main thread.
#pragma once

#include <QColor>
#include <QImage>

namespace artwork {

// The colour of the timeline's play-cursor line.
inline QColor cursorLineColor() { return QColor(227, 11, 32); }

// The downward-pointing red marker at the top of the cursor line.
QImage drawCursorHandle();

// A light play triangle or pause bars on a transparent square of side `size`
// pixels, designed on a 24-pixel grid.
QImage drawPlayGlyph(int size);
QImage drawPauseGlyph(int size);

// The application icon: three track lanes of waveform clips crossed by the
// red play cursor, on a rounded dark tile; `size` pixels square.
QImage drawAppIcon(int size);

}  // namespace artwork
