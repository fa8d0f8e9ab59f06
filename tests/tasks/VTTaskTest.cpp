#include "tasks/VTTask.h"

#include "foundation/Dispatch.h"
#include "tasks/TaskRecorder.h"

#include <gtest/gtest.h>

#include <atomic>

using brindle::test::TaskRecorder;

namespace {

// Reports a run of percentages from its worker thread and answers a result
// that overrides one input key.
class CountingTask final : public VTTask {
public:
    explicit CountingTask(std::shared_ptr<VTTaskDelegate> delegate) : VTTask(std::move(delegate)) {}

    VTTaskContext excuteWithContext(const VTTaskContext& context) override
    {
        ranOnMainThread = brindle::isMainThread();
        for (int i = 1; i <= 200; ++i)
            sendTaskPercent(i / 2.0, context);
        VTTaskContext result = resultWithCode(1);
        result.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/result"))});
        result.set(kVTTaskDescription, QStringLiteral("from the task"));
        return result;
    }

    std::atomic<bool> ranOnMainThread{true};
};

// A delegate that takes none of the optional calls.
class SilentDelegate final : public VTTaskDelegate {};

}  // namespace

TEST(VTTaskTest, TheDelegateSeesStartThenEveryPercentageInOrderThenTheEndWithTheMergedContext)
{
    auto recorder = std::make_shared<TaskRecorder>();
    auto task = std::make_shared<CountingTask>(recorder);
    VTTaskContext input;
    input.set(kVTImportURLs, QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/input"))});
    input.set(kVTFailureURLs, QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/kept"))});
    task->startTaskWithContext(input);
    ASSERT_TRUE(recorder->waitForEnd());
    EXPECT_FALSE(task->ranOnMainThread);

    ASSERT_EQ(recorder->events.size(), 202u);
    EXPECT_EQ(recorder->events.front().kind, TaskRecorder::Kind::Start);
    EXPECT_EQ(recorder->events.front().context.urlsForKey(kVTImportURLs), input.urlsForKey(kVTImportURLs));
    for (int i = 1; i <= 200; ++i) {
        ASSERT_EQ(recorder->events[size_t(i)].kind, TaskRecorder::Kind::Percent);
        EXPECT_EQ(recorder->events[size_t(i)].percent, i / 2.0);
        // Percentages carry the context the task was started with.
        EXPECT_FALSE(recorder->events[size_t(i)].context.contains(kVTErrorCode));
    }
    const TaskRecorder::Event& end = recorder->end();
    EXPECT_EQ(end.code, 1);
    EXPECT_EQ(end.context.intForKey(kVTErrorCode), 1);
    EXPECT_EQ(end.context.urlsForKey(kVTImportURLs), QList<QUrl>{QUrl::fromLocalFile(QStringLiteral("/result"))});
    EXPECT_EQ(end.context.urlsForKey(kVTFailureURLs), input.urlsForKey(kVTFailureURLs));
    EXPECT_EQ(end.context.stringForKey(kVTTaskDescription), QStringLiteral("from the task"));
}

TEST(VTTaskTest, TheBaseTaskHandsBackItsContextWithCodeZero)
{
    for (const std::shared_ptr<VTTask>& task :
         {VTTask::init(), std::static_pointer_cast<VTTask>(VTTask::exportTaskWithDelegate(nullptr))}) {
        auto recorder = std::make_shared<TaskRecorder>();
        task->setDelegate(recorder);
        VTTaskContext input;
        input.set(kVTTaskDescription, QStringLiteral("nothing to do"));
        task->startTaskWithContext(input);
        ASSERT_TRUE(recorder->waitForEnd());
        EXPECT_EQ(recorder->events.size(), 2u);
        EXPECT_EQ(recorder->end().code, 0);
        EXPECT_EQ(recorder->end().context.keys(), QStringList{kVTTaskDescription});
    }
}

TEST(VTTaskTest, ATaskWhoseDelegateTakesNoCallsRunsToTheEndAndIsReleased)
{
    std::weak_ptr<VTTask> released;
    {
        auto task = std::make_shared<CountingTask>(std::make_shared<SilentDelegate>());
        released = task;
        task->startTaskWithContext({});
    }
    EXPECT_TRUE(brindle::runMainQueueUntil([&] { return released.expired(); }, 60000));
}
