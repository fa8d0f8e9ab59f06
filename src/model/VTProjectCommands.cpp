// The project's clipboard and selection commands.
#include "model/VTProject.h"

#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"
#include "model/VTClip.h"
#include "model/VTPasteboard.h"
#include "model/VTTrack.h"

namespace {

struct PastedClip {
    std::shared_ptr<VTClip> clip;
    int64_t trackIndex = 0;
};

// The clips of a clipboard archive, in order. Entries that are damaged or
// whose provider is missing are skipped with a log line.
std::vector<PastedClip> clipsFromPasteboardData(const QByteArray& data)
{
    std::vector<PastedClip> clips;
    auto list = brindle::KeyedUnarchiver::unarchivedObjectOfClass<brindle::KeyedArray>(data);
    if (!list) {
        brindle::log(QStringLiteral("Paste: the clipboard data is not a list of clips."));
        return clips;
    }
    for (const auto& element : list->objects()) {
        auto entry = std::dynamic_pointer_cast<const brindle::KeyedDictionary>(element);
        auto clipData = entry ? std::dynamic_pointer_cast<const brindle::KeyedData>(entry->objectForKey(VTProject::kClipDataKey))
                              : nullptr;
        auto index = entry ? std::dynamic_pointer_cast<const brindle::KeyedNumber>(entry->objectForKey(VTProject::kClipTrackIndexKey))
                           : nullptr;
        if (!clipData || !index) {
            brindle::log(QStringLiteral("Paste: a clipboard entry is damaged; it is skipped."));
            continue;
        }
        auto clip = brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTClip>(clipData->data());
        if (!clip)
            continue;  // the clip's own decoding has said why
        const uint64_t trackIndex = index->unsignedValue();
        clips.push_back({std::move(clip), trackIndex > static_cast<uint64_t>(VTProject::kNotFound)
                                              ? VTProject::kNotFound
                                              : static_cast<int64_t>(trackIndex)});
    }
    return clips;
}

}  // namespace

QByteArray VTProject::archivedSelection() const
{
    std::vector<brindle::ConstKeyedObjectPtr> entries;
    for (const QString& identifier : m_selections) {
        auto clip = clipWithIdentifier(identifier);
        const int64_t trackIndex = trackIndexWithClipIds(identifier);
        if (!clip || trackIndex == kNotFound)
            continue;
        auto entry = std::make_shared<brindle::KeyedDictionary>();
        entry->setObjectForKey(std::make_shared<brindle::KeyedData>(brindle::KeyedArchiver::archivedDataWithRootObject(*clip)),
                               kClipDataKey);
        entry->setObjectForKey(brindle::KeyedNumber::fromUnsigned(static_cast<uint64_t>(trackIndex)), kClipTrackIndexKey);
        entries.push_back(std::move(entry));
    }
    if (entries.empty())
        return {};
    return brindle::KeyedArchiver::archivedDataWithRootObject(std::make_shared<brindle::KeyedArray>(std::move(entries)));
}

bool VTProject::canPaste() const
{
    return VTPasteboard::generalPasteboard()->types().contains(kPasteboardType);
}

bool VTProject::copy()
{
    const QByteArray data = archivedSelection();
    if (data.isEmpty())
        return false;
    auto pasteboard = VTPasteboard::generalPasteboard();
    pasteboard->declareTypes({kPasteboardType});
    pasteboard->setData(data, kPasteboardType);
    return true;
}

bool VTProject::cut()
{
    if (m_selections.isEmpty())
        return false;
    copy();
    removeClips(clipsWithIdentifiers(m_selections));
    m_selections.clear();
    return true;
}

bool VTProject::paste()
{
    if (!canPaste())
        return false;
    const auto data = VTPasteboard::generalPasteboard()->dataForType(kPasteboardType);
    if (!data)
        return true;
    m_selections.clear();
    const int64_t position = timePosition();
    for (auto& pasted : clipsFromPasteboardData(*data)) {
        auto clone = pasted.clip->clone();
        if (!clone)
            continue;
        // Every pasted clip starts at the play position; the relative offsets of
        // several copied clips are not kept.
        clone->setTimestampOfTrack(position);
        if (importClipAtTrackIndex(clone, pasted.trackIndex))
            m_selections.append(clone->identifier());
    }
    return true;
}

bool VTProject::delete_()
{
    if (m_selections.isEmpty())
        return false;
    removeClips(clipsWithIdentifiers(m_selections));
    return true;
}

bool VTProject::selectAll()
{
    bool added = false;
    for (const auto trackList = tracks(); const auto& track : *trackList) {
        for (const auto clipList = track->clips(); const auto& clip : *clipList) {
            if (m_selections.contains(clip->identifier()))
                continue;
            m_selections.append(clip->identifier());
            added = true;
        }
    }
    return added;
}

bool VTProject::moveSelectionWithDelta(int64_t delta)
{
    if (m_selections.isEmpty())
        return false;
    for (const auto& clip : clipsWithIdentifiers(m_selections))
        clip->setTimestampOfTrack(clip->timestampOfTrack() + delta);
    return true;
}

bool VTProject::moveLeftWithDelta(int64_t delta)
{
    // The negation goes through double precision and back.
    return moveSelectionWithDelta(static_cast<int64_t>(-static_cast<double>(delta)));
}

bool VTProject::moveRightWithDelta(int64_t delta)
{
    return moveSelectionWithDelta(delta);
}
