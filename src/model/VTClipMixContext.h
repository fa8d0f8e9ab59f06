// The mix state of one clip in one mix run.
//
// Contract
// - Made by the clip when a mix starts or seeks, and kept in the mix context
//   under the clip's identifier; a seek replaces it (dropping the resampler
//   and the cache with it).
// - `timestampOfTrack`: the timeline position at which the state was made;
//   `indexOfSampleStart`: the output-rate index on the track axis of the
//   first frame this state delivers; `indexOfSampleStartInDataProvider`: the
//   media frame where reading begins; the two counters: frames delivered on
//   the track axis (silence included) and media frames consumed.
// - `cacheSample`: converted frames left over from the last conversion, in the
//   output format. It is a buffer with a read offset: taking frames from its
//   front moves the offset, and new contents come from the converter's output
//   buffer, which trades places with it instead of being copied.
// - Besides the fields above the state holds what a pull must not look up or
//   allocate each time: the data provider resolved once when the state is
//   made (null when it was missing: the media then reads as no frames), the
//   media's format, rate and channel count, the scratch buffers of the
//   converting read, and the gain and fade processors.
// - A state may carry a feed (brindle::ClipFeed) that computes its clip's
//   pulls ahead on another state of its own; the counters here then follow
//   the pulls the mixing thread has taken. Destroying the state stops the
//   feed. `isPristine` is true until a pull has delivered media (the feed's
//   own state can then start as a plain copy of this one).
// - Used by one mixing thread at a time.
#pragma once

#include "media/VTDataProvider.h"

#include <cstdint>
#include <memory>
#include <vector>

class KRResampleContext2;
namespace brindle {
class ClipFeed;
}
class VTDataProvider;
class VTFadeInEffect;
class VTFadeOutEffect;
class VTVolumeEffect;

class VTClipMixContext {
public:
    VTClipMixContext(int64_t indexOfSampleStart, int64_t timestampOfTrack, int64_t indexOfSampleStartInDataProvider);
    ~VTClipMixContext();
    VTClipMixContext(const VTClipMixContext&) = delete;
    VTClipMixContext& operator=(const VTClipMixContext&) = delete;
    static std::shared_ptr<VTClipMixContext> initWithIndexOfSampleStart(int64_t indexOfSampleStart,
                                                                        int64_t timestampOfTrack,
                                                                        int64_t indexOfSampleStartInDataProvider);

    int64_t timestampOfTrack() const { return m_timestampOfTrack; }
    int64_t indexOfSampleStart() const { return m_indexOfSampleStart; }
    int64_t indexOfSampleStartInDataProvider() const { return m_indexOfSampleStartInDataProvider; }
    int64_t numberOfSampleOut() const { return m_numberOfSampleOut; }
    void setNumberOfSampleOut(int64_t count) { m_numberOfSampleOut = count; }
    int64_t numberOfSampleOutInDataProvider() const { return m_numberOfSampleOutInDataProvider; }
    void setNumberOfSampleOutInDataProvider(int64_t count) { m_numberOfSampleOutInDataProvider = count; }

    const std::shared_ptr<KRResampleContext2>& resampleContext() const { return m_resampleContext; }
    void setResampleContext(std::shared_ptr<KRResampleContext2> context);

    // The cached frames' bytes, from the read offset on.
    const uint8_t* cacheSample() const { return m_cache.data() + m_cacheOffset; }
    int64_t cacheSampleLength() const { return static_cast<int64_t>(m_cacheLength); }
    // Makes `length` bytes of convertedSamples() from `offset` on the cache
    // without copying them: the two buffers trade places, and the next
    // conversion writes into what was the cache.
    void takeConvertedAsCache(int64_t offset, int64_t length);
    // Drops `length` bytes from the front of the cache.
    void dropCacheSample(int64_t length);

