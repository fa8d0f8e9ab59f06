// The timeline's text textures, kept between frames: clip titles by
// (clip Identifier, text, selected or not) and ruler labels by text, so that
// a redraw makes a texture only for text it has not shown before.
//
// Contract
// - `title` and `label` answer the kept string or make it (with the view's
//   context current, inside a paint); null only for a null text.
// - `endFrame` is called once per frame: when more entries are kept than
//   the limit, those not used in this frame are dropped (their textures are
//   deleted with the current context).
// - `clear` drops everything; the view calls it before its context goes.
// - Threads: the GUI thread only.
#pragma once

#include <QHash>
#include <QString>

#include <cstdint>
#include <memory>

class KRGLUString;

class VTTimelineTextCache {
public:
    // Title: 14-point default font, centred, black at alpha 0.4 when the clip
    // is selected and 0.8 when not.
    KRGLUString* title(const QString& clipIdentifier, const QString& text, bool selected);
    // Ruler label: 10-point default font, centred, white at alpha 0.8.
    KRGLUString* label(const QString& text);
    void endFrame();
    void clear();
    int size() const { return int(m_titles.size() + m_labels.size()); }

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
    struct Entry {
        std::shared_ptr<KRGLUString> string;
        uint64_t lastFrame = 0;
    };
    template <class Key>
    static void dropUnused(QHash<Key, Entry>& entries, qsizetype limit, uint64_t frame);

    QHash<TitleKey, Entry> m_titles;
    QHash<QString, Entry> m_labels;
    uint64_t m_frame = 1;
};
