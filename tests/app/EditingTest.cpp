// Editing in the running editor: the menu validation, the fade check boxes'
// mixed state, volume and zoom controls, magnetic placement, a mouse drag as
// one undo step, and clips copied in one editor pasted in another process.
#include "app/AppTestSupport.h"

#include "app/KRCommandStackMgr.h"
#include "app/VTClipboardPasteboard.h"
#include "app/VTEditController.h"
#include "app/VTMixedCheckBox.h"
#include "foundation/UserDefaults.h"
#include "model/ModelFixtures.h"
#include "model/VTClip.h"
#include "model/VTTrack.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"

#include <QClipboard>
#include <QPushButton>
#include <QSlider>
#include <QToolButton>

#include <cstdlib>

namespace brindle::test {
namespace {

class EditingTest : public EditorTest {
protected:
    void SetUp() override
    {
        EditorTest::SetUp();
        KRCommandStackMgr::shareCommandStackMgr().removeAllCommands();
        VTPasteboard::setGeneralPasteboard(std::make_shared<VTClipboardPasteboard>());
        first = clipAt(0, 4000);
        second = clipAt(6000, 4000);
        install(projectWith({{first}, {second}}));
    }
    void TearDown() override
    {
        VTPasteboard::setGeneralPasteboard(nullptr);
        EditorTest::TearDown();
    }
    void select(const QStringList& identifiers) { app().editing().selectionsChanged(identifiers, &timeline()); }
    bool enabled(QAction* action) const { return action->isEnabled(); }

