// The GL helpers on their own context: waveform textures (size, growth,
// the largest size, the strip they draw, superseded and late points, what
// lands in the texture), text and image textures, and their deletion.
#include "TimelineTestSupport.h"

#include "foundation/Dispatch.h"
#include "timeline/KRGLUImage.h"
#include "timeline/KRGLUString.h"
#include "timeline/VTWaveCache.h"
#include "waveform/VTFeatureSample.h"

#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions_2_1>
#include <QOpenGLVersionFunctionsFactory>

using namespace brindle::test;

namespace {

QByteArray doubles(std::initializer_list<double> values)
{
    QByteArray bytes;
    for (double value : values)
        bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
    return bytes;
}

std::shared_ptr<VTFeatureSample> point(int64_t mediaTime, std::initializer_list<double> maxima,
                                       std::initializer_list<double> minima)
{
    auto made = VTFeatureSample::initWithTimestampOfDp(mediaTime, 45);
    made->setNumberOfChannel(int64_t(maxima.size()));
    made->setMaxSamples(doubles(maxima));
    made->setMinSamples(doubles(minima));
    return made;
}

// A clip that keeps the handler of every request, for the test to call.
class ScriptedClip final : public VTTimelineClip {
public:
    int64_t timestampsOfTrack() const override { return start; }
    int64_t timestampsOfDataProvider() const override { return mediaStart; }
    int64_t durationOfTrack() const override { return duration; }
    bool fadeInValidate() const override { return false; }
    bool fadeOutValidate() const override { return false; }
    int64_t durationOfFadeIn() const override { return 0; }
    int64_t durationOfFadeOut() const override { return 0; }
    void featureSamplesAtTimestamps(int64_t timestamp, int64_t length, int64_t, ProcessHandler handler) override
    {
        requests.push_back({timestamp, length});
        handlers.push_back(std::move(handler));
    }
    QString identifier() const override { return QStringLiteral("scripted"); }

    int64_t start = 1000;
    int64_t mediaStart = 500;
    int64_t duration = 3600000;
    std::vector<std::pair<int64_t, int64_t>> requests;
    std::vector<ProcessHandler> handlers;
};

// Runs what the arrival steps queued on the main queue.
void drainMainQueue()
{
    bool done = false;
    brindle::mainQueue().async([&] { done = true; });
    ASSERT_TRUE(brindle::runMainQueueUntil([&] { return done; }, 5000));
}

class TimelineTexturesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QSurfaceFormat format;
        format.setVersion(2, 1);
        format.setProfile(QSurfaceFormat::CompatibilityProfile);
        format.setAlphaBufferSize(8);
        context.setFormat(format);
        ASSERT_TRUE(context.create());
        surface.setFormat(context.format());
        surface.create();
        ASSERT_TRUE(context.makeCurrent(&surface));
        gl = QOpenGLVersionFunctionsFactory::get<QOpenGLFunctions_2_1>(&context);
        ASSERT_TRUE(gl);
        clip = std::make_shared<ScriptedClip>();
    }
    void TearDown() override { context.doneCurrent(); }

    // The texture's pixels, bottom row first, as 0xAARRGGBB words.
    std::vector<uint32_t> texels(uint32_t texture, uint32_t width, uint32_t height)
    {
        std::vector<uint32_t> pixels(size_t(width) * height);
        gl->glBindTexture(GL_TEXTURE_2D, texture);
        gl->glGetTexImage(GL_TEXTURE_2D, 0, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, pixels.data());
        gl->glBindTexture(GL_TEXTURE_2D, 0);
        return pixels;
    }

    QOpenGLContext context;
    QOffscreenSurface surface;
    QOpenGLFunctions_2_1* gl = nullptr;
    std::shared_ptr<ScriptedClip> clip;
};

