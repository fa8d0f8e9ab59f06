// The view's frame, read back from its framebuffer: lanes, ruler, clip
// bodies, waveforms, fade marks, selection, cursor, before and after a
// scroll and a zoom change, and after the GL context is replaced.
#include "TimelineTestSupport.h"

#include "support/TestMedia.h"

#include "foundation/Dispatch.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "timeline/VTTimelineRuler.h"
#include "timeline/VTWaveCache.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTProjectAdapter.h"

#include <QFile>
#include <QMainWindow>
#include <QOpenGLContext>
#include <QOpenGLWindow>
#include <QOpenGLWidget>
#include <QScrollBar>
#include <QTest>
#include <QUrl>

#include <cmath>

using namespace brindle::test;

namespace {

constexpr int kBodyTop[3] = {180, 181, 188};

// The wave is green over a bluish grey body.
::testing::AssertionResult isWaveColour(const QColor& colour)
{
    if (colour.green() > colour.blue() + 15 && colour.green() > colour.red() + 10)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "(" << colour.red() << ", " << colour.green() << ", " << colour.blue()
                                         << ") is not wave-coloured";
}
constexpr int kBodyBottom[3] = {113, 119, 131};

class TimelineRenderingTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = std::make_shared<FakeDataSource>();
        source->maxTracks = 8;
        // Track 0: a titled clip with fades, selected; track 1: two untitled clips.
        first = source->addClip(0, QStringLiteral("first"), 4500, 45000, QStringLiteral("Vocals"));
        first->fadeIn = 2250;
        first->fadeOut = 4500;
        second = source->addClip(1, QStringLiteral("second"), 0, 9000);
        third = source->addClip(1, QStringLiteral("third"), 27000, 90000);
        over = source->addClip(1, QStringLiteral("over"), 36000, 9000);  // 800…1000, over the third
        over->amplitude = 0.1;
        source->selection = {QStringLiteral("first")};
        source->position = 31500;  // 700 points at 45 ms per point
        source->projectDuration = 600000;
        view.setDataSource(source);
        view.resize(1000, 600);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    }

    // Draws once (which makes the textures and asks for the points), waits
    // for every point, and answers the next frame.
    QImage settledFrame(const std::vector<std::shared_ptr<FakeClip>>& visibleClips = {})
    {
        view.grabFramebuffer();
        EXPECT_TRUE(waitForWaveforms(view, visibleClips.empty() ? std::vector{first, second, third, over} : visibleClips));
        QImage frame = view.grabFramebuffer();
        if (qEnvironmentVariableIsSet("TIMELINE_FRAMES"))
            frame.save(QStringLiteral("/tmp/timeline-%1.png").arg(++m_frames));
        return frame;
    }
    int m_frames = 0;

    // The body colour `fromBottom` points above the bottom of a 60-point clip box.
    static QColor bodyColour(double fromBottom)
    {
        const double share = fromBottom / 60;
        return QColor(int(std::lround(kBodyBottom[0] + (kBodyTop[0] - kBodyBottom[0]) * share)),
                      int(std::lround(kBodyBottom[1] + (kBodyTop[1] - kBodyBottom[1]) * share)),
                      int(std::lround(kBodyBottom[2] + (kBodyTop[2] - kBodyBottom[2]) * share)));
    }
    static ::testing::AssertionResult isWave(const QColor& colour) { return isWaveColour(colour); }

    // Checks one clip box: body above and below the wave band, wave in its middle.
    void expectClip(const QImage& frame, const QRectF& box, double x)
    {
        for (double fromBottom : {3.5, 56.5}) {
            const QColor expected = bodyColour(fromBottom);
            EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(x, box.y() + fromBottom)), expected.red(),
                                   expected.green(), expected.blue(), 4))
                << "body at " << fromBottom << " above the bottom of the box at x " << x;
        }
        EXPECT_TRUE(isWave(pixelAt(frame, view, QPointF(x, box.y() + 30.5)))) << "wave at x " << x;
    }

    VTTimelineView view;
    std::shared_ptr<FakeDataSource> source;
    std::shared_ptr<FakeClip> first, second, third, over;
};