    std::shared_ptr<VTClip> first;
    std::shared_ptr<VTClip> second;
};

TEST_F(EditingTest, MenuItemsAreEnabledByTheValidationRules)
{
    const MainWindow::Actions& a = window().actions();
    // Nothing selected, nothing to undo, clipboard without clips, nothing changed.
    QGuiApplication::clipboard()->clear();
    app().enableFace();
    for (QAction* action : {a.cut, a.copy, a.deleteSelection, a.moveLeft, a.moveRight, a.splitClk, a.undo, a.redo,
                            a.paste, a.saveDocument})
        EXPECT_FALSE(enabled(action)) << action->text().toStdString();
    for (QAction* action : {a.playClk, a.exportFile, a.newDocument, a.selectAll, a.openDocument, a.importFile})
        EXPECT_TRUE(enabled(action)) << action->text().toStdString();
    EXPECT_FALSE(window().chkFadeIn()->isEnabled());
    EXPECT_FALSE(window().volumeSlider()->isEnabled());

    // A disabled command's shortcut does nothing.
    QTest::keyClick(&timeline(), Qt::Key_Delete);
    EXPECT_EQ(project()->trackAtIndex(0)->numberOfClips(), 1);

    select({first->identifier()});
    for (QAction* action : {a.cut, a.copy, a.deleteSelection, a.moveLeft, a.moveRight, a.splitClk})
        EXPECT_TRUE(enabled(action)) << action->text().toStdString();
    EXPECT_TRUE(window().chkFadeIn()->isEnabled());

    trigger(a.copy);
    EXPECT_TRUE(enabled(a.paste));
    QTest::keyClick(&timeline(), Qt::Key_Right);
    EXPECT_GT(first->timestampOfTrack(), 0) << "Right moves the selection";
    EXPECT_TRUE(enabled(a.undo));
    EXPECT_FALSE(enabled(a.redo));
    trigger(a.undo);
    EXPECT_EQ(project()->clipWithIdentifier(first->identifier())->timestampOfTrack(), 0);
    EXPECT_TRUE(enabled(a.redo));
    EXPECT_TRUE(enabled(a.saveDocument)) << "undo marks the project as changed";

    // With an empty project New, Play and Export are off.
    install(std::make_shared<VTProject>());
    for (QAction* action : {a.newDocument, a.playClk, a.exportFile})
        EXPECT_FALSE(enabled(action)) << action->text().toStdString();
    EXPECT_FALSE(window().saveButton()->isEnabled());
}

TEST_F(EditingTest, FadeCheckBoxesShowTheMixedStateAndSetEveryClipInOneStep)
{
    first->setEnableFadeIn(true);
    select({first->identifier(), second->identifier()});
    EXPECT_EQ(window().chkFadeIn()->state(), VTMixedCheckBox::kMixed);
    EXPECT_EQ(window().chkFadeOut()->state(), VTMixedCheckBox::kOff);

    QTest::mouseClick(window().chkFadeIn(), Qt::LeftButton);
    auto clip = [this](const std::shared_ptr<VTClip>& c) { return project()->clipWithIdentifier(c->identifier()); };
    EXPECT_TRUE(clip(first)->enableFadeIn());
    EXPECT_TRUE(clip(second)->enableFadeIn());
    EXPECT_EQ(window().chkFadeIn()->state(), VTMixedCheckBox::kOn);

    trigger(window().actions().undo);
    EXPECT_TRUE(clip(first)->enableFadeIn());
    EXPECT_FALSE(clip(second)->enableFadeIn());
    EXPECT_EQ(window().chkFadeIn()->state(), VTMixedCheckBox::kMixed);
}

TEST_F(EditingTest, VolumeAndZoomButtonsStepFromTheSliders)
{
    select({first->identifier()});
    QSlider* volume = window().volumeSlider();
    MainWindow::setSliderValue(volume, 3.0);
    // At the slider's top the clips still get 0.005 more.
    QTest::mouseClick(window().maxVolumeButton(), Qt::LeftButton);
    EXPECT_DOUBLE_EQ(project()->clipWithIdentifier(first->identifier())->volume(), VTClip::maxVolumeAllowed());
    MainWindow::setSliderValue(volume, 1.0);
    QTest::mouseClick(window().minVolumeButton(), Qt::LeftButton);
    EXPECT_NEAR(project()->clipWithIdentifier(first->identifier())->volume(), 0.995, 1e-9);

    // The slider drives the timeline: its ms per point follow the zoom mapping.
    const struct {
        double from;
        bool zoomIn;
        double expected;
        uint64_t durationPerPixel;
    } steps[] = {{0.003, false, 0.0, 300}, {0.998, true, 1.0, 3},    {0.6, true, 0.61, 35},
                 {0.6, false, 0.59, 37},   {0.5, true, 0.505, 44},  {0.5, false, 0.495, 47}};
    for (const auto& step : steps) {
        MainWindow::setSliderValue(window().zoomSlider(), step.from);
        QTest::mouseClick(step.zoomIn ? window().maxZoomButton() : window().minZoomButton(), Qt::LeftButton);
        EXPECT_NEAR(MainWindow::sliderValue(window().zoomSlider()), step.expected, 1e-9) << step.from;
        EXPECT_EQ(timeline().durationPerPixel(), step.durationPerPixel) << step.from;
    }
}

TEST_F(EditingTest, ClipsSnapToTheCursorAndToOtherClipsStrictlyWithinEightPixels)
{
    // 45 ms per point: the snap distance is 360 ms. The first track holds the
    // dragged clip (4 s) and a neighbour at 20–21 s; the cursor is at 15 s.
    timeline().setZoomValue(0.5);
    project()->importClipAtTrackIndex(clipAt(20000, 1000), 0);
    project()->setTimePosition(15000);
    ASSERT_EQ(project()->timePosition(), 15000);
    const QString id = first->identifier();
    auto placeAt = [&](int64_t proposed) {
        app().editing().timestampChanged({{id, proposed}}, &timeline());
        return first->timestampOfTrack();
    };
    EXPECT_EQ(placeAt(15000 + 359), 15000) << "start snaps to the cursor";
    EXPECT_EQ(placeAt(15000 + 360), 15360) << "exactly 8 pixels does not snap";
    EXPECT_EQ(placeAt(15000 - 4000 - 300), 11000) << "end snaps to the cursor";
    EXPECT_EQ(placeAt(21000 + 200), 21000) << "start snaps to another clip's end";
    EXPECT_EQ(placeAt(20000 - 4000 + 100), 16000) << "end snaps to another clip's start";
    EXPECT_EQ(placeAt(300), 0) << "start snaps to the track's start";
    EXPECT_TRUE(project()->needSaved());
}

TEST_F(EditingTest, AMouseDragOfSeveralClipsIsOneUndoStep)
{
    select({first->identifier(), second->identifier()});
    timeline().setZoomValue(0.5);
    timeline().reloadData();
    QWidget* viewport = timeline().viewport();
    // Lane 0's clip box: 19 + 4 points below the top is the ruler and inset.
    const QPoint start(40, 19 + 30);
    QTest::mousePress(viewport, Qt::LeftButton, Qt::NoModifier, start);
    for (int step = 1; step <= 5; ++step) {
        QMouseEvent move(QEvent::MouseMove, QPointF(start + QPoint(20 * step, 0)),
                         viewport->mapToGlobal(QPointF(start + QPoint(20 * step, 0))), Qt::NoButton, Qt::LeftButton,
                         Qt::NoModifier);
        QApplication::sendEvent(viewport, &move);
    }
    QTest::mouseRelease(viewport, Qt::LeftButton, Qt::NoModifier, start + QPoint(100, 0));
    const int64_t moved = 100 * 45;
    EXPECT_EQ(project()->clipWithIdentifier(first->identifier())->timestampOfTrack(), moved);
    EXPECT_EQ(project()->clipWithIdentifier(second->identifier())->timestampOfTrack(), 6000 + moved);

    trigger(window().actions().undo);
    EXPECT_EQ(project()->clipWithIdentifier(first->identifier())->timestampOfTrack(), 0);
    EXPECT_EQ(project()->clipWithIdentifier(second->identifier())->timestampOfTrack(), 6000);
    EXPECT_FALSE(window().actions().undo->isEnabled()) << "the whole drag was one step";
}

// The other side of the clipboard test: a second editor process pastes
// what the first copied and prints the pasted clips' lengths.
TEST_F(EditingTest, DISABLED_PasteSide)
{
    install(std::make_shared<VTProject>());
    BRINDLE_WAIT_TRUE(window().actions().paste->isEnabled());
    trigger(window().actions().paste);
    for (const auto& track : *project()->tracks())
        for (const auto& clip : *track->clips())
            std::printf("pasted %lld\n", static_cast<long long>(clip->durationOfTrack()));
}

TEST_F(EditingTest, ClipsCopiedHerePasteInASecondEditorProcess)
{
    select({second->identifier()});
    trigger(window().actions().copy);
    // The other process shares this one's settings and caches, so it knows the media.
    brindle::UserDefaults::standardUserDefaults().synchronize();
    // This process must keep serving the clipboard while the other one reads it.
    const ChildRun other = runChild(
        QCoreApplication::applicationFilePath(),
        {QStringLiteral("--gtest_also_run_disabled_tests"), QStringLiteral("--gtest_filter=*DISABLED_PasteSide")}, 60000,
        {QString::fromLatin1(TestEnvironment::kSharedHomeVariable) + QLatin1Char('=') + TestEnvironment::current().root()},
        [] { QCoreApplication::processEvents(QEventLoop::AllEvents, 5); });
    ASSERT_TRUE(other.finished) << other.err.toStdString();
    const QString output = QString::fromUtf8(other.out);
    EXPECT_TRUE(output.contains(QStringLiteral("pasted 4000"))) << output.toStdString();
}

}  // namespace
}  // namespace brindle::test