TEST_F(TimelineTexturesTest, waveTexturesAreSizedByTheStretchGrowOnlyAndStayWithinTheLargestSize)
{
    EXPECT_FALSE(VTWaveCache::initWithClip(nullptr, 45));
    auto cache = VTWaveCache::initWithClip(clip, 45);
    int handled = 0;
    cache->drawWaveWithTimestamps(1000, 9000, [&] { ++handled; });
    EXPECT_NE(cache->textureID(), 0u);
    EXPECT_EQ(cache->textureWidth(), 201u);
    EXPECT_EQ(cache->textureHeight(), 68u);
    EXPECT_EQ(cache->timestampsOfDataProvider(), 500);
    ASSERT_EQ(clip->requests.size(), 1u);
    // A shorter stretch at the same zoom keeps the texture and sets the part in use.
    const uint32_t texture = cache->textureID();
    cache->redrawWaveWithTimestamps(5500, 4500, clip, 45, [&] { ++handled; });
    EXPECT_EQ(cache->textureID(), texture);
    EXPECT_EQ(cache->textureWidth(), 201u);
    EXPECT_EQ(cache->textureContentWidth(), 101u);
    EXPECT_EQ(cache->timestampsOfDataProvider(), 5000);
    EXPECT_EQ(clip->requests.back(), std::make_pair(int64_t(5500), int64_t(4500)));
    // A start before the clip is raised to it.
    cache->redrawWaveWithTimestamps(0, 18000, clip, 45, [&] { ++handled; });
    EXPECT_EQ(cache->textureWidth(), 401u);
    EXPECT_EQ(clip->requests.back().first, 1000);

    // A one-hour clip at 3 ms per point would be 1.2 million pixels wide: the
    // stretch is shortened to the largest texture the context takes.
    GLint largest = 0;
    gl->glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
    cache->redrawWaveWithTimestamps(1000, 3600000, clip, 3, [&] { ++handled; });
    EXPECT_EQ(cache->textureWidth(), uint32_t(largest));
    EXPECT_EQ(cache->durationOfTrack(), int64_t(largest - 1) * 3);
    EXPECT_EQ(clip->requests.back().second, int64_t(largest - 1) * 3);
    EXPECT_EQ(cache->dpp(), 3u);
    EXPECT_EQ(handled, 0);
}

TEST_F(TimelineTexturesTest, theStripZigzagsBetweenThePointsExtremesAndOnlyTheLatestRequestCounts)
{
    auto cache = VTWaveCache::initWithClip(clip, 45);
    int handled = 0;
    cache->drawWaveWithTimestamps(1000, 9000, [&] { ++handled; });
    // Nothing collected: a flat line through the middle.
    EXPECT_EQ(cache->waveVertices(), (std::vector<float>{0, 34, 201, 34}));

    // Two channels: the crossed seeds give (−0.1, 0.6); one channel (max, min).
    clip->handlers[0]({point(500 + 450, {0.2, 0.6}, {-0.5, -0.1})});
    clip->handlers[0]({point(500 + 900, {0.5}, {-0.25})});
    drainMainQueue();
    // Points that come while a hand-over is queued travel with it.
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(cache->numberOfFeatureSamples(), 2u);
    const std::vector<float> vertices = cache->waveVertices();
    ASSERT_EQ(vertices.size(), 8u);
    const float expected[] = {10, 31.6f, 10, 48.4f, 20, 46, 20, 28};
    for (size_t i = 0; i < 8; ++i)
        EXPECT_NEAR(vertices[i], expected[i], 1e-4) << i;

    // Rendered into the texture: the wave colour in the middle of column 10,
    // nothing in the margins.
    const auto frameBuffers = cache->beginDrawFBOWithTexture(cache->textureID(), cache->textureWidth(), 68);
    ASSERT_NE(frameBuffers.frameBuffer, 0u);
    cache->drawWave();
    cache->endDrawFBO(frameBuffers);
    const std::vector<uint32_t> pixels = texels(cache->textureID(), cache->textureWidth(), 68);
    // The segment at x 10 lies on a column boundary: either neighbour may carry it.
    const uint32_t width = cache->textureWidth();
    const uint32_t carried = qAlpha(pixels[40 * width + 10]) ? pixels[40 * width + 10] : pixels[40 * width + 9];
    const QColor wave = QColor::fromRgba(carried);
    EXPECT_TRUE(colourNear(wave, int(174 * 0.8), int(207 * 0.8), int(148 * 0.8), 40));
    EXPECT_GT(wave.alpha(), 100);
    EXPECT_EQ(qAlpha(pixels[5 * cache->textureWidth() + 10]), 0);
    EXPECT_EQ(qAlpha(pixels[40 * cache->textureWidth() + 100]), 0);

    // Points of a superseded request arriving late are dropped; the new
    // request's are kept; a cache that has gone gets nothing.
    cache->redrawWaveWithTimestamps(1000, 9000, clip, 45, [&] { ++handled; });
    clip->handlers[0]({point(500 + 1350, {0.5}, {-0.5})});
    clip->handlers[1]({point(500 + 1800, {0.5}, {-0.5})});
    drainMainQueue();
    EXPECT_EQ(cache->numberOfFeatureSamples(), 1u);
    EXPECT_EQ(cache->waveVertices()[0], 40.0f);
    cache.reset();
    clip->handlers[1]({point(500 + 2250, {0.5}, {-0.5})});
    drainMainQueue();
    EXPECT_EQ(handled, 2);
}

