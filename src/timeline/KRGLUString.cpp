#include "timeline/KRGLUString.h"

#include "foundation/Log.h"

#include <QFontMetricsF>
#include <QOpenGLFunctions>
#include <QOpenGLFunctions_2_1>
#include <QPainter>

#include <cmath>

namespace {

const QString kDefaultFontName = QStringLiteral("Helvetica-Bold");

// "Family-Style" names ("Helvetica-Bold") as a QFont; the style part sets
// weight and slant. Sans-serif is the fallback hint, so a missing Helvetica
// becomes the desktop's bold sans face.
QFont fontWithName(const QString& name, double size)
{
    const QString family = name.section(QLatin1Char('-'), 0, 0);
    const QString style = name.section(QLatin1Char('-'), 1);
    QFont font(family);
    font.setStyleHint(QFont::SansSerif);
    font.setPixelSize(std::max(1, int(std::lround(size))));
    if (style.contains(QLatin1String("Bold"), Qt::CaseInsensitive))
        font.setWeight(QFont::Bold);
    if (style.contains(QLatin1String("Italic"), Qt::CaseInsensitive)
        || style.contains(QLatin1String("Oblique"), Qt::CaseInsensitive))
        font.setItalic(true);
    return font;
}

Qt::Alignment qtAlignment(int alignment)
{
    switch (alignment) {
    case KRGLUString::kAlignmentRight:
        return Qt::AlignRight | Qt::AlignVCenter;
    case KRGLUString::kAlignmentCenter:
        return Qt::AlignHCenter | Qt::AlignVCenter;
    default:
        return Qt::AlignLeft | Qt::AlignVCenter;
    }
}

}  // namespace

std::shared_ptr<KRGLUString> KRGLUString::GLUStringWithString(const QString& string, const QString& fontName,
                                                              double fontSize, int alignment,
                                                              const std::optional<QColor>& foregroundColor,
                                                              const std::optional<QColor>& backgroundColor)
{
    return initWithString(string, fontName, fontSize, alignment, foregroundColor, backgroundColor);
}

std::shared_ptr<KRGLUString> KRGLUString::initWithString(const QString& string, const QString& fontName,
                                                         double fontSize, int alignment,
                                                         const std::optional<QColor>& foregroundColor,
                                                         const std::optional<QColor>& backgroundColor)
{
    if (string.isNull())
        return nullptr;
    return GLUStringWithAttributedString(
        attributedStringCreateFromString(string, fontName, foregroundColor, backgroundColor, fontSize, alignment),
        backgroundColor);
}

std::shared_ptr<KRGLUString> KRGLUString::GLUStringWithAttributedString(const AttributedString& attributedString,
                                                                        const std::optional<QColor>& backgroundColor)
{
    if (attributedString.string.isNull())
        return nullptr;
    return std::make_shared<KRGLUString>(attributedString, backgroundColor);
}

KRGLUString::AttributedString KRGLUString::attributedStringCreateFromString(
    const QString& string, const QString& fontName, const std::optional<QColor>& foregroundColor,
    const std::optional<QColor>& /*backgroundColor*/, double fontSize, int alignment)
{
    AttributedString attributed;
    attributed.string = string;
    attributed.font = fontWithName(fontName.isEmpty() ? kDefaultFontName : fontName, fontSize);
    attributed.alignment = alignment;
    attributed.foregroundColor = foregroundColor;
    return attributed;
}

QImage KRGLUString::CGContextCreateFromAttributedString(const AttributedString& attributedString,
                                                        const std::optional<QColor>& backgroundColor)
{
    const QFontMetricsF metrics(attributedString.font);
    const Qt::Alignment alignment = qtAlignment(attributedString.alignment);
    const QRectF frame = metrics.boundingRect(QRectF(), int(alignment), attributedString.string);
    const int width = int(std::ceil(frame.width()));
    const int height = int(std::ceil(std::max(frame.height(), metrics.height())));
    if (width <= 0 || height <= 0)
        return {};
    QImage image(width, height, QImage::Format_ARGB32);
    const QColor foreground = attributedString.foregroundColor.value_or(QColor(Qt::black));
    // Without a background the bitmap is transparent in the text's own colour,
    // so that filtering at the glyphs' edges does not pull in black.
    if (backgroundColor)
        image.fill(*backgroundColor);
    else
        image.fill(QColor(foreground.red(), foreground.green(), foreground.blue(), 0));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.setFont(attributedString.font);
    painter.setPen(foreground);
    painter.drawText(QRectF(0, 0, width, height), int(alignment), attributedString.string);
    painter.end();
    return image;
}

uint32_t KRGLUString::GLUTexture2DCreate(int width, int height, const void* pixels)
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    QOpenGLFunctions* functions = brindle::gl::gl();
    if (!legacy || !functions || width <= 0 || height <= 0)
        return 0;
    GLuint texture = 0;
    legacy->glGenTextures(1, &texture);
    if (texture == 0)
        return 0;
    legacy->glBindTexture(GL_TEXTURE_2D, texture);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    legacy->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    legacy->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, pixels);
    functions->glGenerateMipmap(GL_TEXTURE_2D);
    legacy->glBindTexture(GL_TEXTURE_2D, 0);
    return texture;
}

uint32_t KRGLUString::GLUTexture2DCreateFromContext(const QImage& context)
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    if (!legacy || context.isNull())
        return 0;
    // Errors left by earlier calls are not ours to report.
    while (legacy->glGetError() != GL_NO_ERROR) {
    }
    // GL rows run bottom-up; QImage rows top-down.
    const QImage rows = context.convertToFormat(QImage::Format_ARGB32).mirrored(false, true);
    GLuint texture = GLUTexture2DCreate(rows.width(), rows.height(), rows.constBits());
    const GLenum error = legacy->glGetError();
    if (error != GL_NO_ERROR) {
        brindle::logf(">> OpenGL Error: %04x caught at %s:%u", unsigned(error), "KRGLUString", unsigned(__LINE__));
        if (texture != 0)
            legacy->glDeleteTextures(1, &texture);
        return 0;
    }
    return texture;
}

KRGLUString::KRGLUString(const AttributedString& attributedString, const std::optional<QColor>& backgroundColor)
{
    const QImage bitmap = CGContextCreateFromAttributedString(attributedString, backgroundColor);
    if (bitmap.isNull())
        return;
    m_textureID = GLUTexture2DCreateFromContext(bitmap);
    if (m_textureID == 0)
        return;
    m_textureWidth = uint32_t(bitmap.width());
    m_textureHeight = uint32_t(bitmap.height());
}

KRGLUString::~KRGLUString()
{
    if (m_textureID == 0)
        return;
    const GLuint texture = m_textureID;
    m_owner.withContext([texture] {
        if (QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL())
            legacy->glDeleteTextures(1, &texture);
    });
}
