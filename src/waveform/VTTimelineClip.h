// What the timeline view needs of each clip its data source hands out: the
// clip's times and fades, its Identifier, its title, and its waveform points.
//
// Contract
// - All accessors are called on the main thread and read the current values.
// - `featureSamplesAtTimestamps` asks for the waveform points of the track
//   stretch [timestamp, timestamp + durationOfTrack] at `durationPerPixel`
//   milliseconds per point. It returns at once; the points arrive later, on
//   another thread, one handler call per computed point, in media order. A
//   newer request of the same clip supersedes the earlier one: the earlier
//   one's handler is not called after the newer request has returned. The
//   handler must only record the points and ask the main thread for a redraw
//   (asynchronously); it must not wait for the main thread.
// - `description` is optional: an empty optional means the clip has no title.
// Headless: no widget, GUI or GL type appears here.
#pragma once

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class VTFeatureSample;

class VTTimelineClip {
public:
    using FeatureSampleList = std::vector<std::shared_ptr<VTFeatureSample>>;
    using ProcessHandler = std::function<void(const FeatureSampleList& featureSamples)>;

    virtual ~VTTimelineClip() = default;

    virtual int64_t timestampsOfTrack() const = 0;
    virtual int64_t timestampsOfDataProvider() const = 0;
    // 0 means the clip has no box.
    virtual int64_t durationOfTrack() const = 0;
    virtual bool fadeInValidate() const = 0;
    virtual bool fadeOutValidate() const = 0;
    virtual int64_t durationOfFadeIn() const = 0;
    virtual int64_t durationOfFadeOut() const = 0;
    virtual void featureSamplesAtTimestamps(int64_t timestamp, int64_t durationOfTrack, int64_t withDurationPerPixel,
                                            ProcessHandler processHandler) = 0;
    virtual QString identifier() const = 0;
    // The clip's title, when it has one.
    virtual std::optional<QString> description() const { return std::nullopt; }
};
