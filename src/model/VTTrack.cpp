#include "model/VTTrack.h"

#include "foundation/Log.h"
#include "foundation/VTBaseDefine.h"
#include "model/VTClip.h"
#include "model/VTMixContext.h"
#include "model/VTMixOperation.h"

#include <algorithm>
#include <limits>

namespace {

const QString kClipsKey = QStringLiteral("_clips");
const QString kUuidStringKey = QStringLiteral("_uuidString");

// Removes every clip for which `matches` answers true; false when none did.
template <class Matches>
bool eraseClips(VTTrack::ClipList& list, Matches matches)
{
    const auto end = std::remove_if(list.begin(), list.end(), matches);
    if (end == list.end())
        return false;
    list.erase(end, list.end());
    return true;
}

// The clip's end on the track, held at the 64-bit maximum (values from damaged archives).
int64_t clipEnd(const VTClip& clip)
{
    int64_t end = 0;
    if (__builtin_add_overflow(clip.timestampOfTrack(), clip.durationOfTrack(), &end))
        return clip.durationOfTrack() > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
    return end;
}

}  // namespace

VTTrack::VTTrack() : m_uuidString(VTBaseDefine::uuidString()) {}

VTTrack::VTTrack(DecodingTag, QString identifier, ClipList clips)
    : m_uuidString(std::move(identifier)), m_clips(std::move(clips))
{
}

std::shared_ptr<VTTrack> VTTrack::clone() const
{
    auto copy = std::make_shared<VTTrack>();
    ClipList clones;
    for (const auto clipList = clips(); const auto& clip : *clipList) {
        if (auto cloned = clip->clone())
            clones.push_back(std::move(cloned));
    }
    copy->importClips(clones);
    return copy;
}

int64_t VTTrack::numberOfClips() const
{
    return static_cast<int64_t>(clips()->size());
}

int64_t VTTrack::duration() const
{
    int64_t duration = 0;
    for (const auto clipList = clips(); const auto& clip : *clipList)
        duration = std::max(duration, clipEnd(*clip));
    return duration;
}

void VTTrack::importClip(std::shared_ptr<VTClip> clip)
{
    if (!clip) {
        brindle::log(QStringLiteral("VTTrack: a null clip cannot be imported."));
        return;
    }
    m_clips.update([&](ClipList& list) { list.push_back(std::move(clip)); });
}

void VTTrack::importClips(const ClipList& clips)
{
    m_clips.update([&](ClipList& list) {
        bool changed = false;
        for (const auto& clip : clips) {
            if (!clip) {
                brindle::log(QStringLiteral("VTTrack: a null clip cannot be imported."));
                continue;
            }
            list.push_back(clip);
            changed = true;
        }
        return changed;
    });
}

void VTTrack::removeClip(const std::shared_ptr<VTClip>& clip)
{
    if (!clip)
        return;
    m_clips.update([&](ClipList& list) { return eraseClips(list, [&](const auto& each) { return each == clip; }); });
}

void VTTrack::removeClips(const ClipList& clips)
{
    if (clips.empty())
        return;
    m_clips.update([&](ClipList& list) {
        return eraseClips(list, [&](const auto& each) {
            return std::find(clips.begin(), clips.end(), each) != clips.end();
        });
    });
}

void VTTrack::removeClipWithIdentifier(const QString& identifier)
{
    removeClipsWithIdentifier(QStringList{identifier});
}

void VTTrack::removeClipsWithIdentifier(const QStringList& identifiers)
{
    if (identifiers.isEmpty())
        return;
    m_clips.update([&](ClipList& list) {
        return eraseClips(list, [&](const auto& each) { return identifiers.contains(each->identifier()); });
    });
}

void VTTrack::replaceClip(const std::shared_ptr<VTClip>& clip, std::shared_ptr<VTClip> withClip)
{
    if (!clip || !withClip) {
        brindle::log(QStringLiteral("VTTrack: cannot replace with or by a null clip."));
        return;
    }
    m_clips.update([&](ClipList& list) {
        auto found = std::find(list.begin(), list.end(), clip);
        if (found == list.end()) {
            brindle::log(QStringLiteral("VTTrack: the clip to replace is not on this track."));
            return false;
        }
        *found = std::move(withClip);
        return true;
    });
}

std::shared_ptr<VTClip> VTTrack::clipWithIdentifier(const QString& identifier) const
{
    for (const auto clipList = clips(); const auto& clip : *clipList) {
        if (clip->identifier() == identifier)
            return clip;
    }
    return nullptr;
}