TEST_F(TimelineRenderingTest, lanesRulerClipsSelectionFadesAndCursorAreWhereTheGeometryPutsThem)
{
    const QImage frame = settledFrame();
    ASSERT_FALSE(frame.isNull());
    const QRectF visible = view.visibleRect();
    const double top = view.bounds().height();

    // Lanes (grey 75) with a one-point gap (grey 44) between them; below the
    // last allowed lane only the clear colour.
    for (uint64_t lane : {2u, 5u}) {
        const QRectF bounds = view.boundsOfTrack(lane);
        EXPECT_DOUBLE_EQ(bounds.y() + bounds.height(), top - 19 - 69.0 * double(lane));
        EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(20.5, bounds.y() + 30.5)), 75, 75, 75));
        EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(20.5, bounds.y() - 0.5)), 44, 44, 44)) << "gap " << lane;
    }
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(20.5, view.boundsOfTrack(7).y() - 10.5)), 44, 44, 44));

    // Ruler band at the top of the visible area, minor ticks every 20.22
    // points at 45 ms per point, a white label at the major tick of 00:00:04.55.
    const QRectF ruler = view.boundsOfTicksmark();
    EXPECT_DOUBLE_EQ(ruler.y() + ruler.height(), visible.y() + visible.height());
    const double spacing = brindle::timeline::tickSpacing(1000.0 / 45);
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(spacing * 1.5, ruler.y() + 2.5)), 75, 75, 75));
    EXPECT_TRUE(columnNear(frame, view, spacing * 1, ruler.y() + 2.5, 51, 51, 51));
    EXPECT_TRUE(columnNear(frame, view, spacing * 3, ruler.y() + 2.5, 51, 51, 51));
    int bright = 0;
    for (double x = spacing * 5 - 25; x < spacing * 5 + 25; ++x) {
        for (double y = ruler.y() + 8.5; y < ruler.y() + 18; ++y)
            bright += pixelAt(frame, view, QPointF(x, y)).lightness() > 150;
    }
    EXPECT_GT(bright, 20) << "label text near the fifth tick";

    // Clip bodies with the vertical gradient, and the wave in the middle of each.
    const QRectF firstBox = view.boundsOfClip(*first, 0);
    EXPECT_EQ(firstBox, QRectF(100, view.boundsOfTrack(0).y() + 4, 1000, 60));
    expectClip(frame, firstBox, 400.5);
    expectClip(frame, view.boundsOfClip(*second, 1), 150.5);
    expectClip(frame, view.boundsOfClip(*third, 1), 650.5);
    // The wave leaves the margins of the texture empty, between clips the lane shows.
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(400.5, view.boundsOfTrack(1).y() + 30.5)), 75, 75, 75));

    // The selected clip is outlined in yellow (width 2), the others in dark grey.
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(400.5, firstBox.y() + 59.5)), 255, 255, 0, 10));
    const QRectF secondBox = view.boundsOfClip(*second, 1);
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(100.5, secondBox.y() + 59.5)), 51, 51, 51, 10));

    // Fade marks (grey 92) at the end of the fade-in and the start of the fade-out.
    EXPECT_TRUE(columnNear(frame, view, 150, firstBox.y() + 50.5, 92, 92, 92));
    EXPECT_TRUE(columnNear(frame, view, 1000, firstBox.y() + 50.5, 92, 92, 92));

    // The title (darker text) sits 8 points into the box, centred vertically.
    int darker = 0;
    for (double x = 100.5; x < 170; ++x) {
        for (double y = firstBox.y() + 24.5; y < firstBox.y() + 36; ++y)
            darker += pixelAt(frame, view, QPointF(x, y)).lightness() + 25 < pixelAt(frame, view, QPointF(600.5, y)).lightness();
    }
    EXPECT_GT(darker, 40);
    EXPECT_EQ(pixelAt(frame, view, QPointF(107.5, firstBox.y() + 30.5)), pixelAt(frame, view, QPointF(600.5, firstBox.y() + 30.5)));

    // A later clip of a track covers an earlier one it overlaps: its body,
    // with a flatter wave, hides the earlier clip's wave.
    const QRectF thirdBox = view.boundsOfClip(*third, 1);
    // Outside a rounded corner the lane shows.
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(600.5, thirdBox.y() + 0.5)), 75, 75, 75));
    EXPECT_TRUE(isWave(pixelAt(frame, view, QPointF(650.5, thirdBox.y() + 20.5))));
    EXPECT_FALSE(isWave(pixelAt(frame, view, QPointF(900.5, thirdBox.y() + 20.5))));
    EXPECT_TRUE(isWave(pixelAt(frame, view, QPointF(900.5, thirdBox.y() + 30.5))));

    // The play cursor: a red line at 700 points over a light band.
    EXPECT_TRUE(columnNear(frame, view, 700, view.boundsOfTrack(4).y() + 30.5, 227, 11, 32));
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(701.5, view.boundsOfTrack(4).y() + 30.5)), 111, 111, 111, 4));
}

