// Mouse gestures against a recording delegate: what each press, drag and
// release sends, with which values, in which brackets; cursor shapes, the
// wheel, and the drop target.
#include "TimelineTestSupport.h"

#include "timeline/VTWaveCache.h"

#include <QApplication>
#include <QFile>
#include <QScrollBar>
#include <QTest>
#include <QWheelEvent>

using namespace brindle::test;
using Operation = VTTimelineViewDelegate::Operation;

namespace {

class TimelineInteractionTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        source = std::make_shared<FakeDataSource>();
        // At 45 ms per point: a 100…300 and b 400…600 on lane 0, c 200…500 on lane 1.
        a = source->addClip(0, QStringLiteral("a"), 4500, 9000);
        b = source->addClip(0, QStringLiteral("b"), 18000, 9000);
        b->fadeIn = 900;    // handle around 420
        b->fadeOut = 1800;  // handle around 560
        c = source->addClip(1, QStringLiteral("c"), 9000, 13500);
        source->projectDuration = 600000;
        delegate = std::make_unique<RecordingDelegate>(source.get());
        view.setDataSource(source);
        view.setDelegate(delegate.get());
        view.resize(1000, 600);
        view.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    }

    // A point `x` in the vertical middle of lane `track`'s clip boxes.
    QPointF inLane(uint64_t track, double x) { return QPointF(x, view.boundsOfTrack(track).y() + 34); }
    void click(const QPointF& point, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        press(view, point, modifiers);
        release(view, point);
    }
    void select(const QStringList& identifiers) { source->selection = identifiers; }
    int count(const char* call) const { return int(delegate->calls.count(QString::fromLatin1(call))); }
    Qt::CursorShape cursorShape() const { return view.viewport()->cursor().shape(); }

    VTTimelineView view;
    std::shared_ptr<FakeDataSource> source;
    std::unique_ptr<RecordingDelegate> delegate;
    std::shared_ptr<FakeClip> a, b, c;
};

TEST_F(TimelineInteractionTest, clicksSelectReplaceExtendAndClear)
{
    click(inLane(0, 150));
    click(inLane(1, 450), Qt::ShiftModifier);
    click(inLane(0, 500), Qt::ControlModifier);
    // Clicking a selected clip keeps the whole selection.
    click(inLane(1, 250));
    ASSERT_EQ(delegate->selections.size(), 3u);
    EXPECT_EQ(delegate->selections[0], QStringList({"a"}));
    EXPECT_EQ(delegate->selections[1], QStringList({"a", "c"}));
    EXPECT_EQ(delegate->selections[2], QStringList({"a", "c", "b"}));
    // A plain click on an unselected clip replaces; one into an empty lane clears.
    select({"a"});
    click(inLane(0, 450));
    EXPECT_EQ(delegate->selections.back(), QStringList({"b"}));
    click(inLane(1, 700));
    EXPECT_EQ(delegate->selections.back(), QStringList());
    // Clicks without a drag change nothing: brackets open but never close.
    EXPECT_EQ(count("did"), 0);
    EXPECT_TRUE(delegate->starts.empty());
}

TEST_F(TimelineInteractionTest, rubberBandSelectsExactlyWhatItTouchesAndIsDrawn)
{
    select({"a"});
    const QPointF start = inLane(1, 700);
    press(view, start);
    ASSERT_EQ(delegate->selections.size(), 1u);
    EXPECT_TRUE(delegate->selections[0].isEmpty());
    dragTo(view, inLane(0, 150));
    ASSERT_EQ(delegate->selections.size(), 2u);
    EXPECT_EQ(delegate->selections[1], QStringList({"a", "b", "c"}));
    // Shrinking the band lets go of what it no longer touches.
    dragTo(view, inLane(1, 450) + QPointF(0, 10));
    EXPECT_EQ(delegate->selections.back(), QStringList({"c"}));
    const QRectF band = view.selectionRect();
    EXPECT_EQ(band, QRectF(450, start.y(), 250, 10));
    // The band is outlined in yellow.
    const QImage frame = view.grabFramebuffer();
    EXPECT_TRUE(columnNear(frame, view, 700, start.y() + 5.5, 255, 255, 0));
    // No selection change, no call.
    dragTo(view, inLane(1, 460) + QPointF(0, 10));
    EXPECT_EQ(delegate->selections.size(), 3u);
    release(view, inLane(1, 460));
    EXPECT_TRUE(view.selectionRect().isNull());
}