VTTrack::ClipList VTTrack::clipsWithIdentifiers(const QStringList& identifiers) const
{
    ClipList found;
    for (const auto clipList = clips(); const auto& clip : *clipList) {
        if (identifiers.contains(clip->identifier()))
            found.push_back(clip);
    }
    return found;
}

std::vector<int64_t> VTTrack::attractAfterTimestampsWithClip(const VTClip& clip) const
{
    std::vector<int64_t> timestamps{0};
    for (const auto clipList = clips(); const auto& each : *clipList) {
        if (each->identifier() != clip.identifier())
            timestamps.push_back(each->timestampOfTrack());
    }
    return timestamps;
}

std::vector<int64_t> VTTrack::attractBeforeTimestampsWithClip(const VTClip& clip) const
{
    std::vector<int64_t> timestamps{0};
    for (const auto clipList = clips(); const auto& each : *clipList) {
        if (each->identifier() != clip.identifier())
            timestamps.push_back(clipEnd(*each));
    }
    return timestamps;
}

// --- mixing --------------------------------------------------------------

brindle::MixSource* VTTrack::mixRoot(VTMixContext& context) const
{
    auto* root = context.userInfoForKey<std::shared_ptr<brindle::MixSource>>(m_uuidString);
    return root ? root->get() : nullptr;
}

void VTTrack::startMixWithContext(VTMixContext& context)
{
    // One snapshot of the clips decides the tree: an edit on another thread
    // may empty the track between any two loads.
    const auto list = clips();
    if (list->empty() || duration() <= 0)
        return;
    if (list->size() == 1) {
        std::shared_ptr<brindle::MixSource> clip = list->front();
        context.setUserInfo(clip, m_uuidString);
        clip->startMixWithContext(context);
        return;
    }
    // A left-leaning chain over the clips in stored order. The start is not
    // passed down: the clips get their state from the seek that must follow.
    std::shared_ptr<brindle::MixSource> root = VTMixOperation::initWithSource1((*list)[0], (*list)[1]);
    for (size_t index = 2; index < list->size(); ++index)
        root = VTMixOperation::initWithSource1(root, (*list)[index]);
    context.setUserInfo(root, m_uuidString);
}

void VTTrack::seekToTimestamp(int64_t timestamp, VTMixContext& context)
{
    if (auto* root = mixRoot(context))
        root->seekToTimestamp(timestamp, context);
}

int64_t VTTrack::nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context)
{
    if (duration() < 1)
        return kEndOfSource;
    auto* root = mixRoot(context);
    return root ? root->nextSample(buffer, bufferCaps, appendBefore, context) : kEndOfSource;
}

bool VTTrack::isEndOfSource(VTMixContext& context)
{
    if (duration() < 1)
        return true;
    auto* root = mixRoot(context);
    return root ? root->isEndOfSource(context) : true;
}

void VTTrack::endMixWithContext(VTMixContext& context)
{
    auto* slot = context.userInfoForKey<std::shared_ptr<brindle::MixSource>>(m_uuidString);
    if (!slot)
        return;
    // Keep the tree alive while it ends, then drop it from the context.
    std::shared_ptr<brindle::MixSource> root = *slot;
    if (root)
        root->endMixWithContext(context);
    context.removeUserInfoWithKey(m_uuidString);
}

// --- keyed coding --------------------------------------------------------

QStringList VTTrack::archiveClassNames()
{
    return {QStringLiteral("VTTrack")};
}

QString VTTrack::classNameForArchive() const
{
    return QStringLiteral("VTTrack");
}

std::shared_ptr<VTTrack> VTTrack::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    QString identifier = coder.decodeStringForKey(kUuidStringKey).value_or(QString());
    if (identifier.isEmpty()) {
        brindle::log(QStringLiteral("Warning: track archive without an identifier; a new one is made."));
        identifier = VTBaseDefine::uuidString();
    }
    ClipList clips;
    if (coder.containsValueForKey(kClipsKey)) {
        // Clips whose provider is missing decode as nil and are skipped.
        auto decoded = coder.decodeArrayOfClass<VTClip>(kClipsKey);
        if (decoded)
            clips = std::move(*decoded);
        else
            brindle::log(QStringLiteral("Warning: a track's clip list is damaged; the track is read empty."));
    }
    return std::shared_ptr<VTTrack>(new VTTrack(DecodingTag{}, std::move(identifier), std::move(clips)));
}

void VTTrack::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeArrayOf(*clips(), kClipsKey, /*mutableArray=*/true);
    coder.encodeString(m_uuidString, kUuidStringKey);
}
