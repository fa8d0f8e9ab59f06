// One waveform point: the per-channel extremes of a sample block placed on
// the media's time axis, after the clip's gain and fades, ready to draw.
//
// Contract
// - `timestampOfDataProvider` (where the point lies in the media) and
//   `durationOfTrack` (the track time it spans) are fixed when it is made;
//   the creator then fills `numberOfChannel` and the two buffers (one 64-bit
//   float per channel, channel 0 first). A new point has empty buffers and 0
//   channels.
// - Binary form (little-endian 64-bit integers): timestamp, duration,
//   channel count, M, M bytes of maxima, N, N bytes of minima. `initWithData`
//   refuses (null) data that ends before any field and never reads past it;
//   empty buffers are accepted; trailing bytes are ignored.
// - Threads: the buffers and the channel count are guarded, so one thread
//   (a clip adapter's queue) may fill a point while another (the view) reads
//   it; the two times never change.
#pragma once

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <mutex>

class VTFeatureSample final {
public:
    VTFeatureSample(int64_t timestampOfDp, int64_t duration) :
        m_timestampOfDataProvider(timestampOfDp), m_durationOfTrack(duration)
    {
    }
    static std::shared_ptr<VTFeatureSample> initWithTimestampOfDp(int64_t timestampOfDp, int64_t duration)
    {
        return std::make_shared<VTFeatureSample>(timestampOfDp, duration);
    }
    static std::shared_ptr<VTFeatureSample> initWithData(const QByteArray& data);

    int64_t timestampOfDataProvider() const { return m_timestampOfDataProvider; }
    int64_t durationOfTrack() const { return m_durationOfTrack; }

    QByteArray maxSamples() const;
    QByteArray minSamples() const;
    int64_t numberOfChannel() const;
    void setMaxSamples(const QByteArray& maxSamples);
    void setMinSamples(const QByteArray& minSamples);
    void setNumberOfChannel(int64_t numberOfChannel);
    // The value of channel `channel` in either buffer; 0 when out of range.
    double maxSampleOfChannel(int64_t channel) const;
    double minSampleOfChannel(int64_t channel) const;

    QByteArray encodeToData() const;

private:
    const int64_t m_timestampOfDataProvider;
    const int64_t m_durationOfTrack;
    mutable std::mutex m_mutex;
    QByteArray m_maxSamples;
    QByteArray m_minSamples;
    int64_t m_numberOfChannel = 0;
};