TEST_F(TimelineInteractionTest, rulerSeeksAndTheCursorHandleDrags)
{
    const double rulerY = view.boundsOfTicksmark().y() + 4;
    click(QPointF(300, rulerY));
    ASSERT_EQ(delegate->positions, std::vector<int64_t>({13500}));
    // Nothing follows a seek: moves before the release change nothing.
    press(view, QPointF(350, rulerY));
    dragTo(view, QPointF(380, rulerY));
    release(view, QPointF(380, rulerY));
    EXPECT_EQ(delegate->positions.size(), 2u);

    if (!QFile::exists(QStringLiteral(":/cursor.png")))
        GTEST_SKIP() << "the cursor artwork is not built in";
    delegate->positions.clear();
    view.grabFramebuffer();
    // The handle hangs from the top of the ruler, centred on the play position (350).
    const QRectF handle = view.boundsOfCursor();
    ASSERT_FALSE(handle.isEmpty());
    EXPECT_DOUBLE_EQ(handle.x(), 350 - handle.width() / 2 + 0.5);
    EXPECT_DOUBLE_EQ(handle.y(), view.boundsOfTicksmark().y() + 3);
    // On the handle, inside the ruler, a press drags the cursor instead of seeking.
    press(view, handle.center());
    EXPECT_TRUE(delegate->positions.empty());
    dragTo(view, QPointF(500, rulerY));
    EXPECT_EQ(delegate->positions, std::vector<int64_t>({22500}));
    // Beyond the right edge the view scrolls by the overshoot plus 6.
    const QPointF beyond(view.viewport()->width() + 30, 40);
    mouseAtViewport(view, MouseAction::drag, beyond);
    EXPECT_EQ(view.horizontalScrollBar()->value(), 36);
    EXPECT_EQ(delegate->positions.back(), int64_t(45 * (view.viewport()->width() + 30)));
    mouseAtViewport(view, MouseAction::release, beyond);
    EXPECT_EQ(count("will"), 0);
}

TEST_F(TimelineInteractionTest, fadeHandlesChangeFadesFromTheStartOfTheDrag)
{
    select({"b"});
    view.grabFramebuffer();
    ASSERT_TRUE(view.clipCacheWithIdentifier(QStringLiteral("b")));
    press(view, inLane(0, 560));
    dragTo(view, inLane(0, 550));
    dragTo(view, inLane(0, 565));
    release(view, inLane(0, 565));
    // Ten points left at 45 ms per point lengthen the fade-out by 450 ms;
    // each step counts from the start, not from the step before.
    ASSERT_EQ(delegate->fadeOuts.size(), 2u);
    EXPECT_EQ(delegate->fadeOuts[0], (VTTimelineViewDelegate::ValueDictionary{{"b", 2250}}));
    EXPECT_EQ(delegate->fadeOuts[1], (VTTimelineViewDelegate::ValueDictionary{{"b", 1575}}));
    EXPECT_EQ(delegate->calls, QStringList({"will", "fadeOut", "fadeOut", "did"}));
    EXPECT_EQ(delegate->lastAttributes.value(QStringLiteral("bracket")), 1);
    // The waveform shows fades: its texture is made again.
    EXPECT_FALSE(view.clipCacheWithIdentifier(QStringLiteral("b")));

    press(view, inLane(0, 420));
    dragTo(view, inLane(0, 430));
    release(view, inLane(0, 430));
    ASSERT_EQ(delegate->fadeIns.size(), 1u);
    EXPECT_EQ(delegate->fadeIns[0], (VTTimelineViewDelegate::ValueDictionary{{"b", 1350}}));
    EXPECT_EQ(delegate->lastAttributes.value(QStringLiteral("bracket")), 2);
}

