#include "projectfile/KRMediaTimeline.h"

#include "foundation/Log.h"

namespace {

const QString kTracksKey = QStringLiteral("kKRTracks");
const QString kClipsKey = QStringLiteral("kKRMediaClips");
const QString kTrackSampleRateKey = QStringLiteral("kKRTrackSampleRate");
const QString kTrackSampleFormatKey = QStringLiteral("kKRTrackSampleFormat");
const QString kTrackComponentsKey = QStringLiteral("kKRTrackNumberOfComponent");
const QString kDurationKey = QStringLiteral("duration");
const QString kStartKey = QStringLiteral("startTimestamp");
const QString kProviderOffsetKey = QStringLiteral("TimestampOfDataProvider");
const QString kProviderKey = QStringLiteral("DataProviderfilename");
const QString kFadeInOnKey = QStringLiteral("kKRFadeInValidate");
const QString kFadeOutOnKey = QStringLiteral("kKRFadeOutValidate");
const QString kFadeInKey = QStringLiteral("kKRFadeInDuration");
const QString kFadeOutKey = QStringLiteral("kKRFadeOutDuration");
const QString kVolumeKey = QStringLiteral("kKRVolume");

}  // namespace

// --- clip ------------------------------------------------------------------

QStringList KRMediaClip::archiveClassNames()
{
    return {QStringLiteral("KRMediaClip")};
}

std::shared_ptr<KRMediaClip> KRMediaClip::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    auto clip = std::make_shared<KRMediaClip>();
    clip->duration = coder.decodeInt64ForKey(kDurationKey);
    clip->startTimestamp = coder.decodeInt64ForKey(kStartKey);
    clip->timestampOfDataProvider = coder.decodeInt64ForKey(kProviderOffsetKey);
    clip->dataProviderFilename = coder.decodeStringForKey(kProviderKey).value_or(QString());
    clip->fadeInValidate = coder.decodeBoolForKey(kFadeInOnKey);
    clip->fadeOutValidate = coder.decodeBoolForKey(kFadeOutOnKey);
    clip->fadeInDuration = coder.decodeInt64ForKey(kFadeInKey);
    clip->fadeOutDuration = coder.decodeInt64ForKey(kFadeOutKey);
    // An unsigned percentage; a value stored as a negative integer reads as 0.
    const int64_t volume = coder.containsValueForKey(kVolumeKey) ? coder.decodeInt64ForKey(kVolumeKey) : 100;
    clip->volume = volume < 0 ? 0 : uint64_t(volume);
    return clip;
}

QString KRMediaClip::classNameForArchive() const
{
    return QStringLiteral("KRMediaClip");
}

void KRMediaClip::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeInt64(duration, kDurationKey);
    coder.encodeInt64(startTimestamp, kStartKey);
    coder.encodeInt64(timestampOfDataProvider, kProviderOffsetKey);
    coder.encodeString(dataProviderFilename, kProviderKey);
    coder.encodeBool(fadeInValidate, kFadeInOnKey);
    coder.encodeBool(fadeOutValidate, kFadeOutOnKey);
    coder.encodeInt64(fadeInDuration, kFadeInKey);
    coder.encodeInt64(fadeOutDuration, kFadeOutKey);
    coder.encodeInt64(int64_t(volume), kVolumeKey);
}

// --- track -----------------------------------------------------------------

QStringList KRMediaTrack::archiveClassNames()
{
    return {QStringLiteral("KRMediaTrack")};
}

std::shared_ptr<KRMediaTrack> KRMediaTrack::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    auto track = std::make_shared<KRMediaTrack>();
    if (coder.containsValueForKey(kClipsKey)) {
        auto clips = coder.decodeArrayOfClass<KRMediaClip>(kClipsKey);
        if (!clips) {
            brindle::log(QStringLiteral("Warning: a legacy track's clip list is damaged."));
            return nullptr;
        }
        track->clips = std::move(*clips);
    }
    track->sampleRate = coder.decodeInt64ForKey(kTrackSampleRateKey);
    track->sampleFormat = coder.decodeInt64ForKey(kTrackSampleFormatKey);
    track->numberOfComponent = coder.decodeInt64ForKey(kTrackComponentsKey);
    return track;
}

QString KRMediaTrack::classNameForArchive() const
{
    return QStringLiteral("KRMediaTrack");
}

void KRMediaTrack::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeArrayOf(clips, kClipsKey, true);
    coder.encodeInt64(sampleRate, kTrackSampleRateKey);
    coder.encodeInt64(sampleFormat, kTrackSampleFormatKey);
    coder.encodeInt64(numberOfComponent, kTrackComponentsKey);
}

// --- timeline --------------------------------------------------------------

QStringList KRMediaTimeline::archiveClassNames()
{
    return {QStringLiteral("KRMediaTimeline")};
}

std::shared_ptr<KRMediaTimeline> KRMediaTimeline::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    auto timeline = std::make_shared<KRMediaTimeline>();
    if (coder.containsValueForKey(kTracksKey)) {
        auto tracks = coder.decodeArrayOfClass<KRMediaTrack>(kTracksKey);
        if (!tracks) {
            brindle::log(QStringLiteral("Warning: the legacy timeline's track list is damaged."));
            return nullptr;
        }
        timeline->tracks = std::move(*tracks);
    }
    return timeline;
}

QString KRMediaTimeline::classNameForArchive() const
{
    return QStringLiteral("KRMediaTimeline");
}

void KRMediaTimeline::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeArrayOf(tracks, kTracksKey, true);
}
