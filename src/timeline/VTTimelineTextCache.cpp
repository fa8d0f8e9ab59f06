#include "timeline/VTTimelineTextCache.h"

#include "timeline/GLSupport.h"
#include "timeline/KRGLUString.h"

#include <QColor>
#include <QOpenGLFunctions_2_1>

namespace {

// More than a screenful of titles and labels; beyond this, what the last
// frame did not show is dropped.
constexpr qsizetype kTitleLimit = 2048;
constexpr qsizetype kLabelLimit = 512;
constexpr double kTitleFontSize = 14;
constexpr double kLabelFontSize = 10;

// The view draws its texts on whole points at their own size, where nearest
// sampling gives the same pixels as the mipmapped linear filter the strings
// are made with, at a fraction of a software rasteriser's cost.
std::shared_ptr<KRGLUString> sampledNearest(std::shared_ptr<KRGLUString> string)
{
    QOpenGLFunctions_2_1* gl = brindle::gl::legacyGL();
    if (!string || string->textureID() == 0 || !gl)
        return string;
    gl->glBindTexture(GL_TEXTURE_2D, string->textureID());
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    return string;
}

}  // namespace

KRGLUString* VTTimelineTextCache::title(const QString& clipIdentifier, const QString& text, bool selected)
{
    if (text.isNull())
        return nullptr;
    Entry& entry = m_titles[TitleKey{clipIdentifier, text, selected}];
    if (!entry.string) {
        entry.string = sampledNearest(KRGLUString::GLUStringWithString(
            text, QString(), kTitleFontSize, KRGLUString::kAlignmentCenter,
            QColor::fromRgbF(0, 0, 0, selected ? 0.4f : 0.8f), std::nullopt));
    }
    entry.lastFrame = m_frame;
    return entry.string.get();
}

KRGLUString* VTTimelineTextCache::label(const QString& text)
{
    if (text.isNull())
        return nullptr;
    Entry& entry = m_labels[text];
    if (!entry.string) {
        entry.string = sampledNearest(KRGLUString::GLUStringWithString(
            text, QString(), kLabelFontSize, KRGLUString::kAlignmentCenter, QColor::fromRgbF(1, 1, 1, 0.8f),
            std::nullopt));
    }
    entry.lastFrame = m_frame;
    return entry.string.get();
}

template <class Key>
void VTTimelineTextCache::dropUnused(QHash<Key, Entry>& entries, qsizetype limit, uint64_t frame)
{
    if (entries.size() <= limit)
        return;
    for (auto it = entries.begin(); it != entries.end();) {
        if (it->lastFrame < frame)
            it = entries.erase(it);
        else
            ++it;
    }
}

void VTTimelineTextCache::endFrame()
{
    dropUnused(m_titles, kTitleLimit, m_frame);
    dropUnused(m_labels, kLabelLimit, m_frame);
    ++m_frame;
}

void VTTimelineTextCache::clear()
{
    m_titles.clear();
    m_labels.clear();
}