TEST_F(TimelineInteractionTest, edgesTrimStartAndEnd)
{
    select({"b", "c"});
    view.grabFramebuffer();
    press(view, inLane(0, 402));
    dragTo(view, inLane(0, 412));
    release(view, inLane(0, 412));
    ASSERT_EQ(delegate->cutStarts.size(), 1u);
    EXPECT_EQ(delegate->cutStarts[0], (VTTimelineViewDelegate::ValueDictionary{{"b", 18450}, {"c", 9450}}));
    // Only a clip whose trimmed end carries a fade loses its texture.
    EXPECT_FALSE(view.clipCacheWithIdentifier(QStringLiteral("b")));
    EXPECT_TRUE(view.clipCacheWithIdentifier(QStringLiteral("c")));

    press(view, inLane(1, 497));
    dragTo(view, inLane(1, 487));
    release(view, inLane(1, 487));
    ASSERT_EQ(delegate->cutEnds.size(), 1u);
    EXPECT_EQ(delegate->cutEnds[0], (VTTimelineViewDelegate::ValueDictionary{{"b", 8550}, {"c", 13050}}));
    EXPECT_EQ(count("will"), 2);
    EXPECT_EQ(count("did"), 2);
}

TEST_F(TimelineInteractionTest, aMoveIsOneBracketAndMovesTheWholeSelectionAcrossTracks)
{
    select({"a", "c"});
    press(view, inLane(1, 350));
    dragTo(view, inLane(1, 370));
    dragTo(view, inLane(1, 340));
    // Down one lane: the block follows.
    dragTo(view, inLane(2, 340));
    release(view, inLane(2, 340));
    ASSERT_EQ(delegate->starts.size(), 3u);
    EXPECT_EQ(delegate->starts[0], (VTTimelineViewDelegate::ValueDictionary{{"a", 5400}, {"c", 9900}}));
    EXPECT_EQ(delegate->starts[1], (VTTimelineViewDelegate::ValueDictionary{{"a", 4050}, {"c", 8550}}));
    ASSERT_EQ(delegate->trackMoves.size(), 3u);
    EXPECT_EQ(delegate->trackMoves[0], (VTTimelineViewDelegate::TrackDictionary{{"a", 0}, {"c", 1}}));
    EXPECT_EQ(delegate->trackMoves[2], (VTTimelineViewDelegate::TrackDictionary{{"a", 1}, {"c", 2}}));
    EXPECT_EQ(count("will"), 1);
    EXPECT_EQ(count("did"), 1);
    EXPECT_EQ(delegate->calls.first(), QStringLiteral("will"));
    EXPECT_EQ(delegate->calls.last(), QStringLiteral("did"));
    EXPECT_TRUE(delegate->selections.empty());

    // A source that cannot tell track indexes makes moves time-only.
    source->tellsTrackIndexes = false;
    delegate->trackMoves.clear();
    press(view, inLane(1, 350));
    dragTo(view, inLane(2, 360));
    release(view, inLane(2, 360));
    EXPECT_EQ(delegate->starts.size(), 4u);
    EXPECT_TRUE(delegate->trackMoves.empty());
}

TEST_F(TimelineInteractionTest, trackMovesKeepTheBlockWithinTheAllowedLanes)
{
    source->tracks.resize(16);
    source->maxTracks = 16;
    source->addClip(13, QStringLiteral("d"), 4500, 9000);
    source->addClip(15, QStringLiteral("e"), 4500, 9000);
    select({"d", "e"});
    view.reloadData();
    view.scrollPoint(QPointF(0, 0));  // the bottom of the document
    // Three lanes down from 13: the lower clip is on the last lane already.
    press(view, inLane(13, 200));
    dragTo(view, inLane(13, 200) - QPointF(0, 3 * 69));
    release(view, inLane(13, 200) - QPointF(0, 3 * 69));
    ASSERT_FALSE(delegate->trackMoves.empty());
    EXPECT_EQ(delegate->trackMoves.back(), (VTTimelineViewDelegate::TrackDictionary{{"d", 13}, {"e", 15}}));

    // From lane 15 up to lane 0 (scrolled into view during the drag): up by 13.
    press(view, inLane(15, 200));
    view.scrollPoint(QPointF(0, view.bounds().height()));
    dragTo(view, inLane(0, 200));
    release(view, inLane(0, 200));
    EXPECT_EQ(delegate->trackMoves.back(), (VTTimelineViewDelegate::TrackDictionary{{"d", 0}, {"e", 2}}));
}