TEST_F(TimelineRenderingTest, scrollingAndZoomingRedrawTheVisiblePartFromTheDataSource)
{
    settledFrame();
    // Scroll right by 300 points: the same document points show the same things.
    view.scrollPoint(QPointF(300, view.visibleRect().y()));
    EXPECT_DOUBLE_EQ(view.visibleRect().x(), 300);
    QImage frame = settledFrame();
    expectClip(frame, view.boundsOfClip(*first, 0), 400.5);
    expectClip(frame, view.boundsOfClip(*third, 1), 1250.5);
    EXPECT_TRUE(columnNear(frame, view, 700, view.boundsOfTrack(4).y() + 30.5, 227, 11, 32));
    // The ruler stays pinned to the top of the visible area.
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(301.5, view.boundsOfTicksmark().y() + 12.5)), 75, 75, 75, 60));

    // Zoom in to 3 ms per point: the textures are made again at the new zoom,
    // and the boxes follow the new scale.
    view.scrollPoint(QPointF(0, view.visibleRect().y()));
    view.setZoomValue(1);
    ASSERT_EQ(view.durationPerPixel(), 3u);
    EXPECT_FALSE(view.clipCacheWithIdentifier(QStringLiteral("first")));
    // The view repaints by itself (no grab): the new texture appears.
    ASSERT_TRUE(brindle::runMainQueueUntil(
        [&] { return view.clipCacheWithIdentifier(QStringLiteral("second")) != nullptr; }, 5000));
    // The first clip now starts at 1500 points, out of sight: no texture for it.
    frame = settledFrame({second});
    EXPECT_FALSE(view.clipCacheWithIdentifier(QStringLiteral("first")));
    const QRectF secondBox = view.boundsOfClip(*second, 1);
    EXPECT_EQ(secondBox.width(), 3000);
    EXPECT_EQ(view.clipCacheWithIdentifier(QStringLiteral("second"))->dpp(), 3u);
    expectClip(frame, secondBox, 900.5);
}

TEST_F(TimelineRenderingTest, aContextThatGoesAwayTakesItsTexturesAndTheViewKeepsDrawing)
{
    settledFrame();
    const std::weak_ptr<VTWaveCache> oldCache = view.clipCacheWithIdentifier(QStringLiteral("first"));
    ASSERT_FALSE(oldCache.expired());
    // The context announces its end: every texture made with it is dropped,
    // none is drawn dead, and the next frame makes them again.
    Q_EMIT view.glWidget()->context()->aboutToBeDestroyed();
    EXPECT_TRUE(oldCache.expired());
    expectClip(settledFrame(), view.boundsOfClip(*first, 0), 400.5);

    // Moved into another window, the view goes on drawing there.
    QMainWindow window;
    window.resize(1000, 600);
    window.setCentralWidget(&view);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    expectClip(settledFrame(), view.boundsOfClip(*first, 0), 400.5);
    window.takeCentralWidget();
}

