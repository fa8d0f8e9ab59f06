// A line of text as an RGBA GL texture, for the timeline's ruler labels and
// clip titles.
//
// Contract
// - Made with the GL context that will draw it current. The text is laid
//   out with QFont (the named font at `fontSize` pixels; "Helvetica-Bold"
//   when no name is given, which falls back to a bold sans face where
//   Helvetica is missing), painted into a QImage exactly the size of the
//   laid-out text, and uploaded (rows bottom-up, so texture coordinate (0, 0)
//   is the bottom-left of the text) with mipmaps and linear filtering.
// - The bitmap holds straight (not premultiplied) alpha, so that drawing the
//   texture with source-alpha blending gives the text colour at its alpha.
// - A null string yields no object. A string that lays out empty, or a GL
//   error while uploading (logged as ">> OpenGL Error: %04x caught at
//   KRGLUString:<line>"), yields an object with texture 0, which draws nothing.
// - The texture is deleted when the object goes away, with the context that
//   made it current; if that context has gone, the name went with it.
// - Threads: the GUI thread only.
#pragma once

#include "timeline/GLSupport.h"

#include <QColor>
#include <QFont>
#include <QImage>
#include <QString>

#include <cstdint>
#include <memory>
#include <optional>

class KRGLUString {
public:
    // Text alignments, numbered as the view passes them.
    enum Alignment : int { kAlignmentLeft = 0, kAlignmentRight = 1, kAlignmentCenter = 2 };

    // The laid-out text: what `attributedStringCreateFromString` makes.
    struct AttributedString {
        QString string;
        QFont font;
        int alignment = kAlignmentLeft;
        // Only when a foreground colour was given; the text is black otherwise.
        std::optional<QColor> foregroundColor;
    };

    static std::shared_ptr<KRGLUString> GLUStringWithString(const QString& string, const QString& fontName,
                                                            double fontSize, int alignment,
                                                            const std::optional<QColor>& foregroundColor,
                                                            const std::optional<QColor>& backgroundColor);
    static std::shared_ptr<KRGLUString> initWithString(const QString& string, const QString& fontName, double fontSize,
                                                       int alignment, const std::optional<QColor>& foregroundColor,
                                                       const std::optional<QColor>& backgroundColor);
    static std::shared_ptr<KRGLUString> GLUStringWithAttributedString(const AttributedString& attributedString,
                                                                      const std::optional<QColor>& backgroundColor);

    static AttributedString attributedStringCreateFromString(const QString& string, const QString& fontName,
                                                             const std::optional<QColor>& foregroundColor,
                                                             const std::optional<QColor>& backgroundColor,
                                                             double fontSize, int alignment);
    // The text painted into a bitmap of its laid-out size (straight-alpha
    // ARGB32), filled with the background colour when one is given.
    static QImage CGContextCreateFromAttributedString(const AttributedString& attributedString,
                                                      const std::optional<QColor>& backgroundColor);
    // An RGBA texture from 32-bit pixels (0xAARRGGBB words, rows bottom-up),
    // mipmapped; 0 when no texture name could be made.
    static uint32_t GLUTexture2DCreate(int width, int height, const void* pixels);
    // The texture of a bitmap; 0 (and a log line) on a GL error.
    static uint32_t GLUTexture2DCreateFromContext(const QImage& context);

    KRGLUString(const AttributedString& attributedString, const std::optional<QColor>& backgroundColor);
    ~KRGLUString();
    KRGLUString(const KRGLUString&) = delete;
    KRGLUString& operator=(const KRGLUString&) = delete;

    uint32_t textureID() const { return m_textureID; }
    uint32_t textureWidth() const { return m_textureWidth; }
    uint32_t textureHeight() const { return m_textureHeight; }

private:
    brindle::gl::GLOwner m_owner;
    uint32_t m_textureID = 0;
    uint32_t m_textureWidth = 0;
    uint32_t m_textureHeight = 0;
};
