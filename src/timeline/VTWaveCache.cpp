#include "timeline/VTWaveCache.h"

#include "foundation/Dispatch.h"
#include "foundation/Log.h"
#include "waveform/VTFeatureSample.h"

#include <QOpenGLFunctions>
#include <QOpenGLFunctions_2_1>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr uint32_t kTextureHeight = 68;
constexpr double kWaveMargin = 10;
constexpr double kExpression = 1e-6;
constexpr float kWaveRed = 174.0f / 255.0f;
constexpr float kWaveGreen = 207.0f / 255.0f;
constexpr float kWaveBlue = 148.0f / 255.0f;
constexpr float kWaveAlpha = 0.8f;

// One collected point as `drawWave` needs it, read from its encoded form.
struct EncodedPoint {
    int64_t timestamp = 0;
    int64_t channels = 0;
    const char* maxima = nullptr;
    uint64_t maximaBytes = 0;
    const char* minima = nullptr;
    uint64_t minimaBytes = 0;
};

uint64_t readUInt64(const char* at)
{
    uint64_t value = 0;
    std::memcpy(&value, at, sizeof value);
    return qFromLittleEndian(value);
}

double channelValue(const char* values, uint64_t bytes, int64_t channel)
{
    if (channel < 0 || uint64_t(channel) >= bytes / sizeof(double))
        return 0.0;
    double value = 0.0;
    std::memcpy(&value, values + channel * int64_t(sizeof(double)), sizeof value);
    return value;
}

// Reads the point at `offset` (timestamp, duration, channels, M, maxima, N,
// minima) and moves `offset` past it; false when the bytes end inside it.
bool readPoint(const QByteArray& data, qsizetype& offset, EncodedPoint& point)
{
    const char* base = data.constData();
    const uint64_t size = uint64_t(data.size());
    uint64_t at = uint64_t(offset);
    auto take = [&](uint64_t& value) {
        if (size - at < 8)
            return false;
        value = readUInt64(base + at);
        at += 8;
        return true;
    };
    auto skip = [&](uint64_t bytes) {
        if (size - at < bytes)
            return false;
        at += bytes;
        return true;
    };
    uint64_t timestamp = 0, duration = 0, channels = 0;
    if (at > size || !take(timestamp) || !take(duration) || !take(channels) || !take(point.maximaBytes))
        return false;
    point.maxima = base + at;
    if (!skip(point.maximaBytes) || !take(point.minimaBytes))
        return false;
    point.minima = base + at;
    if (!skip(point.minimaBytes))
        return false;
    point.timestamp = int64_t(timestamp);
    point.channels = int64_t(channels);
    offset = qsizetype(at);
    return true;
}

}  // namespace

std::shared_ptr<VTWaveCache> VTWaveCache::initWithClip(std::shared_ptr<VTTimelineClip> clip, uint64_t durationPerPixel)
{
    if (!clip)
        return nullptr;
    return std::shared_ptr<VTWaveCache>(new VTWaveCache(std::move(clip), durationPerPixel));
}

VTWaveCache::VTWaveCache(std::shared_ptr<VTTimelineClip> clip, uint64_t durationPerPixel) :
    m_clip(std::move(clip)), m_durationPerPixel(durationPerPixel)
{
}

VTWaveCache::~VTWaveCache()
{
    deleteTexture();
}

QString VTWaveCache::clipID() const
{
    return m_clip ? m_clip->identifier() : QString();
}

uint32_t VTWaveCache::internalTextHeight()
{
    if (m_textureHeight == 0)
        m_textureHeight = kTextureHeight;
    return m_textureHeight;
}

double VTWaveCache::internalWaveMargin()
{
    if (std::fabs(m_waveMargin) < kExpression)
        m_waveMargin = kWaveMargin;
    return m_waveMargin;
}

uint32_t VTWaveCache::maxTextureSize()
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    if (!legacy)
        return 16384;
    GLint size = 0;
    legacy->glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
    return size > 0 ? uint32_t(size) : 16384;
}