    // The media, resolved when the state was made.
    const std::shared_ptr<VTDataProvider>& dataProvider() const { return m_dataProvider; }
    void setDataProvider(std::shared_ptr<VTDataProvider> provider);
    int32_t mediaSampleFormat() const { return m_mediaSampleFormat; }
    int64_t mediaSamplerate() const { return m_mediaSamplerate; }
    int64_t mediaNumberOfChannel() const { return m_mediaNumberOfChannel; }
    int64_t mediaBytesPerSample() const { return m_mediaBytesPerSample; }

    // The state's own memory of the media frame it read last, when it has
    // one (a feed's state: its pulls move between threads, and it reads one
    // stream); null when reads use the reading thread's memory.
    VTDataProvider::FrameCursor* frameCursor() { return m_frameCursor.get(); }
    void keepOwnFrameCursor() { m_frameCursor = std::make_unique<VTDataProvider::FrameCursor>(); }

    // A scratch buffer of at least `bytes` bytes, kept between pulls.
    uint8_t* readBuffer(size_t bytes);
    // The resampler's output, kept between pulls.
    std::vector<uint8_t>& convertedSamples() { return m_converted; }

    // Processors for the mix format, made on first use and kept; the fades are
    // remade only when their start or length changes.
    VTVolumeEffect* volumeEffect(int32_t sampleFormat, int64_t numberOfChannel);
    VTFadeInEffect* fadeInEffect(int64_t start, int64_t count, int32_t sampleFormat, int64_t numberOfChannel);
    VTFadeOutEffect* fadeOutEffect(int64_t start, int64_t count, int32_t sampleFormat, int64_t numberOfChannel);

    // A new state at the same place with the same counters and media, sharing
    // nothing; meaningful only for a pristine state.
    std::shared_ptr<VTClipMixContext> pristineCopy() const;
    bool isPristine() const { return m_pristine; }
    void setDeliveredMedia() { m_pristine = false; }

    // The feed, the block size it computes, the track-axis count where it
    // began, and how many of its pulls were taken.
    const std::shared_ptr<brindle::ClipFeed>& feed() const { return m_feed; }
    int64_t feedFrames() const { return m_feedFrames; }
    int64_t feedStartSampleOut() const { return m_feedStartSampleOut; }
    int64_t feedPullsTaken() const { return m_feedPullsTaken; }
    void setFeed(std::shared_ptr<brindle::ClipFeed> feed, int64_t frames);
    void countFeedPull() { ++m_feedPullsTaken; }
    // Stops and drops the feed.
    void stopFeed();

private:
    int64_t m_timestampOfTrack;
    int64_t m_indexOfSampleStart;
    int64_t m_indexOfSampleStartInDataProvider;
    int64_t m_numberOfSampleOut = 0;
    int64_t m_numberOfSampleOutInDataProvider = 0;
    std::shared_ptr<KRResampleContext2> m_resampleContext;
    std::vector<uint8_t> m_cache;
    size_t m_cacheOffset = 0;
    size_t m_cacheLength = 0;

    std::shared_ptr<VTDataProvider> m_dataProvider;
    int32_t m_mediaSampleFormat = 0;
    int64_t m_mediaSamplerate = 0;
    int64_t m_mediaNumberOfChannel = 0;
    int64_t m_mediaBytesPerSample = 0;
    std::vector<uint8_t> m_readBuffer;
    std::unique_ptr<VTDataProvider::FrameCursor> m_frameCursor;
    std::vector<uint8_t> m_converted;

    std::shared_ptr<VTVolumeEffect> m_volumeEffect;
    bool m_volumeEffectRefused = false;
    std::shared_ptr<VTFadeInEffect> m_fadeInEffect;
    std::shared_ptr<VTFadeOutEffect> m_fadeOutEffect;

    bool m_pristine = true;
    std::shared_ptr<brindle::ClipFeed> m_feed;
    int64_t m_feedFrames = 0;
    int64_t m_feedStartSampleOut = 0;
    int64_t m_feedPullsTaken = 0;
};
