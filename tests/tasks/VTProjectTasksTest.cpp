#include "tasks/VTProjectTasks.h"

#include "codec/KRZlibCompression.h"
#include "media/LogCapture.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "model/VTProject.h"
#include "model/VTTrack.h"
#include "projectfile/KRFileStorage.h"
#include "projectfile/KRMediaTimeline.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"
#include "tasks/HeadlessTasks.h"
#include "tasks/TaskRecorder.h"

#include <QFile>
#include <QtEndian>

#include <gtest/gtest.h>

using brindle::test::LogCapture;
using brindle::test::TaskRecorder;

namespace {

QString scratch(const QString& name)
{
    return brindle::test::TestEnvironment::current().makeScratchDirectory(name);
}

std::shared_ptr<VTProject> projectWithOneClip()
{
    static std::shared_ptr<VTDataProvider> provider = [] {
        brindle::test::ToneSpec spec;
        spec.sampleRate = 8000;
        spec.frames = 16000;
        auto made = VTDataProvider::initWithURL(QUrl::fromLocalFile(brindle::test::TestMedia::shared().wav(1, spec)));
        EXPECT_TRUE(made && made->startParserWithBlock({}));
        VTDataProviderMgr::shareDataProviderMgr().importDataProviders({made});
        return made;
    }();
    auto project = std::make_shared<VTProject>();
    auto track = std::make_shared<VTTrack>();
    auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
    clip->setTimestampOfTrack(700);
    clip->setVolume(0.3);
    track->importClip(clip);
    project->importTrack(track);
    return project;
}

std::shared_ptr<TaskRecorder> run(const std::shared_ptr<VTTask>& task, const VTTaskContext& context)
{
    auto recorder = std::make_shared<TaskRecorder>();
    task->setDelegate(recorder);
    task->startTaskWithContext(context);
    EXPECT_TRUE(recorder->waitForEnd());
    return recorder;
}

VTTaskContext saveContext(const std::shared_ptr<VTProject>& project, const QString& path)
{
    VTTaskContext context;
    if (project)
        context.set(kVTImportObjects, VTTaskContext::ObjectList{project});
    if (!path.isEmpty())
        context.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(path)});
    return context;
}

}  // namespace

TEST(VTProjectTasksTest, SaveWritesToTheGivenFileAndOpenBringsTheProjectBack)
{
    const QString path = scratch(QStringLiteral("save-open")) + QStringLiteral("/Mix.loomwick");
    const auto project = projectWithOneClip();
    project->setUrl(QUrl::fromLocalFile(QStringLiteral("/elsewhere/Other.loomwick")));
    project->setNeedSaved(true);
    const auto saved = run(VTTask::saveProjectTaskWithDelegate(nullptr), saveContext(project, path));
    EXPECT_EQ(saved->end().code, 0);
    EXPECT_EQ(saved->percentages(), std::vector<double>{100.0});
    ASSERT_TRUE(QFile::exists(path));
    // The caller decides about the URL and the flag.
    EXPECT_EQ(project->url(), QUrl::fromLocalFile(QStringLiteral("/elsewhere/Other.loomwick")));
    EXPECT_TRUE(project->needSaved());

    VTTaskContext openContext;
    openContext.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(path)});
    const auto opened = run(VTTask::openProjectTaskWithDelegate(nullptr), openContext);
    EXPECT_EQ(opened->end().code, 0);
    EXPECT_EQ(opened->end().context.urlsForKey(kVTImportURLs), openContext.urlsForKey(kVTImportURLs));
    const auto projects = opened->end().context.objectsOfClassForKey<VTProject>(kVTExportObjects);
    ASSERT_EQ(projects.size(), 1u);
    const auto clips = projects.front()->trackAtIndex(0)->clips();
    ASSERT_EQ(clips->size(), 1u);
    EXPECT_EQ(clips->front()->timestampOfTrack(), 700);
    EXPECT_EQ(clips->front()->volume(), double(0.3f));
}

