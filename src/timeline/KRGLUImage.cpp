#include "timeline/KRGLUImage.h"

#include "foundation/Log.h"

#include <QImageReader>
#include <QOpenGLFunctions_2_1>

std::shared_ptr<KRGLUImage> KRGLUImage::initWithImagePath(const QString& path)
{
    QImageReader reader(path);
    const QImage image = reader.read();
    if (image.isNull()) {
        brindle::log(QStringLiteral("Cannot read the image %1: %2").arg(path, reader.errorString()));
        return nullptr;
    }
    return initWithCGImage(image);
}

std::shared_ptr<KRGLUImage> KRGLUImage::initWithCGImage(const QImage& image)
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    if (!legacy || image.isNull() || image.width() <= 0 || image.height() <= 0)
        return nullptr;
    // Bottom row first, as GL counts rows; RGBA bytes with straight alpha.
    const QImage rows = image.convertToFormat(QImage::Format_RGBA8888).mirrored(false, true);
    GLuint texture = 0;
    legacy->glGenTextures(1, &texture);
    if (texture == 0)
        return nullptr;
    legacy->glBindTexture(GL_TEXTURE_2D, texture);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    legacy->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    legacy->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, rows.width(), rows.height(), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                         rows.constBits());
    legacy->glBindTexture(GL_TEXTURE_2D, 0);
    return std::make_shared<KRGLUImage>(texture, uint32_t(rows.width()), uint32_t(rows.height()));
}

KRGLUImage::KRGLUImage(uint32_t textureID, uint32_t width, uint32_t height) :
    m_textureID(textureID), m_textureWidth(width), m_textureHeight(height)
{
}

KRGLUImage::~KRGLUImage()
{
    if (m_textureID == 0)
        return;
    const GLuint texture = m_textureID;
    m_owner.withContext([texture] {
        if (QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL())
            legacy->glDeleteTextures(1, &texture);
    });
}
