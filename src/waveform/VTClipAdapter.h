// One model clip as the timeline sees it: its times and fades, and its
// waveform points made from the shared sample blocks of its media.
//
// Contract
// - The VTTimelineClip accessors read the clip on every call.
// - `featureSamplesAtTimestamps` (track start t0, length d, zoom z ms per
//   point, handler): takes the shared cache of the clip's media at zoom z
//   from VTFeatureSampleCacheMgr (a cache at another zoom is replaced for
//   every clip of that media, and its walks are cancelled), drains this
//   clip's earlier walks, then starts a walk from the media time of t0 on
//   the adapter's own serial `featureSampleQueue` and returns. For each
//   block placed strictly inside (t0, t0 + d) on the track, the handler gets
//   a one-element list with the point, on that queue, in media order; the
//   walk stops at the first block at or after t0 + d. Once a newer request
//   has returned, the older request's handler is not called again.
// - A point is the block's extremes (copies: the shared block is never
//   changed), scaled by the clip's volume (unless within 1e-6 of 1) and by
//   its fade-in and fade-out gains at the block's track time, then
//   normalised: 8-bit (x − 127) / 127, 16-bit x / 32767.5, 32-bit integer
//   x × (−2.0) (kept as the waveform has always shown it), floats unchanged.
//   Its media time and span are 1000 × index / rate and 1000 × count / rate.
// - A zoom below 1 ms per point, or media without a rate, yields no points
//   and a log line.
// - Threads: accessors and requests on the main thread (requests from other
//   threads are safe too). Walks read only atomic clip fields. Destroying the
//   adapter supersedes its walks and waits until its queue is idle; it must
//   not be destroyed from its own handler.
#pragma once

#include "foundation/Dispatch.h"
#include "waveform/VTTimelineClip.h"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

class VTClip;
class VTSampleBlock;

class VTClipAdapter final : public VTTimelineClip {
public:
    // Null when `clip` is null.
    static std::shared_ptr<VTClipAdapter> initWithClip(std::shared_ptr<VTClip> clip);
    static std::shared_ptr<VTClipAdapter> init() { return initWithClip(nullptr); }
    ~VTClipAdapter() override;
    VTClipAdapter(const VTClipAdapter&) = delete;
    VTClipAdapter& operator=(const VTClipAdapter&) = delete;

    const std::shared_ptr<VTClip>& clip() const { return m_clip; }
    // "Clip Adapter: 0x<address>", created on first use.
    brindle::SerialQueue& featureSampleQueue();

    // VTTimelineClip.
    int64_t timestampsOfTrack() const override;
    int64_t timestampsOfDataProvider() const override;
    int64_t durationOfTrack() const override;
    bool fadeInValidate() const override;
    bool fadeOutValidate() const override;
    int64_t durationOfFadeIn() const override;
    int64_t durationOfFadeOut() const override;
    void featureSamplesAtTimestamps(int64_t timestamp, int64_t durationOfTrack, int64_t withDurationPerPixel,
                                    ProcessHandler processHandler) override;
    QString identifier() const override;
    std::optional<QString> description() const override;

    // One point for block `sampleBlock` of a request (t0, d, z), or null when
    // the block's track time is not strictly inside (t0, t0 + d).
    std::shared_ptr<VTFeatureSample> calcFeatureSamplesWithTimestamp(int64_t timestamp, int64_t durationOfTrack,
                                                                     const VTSampleBlock& sampleBlock,
                                                                     int64_t durationPerPixel) const;
    // Normalises the first `numberOfChannel` values of both buffers (never
    // past their ends) for `sampleFormat`; formats 5 and above are left as
    // they are, with "Can't support such sample format(<code>) normalize.".
    static void normalizeSamples(QByteArray& maxSamples, QByteArray& minSamples, int64_t numberOfChannel,
                                 int32_t sampleFormat);

private:
    explicit VTClipAdapter(std::shared_ptr<VTClip> clip);

    // What a walk shares with the adapter: the supersession flags.
    struct WalkState {
        // Set while earlier walks are drained; a walk that sees it stops and delivers nothing.
        std::atomic<bool> cancel{false};
        // Counts requests; a walk whose request is no longer the latest stops.
        std::atomic<uint64_t> generation{0};
    };
    // The media's format as one walk sees it, read once per request.
    struct MediaFormat {
        int64_t samplerate = 0;
        int32_t sampleFormat = 0;
        int64_t numberOfChannel = 0;
    };
    static int64_t trackTimestampOfBlock(const VTClip& clip, const VTSampleBlock& block, int64_t samplerate);
    static std::shared_ptr<VTFeatureSample> featureSampleOfBlock(const VTClip& clip, int64_t timestamp,
                                                                 int64_t durationOfTrack, const VTSampleBlock& block,
                                                                 const MediaFormat& format);

    const std::shared_ptr<VTClip> m_clip;
    std::mutex m_queueMutex;
    std::unique_ptr<brindle::SerialQueue> m_featureSampleQueue;
    const std::shared_ptr<WalkState> m_walkState = std::make_shared<WalkState>();
};