TEST(VTProjectTasksTest, SaveWithoutAProjectOrATargetAndOpenWithoutAFileFail)
{
    const QString folder = scratch(QStringLiteral("save-missing"));
    EXPECT_EQ(run(VTTask::saveProjectTaskWithDelegate(nullptr), saveContext(nullptr, folder + "/a.loomwick"))->end().code, 1);
    // No URL in the context and none on the project.
    EXPECT_EQ(run(VTTask::saveProjectTaskWithDelegate(nullptr), saveContext(projectWithOneClip(), {}))->end().code, 1);
    // Without a URL in the context the project's own URL is the target.
    const auto project = projectWithOneClip();
    project->setUrl(QUrl::fromLocalFile(folder + QStringLiteral("/own.loomwick")));
    EXPECT_EQ(run(VTTask::saveProjectTaskWithDelegate(nullptr), saveContext(project, {}))->end().code, 0);
    EXPECT_TRUE(QFile::exists(folder + QStringLiteral("/own.loomwick")));
    EXPECT_EQ(run(VTTask::openProjectTaskWithDelegate(nullptr), {})->end().code, 1);
}

TEST(VTProjectTasksTest, OpeningALegacyFileForwardsTheReadersProgressAndTakesTheFilesURL)
{
    const QString path = scratch(QStringLiteral("legacy-task")) + QStringLiteral("/Old.loomwick");
    auto storage = KRFileStorage::initWithURL(QUrl::fromLocalFile(path));
    ASSERT_TRUE(storage);
    KRMediaTimeline timeline;
    timeline.tracks = {std::make_shared<KRMediaTrack>()};
    ASSERT_TRUE(storage->updateFiletrailer(
        KRZlibCompression::zlibCompressionCompress(brindle::KeyedArchiver::archivedDataWithRootObject(timeline))));
    VTTaskContext context;
    context.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(path)});
    const auto opened = run(VTTask::openProjectTaskWithDelegate(nullptr), context);
    ASSERT_EQ(opened->end().code, 0);
    EXPECT_EQ(opened->percentages(), std::vector<double>{100.0});
    const auto projects = opened->end().context.objectsOfClassForKey<VTProject>(kVTExportObjects);
    ASSERT_EQ(projects.size(), 1u);
    EXPECT_EQ(projects.front()->url(), QUrl::fromLocalFile(path));
    EXPECT_EQ(projects.front()->numberOfTracks(), 1);
}

TEST(VTProjectTasksTest, HeadlessOpeningRefusesDamagedFilesSoTheOpenProjectStays)
{
    const QString folder = scratch(QStringLiteral("headless"));
    const QString good = folder + QStringLiteral("/Good.loomwick");
    ASSERT_EQ(run(VTTask::saveProjectTaskWithDelegate(nullptr), saveContext(projectWithOneClip(), good))->end().code, 0);
    QString error;
    std::shared_ptr<VTProject> current = brindle::tasks::openProjectDocumentSynchronously(good, &error);
    ASSERT_TRUE(current) << error.toStdString();

    QFile original(good);
    ASSERT_TRUE(original.open(QIODevice::ReadOnly));
    const QByteArray bytes = original.readAll();
    const struct {
        const char* name;
        QByteArray content;
    } damaged[] = {
        {"truncated.loomwick", bytes.left(20)},
        {"no-project.loomwick", bytes.left(16 + qsizetype(qFromLittleEndian<quint64>(bytes.constData() + 8)))},
        {"garbage.loomwick", QByteArray(300, '\x5a')},
    };
    for (const auto& file : damaged) {
        SCOPED_TRACE(file.name);
        const QString path = folder + u'/' + QString::fromLatin1(file.name);
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(file.content);
        out.close();
        error.clear();
        if (auto opened = brindle::tasks::openProjectDocumentSynchronously(path, &error))
            current = opened;
        EXPECT_FALSE(error.isEmpty());
    }
    EXPECT_EQ(current->trackAtIndex(0)->clips()->front()->timestampOfTrack(), 700);
    EXPECT_FALSE(brindle::tasks::openProjectDocumentSynchronously(folder + QStringLiteral("/absent.loomwick"), &error));
}
