#include "codec/KRMuxerTask.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRMuxerContext.h"
#include "codec/KRTimebase.h"
#include "foundation/Dispatch.h"
#include "foundation/Log.h"

#include <algorithm>
#include <chrono>
#include <cmath>

const QString KRMuxerTaskActionStart = QStringLiteral("KRMuxerTaskActionStart");
const QString KRMuxerTaskActionProgress = QStringLiteral("KRMuxerTaskActionProgress");
const QString KRMuxerTaskActionComplete = QStringLiteral("KRMuxerTaskActionComplete");

namespace {

// Progress is reported each time it has grown by this much.
constexpr double kProgressStep = 0.01;

}  // namespace

std::shared_ptr<KRMuxerTask> KRMuxerTask::initWithMuxerContext(std::shared_ptr<KRMuxerContext> context)
{
    if (!context) {
        brindle::log(QStringLiteral("KRMuxerTask: no muxer context"));
        return nullptr;
    }
    return std::shared_ptr<KRMuxerTask>(new KRMuxerTask(std::move(context)));
}

KRMuxerTask::KRMuxerTask(std::shared_ptr<KRMuxerContext> context)
    : m_muxerContext(std::move(context)), m_callbackQueue(&brindle::mainQueue())
{
}

// The writing thread is detached: it holds the task until its last
// statement, so the task is destroyed either on that thread or after it has
// let go, and nothing has to join it. waitUntilFinished() waits for the end.
KRMuxerTask::~KRMuxerTask() = default;

void KRMuxerTask::setDataSource(std::shared_ptr<KRMuxerTaskDataSource> dataSource)
{
    if (m_started) {
        brindle::log(QStringLiteral("KRMuxerTask: the data source cannot change while the task runs"));
        return;
    }
    m_dataSource = std::move(dataSource);
}

QString KRMuxerTask::errorMessage() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errorMessage;
}

bool KRMuxerTask::startMuxerWithBlock(Block block)
{
    if (!m_dataSource) {
        brindle::log(QStringLiteral("KRMuxerTask: no data source; nothing is written"));
        return false;
    }
    if (m_started.exchange(true)) {
        brindle::log(QStringLiteral("KRMuxerTask: already started"));
        return false;
    }
    std::thread([self = shared_from_this(), block = std::move(block)]() mutable {
        self->run(std::move(block));
        self.reset();
    }).detach();
    return true;
}

bool KRMuxerTask::waitUntilFinished(int64_t timeoutMilliseconds)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    auto finished = [this] { return m_finished.load(); };
    if (timeoutMilliseconds < 0) {
        m_finishedCondition.wait(lock, finished);
        return true;
    }
    return m_finishedCondition.wait_for(lock, std::chrono::milliseconds(timeoutMilliseconds), finished);
}

void KRMuxerTask::report(const Block& block, const QString& action, const QVariant& value)
{
    if (!block)
        return;
    if (!m_callbackQueue) {
        block(action, value);
        return;
    }
    m_callbackQueue->async([block, action, value] { block(action, value); });
}

void KRMuxerTask::run(Block block)
{
    report(block, KRMuxerTaskActionStart, QVariant());
    const int32_t result = write(block);
    if (result == 0)
        report(block, KRMuxerTaskActionProgress, QVariant(1.0f));
    // The source (often the owner of this task) is let go before anyone can
    // see the task finished, which breaks the ownership cycle.
    m_dataSource.reset();
    m_result = result;
    auto markFinished = [this] {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_finished = true;
        }
        m_finishedCondition.notify_all();
    };
    // A block called on this thread has made its last call before waiters
    // are released; a queued block finds the task finished when it runs.
    if (m_callbackQueue)
        markFinished();
    report(block, KRMuxerTaskActionComplete, QVariant(int(result)));
    if (!m_callbackQueue)
        markFinished();
}

int32_t KRMuxerTask::write(const Block& block)
{
    KRMuxerContext& muxer = *m_muxerContext;
    auto failed = [this](const QString& message) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_errorMessage = message;
        return 1;
    };
    const int64_t length = m_dataSource->KRMuxerTaskLength(*this);
    if (!muxer.open())
        return failed(muxer.errorMessage());
    // Frames that make up the whole length, for the progress fraction; 0
    // when the source does not know its length (no progress then).
    const double totalFrames =
        length > 0 ? static_cast<double>(length) * static_cast<double>(muxer.samplerate()) / KRTimebase : 0.0;
    double reported = 0.0;
    for (;;) {
        if (m_cancelled) {
            muxer.abort(QStringLiteral("Export cancelled"));
            return failed(QStringLiteral("Export cancelled"));
        }
        std::shared_ptr<KRAudioFrame2> frame = m_dataSource->KRMuxerTaskGetAudioFrame(*this);
        if (!frame)
            break;
        if (!muxer.writeAudioFrame(*frame))
            return failed(muxer.errorMessage());
        frame.reset();
        m_numberOfSamplesWritten = muxer.numberOfSamplesWritten();
        if (totalFrames > 0.0) {
            const double fraction = std::min(1.0, static_cast<double>(muxer.numberOfSamplesWritten()) / totalFrames);
            if (fraction >= reported + kProgressStep && fraction < 1.0) {
                reported = fraction;
                report(block, KRMuxerTaskActionProgress, QVariant(static_cast<float>(fraction)));
            }
        }
    }
    if (!muxer.finish())
        return failed(muxer.errorMessage());
    return 0;
}
