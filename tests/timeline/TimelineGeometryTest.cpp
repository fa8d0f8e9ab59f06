// The view's arithmetic: zoom both ways, timer text, tick spacing, document
// size, and the rectangle of every element, as tables.
#include "TimelineTestSupport.h"

#include "timeline/VTTimelineRuler.h"

#include <QScrollBar>
#include <QTest>

#include <cmath>

using namespace brindle::test;

namespace {

class TimelineGeometryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = std::make_shared<FakeDataSource>();
        clip = source->addClip(2, QStringLiteral("clip"), 4500, 9000);
        source->projectDuration = 450000;  // 10 000 points at 45 ms per point
        view.setDataSource(source);
        view.resize(900, 500);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
        top = view.bounds().height();
    }

    VTTimelineView view;
    std::shared_ptr<FakeDataSource> source;
    std::shared_ptr<FakeClip> clip;
    double top = 0;
};

TEST_F(TimelineGeometryTest, zoomMapsBothWaysAndConvertsBetweenPointsAndTimestamps)
{
    // Unset reads as 45 ms per point, zoom 0.5.
    EXPECT_EQ(view.durationPerPixel(), 45u);
    EXPECT_DOUBLE_EQ(view.zoomValue(), 0.5);
    struct Row {
        double zoom;
        uint64_t durationPerPixel;
        double zoomBack;
    };
    const Row rows[] = {
        {0, 300, 0}, {0.5, 45, 0.5}, {1, 3, 1}, {-3, 300, 0}, {7, 3, 1},
        // 172.5 truncates to 172, which the way back shows.
        {0.25, 172, 0.5 - 127.0 / 510}, {0.75, 24, 0.75}, {std::nan(""), 45, 0.5},
    };
    for (const Row& row : rows) {
        view.setZoomValue(row.zoom);
        EXPECT_EQ(view.durationPerPixel(), row.durationPerPixel) << "zoom " << row.zoom;
        EXPECT_NEAR(view.zoomValue(), row.zoomBack, 1e-12) << "zoom " << row.zoom;
    }
    view.setZoomValue(0.5);
    EXPECT_DOUBLE_EQ(view.pixelWithTimestamp(4500), 100);
    EXPECT_DOUBLE_EQ(view.pixelWithTimestamp(-20), -20.0 / 45);
    EXPECT_EQ(view.timestampWithPixel(10.99), 494);  // 494.55 truncated
    EXPECT_EQ(view.timestampWithPixel(-0.5), -22);   // toward zero
    EXPECT_EQ(view.timestampWithPixel(1e300), std::numeric_limits<int64_t>::max());
}

TEST(TimelineTextTest, timerTextAndTickSpacing)
{
    const std::pair<int64_t, const char*> timers[] = {
        {3723456, "01:02:03.45"}, {0, "00:00:00.00"}, {360000000, "100:00:00.00"}, {59999, "00:00:59.99"},
        {910, "00:00:00.91"},
    };
    for (const auto& [timestamp, text] : timers)
        EXPECT_EQ(VTTimelineView::formatTimer(timestamp), QString::fromLatin1(text)) << timestamp;

    // Ticks are a whole number of 10 ms steps, 20 to 40 points apart.
    struct Spacing {
        double durationPerPixel, points, milliseconds;
    };
    const Spacing spacings[] = {{45, 20.2222, 910}, {3, 23.3333, 70}, {300, 20.0333, 6010}};
    for (const Spacing& row : spacings) {
        const double pointsPerSecond = 1000 / row.durationPerPixel;
        const double spacing = brindle::timeline::tickSpacing(pointsPerSecond);
        EXPECT_NEAR(spacing, row.points, 1e-4) << row.durationPerPixel;
        EXPECT_NEAR(spacing * 1000 / pointsPerSecond, row.milliseconds, 1e-6) << row.durationPerPixel;
    }
}