TEST_F(TimelineInteractionTest, releasingFarBeyondTheViewDragsOutNearByItScrollsAndKeepsTheMove)
{
    select({"a"});
    const double width = view.viewport()->width();
    const double y = viewportPosition(view, inLane(0, 0)).y();
    mouseAtViewport(view, MouseAction::press, QPointF(200, y));
    mouseAtViewport(view, MouseAction::drag, QPointF(width + 150, y));
    EXPECT_EQ(cursorShape(), Qt::ForbiddenCursor);
    mouseAtViewport(view, MouseAction::release, QPointF(width + 150, y));
    EXPECT_EQ(delegate->dragOuts, std::vector<QStringList>({{"a"}}));
    EXPECT_EQ(delegate->calls, QStringList({"will", "dragOut"}));
    EXPECT_EQ(view.horizontalScrollBar()->value(), 0);

    delegate->calls.clear();
    mouseAtViewport(view, MouseAction::press, QPointF(200, y));
    mouseAtViewport(view, MouseAction::drag, QPointF(width + 50, y));
    EXPECT_EQ(view.horizontalScrollBar()->value(), 56);
    EXPECT_EQ(delegate->starts.back(), (VTTimelineViewDelegate::ValueDictionary{{"a", 4500 + 45 * int64_t(width - 150)}}));
    mouseAtViewport(view, MouseAction::release, QPointF(width + 50, y));
    EXPECT_EQ(delegate->calls, QStringList({"will", "timestamp", "did"}));
    EXPECT_EQ(delegate->dragOuts.size(), 1u);
}

TEST_F(TimelineInteractionTest, cursorShapesFollowTheZonesUnderTheMouse)
{
    const std::pair<QPointF, Qt::CursorShape> zones[] = {
        {inLane(0, 402), Qt::SplitHCursor},   // b's left edge
        {inLane(0, 421), Qt::SplitHCursor},   // b's fade-in handle
        {inLane(0, 559), Qt::SplitHCursor},   // b's fade-out handle
        {inLane(0, 597), Qt::SplitHCursor},   // b's right edge
        {inLane(0, 500), Qt::OpenHandCursor}, // b's body
        {inLane(0, 700), Qt::ArrowCursor},    // empty lane
        {QPointF(500, view.boundsOfTicksmark().y() + 5), Qt::ArrowCursor},
    };
    for (const auto& [point, shape] : zones) {
        hover(view, point);
        EXPECT_EQ(cursorShape(), shape) << point.x();
    }
    select({"b"});
    press(view, inLane(0, 500));
    dragTo(view, inLane(0, 520));
    EXPECT_EQ(cursorShape(), Qt::ClosedHandCursor);
    release(view, inLane(0, 520));
    EXPECT_EQ(cursorShape(), Qt::OpenHandCursor);
}

