// A clip: a stretch of one decoded media source placed on a track.
//
// Contract
// - A clip holds no audio. It names its media by the data provider's
//   identifier (`dataProviderIds`, one identifier despite the plural) and
//   resolves it through the shared registry whenever it needs the media's
//   properties; those read zero when the provider is missing.
// - All positions and lengths are Timestamps (milliseconds). `timestampOfTrack`
//   is the clip's start on its track, `durationOfTrack` its length (on the
//   track and in the media alike), `timestampOfDataProvider` the offset in the
//   media of its first sample.
// - Setters never fail: a value out of range is corrected and, where the
//   rules say so, a warning goes to the log. Creating or decoding a clip whose
//   provider is missing yields nothing.
// - Threads: edits happen on the main thread while a mix may read the clip
//   on another thread (playback keeps running through cut, paste, delete,
//   keyboard moves and gain changes). Every field the mixer reads is atomic;
//   `identifier` and `dataProviderIds` never change after construction.
//   Each setter's check-then-store is not atomic as a whole, so setters are
//   called from one thread (the main thread) only.
// - Mixing: a clip is a pull source (MixSource). Its per-run state
//   (VTClipMixContext) lives in the mix context under the clip's identifier.
//   It reads its media directly when the media's format, channel count and
//   rate equal the mix context's, and converts it otherwise; then it applies
//   its gain and fades to each buffer. In a context that converts ahead,
//   once the clip's media is a few blocks away its pulls are computed by a
//   feed (brindle::ClipFeed) on the worker pool and the mixing thread takes
//   them from there; the feed holds the clip alive while it runs.
#pragma once

#include "foundation/KeyedCoding.h"
#include "model/MixSource.h"

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

class VTClipMixContext;
class VTDataProvider;
class VTMixContext;