TEST_F(TimelineTexturesTest, textAndImageTexturesHoldWhatWasDrawnAndAreDeletedWithTheirObject)
{
    EXPECT_FALSE(KRGLUString::GLUStringWithString(QString(), QString(), 10, 2, std::nullopt, std::nullopt));
    auto empty = KRGLUString::GLUStringWithString(QStringLiteral(""), QString(), 10, 2, std::nullopt, std::nullopt);
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->textureID(), 0u);

    const auto attributed = KRGLUString::attributedStringCreateFromString(
        QStringLiteral("00:00:04.55"), QString(), QColor(255, 255, 255, 204), std::nullopt, 10, 2);
    EXPECT_EQ(attributed.font.pixelSize(), 10);
    EXPECT_EQ(attributed.font.weight(), QFont::Bold);
    const QImage bitmap = KRGLUString::CGContextCreateFromAttributedString(attributed, std::nullopt);
    auto label = KRGLUString::GLUStringWithAttributedString(attributed, std::nullopt);
    ASSERT_TRUE(label);
    ASSERT_NE(label->textureID(), 0u);
    EXPECT_EQ(label->textureWidth(), uint32_t(bitmap.width()));
    EXPECT_EQ(label->textureHeight(), uint32_t(bitmap.height()));
    EXPECT_GT(label->textureWidth(), 40u);
    // White text at alpha 0.8 on a transparent ground that keeps the text's colour.
    int inked = 0;
    for (uint32_t texel : texels(label->textureID(), label->textureWidth(), label->textureHeight())) {
        EXPECT_EQ(texel & 0xffffffu, 0xffffffu);
        inked += qAlpha(texel) == 204;
    }
    EXPECT_GT(inked, 10);

    // Images are uploaded upright: the texture's first row is the image's last.
    QImage image(4, 2, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    image.setPixelColor(0, 1, QColor(255, 0, 0));
    auto uploaded = KRGLUImage::initWithCGImage(image);
    ASSERT_TRUE(uploaded);
    EXPECT_EQ(uploaded->textureWidth(), 4u);
    EXPECT_EQ(uploaded->textureHeight(), 2u);
    const std::vector<uint32_t> rows = texels(uploaded->textureID(), 4, 2);
    EXPECT_EQ(rows[0], 0xffff0000u);
    EXPECT_EQ(qAlpha(rows[4]), 0);
    EXPECT_FALSE(KRGLUImage::initWithImagePath(QStringLiteral(":/no-such-image.png")));

    const GLuint labelTexture = label->textureID(), imageTexture = uploaded->textureID();
    label.reset();
    uploaded.reset();
    EXPECT_FALSE(gl->glIsTexture(labelTexture));
    EXPECT_FALSE(gl->glIsTexture(imageTexture));
}

}  // namespace