TEST_F(TimelineInteractionTest, wheelScrollsUnlessADragIsUnderWay)
{
    source->tracks.resize(16);
    source->maxTracks = 16;
    view.reloadData();
    auto wheel = [&](QPoint delta, Qt::KeyboardModifiers modifiers) {
        const QPointF position(300, 300);
        QWheelEvent event(position, view.viewport()->mapToGlobal(position), QPoint(), delta, Qt::NoButton, modifiers,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(view.viewport(), &event);
    };
    wheel(QPoint(0, -120), Qt::NoModifier);
    EXPECT_EQ(view.verticalScrollBar()->value(), 60);
    wheel(QPoint(0, -120), Qt::ShiftModifier);
    EXPECT_EQ(view.horizontalScrollBar()->value(), 60);
    wheel(QPoint(-120, 0), Qt::NoModifier);
    EXPECT_EQ(view.horizontalScrollBar()->value(), 120);
    press(view, inLane(1, 700));
    wheel(QPoint(0, -120), Qt::NoModifier);
    EXPECT_EQ(view.verticalScrollBar()->value(), 60);
    release(view, inLane(1, 700));
}

TEST_F(TimelineInteractionTest, dropsAreOfferedAtTheLaneUnderThemAndThePlayPosition)
{
    view.registerForDraggedTypes({QStringLiteral("text/uri-list")});
    source->tracks.resize(4);
    source->position = 7777;
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(QStringLiteral("/tmp/song.wav"))});
    QMimeData text;
    text.setText(QStringLiteral("not a file"));
    auto enter = [&](const QMimeData& data) {
        QDragEnterEvent event(QPoint(100, 100), Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        QApplication::sendEvent(view.viewport(), &event);
        return event.isAccepted() && event.dropAction() == Qt::CopyAction;
    };
    // As in a real drag, each drop follows an enter over the view.
    auto drop = [&](const QMimeData& data, const QPointF& documentPoint) {
        enter(data);
        QDropEvent event(viewportPosition(view, documentPoint), Qt::CopyAction, &data, Qt::LeftButton,
                         Qt::NoModifier);
        QApplication::sendEvent(view.viewport(), &event);
        return event.isAccepted();
    };
    EXPECT_TRUE(enter(files));
    EXPECT_FALSE(enter(text));
    EXPECT_TRUE(drop(files, inLane(2, 777)));
    EXPECT_TRUE(drop(files, inLane(2, 5)));
    EXPECT_TRUE(drop(files, inLane(6, 5)));
    EXPECT_FALSE(drop(text, inLane(2, 5)));
    ASSERT_EQ(delegate->drops.size(), 3u);
    EXPECT_EQ(delegate->drops[0].track, 2u);
    EXPECT_EQ(delegate->drops[0].timestamp, 7777);
    EXPECT_TRUE(delegate->drops[0].formats.contains(QStringLiteral("text/uri-list")));
    EXPECT_EQ(delegate->drops[1].track, 2u);
    EXPECT_EQ(delegate->drops[2].track, VTTimelineViewDelegate::kNotFound);
    delegate->refused.insert(Operation::dropOperationWithPasteboard);
    EXPECT_FALSE(drop(files, inLane(2, 5)));
    EXPECT_EQ(delegate->drops.size(), 3u);
}

TEST_F(TimelineInteractionTest, aDelegateThatTakesNothingAndNoDelegateAtAllAreSafe)
{
    for (Operation operation :
         {Operation::selectionsChanged, Operation::currentPositionChanged, Operation::fadeInDurationChanged,
          Operation::fadeOutDurationChanged, Operation::timestampChanged, Operation::cutAtStartClips,
          Operation::cutAtEndClips, Operation::moveClipsTrack, Operation::dragOutClips})
        delegate->refused.insert(operation);
    select({"b"});
    for (double x : {150.0, 402.0, 420.0, 500.0, 560.0, 597.0, 800.0}) {
        press(view, inLane(0, x));
        dragTo(view, inLane(0, x + 10));
        const QPointF farOut(view.viewport()->width() + 300, 100);
        mouseAtViewport(view, MouseAction::drag, farOut);
        mouseAtViewport(view, MouseAction::release, farOut);
    }
    // Only the brackets arrive; a drag out that the delegate cannot take is
    // no drag-out, so its bracket closes too.
    EXPECT_EQ(count("will"), count("did"));
    EXPECT_EQ(delegate->calls.size(), size_t(count("will") + count("did")));

    view.setDelegate(nullptr);
    for (double x : {150.0, 420.0, 500.0, 800.0}) {
        press(view, inLane(0, x));
        dragTo(view, inLane(1, x + 10));
        release(view, inLane(1, x + 10));
    }
    view.setDataSource(nullptr);
    press(view, inLane(0, 150));
    dragTo(view, inLane(1, 300));
    release(view, inLane(1, 300));
    hover(view, inLane(0, 150));
    EXPECT_EQ(cursorShape(), Qt::ArrowCursor);
}

}  // namespace
