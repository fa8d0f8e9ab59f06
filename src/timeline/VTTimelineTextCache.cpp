#include "timeline/VTTimelineTextCache.h"

#include "timeline/KRGLUString.h"

#include <QColor>

namespace {

// More than a screenful of titles and labels; beyond this, what the last
// frame did not show is dropped.
constexpr qsizetype kTitleLimit = 2048;
constexpr qsizetype kLabelLimit = 512;
constexpr double kTitleFontSize = 14;
constexpr double kLabelFontSize = 10;

}  // namespace

KRGLUString* VTTimelineTextCache::title(const QString& clipIdentifier, const QString& text, bool selected)
{
    if (text.isNull())
        return nullptr;
    Entry& entry = m_titles[TitleKey{clipIdentifier, text, selected}];
    if (!entry.string) {
        entry.string = KRGLUString::GLUStringWithString(text, QString(), kTitleFontSize,
                                                        KRGLUString::kAlignmentCenter,
                                                        QColor::fromRgbF(0, 0, 0, selected ? 0.4f : 0.8f),
                                                        std::nullopt);
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
        entry.string = KRGLUString::GLUStringWithString(text, QString(), kLabelFontSize,
                                                        KRGLUString::kAlignmentCenter,
                                                        QColor::fromRgbF(1, 1, 1, 0.8f), std::nullopt);
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