uint32_t VTWaveCache::createTextureWithWidth(uint32_t width, uint32_t height)
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    if (!legacy)
        return 0;
    GLuint texture = 0;
    legacy->glGenTextures(1, &texture);
    legacy->glBindTexture(GL_TEXTURE_2D, texture);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    legacy->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    legacy->glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, GLsizei(width), GLsizei(height), 0, GL_RGBA, GL_UNSIGNED_BYTE,
                         nullptr);
    legacy->glBindTexture(GL_TEXTURE_2D, 0);
    return texture;
}

VTWaveCache::FrameBufferPair VTWaveCache::beginDrawFBOWithTexture(uint32_t texture, uint32_t width, uint32_t height)
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    QOpenGLFunctions* functions = brindle::gl::gl();
    FrameBufferPair pair;
    if (!legacy || !functions || texture == 0)
        return pair;
    GLint previous = 0;
    legacy->glGetIntegerv(GL_FRAMEBUFFER_BINDING, &previous);
    pair.previousFrameBuffer = uint32_t(previous);
    GLuint frameBuffer = 0, renderBuffer = 0;
    functions->glGenFramebuffers(1, &frameBuffer);
    functions->glGenRenderbuffers(1, &renderBuffer);
    functions->glBindFramebuffer(GL_FRAMEBUFFER, frameBuffer);
    functions->glBindRenderbuffer(GL_RENDERBUFFER, renderBuffer);
    functions->glRenderbufferStorage(GL_RENDERBUFFER, GL_DEPTH_COMPONENT16, GLsizei(width), GLsizei(height));
    functions->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    functions->glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_RENDERBUFFER, renderBuffer);
    functions->glBindRenderbuffer(GL_RENDERBUFFER, 0);
    if (functions->glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        functions->glBindFramebuffer(GL_FRAMEBUFFER, GLuint(previous));
        functions->glDeleteRenderbuffers(1, &renderBuffer);
        functions->glDeleteFramebuffers(1, &frameBuffer);
        return pair;
    }
    legacy->glViewport(0, 0, GLsizei(width), GLsizei(height));
    legacy->glMatrixMode(GL_MODELVIEW);
    legacy->glLoadIdentity();
    legacy->glMatrixMode(GL_PROJECTION);
    legacy->glLoadIdentity();
    legacy->glOrtho(0, width, 0, height, -1, 50);
    legacy->glClearColor(0, 0, 0, 0);
    legacy->glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (texture == m_textureID)
        m_inkedRows = {0, 0};
    pair.frameBuffer = frameBuffer;
    pair.renderBuffer = renderBuffer;
    return pair;
}

void VTWaveCache::endDrawFBO(const FrameBufferPair& frameBuffers)
{
    QOpenGLFunctions* functions = brindle::gl::gl();
    if (!functions || frameBuffers.frameBuffer == 0)
        return;
    functions->glBindFramebuffer(GL_FRAMEBUFFER, frameBuffers.previousFrameBuffer);
    const GLuint renderBuffer = frameBuffers.renderBuffer;
    const GLuint frameBuffer = frameBuffers.frameBuffer;
    functions->glDeleteRenderbuffers(1, &renderBuffer);
    functions->glDeleteFramebuffers(1, &frameBuffer);
}

int64_t VTWaveCache::durationThatFits(int64_t durationOfTrack) const
{
    const int64_t zoom = int64_t(std::max<uint64_t>(m_durationPerPixel, 1));
    const int64_t widest = (int64_t(maxTextureSize()) - 1) * zoom;
    return std::min(durationOfTrack, widest);
}

void VTWaveCache::drawWaveWithTimestamps(int64_t timestamp, int64_t durationOfTrack, Handler process)
{
    restartWithTimestamps(timestamp, durationOfTrack, std::move(process));
}

void VTWaveCache::redrawWaveWithTimestamps(int64_t timestamp, int64_t durationOfTrack,
                                           std::shared_ptr<VTTimelineClip> clip, uint64_t durationPerPixel,
                                           Handler process)
{
    m_durationPerPixel = durationPerPixel;
    if (clip)
        m_clip = std::move(clip);
    restartWithTimestamps(timestamp, durationOfTrack, std::move(process));
}