TEST_F(TimelineGeometryTest, documentSizeFollowsTheDataSourceAndNeverShrinksBelowTheViewport)
{
    const QSize visible = view.viewport()->size();
    // Three tracks (clip on track 2), lane height 68 in the height formulas.
    EXPECT_DOUBLE_EQ(view.needHeight(), 4 * 68 + 19);
    EXPECT_DOUBLE_EQ(view.maxHeight(), 17 * 68 + 19);
    EXPECT_DOUBLE_EQ(view.needWidth(), 10000 + visible.width() / 3.0);
    EXPECT_EQ(view.bounds().size(), QSizeF(10000 + visible.width() / 3.0, visible.height()));
    EXPECT_EQ(view.horizontalScrollBar()->maximum(), int(std::ceil(view.bounds().width() - visible.width())));
    // A short project at 300 ms per point is narrower than the viewport: the
    // document takes the viewport's width.
    source->projectDuration = 60000;
    view.setZoomValue(0);
    EXPECT_DOUBLE_EQ(view.needWidth(), 200 + visible.width() / 3.0);
    EXPECT_DOUBLE_EQ(view.bounds().width(), visible.width());
    source->projectDuration = 450000;
    // Twenty tracks outgrow the viewport's height; the extra width is capped at 400.
    source->tracks.resize(20);
    source->maxTracks = 20;
    view.resize(1600, 500);
    view.reloadData();
    EXPECT_DOUBLE_EQ(view.bounds().height(), 21 * 68 + 19);
    EXPECT_DOUBLE_EQ(view.needWidth(), 1500 + 400);
    EXPECT_GT(view.verticalScrollBar()->maximum(), 0);

    // Without a data source: no tracks, a height of 87 and 16 allowed lanes.
    VTTimelineView empty;
    EXPECT_DOUBLE_EQ(empty.needHeight(), 87);
    EXPECT_EQ(empty.maxTrackCountSupport(), 16u);
}

TEST_F(TimelineGeometryTest, elementRectanglesAndHitLanes)
{
    const QRectF visible = view.visibleRect();
    EXPECT_EQ(view.boundsOfTrack(0), QRectF(0, top - 87, view.bounds().width(), 68));
    EXPECT_EQ(view.boundsOfTrack(3), QRectF(0, top - 87 - 3 * 69, view.bounds().width(), 68));
    EXPECT_EQ(view.boundsOfTicksmark(), QRectF(0, visible.y() + visible.height() - 19, view.bounds().width(), 19));
    const double laneY = view.boundsOfTrack(2).y();
    EXPECT_EQ(view.boundsOfClip(*clip, 2), QRectF(100, laneY + 4, 200, 60));

    // Fade handles are 8 wide, centred on the fade point; off means none.
    EXPECT_TRUE(view.boundsOfClipFadeIn(*clip, 2).isNull());
    EXPECT_TRUE(view.boundsOfClipFadeOut(*clip, 2).isNull());
    clip->fadeIn = 900;
    clip->fadeOut = 1800;
    EXPECT_EQ(view.boundsOfClipFadeIn(*clip, 2), QRectF(116, laneY + 4, 8, 60));
    EXPECT_EQ(view.boundsOfClipFadeOut(*clip, 2), QRectF(256, laneY + 4, 8, 60));
    // A clip of zero length has no box.
    FakeClip empty(QStringLiteral("empty"), 4500, 0);
    EXPECT_TRUE(view.boundsOfClip(empty, 2).isNull());

    const QRectF box(100, 20, 200, 60);
    EXPECT_EQ(VTTimelineView::leftEdgeWithRect(box), QRectF(100, 20, 8, 60));
    EXPECT_EQ(VTTimelineView::rightEdgeWithRect(box), QRectF(292, 20, 8, 60));
    EXPECT_EQ(VTTimelineView::extendRect(box, 100, 0), QRectF(0, 20, 400, 60));
    EXPECT_EQ(VTTimelineView::extendRect(box, -10, 5), QRectF(110, 15, 180, 70));
    EXPECT_TRUE(VTTimelineView::extendRect(box, -100, 0).isNull());
    EXPECT_TRUE(VTTimelineView::extendRect(box, 0, -30).isNull());
    EXPECT_EQ(VTTimelineView::rectForDrawWithBounds(box, QRectF(150, 0, 1000, 5)), QRectF(150, 20, 150.5, 60));
    EXPECT_EQ(VTTimelineView::makeRectWithPoint1(QPointF(30, 5), QPointF(10, 25)), QRectF(10, 5, 20, 20));

    // Lanes by distance from the document's top: the ruler counts as lane 0,
    // each gap row belongs to the lane above it, and points below the last
    // allowed lane land in it.
    const std::pair<double, uint64_t> lanes[] = {
        {10, 0}, {19, 0}, {19.5, 0}, {19 + 68.5, 0}, {19 + 69.5, 1}, {19 + 69 * 2 + 5, 2},
        {19 + 69 * 20, 15}, {5000, 15},
    };
    for (const auto& [fromTop, lane] : lanes)
        EXPECT_EQ(view.trackIndexWithPoint(QPointF(50, top - fromTop)), lane) << fromTop;
    source->maxTracks = 8;
    EXPECT_EQ(view.trackIndexWithPoint(QPointF(50, top - 5000)), 7u);
}

}  // namespace
