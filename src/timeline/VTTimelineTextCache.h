// The timeline's text textures, kept between frames: clip titles by
// (clip Identifier, text, selected or not), packed into shared atlas
// textures, and ruler labels by text as KRGLUStrings; so that a redraw makes
// a texture only for text it has not shown before, and draws all the titles
// of a frame from one texture.
//
// Contract
// - `title` and `label` answer the kept text or make it (with the view's
//   context current, inside a paint); null only for a null text or when no
//   texture could be made. A title's bitmap is exactly the one a KRGLUString
//   of it would hold (same layout and colours), placed upright in an atlas
//   page with a transparent border; titles wider than a page are cut.
// - Every text is sampled nearest: the view draws texts on whole points at
//   their own size, where that gives the same pixels as linear filtering.
// - `endFrame` is called once per frame: labels beyond their limit that this
//   frame did not use are dropped; when the titles fill more pages than the
//   limit, all titles are dropped and the pages packed afresh by the frames
//   that follow.
// - `clear` drops everything and deletes the textures with the context that
//   made them; the view calls it before its context goes.
// - Threads: the GUI thread only.
#pragma once

#include "timeline/GLSupport.h"

#include <QHash>
#include <QRect>
#include <QSize>
#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

class KRGLUString;
class QImage;

class VTTimelineTextCache {
public:
    // A text in an atlas page: the page's texture and size, and the text's
    // texels (origin at the page's bottom left).
    struct PlacedText {
        uint32_t texture = 0;
        QSize pageSize;
        QRect texels;
    };

    VTTimelineTextCache() = default;
    ~VTTimelineTextCache();
    VTTimelineTextCache(const VTTimelineTextCache&) = delete;
    VTTimelineTextCache& operator=(const VTTimelineTextCache&) = delete;

    // Title: 14-point default font, centred, black at alpha 0.4 when the clip
    // is selected and 0.8 when not.
    const PlacedText* title(const QString& clipIdentifier, const QString& text, bool selected);
    // Ruler label: 10-point default font, centred, white at alpha 0.8.
    KRGLUString* label(const QString& text);
    void endFrame();
    void clear();

private:
    struct TitleKey {
        QString clipIdentifier;
        QString text;
        bool selected = false;
        bool operator==(const TitleKey& other) const
        {
            return selected == other.selected && clipIdentifier == other.clipIdentifier && text == other.text;
        }
    };
    friend size_t qHash(const TitleKey& key, size_t seed)
    {
        return qHashMulti(seed, key.clipIdentifier, key.text, key.selected);
    }
    struct Label {
        std::shared_ptr<KRGLUString> string;
        uint64_t lastFrame = 0;
    };

    // Copies an upright bitmap into the pages; false when no page could be made.
    bool place(const QImage& bitmap, PlacedText& placed);
    uint32_t newPage();
    void dropTitles();

    QHash<TitleKey, PlacedText> m_titles;
    QHash<QString, Label> m_labels;
    std::vector<uint32_t> m_pages;
    brindle::gl::GLOwner m_pagesOwner;
    // The packing cursor in the last page: shelves of rows, bottom up.
    int m_shelfX = 0;
    int m_shelfY = 0;
    int m_shelfHeight = 0;
    uint64_t m_frame = 1;
};