TEST_F(TimelineRenderingTest, theRealAdapterFeedsDecodedMediaIntoTheWaveform)
{
    // Two seconds of a loud stereo tone, decoded into the cache, on track 0
    // of a real project behind the real adapter.
    ToneSpec tone;
    tone.frames = 88200;
    tone.amplitude = 0.8;
    const QString wav = TestMedia::shared().wav(1, tone);
    ASSERT_FALSE(wav.isEmpty());
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(wav));
    ASSERT_TRUE(provider);
    ASSERT_TRUE(provider->startParserWithBlock(nullptr));
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders({provider});
    auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
    ASSERT_TRUE(clip);
    clip->setTimestampOfTrack(300);
    auto track = std::make_shared<VTTrack>();
    track->importClip(clip);
    auto project = std::make_shared<VTProject>();
    project->importTrack(track);
    auto adapter = VTProjectAdapter::initWithProject(project);
    view.setDataSource(adapter);
    view.setZoomValue(1);  // 3 ms per point: the clip is 667 points wide

    view.grabFramebuffer();
    const auto clipAdapter = adapter->findAdapterWithClipIds(clip->identifier());
    ASSERT_TRUE(clipAdapter);
    // Every walk has handed its points to the main queue once the adapter's
    // queue is idle; a marker queued after them says they have all arrived.
    clipAdapter->featureSampleQueue().sync([] {});
    bool arrived = false;
    brindle::mainQueue().async([&] { arrived = true; });
    ASSERT_TRUE(brindle::runMainQueueUntil([&] { return arrived; }, 5000));
    const auto cache = view.clipCacheWithIdentifier(clip->identifier());
    ASSERT_TRUE(cache);
    EXPECT_GT(cache->numberOfFeatureSamples(), 600u);
    const QImage frame = view.grabFramebuffer();

    const QRectF box = view.boundsOfClip(*clipAdapter, 0);
    EXPECT_EQ(box, QRectF(100, view.boundsOfTrack(0).y() + 4, 2000 / 3.0, 60));
    // ±0.8 of the 24-pixel amplitude: the wave spans the box's middle, not its edges.
    for (double x : {300.5, 500.5, 700.5})
        expectClip(frame, box, x);
}

TEST(TimelineRobustnessTest, degenerateProjectsAndSizesDrawWithoutFault)
{
    VTTimelineView view;
    view.resize(800, 400);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    // No data source: the allowed lanes and the ruler, nothing else.
    QImage frame = view.grabFramebuffer();
    ASSERT_FALSE(frame.isNull());
    EXPECT_TRUE(colourNear(pixelAt(frame, view, QPointF(10.5, view.boundsOfTrack(1).y() + 30.5)), 75, 75, 75));

    // No tracks at all.
    auto source = std::make_shared<FakeDataSource>();
    view.setDataSource(source);
    EXPECT_FALSE(view.grabFramebuffer().isNull());

    // A clip of zero length, one far beyond the right edge, one hour at
    // 3 ms per point, and one on a lane beyond the allowed ones.
    source->maxTracks = 2;
    auto empty = source->addClip(0, QStringLiteral("empty"), 0, 0, QStringLiteral("Nothing"));
    auto far = source->addClip(0, QStringLiteral("far"), 36000000, 60000);
    auto hour = source->addClip(1, QStringLiteral("hour"), 1000, 3600000, QStringLiteral("One hour"));
    source->addClip(5, QStringLiteral("beyond"), 0, 5000);
    view.setZoomValue(1);
    view.grabFramebuffer();
    ASSERT_TRUE(waitForWaveforms(view, {hour}));
    EXPECT_FALSE(view.clipCacheWithIdentifier(QStringLiteral("empty")));
    EXPECT_FALSE(view.clipCacheWithIdentifier(QStringLiteral("far")));
    const auto cache = view.clipCacheWithIdentifier(QStringLiteral("hour"));
    ASSERT_TRUE(cache);
    EXPECT_LE(cache->textureWidth(), VTWaveCache::maxTextureSize());
    frame = view.grabFramebuffer();
    EXPECT_TRUE(isWaveColour(pixelAt(frame, view, QPointF(500.5, view.boundsOfTrack(1).y() + 34.5))));
    // Scrolled far into the hour, the texture is asked for the part now shown.
    view.scrollPoint(QPointF(600000, view.visibleRect().y()));
    view.grabFramebuffer();
    ASSERT_TRUE(waitForWaveforms(view, {hour}));
    EXPECT_GE(hour->requests(), 2);
    frame = view.grabFramebuffer();
    EXPECT_TRUE(isWaveColour(pixelAt(frame, view, QPointF(600500.5, view.boundsOfTrack(1).y() + 34.5))));

    // A window of a few points, and back.
    view.resize(3, 3);
    view.grabFramebuffer();
    view.resize(800, 400);
    EXPECT_FALSE(view.grabFramebuffer().isNull());
    view.setDataSource(nullptr);
    EXPECT_FALSE(view.grabFramebuffer().isNull());
}

}  // namespace

