#include "tasks/VTImportMediaTask.h"

#include "media/LogCapture.h"
#include "media/VTDataProvider.h"
#include "media/VTDataProviderMgr.h"
#include "support/TestMedia.h"
#include "tasks/TaskRecorder.h"

#include <gtest/gtest.h>

using brindle::test::LogCapture;
using brindle::test::TaskRecorder;
using brindle::test::TestMedia;

namespace {

QString toneFile(int64_t milliseconds, uint32_t seed)
{
    brindle::test::ToneSpec spec;
    spec.sampleRate = 8000;
    spec.frames = milliseconds * 8;
    spec.seed = seed;
    return TestMedia::shared().wav(1, spec);
}

VTTaskContext importContext(const QStringList& paths)
{
    QList<QUrl> urls;
    for (const QString& path : paths)
        urls.append(QUrl::fromLocalFile(path));
    VTTaskContext context;
    context.set(kVTImportURLs, urls);
    return context;
}

std::shared_ptr<TaskRecorder> runImport(const std::shared_ptr<VTImportMediaTask>& task, const QStringList& paths)
{
    auto recorder = std::make_shared<TaskRecorder>();
    task->setDelegate(recorder);
    task->startTaskWithContext(importContext(paths));
    EXPECT_TRUE(recorder->waitForEnd());
    return recorder;
}

}  // namespace

TEST(VTImportMediaTaskTest, OneGoodAndOneBadFileSucceedWithOneProviderAndOneFailure)
{
    const QString good = toneFile(3000, 41);
    const QString bad = TestMedia::shared().garbage(4096, QStringLiteral("noise.mp3"));
    const auto recorder = runImport(VTTask::dataParserTaskWithDelegate(nullptr), {bad, good});
    const TaskRecorder::Event& end = recorder->end();
    EXPECT_EQ(end.code, 0);
    const auto providers = end.context.objectsOfClassForKey<VTDataProvider>(kVTExportObjects);
    ASSERT_EQ(providers.size(), 1u);
    EXPECT_EQ(providers.front()->identifier(), good);
    EXPECT_EQ(providers.front()->numberOfSamples(), 24000u);
    EXPECT_EQ(end.context.urlsForKey(kVTFailureURLs), QList<QUrl>{QUrl::fromLocalFile(bad)});
    // The inputs stay in the end context; the providers are not registered by the task.
    EXPECT_EQ(end.context.urlsForKey(kVTImportURLs).size(), 2);
    EXPECT_FALSE(VTDataProviderMgr::shareDataProviderMgr().dataProviderWithIdentifier(good));

    const std::vector<double> percentages = recorder->percentages();
    ASSERT_FALSE(percentages.empty());
    for (const double percent : percentages) {
        EXPECT_GE(percent, 0.0);
        EXPECT_LE(percent, 100.0);
    }
    EXPECT_GT(percentages.back(), 99.0);
}

TEST(VTImportMediaTaskTest, AnImportWhereEveryFileFailsIsAFailureAndAnEmptyOneASuccess)
{
    const QStringList bad = {TestMedia::shared().empty(QStringLiteral("empty.wav")),
                             TestMedia::shared().folder() + QStringLiteral("/does-not-exist.wav")};
    const auto failed = runImport(VTTask::dataParserTaskWithDelegate(nullptr), bad);
    EXPECT_EQ(failed->end().code, 1);
    EXPECT_EQ(failed->end().context.urlsForKey(kVTFailureURLs).size(), 2);
    EXPECT_TRUE(failed->end().context.contains(kVTExportObjects));
    EXPECT_TRUE(failed->end().context.objectsForKey(kVTExportObjects).empty());

    LogCapture log;
    const auto empty = runImport(VTTask::dataParserTaskWithDelegate(nullptr), {});
    EXPECT_EQ(empty->end().code, 0);
    EXPECT_TRUE(log.contains(QStringLiteral("No file need to parser.")));
}

TEST(VTImportMediaTaskTest, TheSameFileTwiceDecodesTwiceUnderOneProgressKey)
{
    const QString file = toneFile(2000, 42);
    auto task = VTTask::dataParserTaskWithDelegate(nullptr);
    const auto recorder = runImport(task, {file, file});
    ASSERT_EQ(recorder->end().code, 0);
    const auto providers = recorder->end().context.objectsOfClassForKey<VTDataProvider>(kVTExportObjects);
    ASSERT_EQ(providers.size(), 2u);
    EXPECT_NE(providers[0]->cachePathFile(), providers[1]->cachePathFile());
    EXPECT_EQ(task->totalLength(), 4000);
    // Both decodes wrote the one key, so the sum never passes half the total.
    EXPECT_EQ(task->percentForAllKeys(), 2000);
    for (const double percent : recorder->percentages())
        EXPECT_LE(percent, 50.0);
}
