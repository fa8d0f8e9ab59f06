// The project: the ordered tracks, the selection, the play position, the
// document URL and the unsaved-changes flag.
//
// Contract
// - Track 0 is the top track. At most `supportMaxNumberOfTracks` (8) tracks
//   are meant to exist; the callers of moveClip and replacementWithClips
//   never ask for more (a request beyond it is refused with a log line).
// - Look-ups answer null (or an empty list) when nothing is found; index
//   look-ups answer kNotFound, the largest signed 64-bit value.
// - The clipboard commands use the general pasteboard (VTPasteboard) with
//   the type kPasteboardType: a keyed archive of an array of dictionaries,
//   one per copied clip, {"com.clip.data": the clip's own keyed archive,
//   "com.clip.track.index": the clip's track index as an unsigned number}.
// - Threads: all edits, the selection, the URL and the flag belong to the
//   main thread. The track list is published as immutable snapshots, so
//   `tracks()`, `duration()` and the look-ups may be called from the mixing
//   thread too; `timePosition` is atomic.
// - Mixing: the project is a pull source. When a mix starts it fixes its mix
//   tree over the tracks it holds then: its single track, or a left-leaning
//   chain of mixer nodes over the tracks in order, kept in the mix context
//   under "project.mixoperation". Edits made while a mix runs (cut, paste,
//   delete, moves, gain changes) are safe: the tree holds its tracks and
//   clips alive, and clip fields are read atomically.
#pragma once

#include "foundation/KeyedCoding.h"
#include "model/MixSource.h"
#include "model/Snapshot.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

class VTClip;
class VTMixContext;
class VTTrack;

class VTProject final : public brindle::KeyedCoding, public brindle::MixSource {
public:
    using ClipList = std::vector<std::shared_ptr<VTClip>>;
    using TrackList = std::vector<std::shared_ptr<VTTrack>>;
    using TrackListPointer = std::shared_ptr<const TrackList>;

    static constexpr int64_t kNotFound = std::numeric_limits<int64_t>::max();
    static const QString kPasteboardType;    // "com.tarnwell.brindle.pasteboard"
    static const QString kClipDataKey;       // "com.clip.data"
    static const QString kClipTrackIndexKey; // "com.clip.track.index"

    // No URL, no tracks, empty selection, time position 0, nothing to save.
    VTProject();

    static int64_t supportMaxNumberOfTracks();  // 8
    static QStringList documentType();         // {"loomwick"}

    QUrl url() const { return m_url; }
    void setUrl(const QUrl& url) { m_url = url; }
    QStringList selections() const { return m_selections; }
    // Replaces the selection with the given identifiers.
    void setSelections(const QStringList& identifiers) { m_selections = identifiers; }
    // The current track list; never null.
    TrackListPointer tracks() const { return m_tracks.load(); }
    int64_t timePosition() const { return m_timePosition.load(); }
    // Stores the position clamped to [0, duration].
    void setTimePosition(int64_t timestamp);
    bool needSaved() const { return m_needSaved; }
    void setNeedSaved(bool needSaved) { m_needSaved = needSaved; }

    // The URL's file name without extension, "Untiltled" without a URL.
    QString title() const;
    // The largest track duration, 0 without tracks.
    int64_t duration() const;
    int64_t numberOfTracks() const;
    // The track at `index`, or null when there is none.
    std::shared_ptr<VTTrack> trackAtIndex(int64_t index) const;

    // Appends a track.
    void importTrack(std::shared_ptr<VTTrack> track);

    // Look-ups.
    std::shared_ptr<VTClip> clipWithIdentifier(const QString& identifier) const;
    std::shared_ptr<VTTrack> trackWithClipIds(const QString& identifier) const;
    int64_t trackIndexWithClipIds(const QString& identifier) const;
    std::shared_ptr<VTTrack> trackWithClip(const VTClip& clip) const;
    int64_t trackIndexWithClip(const VTClip& clip) const;
    // Found clips in the order of the identifiers; missing ones are skipped.
    ClipList clipsWithIdentifiers(const QStringList& identifiers) const;
    static QStringList identifiersWithClips(const ClipList& clips);

    // Appending clips to a track; these answer true.
    bool importClipsAtTrack(const ClipList& clips, const std::shared_ptr<VTTrack>& track);
    bool importClipAtTrack(std::shared_ptr<VTClip> clip, const std::shared_ptr<VTTrack>& track);
    // Appends to track `index`; kNotFound answers false; any other index past
    // the last track appends exactly one new track and imports there.
    bool importClipsAtTrackIndex(const ClipList& clips, int64_t index);
    bool importClipAtTrackIndex(std::shared_ptr<VTClip> clip, int64_t index);

    // Removes each clip from its track and drops it from the selection.
    bool removeClips(const ClipList& clips);
    bool removeClipsWithIdentifer(const QStringList& identifiers);

    // Splits every selected clip at `timestamp` and appends each right-hand
    // part to the same track. Answers split clip identifier → right-hand part.
    QHash<QString, std::shared_ptr<VTClip>> splitSelectionAtTimestamp(int64_t timestamp);
    // Moves `clip` to track `index` (creating tracks up to it), keeping its time.
    void moveClip(const std::shared_ptr<VTClip>& clip, int64_t toTrackIndex);
    // Puts back clip states (undo/redo): each given clip replaces the project's
    // clip of the same identifier, on the track named by `trackInfo`
    // (identifier → track index). Given clips not in the project are skipped.
    void replacementWithClips(const ClipList& clips, const QHash<QString, int64_t>& trackInfo);

    // Clipboard and selection commands; each answers whether it did something.
    bool canPaste() const;
    bool copy();
    bool cut();
    bool paste();
    bool delete_();
    bool selectAll();
    // Moves every selected clip by `delta`; each stops at 0 by itself.
    bool moveSelectionWithDelta(int64_t delta);
    bool moveLeftWithDelta(int64_t delta);
    bool moveRightWithDelta(int64_t delta);

    // The pull protocol (MixSource).
    void startMixWithContext(VTMixContext& context) override;
    void seekToTimestamp(int64_t timestamp, VTMixContext& context) override;
    int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) override;
    bool isEndOfSource(VTMixContext& context) override;
    void endMixWithContext(VTMixContext& context) override;

    // Keyed coding ("VTProject"): "_url", "_tracks", "_selections",
    // "_timePosition". Decoding clears needSaved; clips whose provider is
    // missing are left out of their tracks.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTProject> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    // The index of `track` in the list, or kNotFound.
    int64_t indexOfTrack(const std::shared_ptr<VTTrack>& track) const;
    // Appends one new empty track and answers it.
    std::shared_ptr<VTTrack> appendNewTrack();
    // The bytes that `copy` puts on the pasteboard; empty when nothing is selected.
    QByteArray archivedSelection() const;
    // The mix tree fixed by startMixWithContext, or null.
    static brindle::MixSource* mixRoot(VTMixContext& context);

    QUrl m_url;
    QStringList m_selections;
    brindle::Snapshot<TrackList> m_tracks;
    std::atomic<int64_t> m_timePosition{0};
    bool m_needSaved = false;
};
