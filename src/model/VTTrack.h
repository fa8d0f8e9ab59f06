// A track: an ordered list of clips.
//
// Contract
// - `clips` keeps insertion order, not time order; clips may overlap and
//   nothing keeps them sorted or apart.
// - `duration` is the largest end (`timestampOfTrack` + `durationOfTrack`) of
//   its clips, 0 when it has none.
// - Threads: the clip list is published as immutable snapshots. `clips()`
//   answers the current snapshot and may be called from any thread (the
//   mixer reads it while the main thread edits); every change publishes a
//   new list. Edits are made on the main thread. `identifier` never changes.
// - Null clips are refused (with a log line): a list never holds an empty entry.
// - Mixing: a track is a pull source. When a mix starts it fixes its mix
//   tree over the clips it holds then: its single clip, or a left-leaning
//   chain of mixer nodes over its clips in stored order. The tree is kept in
//   the mix context under the track's identifier and holds the clips alive,
//   so edits made during the mix do not disturb it (a clip removed meanwhile
//   keeps playing until the next start). The track's clips get their state
//   from the seek that follows the start.
#pragma once

#include "foundation/KeyedCoding.h"
#include "model/MixSource.h"
#include "model/Snapshot.h"

#include <QString>
#include <QStringList>

#include <cstdint>
#include <memory>
#include <vector>

class VTClip;
class VTMixContext;

class VTTrack final : public brindle::KeyedCoding, public brindle::MixSource {
public:
    using ClipList = std::vector<std::shared_ptr<VTClip>>;
    using ClipListPointer = std::shared_ptr<const ClipList>;

    // An empty track with a new identifier.
    VTTrack();
    // A new track (new identifier) holding a clone of every clip, in order.
    // Clips that cannot be cloned (their provider has gone) are left out.
    std::shared_ptr<VTTrack> clone() const;

    const QString& identifier() const { return m_uuidString; }
    // The current clip list; never null.
    ClipListPointer clips() const { return m_clips.load(); }
    int64_t numberOfClips() const;
    int64_t duration() const;

    // Appending.
    void importClip(std::shared_ptr<VTClip> clip);
    void importClips(const ClipList& clips);
    // Removing by object (every occurrence of the same clip object).
    void removeClip(const std::shared_ptr<VTClip>& clip);
    void removeClips(const ClipList& clips);
    // Removing by identifier (every clip that carries it).
    void removeClipWithIdentifier(const QString& identifier);
    void removeClipsWithIdentifier(const QStringList& identifiers);
    // Puts `withClip` where `clip` is; nothing when `clip` is not on this track.
    void replaceClip(const std::shared_ptr<VTClip>& clip, std::shared_ptr<VTClip> withClip);

    // The first clip with that identifier, or null.
    std::shared_ptr<VTClip> clipWithIdentifier(const QString& identifier) const;
    // The clips whose identifier is in the list, in track order.
    ClipList clipsWithIdentifiers(const QStringList& identifiers) const;

    // Snapping targets for dragging `clip` on this track: 0, then the start
    // (after) or the end (before) of every other clip, in track order.
    // `clip` is recognised by identifier. Duplicates are kept.
    std::vector<int64_t> attractAfterTimestampsWithClip(const VTClip& clip) const;
    std::vector<int64_t> attractBeforeTimestampsWithClip(const VTClip& clip) const;

    // The pull protocol (MixSource).
    void startMixWithContext(VTMixContext& context) override;
    void seekToTimestamp(int64_t timestamp, VTMixContext& context) override;
    int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) override;
    bool isEndOfSource(VTMixContext& context) override;
    void endMixWithContext(VTMixContext& context) override;

    // Keyed coding ("VTTrack"): "_clips" (mutable array), "_uuidString".
    // Clips whose provider is missing are left out of the decoded track.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTTrack> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    struct DecodingTag {};
    VTTrack(DecodingTag, QString identifier, ClipList clips);
    // The mix tree fixed by startMixWithContext, or null.
    brindle::MixSource* mixRoot(VTMixContext& context) const;

    const QString m_uuidString;
    brindle::Snapshot<ClipList> m_clips;
};
