// The document flows of the running editor, answered through its dialogs:
// save as and open, undo across New and Open, the save prompt's three
// answers on close, a failed open and a failed save, and a document given
// before start-up has finished.
#include "app/AppTestSupport.h"

#include "app/KRCommandStackMgr.h"
#include "app/VTDocumentController.h"
#include "model/ModelFixtures.h"
#include "model/VTClip.h"
#include "model/VTTrack.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QFileInfo>
#include <QSignalSpy>

namespace brindle::test {
namespace {

class DocumentFlowsTest : public EditorTest {
protected:
    std::shared_ptr<VTProject> twoClipProject()
    {
        auto project = projectWith({{clipAt(0, 2000)}, {clipAt(1000, 3000)}});
        project->setNeedSaved(true);
        return project;
    }
    QString scratch() { return TestEnvironment::current().makeScratchDirectory(QStringLiteral("documents")); }
    // Counts the clips of the open project.
    int64_t clipCount()
    {
        int64_t count = 0;
        for (const auto& track : *project()->tracks())
            count += track->numberOfClips();
        return count;
    }
};

TEST_F(DocumentFlowsTest, SaveAsWritesTheDocumentAndUndoGoesBackAcrossNewAndOpen)
{
    KRCommandStackMgr::shareCommandStackMgr().removeAllCommands();
    install(twoClipProject());
    const QString path = scratch() + QStringLiteral("/Song.loomwick");

    auto choose = chooseFileWhenShown(QStringLiteral("savePanel"), path);
    trigger(window().actions().saveDocumentAs);
    BRINDLE_WAIT_TRUE(!project()->needSaved());
    EXPECT_TRUE(QFileInfo::exists(path));
    EXPECT_EQ(window().windowTitle(), QStringLiteral("Song"));
    EXPECT_FALSE(window().actions().saveDocument->isEnabled());
    EXPECT_TRUE(app().documents().recentDocuments().contains(path));

    // New replaces the project; undo brings the saved one back.
    ASSERT_TRUE(window().actions().newDocument->isEnabled());
    trigger(window().actions().newDocument);
    EXPECT_EQ(clipCount(), 0);
    EXPECT_FALSE(window().actions().newDocument->isEnabled()) << "New is off while the project is empty";
    trigger(window().actions().undo);
    EXPECT_EQ(clipCount(), 2);
    EXPECT_EQ(project()->title(), QStringLiteral("Song"));
    trigger(window().actions().redo);
    EXPECT_EQ(clipCount(), 0);

    // Open the document (the changed project is not kept); opening it again only logs.
    auto dontSave = clickWhenShown(QStringLiteral("saveChangesAlert"), QStringLiteral("Don't Save"));
    app().applicationOpenFile(path);
    BRINDLE_WAIT_EQ(clipCount(), int64_t{2});
    EXPECT_EQ(project()->url().toLocalFile(), path);
    LogCapture log;
    app().documents().openDocumentWithFilename(path);
    EXPECT_TRUE(log.contains(QStringLiteral("allready open, do nothing.")));
    trigger(window().actions().undo);
    EXPECT_EQ(clipCount(), 0) << "undo goes back across Open";
}

TEST_F(DocumentFlowsTest, CloseWithUnsavedChangesAsksAndFollowsTheAnswer)
{
    install(twoClipProject());
    QSignalSpy closed(&window(), &QObject::destroyed);

    // Cancel: nothing changes.
    QString question;
    auto cancel = clickWhenShown(QStringLiteral("saveChangesAlert"), QStringLiteral("Cancel"), &question);
    window().close();
    BRINDLE_WAIT_TRUE(cancel->answered());
    EXPECT_EQ(question, QStringLiteral("Do you want to save the changes you made in the project \"Untiltled\""));
    QTest::qWait(0);
    EXPECT_TRUE(window().isVisible());
    EXPECT_TRUE(project()->needSaved());
    EXPECT_FALSE(app().canTermimate());

    // Save... on a never-saved project asks for a file; cancelling it keeps the editor.
    auto save = clickWhenShown(QStringLiteral("saveChangesAlert"), QStringLiteral("Save..."));
    auto cancelPanel = chooseFileWhenShown(QStringLiteral("savePanel"), QString());
    window().close();
    BRINDLE_WAIT_TRUE(cancelPanel->answered());
    QTest::qWait(0);
    EXPECT_TRUE(window().isVisible());
    EXPECT_TRUE(project()->needSaved());

    // Don't Save: the window closes without a second question.
    auto dontSave = clickWhenShown(QStringLiteral("saveChangesAlert"), QStringLiteral("Don't Save"));
    window().close();
    BRINDLE_WAIT_TRUE(!window().isVisible());
    EXPECT_TRUE(app().canTermimate());
    EXPECT_TRUE(app().applicationShouldTerminate());
}

TEST_F(DocumentFlowsTest, NewWithUnsavedChangesSavesFirstWhenAsked)
{
    install(twoClipProject());
    const QString path = scratch() + QStringLiteral("/First.loomwick");
    auto save = clickWhenShown(QStringLiteral("saveChangesAlert"), QStringLiteral("Save..."));
    auto choose = chooseFileWhenShown(QStringLiteral("savePanel"), path);
    trigger(window().actions().newDocument);
    // Saved, then replaced by a new empty project.
    BRINDLE_WAIT_EQ(clipCount(), int64_t{0});
    EXPECT_TRUE(QFileInfo::exists(path));
    EXPECT_FALSE(project()->needSaved());
}

TEST_F(DocumentFlowsTest, AFailedSaveKeepsTheUnsavedMarkAndAsksBeforeClosing)
{
    install(twoClipProject());
    // A save into a folder that does not exist fails: "OK" only.
    project()->setUrl(QUrl::fromLocalFile(QStringLiteral("/nonexistent-folder/x/Lost.loomwick")));
    QString message;
    auto ok = clickWhenShown(QStringLiteral("saveFailedAlert"), QStringLiteral("OK"), &message);
    trigger(window().actions().saveDocument);
    BRINDLE_WAIT_TRUE(ok->answered());
    EXPECT_EQ(message, QStringLiteral("Failed to save the changes you made in the project \"Lost\""));
    EXPECT_TRUE(project()->needSaved());

    // Closing: the failure asks whether to close anyway; "NO" keeps the editor.
    auto save = clickWhenShown(QStringLiteral("saveChangesAlert"), QStringLiteral("Save..."));
    auto no = clickWhenShown(QStringLiteral("saveFailedAlert"), QStringLiteral("NO"));
    window().close();
    BRINDLE_WAIT_TRUE(no->answered());
    QTest::qWait(0);
    EXPECT_TRUE(window().isVisible());
    EXPECT_TRUE(project()->needSaved());
}

TEST_F(DocumentFlowsTest, AnUnreadableDocumentLeavesTheProjectAndSaysSo)
{
    install(twoClipProject());
    const QString path = scratch() + QStringLiteral("/Broken.loomwick");
    QFile broken(path);
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write(QByteArray(300, 'x'));
    broken.close();
    project()->setNeedSaved(false);

    QString message;
    auto ok = clickWhenShown(QStringLiteral("openFailedAlert"), QStringLiteral("OK"), &message);
    app().applicationOpenFile(path);
    BRINDLE_WAIT_TRUE(ok->answered());
    EXPECT_EQ(message, QStringLiteral("Failed to read frome the file(%1).").arg(path));
    EXPECT_EQ(clipCount(), 2);
}

TEST_F(DocumentFlowsTest, ADocumentGivenBeforeStartUpFinishedIsTheOneShown)
{
    // Write a document, then start a second editor with it as the desktop shell would.
    install(twoClipProject());
    const QString path = scratch() + QStringLiteral("/Given.loomwick");
    auto choose = chooseFileWhenShown(QStringLiteral("savePanel"), path);
    trigger(window().actions().saveDocumentAs);
    BRINDLE_WAIT_TRUE(!project()->needSaved());
    m_app.reset();

    m_app = std::make_unique<AppDelegate>();
    EXPECT_TRUE(m_app->applicationOpenFile(path));
    m_app->applicationDidFinishLaunching();
    m_app->window()->show();
    BRINDLE_WAIT_EQ(m_app->project()->title(), QStringLiteral("Given"));
    EXPECT_EQ(m_app->window()->windowTitle(), QStringLiteral("Given"));
    EXPECT_EQ(clipCount(), 2);
}

}  // namespace
}  // namespace brindle::test