class VTClip final : public brindle::KeyedCoding,
                     public brindle::MixSource,
                     public std::enable_shared_from_this<VTClip> {
public:
    // A clip over the whole media of the provider `dataProviderIds`: at 0 on its
    // track and in the media, as long as the media, gain 1.0, fades off with
    // length 0, a new identifier. Null when the registry has no such provider.
    static std::shared_ptr<VTClip> initWithDataProviderIDs(const QString& dataProviderIds);

    // Class constants.
    static int64_t minDurationAllowed();  // 500 ms
    static double maxVolumeAllowed();     // 3.0
    static double minVolumeAllowed();     // 0.0

    const QString& dataProviderIds() const { return m_dataProviderIds; }
    const QString& identifier() const { return m_uuidString; }

    int64_t timestampOfTrack() const { return m_timestampOfTrack.load(); }
    int64_t durationOfTrack() const { return m_durationOfTrack.load(); }
    int64_t timestampOfDataProvider() const { return m_timestampOfDataProviders.load(); }
    double volume() const { return m_volume.load(); }
    bool enableFadeIn() const { return m_enableFadeIn.load(); }
    bool enableFadeOut() const { return m_enableFadeOut.load(); }
    int64_t durationOfFadeIn() const { return m_durationOfFadeIn.load(); }
    int64_t durationOfFadeOut() const { return m_durationOfFadeOut.load(); }

    // Setters with checks and corrections.
    void setTimestampOfTrack(int64_t timestamp);
    void setTimestampOfDataProvider(int64_t timestamp);
    void setDurationOfTrack(int64_t duration);
    void setDurationOfFadeIn(int64_t duration);
    void setDurationOfFadeOut(int64_t duration);
    void setEnableFadeIn(bool enable);
    void setEnableFadeOut(bool enable);
    void setVolume(double volume);

    // A fade is applied when it is switched on and has a positive length.
    bool fadeInValidate() const;
    bool fadeOutValidate() const;
    // The fade length that switching a fade on gives: 3000 ms for clips
    // longer than 3 s, else half the clip's length.
    int64_t defaultDurationOfFadeEffect() const;

    // Fade positions and lengths in samples on the track's axis at `samplerate`.
    int64_t indexOfFadeInSampleWithSamplerate(int64_t samplerate) const;
    int64_t numberOfFadeInSamplesWithSamplerate(int64_t samplerate) const;
    int64_t indexOfFadeOutSampleWithSamplerate(int64_t samplerate) const;
    int64_t numberOfFadeOutSamplesWithSamplerate(int64_t samplerate) const;

    // Properties of the media, read from the provider on every call; 0 when
    // the provider is missing. `bytesPerSample` is bytes per sample frame.
    int32_t sampleFormat() const;
    int64_t samplerate() const;
    int64_t numberOfChannel() const;
    int64_t bytesPerSample() const;
    // The registry's provider for `dataProviderIds`, or null.
    std::shared_ptr<VTDataProvider> dataProvider() const;
    // The media file's name without its extension; empty without a provider.
    QString description() const;

    // A new clip (new identifier) over the same media with the same settings,
    // applied through the setters in a fixed order. Null when the provider
    // has gone from the registry.
    std::shared_ptr<VTClip> clone() const;
    // Shortens this clip to end at track time `timestamp` and answers the
    // right-hand part as a new clip; null (and no change) when `timestamp` is
    // not strictly inside the clip.
    std::shared_ptr<VTClip> splitAtTimestamp(int64_t timestamp);
    // Moves the left edge to track time `timestamp`, keeping the audio in place:
    // never before the media's start, never shorter than minDurationAllowed.
    void cutStartWithTimestamp(int64_t timestamp);
    // Moves the right edge to make the clip `duration` long: at least
    // minDurationAllowed, but never past the media's end.
    void cutEndWithDuration(int64_t duration);

    // The pull protocol (MixSource).
    void startMixWithContext(VTMixContext& context) override;
    void seekToTimestamp(int64_t timestamp, VTMixContext& context) override;
    int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) override;
    bool isEndOfSource(VTMixContext& context) override;
    void endMixWithContext(VTMixContext& context) override;
    // Applies `volume` to `numberOfSample` frames in the mix context's format.
    void effectVolume(double volume, void* samples, int64_t numberOfSample, VTMixContext& context);

    // Keyed coding ("VTClip").
    static QStringList archiveClassNames();
    // Null (with a warning) when the provider is missing from the registry.
    static std::shared_ptr<VTClip> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    VTClip(QString dataProviderIds, QString identifier);
    // The provider's duration in milliseconds, 0 when it is missing.
    int64_t providerDuration() const;

    // Mixing steps (VTClipMix.cpp).
    struct PullTarget;
    // A new state; `mediaOffset` is the media timestamp where reading begins.
    std::shared_ptr<VTClipMixContext> makeMixState(int64_t indexOfSampleStart, int64_t timestamp,
                                                   int64_t mediaOffset) const;
    // One pull from `state` into `out` (frames > 0 frames, the context's
    // format already checked): the answer, and what it did to the flag.
    int64_t pullFromState(VTClipMixContext& state, uint8_t* out, int64_t frames, brindle::FlagWrite& flag,
                          const VTMixContext& context);
    // The pull through the state's feed, starting one when the media is
    // near; nullopt when this pull is made here instead (VTClipMixAhead.cpp).
    std::optional<int64_t> pullAhead(std::shared_ptr<VTClipMixContext>& slot, uint8_t* out, int64_t frames,
                                     bool* appendBefore, const VTMixContext& context);
    bool feedShouldStart(const VTClipMixContext& state, int64_t frames, const VTMixContext& context) const;
    void startFeed(VTClipMixContext& state, int64_t frames, const VTMixContext& context);
    // Gives up the feed for pulls here: a state brought to where the feed's
    // pulls taken so far left it, by making them again.
    void replaceFeedByPulls(std::shared_ptr<VTClipMixContext>& slot, int64_t asked, const VTMixContext& context);
    void takeCachedSamples(VTClipMixContext& state, PullTarget& target, const VTMixContext& context);
    bool readDirect(VTClipMixContext& state, PullTarget& target, const VTMixContext& context);
    bool readConverting(VTClipMixContext& state, PullTarget& target, const VTMixContext& context);
    void applyEffects(VTClipMixContext& state, uint8_t* buffer, int64_t frames, const VTMixContext& context);

    const QString m_dataProviderIds;
    const QString m_uuidString;
    std::atomic<int64_t> m_timestampOfTrack{0};
    std::atomic<int64_t> m_durationOfTrack{0};
    std::atomic<int64_t> m_timestampOfDataProviders{0};
    std::atomic<double> m_volume{1.0};
    std::atomic<bool> m_enableFadeIn{false};
    std::atomic<bool> m_enableFadeOut{false};
    std::atomic<int64_t> m_durationOfFadeIn{0};
    std::atomic<int64_t> m_durationOfFadeOut{0};
};