void VTWaveCache::restartWithTimestamps(int64_t timestamp, int64_t durationOfTrack, Handler process)
{
    durationOfTrack = durationThatFits(std::max<int64_t>(durationOfTrack, 0));
    const int64_t zoom = int64_t(std::max<uint64_t>(m_durationPerPixel, 1));
    const uint32_t width = uint32_t(durationOfTrack / zoom + 1);
    const uint32_t height = internalTextHeight();
    if (m_textureID == 0 || m_textureWidth < width || m_textureHeight < height) {
        deleteTexture();
        m_textureOwner = brindle::gl::GLOwner();
        m_textureID = createTextureWithWidth(width, height);
        m_textureWidth = width;
        m_textureHeight = height;
    }
    m_textureContentWidth = width;
    m_textureContentHeight = height;

    m_dataForFeatureSamples.clear();
    m_handler = std::move(process);
    m_numberOfFeatureSamples = 0;
    m_bytesPerFeatureSamples = 0;
    m_drawComplete = false;
    m_requested = false;
    ++m_generation;

    const FrameBufferPair frameBuffers = beginDrawFBOWithTexture(m_textureID, m_textureWidth, m_textureHeight);
    if (frameBuffers.frameBuffer != 0) {
        drawWaveWithTimestamps(timestamp, durationOfTrack);
        endDrawFBO(frameBuffers);
        return;
    }
    // Nothing to render into: still ask, so that the points come.
    requestIfNeeded(timestamp, durationOfTrack);
}

void VTWaveCache::drawWaveWithTimestamps(int64_t timestamp, int64_t durationOfTrack)
{
    requestIfNeeded(timestamp, durationOfTrack);
    drawWave();
}

void VTWaveCache::requestIfNeeded(int64_t timestamp, int64_t durationOfTrack)
{
    if (!m_clip)
        return;
    if (m_dataForFeatureSamples.isEmpty() && !m_requested) {
        timestamp = std::max(timestamp, m_clip->timestampsOfTrack());
        durationOfTrack = std::min(durationOfTrack, m_clip->durationOfTrack());
        m_durationOfTrack = durationOfTrack;
        m_timestampsOfTrackStartDraw = timestamp;
        m_timestampsOfDataProvider = m_clip->timestampsOfDataProvider() + (timestamp - m_clip->timestampsOfTrack());
        m_requested = true;
        // Points pile up here on the clip's queue; the first of a pile posts
        // one hand-over to the main queue, which takes the whole pile.
        auto arrivals = std::make_shared<Arrivals>();
        arrivals->generation = m_generation;
        std::weak_ptr<VTWaveCache> weakSelf = weak_from_this();
        m_clip->featureSamplesAtTimestamps(
            timestamp, durationOfTrack, int64_t(m_durationPerPixel),
            [weakSelf, arrivals](const VTTimelineClip::FeatureSampleList& featureSamples) {
                bool post = false;
                {
                    std::lock_guard lock(arrivals->mutex);
                    arrivals->pending.insert(arrivals->pending.end(), featureSamples.begin(), featureSamples.end());
                    post = !std::exchange(arrivals->posted, true);
                }
                if (!post)
                    return;
                brindle::mainQueue().async([weakSelf, arrivals] {
                    VTTimelineClip::FeatureSampleList taken;
                    {
                        std::lock_guard lock(arrivals->mutex);
                        taken.swap(arrivals->pending);
                        arrivals->posted = false;
                    }
                    if (std::shared_ptr<VTWaveCache> cache = weakSelf.lock())
                        cache->appendFeatureSamples(arrivals->generation, taken);
                });
            });
    }
}

