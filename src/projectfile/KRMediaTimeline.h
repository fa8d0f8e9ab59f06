// The earlier generation's timeline, tracks and clips, as far as the legacy
// project reader needs them: their archived fields, decoded and encoded with
// the old keys. Their editing, mixing and drawing are not part of this system.
//
// Contract
// - KRMediaTimeline ("KRMediaTimeline"): "kKRTracks", a list of tracks.
// - KRMediaTrack ("KRMediaTrack"): "kKRMediaClips", a list of clips, and the
//   track's mix format "kKRTrackSampleRate", "kKRTrackSampleFormat",
//   "kKRTrackNumberOfComponent" (integers; read, not used by the conversion).
// - KRMediaClip ("KRMediaClip"): "duration", "startTimestamp",
//   "TimestampOfDataProvider" (64-bit integers, ms), "DataProviderfilename"
//   (the provider identifier, a media path), "kKRFadeInValidate",
//   "kKRFadeOutValidate" (booleans), "kKRFadeInDuration", "kKRFadeOutDuration"
//   (64-bit integers, ms), "kKRVolume" (unsigned integer, percent).
// - A list that holds an object of another class makes its holder undecodable
//   (null), so a damaged timeline is refused as a whole rather than half read.
// - Plain values: built and read on one thread.
#pragma once

#include "foundation/KeyedCoding.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

class KRMediaClip final : public brindle::KeyedCoding {
public:
    int64_t duration = 0;
    int64_t startTimestamp = 0;
    int64_t timestampOfDataProvider = 0;
    QString dataProviderFilename;
    bool fadeInValidate = false;
    bool fadeOutValidate = false;
    int64_t fadeInDuration = 0;
    int64_t fadeOutDuration = 0;
    uint64_t volume = 100;

    static QStringList archiveClassNames();
    static std::shared_ptr<KRMediaClip> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;
};

class KRMediaTrack final : public brindle::KeyedCoding {
public:
    std::vector<std::shared_ptr<KRMediaClip>> clips;
    int64_t sampleRate = 44100;
    int64_t sampleFormat = 1;
    int64_t numberOfComponent = 2;

    static QStringList archiveClassNames();
    static std::shared_ptr<KRMediaTrack> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;
};

class KRMediaTimeline final : public brindle::KeyedCoding {
public:
    std::vector<std::shared_ptr<KRMediaTrack>> tracks;

    static QStringList archiveClassNames();
    static std::shared_ptr<KRMediaTimeline> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;
};
