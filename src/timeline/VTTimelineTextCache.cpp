#include "timeline/VTTimelineTextCache.h"

#include "timeline/KRGLUString.h"

#include <QColor>
#include <QImage>
#include <QOpenGLFunctions_2_1>

#include <algorithm>

namespace {

constexpr qsizetype kLabelLimit = 512;
constexpr double kTitleFontSize = 14;
constexpr double kLabelFontSize = 10;
// Atlas pages: 2048 × 512 texels hold some 300 titles each; beyond this many
// pages the titles are packed afresh.
constexpr int kPageWidth = 2048;
constexpr int kPageHeight = 512;
constexpr size_t kPageLimit = 8;
// Transparent texels around every title, so that no neighbour bleeds in.
constexpr int kBorder = 1;

void sampleNearest(QOpenGLFunctions_2_1* gl, uint32_t texture)
{
    gl->glBindTexture(GL_TEXTURE_2D, texture);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
}

}  // namespace

VTTimelineTextCache::~VTTimelineTextCache()
{
    clear();
}

const VTTimelineTextCache::PlacedText* VTTimelineTextCache::title(const QString& clipIdentifier, const QString& text,
                                                                  bool selected)
{
    if (text.isNull())
        return nullptr;
    const TitleKey key{clipIdentifier, text, selected};
    if (auto found = m_titles.constFind(key); found != m_titles.constEnd())
        return &found.value();
    const auto attributed = KRGLUString::attributedStringCreateFromString(
        text, QString(), QColor::fromRgbF(0, 0, 0, selected ? 0.4f : 0.8f), std::nullopt, kTitleFontSize,
        KRGLUString::kAlignmentCenter);
    const QImage bitmap = KRGLUString::CGContextCreateFromAttributedString(attributed, std::nullopt);
    PlacedText placed;
    if (bitmap.isNull() || !place(bitmap, placed))
        return nullptr;
    return &m_titles.insert(key, placed).value();
}

uint32_t VTTimelineTextCache::newPage()
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!gl)
        return 0;
    if (m_pages.empty())
        m_pagesOwner = brindle::gl::GLOwner();
    GLuint texture = 0;
    gl->glGenTextures(1, &texture);
    if (texture == 0)
        return 0;
    const std::vector<uint32_t> transparent(size_t(kPageWidth) * kPageHeight, 0);
    gl->glBindTexture(GL_TEXTURE_2D, texture);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    gl->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, kPageWidth, kPageHeight, 0, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV,
                     transparent.data());
    sampleNearest(gl, texture);
    m_pages.push_back(texture);
    m_shelfX = m_shelfY = m_shelfHeight = 0;
    return texture;
}

bool VTTimelineTextCache::place(const QImage& bitmap, PlacedText& placed)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!gl)
        return false;
    const int width = std::min(bitmap.width(), kPageWidth - 2 * kBorder);
    const int height = std::min(bitmap.height(), kPageHeight - 2 * kBorder);
    // Next shelf when the row is full, next page when the shelves are.
    if (!m_pages.empty() && m_shelfX + width + 2 * kBorder > kPageWidth) {
        m_shelfY += m_shelfHeight;
        m_shelfX = m_shelfHeight = 0;
    }
    if (m_pages.empty() || m_shelfY + height + 2 * kBorder > kPageHeight) {
        if (newPage() == 0)
            return false;
    }
    placed.texture = m_pages.back();
    placed.pageSize = QSize(kPageWidth, kPageHeight);
    placed.texels = QRect(m_shelfX + kBorder, m_shelfY + kBorder, width, height);
    m_shelfX += width + 2 * kBorder;
    m_shelfHeight = std::max(m_shelfHeight, height + 2 * kBorder);

    // Upright in GL's bottom-up rows; the bitmap's byte order is the page's.
    const QImage rows = bitmap.convertToFormat(QImage::Format_ARGB32).copy(0, 0, width, height).mirrored(false, true);
    gl->glBindTexture(GL_TEXTURE_2D, placed.texture);
    gl->glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    gl->glTexSubImage2D(GL_TEXTURE_2D, 0, placed.texels.x(), placed.texels.y(), width, height, GL_BGRA,
                        GL_UNSIGNED_INT_8_8_8_8_REV, rows.constBits());
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    return true;
}

KRGLUString* VTTimelineTextCache::label(const QString& text)
{
    if (text.isNull())
        return nullptr;
    Label& entry = m_labels[text];
    if (!entry.string) {
        entry.string = KRGLUString::GLUStringWithString(text, QString(), kLabelFontSize,
                                                        KRGLUString::kAlignmentCenter,
                                                        QColor::fromRgbF(1, 1, 1, 0.8f), std::nullopt);
        if (QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL(); gl && entry.string && entry.string->textureID())
            sampleNearest(gl, entry.string->textureID());
    }
    entry.lastFrame = m_frame;
    return entry.string.get();
}

void VTTimelineTextCache::endFrame()
{
    if (m_labels.size() > kLabelLimit) {
        for (auto it = m_labels.begin(); it != m_labels.end();) {
            if (it->lastFrame < m_frame)
                it = m_labels.erase(it);
            else
                ++it;
        }
    }
    if (m_pages.size() > kPageLimit)
        dropTitles();
    ++m_frame;
}

void VTTimelineTextCache::dropTitles()
{
    m_titles.clear();
    std::vector<uint32_t> pages;
    pages.swap(m_pages);
    m_shelfX = m_shelfY = m_shelfHeight = 0;
    if (pages.empty())
        return;
    m_pagesOwner.withContext([&pages] {
        if (QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL())
            gl->glDeleteTextures(GLsizei(pages.size()), pages.data());
    });
}

void VTTimelineTextCache::clear()
{
    m_labels.clear();
    dropTitles();
}
