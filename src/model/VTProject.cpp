#include "model/VTProject.h"

#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"
#include "model/VTClip.h"
#include "model/VTTrack.h"

#include <QFileInfo>

#include <algorithm>

const QString VTProject::kPasteboardType = QStringLiteral("com.tarnwell.brindle.pasteboard");
const QString VTProject::kClipDataKey = QStringLiteral("com.clip.data");
const QString VTProject::kClipTrackIndexKey = QStringLiteral("com.clip.track.index");

VTProject::VTProject() = default;

int64_t VTProject::supportMaxNumberOfTracks()
{
    return 8;
}

QStringList VTProject::documentType()
{
    return {QStringLiteral("loomwick")};
}

void VTProject::setTimePosition(int64_t timestamp)
{
    m_timePosition = std::clamp<int64_t>(timestamp, 0, std::max<int64_t>(duration(), 0));
}

QString VTProject::title() const
{
    if (m_url.isEmpty())
        return QStringLiteral("Untiltled");
    return QFileInfo(m_url.path()).completeBaseName();
}

int64_t VTProject::duration() const
{
    int64_t duration = 0;
    for (const auto trackList = tracks(); const auto& track : *trackList)
        duration = std::max(duration, track->duration());
    return duration;
}

int64_t VTProject::numberOfTracks() const
{
    return static_cast<int64_t>(tracks()->size());
}

std::shared_ptr<VTTrack> VTProject::trackAtIndex(int64_t index) const
{
    auto list = tracks();
    if (index < 0 || index >= static_cast<int64_t>(list->size()))
        return nullptr;
    return (*list)[static_cast<size_t>(index)];
}

void VTProject::importTrack(std::shared_ptr<VTTrack> track)
{
    if (!track) {
        brindle::log(QStringLiteral("VTProject: a null track cannot be imported."));
        return;
    }
    m_tracks.update([&](TrackList& list) { list.push_back(std::move(track)); });
}

std::shared_ptr<VTTrack> VTProject::appendNewTrack()
{
    auto track = std::make_shared<VTTrack>();
    importTrack(track);
    return track;
}

int64_t VTProject::indexOfTrack(const std::shared_ptr<VTTrack>& track) const
{
    auto list = tracks();
    auto found = std::find(list->begin(), list->end(), track);
    return found == list->end() ? kNotFound : static_cast<int64_t>(found - list->begin());
}

// --- look-ups ------------------------------------------------------------

std::shared_ptr<VTClip> VTProject::clipWithIdentifier(const QString& identifier) const
{
    for (const auto trackList = tracks(); const auto& track : *trackList) {
        if (auto clip = track->clipWithIdentifier(identifier))
            return clip;
    }
    return nullptr;
}

std::shared_ptr<VTTrack> VTProject::trackWithClipIds(const QString& identifier) const
{
    for (const auto trackList = tracks(); const auto& track : *trackList) {
        if (track->clipWithIdentifier(identifier))
            return track;
    }
    return nullptr;
}

int64_t VTProject::trackIndexWithClipIds(const QString& identifier) const
{
    auto list = tracks();
    for (size_t index = 0; index < list->size(); ++index) {
        if ((*list)[index]->clipWithIdentifier(identifier))
            return static_cast<int64_t>(index);
    }
    return kNotFound;
}

std::shared_ptr<VTTrack> VTProject::trackWithClip(const VTClip& clip) const
{
    return trackWithClipIds(clip.identifier());
}

int64_t VTProject::trackIndexWithClip(const VTClip& clip) const
{
    return trackIndexWithClipIds(clip.identifier());
}

VTProject::ClipList VTProject::clipsWithIdentifiers(const QStringList& identifiers) const
{
    ClipList found;
    for (const QString& identifier : identifiers) {
        if (auto clip = clipWithIdentifier(identifier))
            found.push_back(std::move(clip));
    }
    return found;
}

QStringList VTProject::identifiersWithClips(const ClipList& clips)
{
    QStringList identifiers;
    for (const auto& clip : clips) {
        if (clip)
            identifiers.append(clip->identifier());
    }
    return identifiers;
}

// --- placing clips ---------------------------------------------------------

bool VTProject::importClipsAtTrack(const ClipList& clips, const std::shared_ptr<VTTrack>& track)
{
    if (!track) {
        brindle::log(QStringLiteral("VTProject: cannot import clips into a null track."));
        return false;
    }
    track->importClips(clips);
    return true;
}

bool VTProject::importClipAtTrack(std::shared_ptr<VTClip> clip, const std::shared_ptr<VTTrack>& track)
{
    return importClipsAtTrack(ClipList{std::move(clip)}, track);
}

bool VTProject::importClipsAtTrackIndex(const ClipList& clips, int64_t index)
{
    if (index == kNotFound)
        return false;
    if (index < 0) {
        brindle::logf("VTProject: track index %lld is not valid.", static_cast<long long>(index));
        return false;
    }
    auto track = trackAtIndex(index);
    if (!track)
        track = appendNewTrack();  // exactly one new track, whatever the index
    return importClipsAtTrack(clips, track);
}

