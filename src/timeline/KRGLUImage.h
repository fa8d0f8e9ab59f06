// An image file as an RGBA GL texture: the timeline's play-cursor handle.
//
// Contract
// - Made with the GL context that will draw it current. `initWithImagePath`
//   reads the first image of a file or Qt resource (":/cursor.png"); it and
//   `initWithCGImage` answer null for an image that cannot be read or is
//   empty, or when no texture could be made.
// - The texture holds the image upright for texture coordinates (0, 0) at
//   its bottom-left, with straight alpha (for source-alpha blending),
//   nearest filtering and clamped edges.
// - The texture is deleted when the object goes away, with the context that
//   made it current; if that context has gone, the name went with it.
// - Threads: the GUI thread only.
#pragma once

#include "timeline/GLSupport.h"

#include <QImage>
#include <QString>

#include <cstdint>
#include <memory>

class KRGLUImage {
public:
    static std::shared_ptr<KRGLUImage> initWithImagePath(const QString& path);
    static std::shared_ptr<KRGLUImage> initWithCGImage(const QImage& image);

    KRGLUImage(uint32_t textureID, uint32_t width, uint32_t height);
    ~KRGLUImage();
    KRGLUImage(const KRGLUImage&) = delete;
    KRGLUImage& operator=(const KRGLUImage&) = delete;

    uint32_t textureID() const { return m_textureID; }
    uint32_t textureWidth() const { return m_textureWidth; }
    uint32_t textureHeight() const { return m_textureHeight; }

private:
    brindle::gl::GLOwner m_owner;
    uint32_t m_textureID = 0;
    uint32_t m_textureWidth = 0;
    uint32_t m_textureHeight = 0;
};
