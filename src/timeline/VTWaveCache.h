// One clip's waveform as a GL texture at one zoom: collects the clip's
// feature samples as they arrive and renders them into the texture through
// an off-screen frame buffer.
//
// Contract
// - A request (`drawWaveWithTimestamps`, `redrawWaveWithTimestamps`) asks the
//   clip for the points of a track stretch [t0, t0 + L] at `dpp` ms per
//   point. The points arrive later on the clip's own queue; the arrival step
//   hands them to the main queue (holding only a weak reference, so a cache
//   that is gone by then gets nothing), where they are appended to the
//   collected data and `handler` runs. Points of a superseded request are
//   dropped: a redraw request starts a new generation.
// - The texture is `textureWidth` × `textureHeight` (68) pixels, L / dpp + 1
//   wide, and only grows; it never exceeds the context's GL_MAX_TEXTURE_SIZE:
//   a longer stretch is shortened to what fits, so the view's "covers the
//   visible part" test asks for another stretch when scrolled beyond it.
// - GL work (`createTextureWithWidth`, the FBO pair, `drawWave`, requests,
//   which render the empty state) needs the view's context current.
//   `endDrawFBO` rebinds the frame buffer that was bound when
//   `beginDrawFBOWithTexture` ran (the view's own, never 0 for a widget).
//   The texture is deleted with its context when the cache goes away.
// - Threads: everything but the clip's delivery runs on the main thread.
#pragma once

#include "timeline/GLSupport.h"
#include "waveform/VTTimelineClip.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

class VTWaveCache : public std::enable_shared_from_this<VTWaveCache> {
public:
    using Handler = std::function<void()>;

    // The frame buffer and depth render buffer of one off-screen render, and
    // the frame buffer to return to. Both names 0 when the buffer was incomplete.
    struct FrameBufferPair {
        uint32_t frameBuffer = 0;
        uint32_t renderBuffer = 0;
        uint32_t previousFrameBuffer = 0;
    };

    // Null for a null clip.
    static std::shared_ptr<VTWaveCache> initWithClip(std::shared_ptr<VTTimelineClip> clip, uint64_t durationPerPixel);
    ~VTWaveCache();
    VTWaveCache(const VTWaveCache&) = delete;
    VTWaveCache& operator=(const VTWaveCache&) = delete;

    const std::shared_ptr<VTTimelineClip>& clip() const { return m_clip; }
    QString clipID() const;
    uint64_t dpp() const { return m_durationPerPixel; }
    bool drawComplete() const { return m_drawComplete; }
    void setDrawComplete(bool drawComplete) { m_drawComplete = drawComplete; }
    uint64_t numberOfFeatureSamples() const { return m_numberOfFeatureSamples; }
    uint64_t bytesPerFeatureSamples() const { return m_bytesPerFeatureSamples; }
    const QByteArray& dataForFeatureSamples() const { return m_dataForFeatureSamples; }
    int64_t timestampsOfTrackStartDraw() const { return m_timestampsOfTrackStartDraw; }
    int64_t timestampsOfDataProvider() const { return m_timestampsOfDataProvider; }
    int64_t durationOfTrack() const { return m_durationOfTrack; }

    uint32_t textureID() const { return m_textureID; }
    uint32_t textureWidth() const { return m_textureWidth; }
    uint32_t textureHeight() const { return m_textureHeight; }
    void setTextureHeight(uint32_t textureHeight) { m_textureHeight = textureHeight; }
    uint32_t textureContentWidth() const { return m_textureContentWidth; }
    uint32_t textureContentHeight() const { return m_textureContentHeight; }
    double waveMargin() const { return m_waveMargin; }
    void setWaveMargin(double waveMargin) { m_waveMargin = waveMargin; }
    // 68 once `textureHeight` is still 0; the wave margin, 10 while unset.
    uint32_t internalTextHeight();
    double internalWaveMargin();

    // A new RGBA texture without contents, nearest filtering, clamped edges.
    uint32_t createTextureWithWidth(uint32_t width, uint32_t height);
    FrameBufferPair beginDrawFBOWithTexture(uint32_t texture, uint32_t width, uint32_t height);
    void endDrawFBO(const FrameBufferPair& frameBuffers);

    // First request, right after creation: makes the texture, asks for the
    // points and renders the empty state.
    void drawWaveWithTimestamps(int64_t timestamp, int64_t durationOfTrack, Handler process);
    // Asks again, for a new stretch, clip or zoom; the texture only grows.
    void redrawWaveWithTimestamps(int64_t timestamp, int64_t durationOfTrack, std::shared_ptr<VTTimelineClip> clip,
                                  uint64_t durationPerPixel, Handler process);
    // Asks for the points when this request has not asked yet and nothing
    // is collected, then draws.
    void drawWaveWithTimestamps(int64_t timestamp, int64_t durationOfTrack);
    // Draws the collected points into the bound target.
    void drawWave();
    // The line strip `drawWave` draws, as x, y pairs in texture pixels.
    std::vector<float> waveVertices();
    // The texture rows [first, second) that hold anything since the texture
    // was last cleared; outside them it is transparent (the view draws
    // only these rows). Empty when nothing has been drawn.
    std::pair<double, double> inkedRows() const { return m_inkedRows; }

    // The widest texture the current context takes (16384 without a context).
    static uint32_t maxTextureSize();

private:
    // The points of one request on their way from the clip's queue to the
    // main queue (guarded by `mutex`: the clip's queue adds, the main queue takes).
    struct Arrivals {
        std::mutex mutex;
        VTTimelineClip::FeatureSampleList pending;
        bool posted = false;
        uint64_t generation = 0;
    };

    VTWaveCache(std::shared_ptr<VTTimelineClip> clip, uint64_t durationPerPixel);

    // The stretch shortened so that its texture fits the largest size.
    int64_t durationThatFits(int64_t durationOfTrack) const;
    // Steps 1–4 of a (re)request: size the texture, forget what was
    // collected, and render the empty state while asking afresh.
    void restartWithTimestamps(int64_t timestamp, int64_t durationOfTrack, Handler process);
    // Asks the clip for the points when this request has not asked yet.
    void requestIfNeeded(int64_t timestamp, int64_t durationOfTrack);
    // Runs on the main queue with the points of request `generation`.
    void appendFeatureSamples(uint64_t generation, const VTTimelineClip::FeatureSampleList& featureSamples);
    void deleteTexture();

    std::shared_ptr<VTTimelineClip> m_clip;
    uint64_t m_durationPerPixel = 0;
    bool m_drawComplete = false;
    uint64_t m_numberOfFeatureSamples = 0;
    uint64_t m_bytesPerFeatureSamples = 0;
    QByteArray m_dataForFeatureSamples;
    // The current generation's request has been made.
    bool m_requested = false;
    int64_t m_timestampsOfTrackStartDraw = 0;
    int64_t m_timestampsOfDataProvider = 0;
    int64_t m_durationOfTrack = 0;
    Handler m_handler;
    uint32_t m_textureID = 0;
    uint32_t m_textureWidth = 0;
    uint32_t m_textureHeight = 0;
    uint32_t m_textureContentWidth = 0;
    uint32_t m_textureContentHeight = 0;
    double m_waveMargin = 0;
    // Counts requests; arrivals of an older one are dropped.
    uint64_t m_generation = 0;
    std::pair<double, double> m_inkedRows{0, 0};
    brindle::gl::GLOwner m_textureOwner;
};