bool VTProject::importClipAtTrackIndex(std::shared_ptr<VTClip> clip, int64_t index)
{
    return importClipsAtTrackIndex(ClipList{std::move(clip)}, index);
}

bool VTProject::removeClips(const ClipList& clips)
{
    for (const auto& clip : clips) {
        if (!clip)
            continue;
        if (auto track = trackWithClip(*clip))
            track->removeClip(clip);
        m_selections.removeAll(clip->identifier());
    }
    return true;
}

bool VTProject::removeClipsWithIdentifer(const QStringList& identifiers)
{
    return removeClips(clipsWithIdentifiers(identifiers));
}

QHash<QString, std::shared_ptr<VTClip>> VTProject::splitSelectionAtTimestamp(int64_t timestamp)
{
    QHash<QString, std::shared_ptr<VTClip>> rightParts;
    for (const QString& identifier : m_selections) {
        auto clip = clipWithIdentifier(identifier);
        if (!clip)
            continue;
        auto track = trackWithClipIds(identifier);
        auto right = clip->splitAtTimestamp(timestamp);
        if (!right || !track)
            continue;
        track->importClip(right);
        rightParts.insert(identifier, right);
    }
    return rightParts;
}

void VTProject::moveClip(const std::shared_ptr<VTClip>& clip, int64_t toTrackIndex)
{
    if (!clip)
        return;
    if (toTrackIndex >= 0 && toTrackIndex < supportMaxNumberOfTracks()) {
        while (numberOfTracks() <= toTrackIndex)
            appendNewTrack();
    }
    auto target = trackAtIndex(toTrackIndex);
    if (!target) {
        brindle::logf("VTProject: cannot move a clip to track %lld.", static_cast<long long>(toTrackIndex));
        return;
    }
    auto current = trackWithClip(*clip);
    if (current == target)
        return;
    target->importClip(clip);
    if (current)
        current->removeClip(clip);
}

void VTProject::replacementWithClips(const ClipList& clips, const QHash<QString, int64_t>& trackInfo)
{
    for (const auto& clip : clips) {
        if (!clip)
            continue;
        auto found = clipWithIdentifier(clip->identifier());
        if (!found)
            continue;
        auto index = trackInfo.constFind(clip->identifier());
        if (index == trackInfo.constEnd() || *index < 0) {
            brindle::log(QStringLiteral("VTProject: no valid track index for a replaced clip; it is skipped."));
            continue;
        }
        std::shared_ptr<VTTrack> target = trackAtIndex(*index);
        if (!target && *index < supportMaxNumberOfTracks())
            target = appendNewTrack();
        if (!target) {
            brindle::logf("VTProject: track %lld is beyond the supported tracks.", static_cast<long long>(*index));
            continue;
        }
        auto current = trackWithClip(*found);
        if (current && current->identifier() == target->identifier()) {
            current->replaceClip(found, clip);
            continue;
        }
        if (current)
            current->removeClip(found);
        target->importClip(clip);
    }
}

// --- keyed coding --------------------------------------------------------

namespace {

const QString kUrlKey = QStringLiteral("_url");
const QString kTracksKey = QStringLiteral("_tracks");
const QString kSelectionsKey = QStringLiteral("_selections");
const QString kTimePositionKey = QStringLiteral("_timePosition");

}  // namespace

QStringList VTProject::archiveClassNames()
{
    return {QStringLiteral("VTProject")};
}

QString VTProject::classNameForArchive() const
{
    return QStringLiteral("VTProject");
}

std::shared_ptr<VTProject> VTProject::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    auto project = std::make_shared<VTProject>();
    project->m_url = coder.decodeURLForKey(kUrlKey).value_or(QUrl());
    if (coder.containsValueForKey(kTracksKey)) {
        auto tracks = coder.decodeArrayOfClass<VTTrack>(kTracksKey);
        if (!tracks) {
            brindle::log(QStringLiteral("Warning: the project's track list is damaged."));
            return nullptr;
        }
        project->m_tracks.store(std::move(*tracks));
    }
    if (coder.containsValueForKey(kSelectionsKey)) {
        auto selections = coder.decodeArrayOfClass<brindle::KeyedString>(kSelectionsKey);
        if (selections) {
            for (const auto& identifier : *selections)
                project->m_selections.append(identifier->string());
        } else {
            brindle::log(QStringLiteral("Warning: the project's selection is damaged; nothing is selected."));
        }
    }
    // Stored as it was, not clamped: the tracks may have lost clips.
    project->m_timePosition = coder.decodeInt64ForKey(kTimePositionKey);
    project->m_needSaved = false;
    return project;
}

void VTProject::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    if (m_url.isEmpty())
        coder.encodeObject(brindle::ConstKeyedObjectPtr(), kUrlKey);
    else
        coder.encodeURL(m_url, kUrlKey);
    coder.encodeArrayOf(*tracks(), kTracksKey);
    std::vector<brindle::ConstKeyedObjectPtr> selections;
    for (const QString& identifier : m_selections)
        selections.push_back(std::make_shared<brindle::KeyedString>(identifier));
    coder.encodeArray(selections, kSelectionsKey);
    coder.encodeInt64(timePosition(), kTimePositionKey);
}
