// Import and export in the running editor, through its dialogs and drops:
// new and known media through the import dialog, drops on a lane, files
// that cannot be decoded, a project dropped with media, and an export whose
// file equals what brindle-cli renders for the same document and options.
#include "app/AppTestSupport.h"

#include "app/KRCommandStackMgr.h"
#include "app/KRExportOptions.h"
#include "app/VTImportExportController.h"
#include "model/ModelFixtures.h"
#include "model/VTClip.h"
#include "model/VTTrack.h"
#include "support/AudioProbe.h"
#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <QComboBox>
#include <QFile>
#include <QFileInfo>
#include <QMimeData>

namespace brindle::test {
namespace {

class ImportExportTest : public EditorTest {
protected:
    void SetUp() override
    {
        EditorTest::SetUp();
        KRCommandStackMgr::shareCommandStackMgr().removeAllCommands();
    }
    QString scratch() { return TestEnvironment::current().makeScratchDirectory(QStringLiteral("importexport")); }
    // A WAV no test has imported yet.
    QString freshMedia(uint32_t seed)
    {
        ToneSpec spec;
        spec.frames = 44100;  // one second
        spec.seed = seed;
        const QString path = TestMedia::shared().wav(1, spec);
        EXPECT_FALSE(path.isEmpty());
        return path;
    }
    std::shared_ptr<VTClip> onlyClipOfTrack(int64_t track)
    {
        auto list = project()->trackAtIndex(track)->clips();
        return list->empty() ? nullptr : list->back();
    }
    // Sends a drop of `urls` onto the timeline's viewport at lane `lane`.
    bool dropOnLane(const QList<QUrl>& urls, int lane, int x = 300)
    {
        QMimeData mime;
        mime.setUrls(urls);
        const QPoint position(x, 19 + 69 * lane + 30);
        QDragEnterEvent enter(position, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(timeline().viewport(), &enter);
        QDropEvent drop(QPointF(position), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(timeline().viewport(), &drop);
        return drop.isAccepted();
    }
};

TEST_F(ImportExportTest, ImportPlacesNewMediaAfterDecodingAndKnownMediaAtOnce)
{
    const QString media = freshMedia(101);
    auto choose = chooseFileWhenShown(QStringLiteral("importPanel"), media);
    trigger(window().actions().importFile);
    BRINDLE_WAIT_TRUE(project()->numberOfTracks() == 1 && onlyClipOfTrack(0));
    EXPECT_EQ(onlyClipOfTrack(0)->timestampOfTrack(), 0);
    EXPECT_EQ(onlyClipOfTrack(0)->durationOfTrack(), 1000);
    EXPECT_TRUE(project()->needSaved());

    // Known now: a second import places it at once, with no task.
    auto again = chooseFileWhenShown(QStringLiteral("importPanel"), media);
    trigger(window().actions().importFile);
    BRINDLE_WAIT_TRUE(again->answered());
    EXPECT_EQ(project()->trackAtIndex(0)->numberOfClips(), 2);

    // One undo step per import.
    trigger(window().actions().undo);
    EXPECT_EQ(project()->trackAtIndex(0)->numberOfClips(), 1);
    trigger(window().actions().undo);
    EXPECT_EQ(project()->numberOfTracks(), 0);
}

TEST_F(ImportExportTest, DropsPlaceKnownMediaOnTheLaneAtTheCursorAndNewMediaAtTheStart)
{
    install(projectWith({{clipAt(0, 1000)}, {clipAt(0, 1000)}, {clipAt(0, 1000)}, {clipAt(0, 40000)}}));
    project()->setTimePosition(10000);
    const QString media = freshMedia(102);

    // New: decoded, then placed at 0 on track 0 whatever the lane and cursor.
    ASSERT_TRUE(dropOnLane({QUrl::fromLocalFile(media)}, 3));
    BRINDLE_WAIT_EQ(project()->trackAtIndex(0)->numberOfClips(), int64_t{2});
    EXPECT_EQ(onlyClipOfTrack(0)->timestampOfTrack(), 0);

    // Known: placed at once at the cursor on the lane it was dropped on.
    ASSERT_TRUE(dropOnLane({QUrl::fromLocalFile(media)}, 3, 900));
    EXPECT_EQ(project()->trackAtIndex(3)->numberOfClips(), 2);
    EXPECT_EQ(onlyClipOfTrack(3)->timestampOfTrack(), 10000);

    // Nothing supported: refused, nothing changes.
    const QString text = scratch() + QStringLiteral("/notes.xyzzy");
    QFile(text).open(QIODevice::WriteOnly);
    EXPECT_FALSE(dropOnLane({QUrl::fromLocalFile(text)}, 1));
    EXPECT_EQ(project()->trackAtIndex(1)->numberOfClips(), 1);
}

TEST_F(ImportExportTest, UndecodableFilesAreNamedAndRecordNoUndoStep)
{
    const QString garbage = TestMedia::shared().garbage(4096, QStringLiteral("noise-only.mp3"));
    QString message;
    auto ok = clickWhenShown(QStringLiteral("failedParserAlert"), QStringLiteral("OK"), &message);
    app().importExport().importMediaWithURLs({QUrl::fromLocalFile(garbage)}, 0, 0);
    BRINDLE_WAIT_TRUE(ok->answered());
    EXPECT_EQ(message, QStringLiteral("Failed to parser these files:\n\t%1").arg(garbage));
    EXPECT_EQ(project()->numberOfTracks(), 0);
    EXPECT_FALSE(KRCommandStackMgr::shareCommandStackMgr().canUndo());
}

TEST_F(ImportExportTest, AProjectDroppedWithMediaOpensTheProjectOnly)
{
    install(projectWith({{clipAt(0, 2000), clipAt(3000, 2000)}}));
    project()->setNeedSaved(true);
    const QString document = scratch() + QStringLiteral("/Dropped.loomwick");
    auto choose = chooseFileWhenShown(QStringLiteral("savePanel"), document);
    trigger(window().actions().saveDocumentAs);
    BRINDLE_WAIT_TRUE(!project()->needSaved());
    ASSERT_TRUE(QFileInfo::exists(document));
    install(std::make_shared<VTProject>());

    const QString media = freshMedia(103);
    ASSERT_TRUE(dropOnLane({QUrl::fromLocalFile(media), QUrl::fromLocalFile(document)}, 0));
    BRINDLE_WAIT_EQ(project()->title(), QStringLiteral("Dropped"));
    EXPECT_EQ(project()->trackAtIndex(0)->numberOfClips(), 2);
    EXPECT_EQ(project()->numberOfTracks(), 1) << "the media was not imported";
}

TEST_F(ImportExportTest, ExportWritesWhatTheCommandLineRendersForTheSameDocument)
{
    ToneSpec spec;
    spec.frames = 3 * 44100;
    spec.seed = 104;
    const QString media = TestMedia::shared().wav(1, spec);
    auto choose = chooseFileWhenShown(QStringLiteral("importPanel"), media);
    trigger(window().actions().importFile);
    BRINDLE_WAIT_TRUE(project()->numberOfTracks() == 1);
    onlyClipOfTrack(0)->setEnableFadeIn(true);
    onlyClipOfTrack(0)->setVolume(0.75);  // exact in the document's single-precision field
    const QString folder = scratch();
    const QString document = folder + QStringLiteral("/Mix.loomwick");
    auto save = chooseFileWhenShown(QStringLiteral("savePanel"), document);
    trigger(window().actions().saveDocumentAs);
    BRINDLE_WAIT_TRUE(!project()->needSaved());

    // WAV at "22.5KHz" through the export dialog and its options.
    const QString exported = folder + QStringLiteral("/Mix.wav");
    auto exportPanel = std::make_unique<DialogAnswer>(QStringLiteral("exportPanel"), [&](QWidget* widget) {
        auto* dialog = qobject_cast<QFileDialog*>(widget);
        KRExportOptions* options = app().exportOptions();
        options->cmbFormats()->setCurrentIndex(2);
        options->formatChanged();
        options->cmbSamplerates()->setCurrentText(QStringLiteral("22.5KHz"));
        dialog->selectFile(exported);
        static_cast<QDialog*>(dialog)->accept();
    });
    auto succeeded = clickWhenShown(QStringLiteral("exportSucceededAlert"), QStringLiteral("OK"));
    trigger(window().actions().exportFile);
    BRINDLE_WAIT_TRUE_FOR(succeeded->answered(), 30000);

    const auto probe = AudioProbe::ofFile(exported);
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->sampleRate, 22500);
    EXPECT_EQ(probe->channels, 2);

    const QString rendered = folder + QStringLiteral("/Rendered.wav");
    const ChildRun cli = runChild(QStringLiteral(BRINDLE_CLI_PATH),
                                  {QStringLiteral("render"), document, rendered, QStringLiteral("--rate"),
                                   QStringLiteral("22500")},
                                  60000);
    ASSERT_EQ(cli.exitCode, 0) << cli.err.toStdString();
    const auto ours = TestMedia::decodeWithFfmpeg(exported, 1);
    const auto theirs = TestMedia::decodeWithFfmpeg(rendered, 1);
    ASSERT_TRUE(ours && theirs);
    EXPECT_GT(ours->size(), 22500 * 2 * 2 * 2);
    ASSERT_EQ(ours->size(), theirs->size());
    qsizetype firstDifference = -1;
    for (qsizetype i = 0; i < ours->size() && firstDifference < 0; ++i)
        if (ours->at(i) != theirs->at(i))
            firstDifference = i;
    EXPECT_EQ(firstDifference, -1) << "the exported samples differ from the rendered ones";
}

}  // namespace
}  // namespace brindle::test
