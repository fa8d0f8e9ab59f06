#include "codec/KRMuxerTask.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRMuxerContext.h"
#include "codec/KRTimebase.h"
#include "foundation/Dispatch.h"
#include "support/TestEnvironment.h"
#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QDir>

#include <thread>
#include <vector>

using brindle::test::TestEnvironment;
using brindle::test::TestMedia;
using brindle::test::ToneSpec;

namespace {

// Hands out a tone in blocks of `blockFrames`, recording the threads it is called on.
class ToneSource final : public KRMuxerTaskDataSource {
public:
    ToneSource(const ToneSpec& spec, int64_t blockFrames)
        : m_spec(spec), m_pcm(brindle::test::toneSamples(spec, 1)), m_blockFrames(blockFrames)
    {
    }
    std::shared_ptr<KRAudioFrame2> KRMuxerTaskGetAudioFrame(KRMuxerTask&) override
    {
        threads.push_back(std::this_thread::get_id());
        if (pauseAfter >= 0 && m_at >= pauseAfter)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        const int64_t count = std::min(m_blockFrames, m_spec.frames - m_at);
        if (count <= 0)
            return nullptr;
        const int64_t frameBytes = 2 * m_spec.channels;
        auto frame = KRAudioFrame2::initWithSampleFormat(1, m_spec.channels, m_spec.sampleRate, int32_t(count),
                                                         m_pcm.constData() + m_at * frameBytes);
        m_at += count;
        return frame;
    }
    std::shared_ptr<KRVideoFrame> KRMuxerTaskGetVideoFrame(KRMuxerTask&) override { return nullptr; }
    int64_t KRMuxerTaskLength(KRMuxerTask&) override { return m_spec.frames * KRTimebase / m_spec.sampleRate; }

    std::vector<std::thread::id> threads;
    int64_t pauseAfter = -1;

private:
    ToneSpec m_spec;
    QByteArray m_pcm;
    int64_t m_blockFrames;
    int64_t m_at = 0;
};

struct Event {
    QString action;
    QVariant value;
    bool onMainThread;
};

std::shared_ptr<KRMuxerTask> makeTask(const QString& path, const ToneSpec& spec, std::shared_ptr<ToneSource> source)
{
    auto muxer = KRMuxerContext::initWithFilename(path, KRMuxerContext::kFormatWAV);
    muxer->setSampleFormat(1);
    muxer->setNumberOfChannels(spec.channels);
    muxer->setSamplerate(spec.sampleRate);
    auto task = KRMuxerTask::initWithMuxerContext(muxer);
    task->setDataSource(std::move(source));
    return task;
}

TEST(KRMuxerTask, PullsOnItsOwnThreadAndReportsStartRisingProgressAndSuccessOnTheMainQueue)
{
    const QString folder = TestEnvironment::current().makeScratchDirectory(QStringLiteral("task-ok"));
    const ToneSpec spec{2, 48000, 48000 * 3, 2};
    auto source = std::make_shared<ToneSource>(spec, 2048);
    auto task = makeTask(folder + QStringLiteral("/ok.wav"), spec, source);
    task->setUserObjectContext(QStringLiteral("user object"));
    std::vector<Event> events;
    ASSERT_TRUE(task->startMuxerWithBlock([&events](const QString& action, const QVariant& value) {
        events.push_back({action, value, brindle::isMainThread()});
    }));
    EXPECT_FALSE(task->startMuxerWithBlock({}));
    ASSERT_TRUE(brindle::runMainQueueUntil(
        [&] { return !events.empty() && events.back().action == KRMuxerTaskActionComplete; }, 60000));

    EXPECT_EQ(task->result(), 0);
    EXPECT_EQ(task->numberOfSamplesWritten(), spec.frames);
    EXPECT_EQ(*task->userObjectContextAs<QString>(), QStringLiteral("user object"));
    ASSERT_GE(events.size(), 4u);
    EXPECT_EQ(events.front().action, KRMuxerTaskActionStart);
    EXPECT_EQ(events.back().value.toInt(), 0);
    float last = 0.0f;
    for (size_t i = 1; i + 1 < events.size(); ++i) {
        EXPECT_EQ(events[i].action, KRMuxerTaskActionProgress);
        EXPECT_EQ(events[i].value.typeId(), QMetaType::Float);
        EXPECT_GT(events[i].value.toFloat(), last);
        last = events[i].value.toFloat();
    }
    EXPECT_FLOAT_EQ(last, 1.0f);
    EXPECT_LE(events.size(), 103u);
    for (const Event& event : events)
        EXPECT_TRUE(event.onMainThread);
    for (auto id : source->threads)
        EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_EQ(source.use_count(), 1) << "the task lets go of its data source when it ends";
    const auto decoded = TestMedia::decodeWithFfmpeg(folder + QStringLiteral("/ok.wav"), 1);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(*decoded == brindle::test::toneSamples(spec, 1));
}

TEST(KRMuxerTask, AFailureOrACancelCompletesWithOneAndAMessage)
{
    const QString folder = TestEnvironment::current().makeScratchDirectory(QStringLiteral("task-fail"));
    const ToneSpec spec{2, 48000, 48000 * 20, 2};
    {
        auto task = makeTask(folder + QStringLiteral("/missing/x.wav"), spec, std::make_shared<ToneSource>(spec, 2048));
        std::vector<QString> actions;
        int result = -1;
        task->setCallbackQueue(nullptr);
        ASSERT_TRUE(task->startMuxerWithBlock([&](const QString& action, const QVariant& value) {
            actions.push_back(action);
            if (action == KRMuxerTaskActionComplete)
                result = value.toInt();
        }));
        ASSERT_TRUE(task->waitUntilFinished(60000));
        EXPECT_EQ(actions, (std::vector<QString>{KRMuxerTaskActionStart, KRMuxerTaskActionComplete}));
        EXPECT_EQ(result, 1);
    }
    auto source = std::make_shared<ToneSource>(spec, 512);
    source->pauseAfter = 0;
    auto task = makeTask(folder + QStringLiteral("/cancelled.wav"), spec, source);
    ASSERT_TRUE(task->startMuxerWithBlock({}));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    task->cancel();
    ASSERT_TRUE(task->waitUntilFinished(60000));
    EXPECT_EQ(task->result(), 1);
    EXPECT_EQ(task->errorMessage(), QStringLiteral("Export cancelled"));
    EXPECT_TRUE(QDir(folder).entryList(QDir::Files | QDir::Hidden).isEmpty());

    auto noSource = KRMuxerTask::initWithMuxerContext(KRMuxerContext::initWithFilename(folder + "/n.wav", 102));
    EXPECT_FALSE(noSource->startMuxerWithBlock({}));
}

}  // namespace