void VTWaveCache::appendFeatureSamples(uint64_t generation, const VTTimelineClip::FeatureSampleList& featureSamples)
{
    if (generation != m_generation)
        return;
    for (const std::shared_ptr<VTFeatureSample>& sample : featureSamples) {
        if (!sample)
            continue;
        const QByteArray encoded = sample->encodeToData();
        if (m_bytesPerFeatureSamples == 0)
            m_bytesPerFeatureSamples = uint64_t(encoded.size());
        m_dataForFeatureSamples.append(encoded);
        ++m_numberOfFeatureSamples;
    }
    if (m_handler)
        m_handler();
}

std::vector<float> VTWaveCache::waveVertices()
{
    const double height = internalTextHeight();
    const double centre = height / 2;
    const double amplitude = height / 2 - internalWaveMargin();
    std::vector<float> vertices;
    if (uint64_t(m_dataForFeatureSamples.size()) < m_numberOfFeatureSamples * m_bytesPerFeatureSamples)
        brindle::log(QStringLiteral("break"));
    if (m_numberOfFeatureSamples == 0) {
        if (m_textureWidth > 0)
            vertices = {0.0f, float(centre), float(m_textureWidth), float(centre)};
        return vertices;
    }
    const double zoom = double(std::max<uint64_t>(m_durationPerPixel, 1));
    vertices.reserve(size_t(m_numberOfFeatureSamples) * 4);
    qsizetype offset = 0;
    EncodedPoint point;
    for (uint64_t index = 0; index < m_numberOfFeatureSamples; ++index) {
        if (!readPoint(m_dataForFeatureSamples, offset, point))
            break;
        // The seeds are crossed on purpose: one channel gives (max, min).
        double low = channelValue(point.maxima, point.maximaBytes, 0);
        double high = channelValue(point.minima, point.minimaBytes, 0);
        for (int64_t channel = 1; channel < point.channels; ++channel) {
            low = std::min(low, channelValue(point.minima, point.minimaBytes, channel));
            high = std::max(high, channelValue(point.maxima, point.maximaBytes, channel));
        }
        const double x = double(point.timestamp - m_timestampsOfDataProvider) / zoom;
        vertices.push_back(float(x));
        vertices.push_back(float(centre + low * amplitude));
        vertices.push_back(float(x));
        vertices.push_back(float(centre + high * amplitude));
    }
    return vertices;
}

void VTWaveCache::drawWave()
{
    QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL();
    if (!legacy)
        return;
    const std::vector<float> vertices = waveVertices();
    if (vertices.empty())
        return;
    // The rows the strip can touch (a line covers the row of each end point).
    float low = vertices[1], high = vertices[1];
    for (size_t i = 1; i < vertices.size(); i += 2) {
        low = std::min(low, vertices[i]);
        high = std::max(high, vertices[i]);
    }
    const double height = internalTextHeight();
    const double inkLow = std::clamp(std::floor(double(low)) - 1, 0.0, height);
    const double inkHigh = std::clamp(std::ceil(double(high)) + 1, 0.0, height);
    if (m_inkedRows.second <= m_inkedRows.first)
        m_inkedRows = {inkLow, inkHigh};
    else
        m_inkedRows = {std::min(m_inkedRows.first, inkLow), std::max(m_inkedRows.second, inkHigh)};
    legacy->glColor4f(kWaveRed, kWaveGreen, kWaveBlue, kWaveAlpha);
    legacy->glEnable(GL_BLEND);
    legacy->glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    legacy->glBindBuffer(GL_ARRAY_BUFFER, 0);
    legacy->glEnableClientState(GL_VERTEX_ARRAY);
    legacy->glVertexPointer(2, GL_FLOAT, 0, vertices.data());
    legacy->glDrawArrays(GL_LINE_STRIP, 0, GLsizei(vertices.size() / 2));
    legacy->glDisableClientState(GL_VERTEX_ARRAY);
    legacy->glDisable(GL_BLEND);
}

void VTWaveCache::deleteTexture()
{
    if (m_textureID == 0)
        return;
    const GLuint texture = m_textureID;
    m_textureID = 0;
    m_textureOwner.withContext([texture] {
        if (QOpenGLFunctions_2_1* legacy = brindle::gl::legacyGL())
            legacy->glDeleteTextures(1, &texture);
    });
}
