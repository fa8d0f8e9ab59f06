#include "foundation/Dispatch.h"

#include "foundation/Log.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>
#include <vector>

namespace brindle {

namespace {

using Clock = std::chrono::steady_clock;

// The thread that ran static initialisation: the process's initial thread, on
// which main() creates the QCoreApplication.
const std::thread::id g_initialThread = std::this_thread::get_id();

// True on the threads of the global pool.
thread_local bool t_isPoolWorker = false;

// False, with a log line, for empty work.
bool acceptWork(const DispatchWork& work, const QString& queue)
{
    if (work)
        return true;
    logf("%s: empty work ignored", qUtf8Printable(queue));
    return false;
}

void nameCurrentThread(const QString& label)
{
    // Linux limits thread names to 15 bytes; longer names are cut.
    QByteArray name = label.toUtf8().left(15);
    pthread_setname_np(pthread_self(), name.constData());
}

// ---------------------------------------------------------------------------
// The global pool.

class WorkerPool final : public DispatchQueue {
public:
    WorkerPool()
        : m_target(static_cast<int>(std::max(2u, std::thread::hardware_concurrency())))
        , m_limit(std::max(64, m_target * 4))
    {
    }

    void async(DispatchWork work) override
    {
        if (!acceptWork(work, QStringLiteral("Global queue")))
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pending.push_back(std::move(work));
        if (m_idle > 0) {
            m_wake.notify_one();
            return;
        }
        if (runnableLocked() < m_target)
            spawnWorkerLocked();
    }

    void sync(DispatchWork work) override
    {
        if (!acceptWork(work, QStringLiteral("Global queue")))
            return;
        work();
    }

    // A pool thread is about to block: let another worker take its place if
    // work is waiting.
    void workerWillBlock()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_blocked;
        if (!m_pending.empty() && m_idle == 0 && runnableLocked() < m_target)
            spawnWorkerLocked();
    }

    void workerDidUnblock()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        --m_blocked;
    }

private:
    static constexpr std::chrono::seconds kIdleRetirement{30};

    int runnableLocked() const { return m_threads - m_blocked; }

    void spawnWorkerLocked()
    {
        if (m_threads >= m_limit)
            return;
        ++m_threads;
        try {
            std::thread([this] { workerLoop(); }).detach();
        } catch (const std::system_error& error) {
            --m_threads;
            logf("Global queue: cannot start a worker thread (%s); work waits for a running worker",
                 error.what());
        }
    }

    void workerLoop()
    {
        t_isPoolWorker = true;
        nameCurrentThread(QStringLiteral("brindle-pool"));
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            // A worker that came back from blocking may leave the pool larger
            // than its target: the first one to notice retires.
            if (runnableLocked() > m_target)
                break;
            if (!m_pending.empty()) {
                DispatchWork work = std::move(m_pending.front());
                m_pending.pop_front();
                lock.unlock();
                work();
                work = nullptr;
                lock.lock();
                continue;
            }
            ++m_idle;
            const bool woken = m_wake.wait_for(lock, kIdleRetirement, [this] { return !m_pending.empty(); });
            --m_idle;
            if (!woken && m_threads > m_target)
                break;
        }
        --m_threads;
    }

    const int m_target;
    const int m_limit;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<DispatchWork> m_pending;
    int m_threads = 0;
    int m_idle = 0;
    int m_blocked = 0;
};

WorkerPool& workerPool()
{
    // Never destroyed: detached workers park on its condition variable until exit.
    static WorkerPool* pool = new WorkerPool();
    return *pool;
}

// Marks the current thread as blocked while it exists, when it is a pool thread.
class BlockingRegion {
public:
    BlockingRegion()
        : m_poolWorker(t_isPoolWorker)
    {
        if (m_poolWorker)
            workerPool().workerWillBlock();
    }
    ~BlockingRegion()
    {
        if (m_poolWorker)
            workerPool().workerDidUnblock();
    }
    BlockingRegion(const BlockingRegion&) = delete;
    BlockingRegion& operator=(const BlockingRegion&) = delete;

private:
    bool m_poolWorker;
};

// ---------------------------------------------------------------------------
// Waiting for work submitted with `sync`.

// Finished when the work has run, or when it was discarded without running
// (the last copy of the wrapped work was destroyed).
class Completion {
public:
    void finish()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_finished = true;
        m_done.notify_all();
    }

    void wait()
    {
        BlockingRegion region;
        std::unique_lock<std::mutex> lock(m_mutex);
        m_done.wait(lock, [this] { return m_finished; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
};

struct CompletionGuard {
    explicit CompletionGuard(std::shared_ptr<Completion> completion)
        : completion(std::move(completion))
    {
    }
    ~CompletionGuard() { completion->finish(); }
    CompletionGuard(const CompletionGuard&) = delete;
    CompletionGuard& operator=(const CompletionGuard&) = delete;

    std::shared_ptr<Completion> completion;
};

// Wraps `work` so that `completion` finishes once it has run (everything it
// captured already released) or once it is discarded.
DispatchWork wrapForSync(DispatchWork work, const std::shared_ptr<Completion>& completion)
{
    auto guard = std::make_shared<CompletionGuard>(completion);
    return [work = std::move(work), guard]() mutable {
        work();
        work = nullptr;
        guard.reset();
    };
}

void runAndWait(DispatchQueue& queue, DispatchWork work)
{
    auto completion = std::make_shared<Completion>();
    queue.async(wrapForSync(std::move(work), completion));
    completion->wait();
}

// ---------------------------------------------------------------------------
// The main queue.
//
// Work waits in our own FIFO; each submission posts one "tick" to the
// application object, and each tick runs the oldest waiting item. The Qt
// event loop thus delivers the work in order, also from nested event loops,
// and the FIFO stays available when there is no application object.

class MainQueue final : public DispatchQueue {
public:
    void async(DispatchWork work) override
    {
        if (!acceptWork(work, QStringLiteral("Main queue")))
            return;
        DispatchWork dropped;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (attachApplicationLocked()) {
                m_pending.push_back(std::move(work));
                postTickLocked();
                return;
            }
            if (m_phase == Phase::Finished) {
                dropped = std::move(work);
            } else {
                if (!m_warnedWithoutApplication) {
                    m_warnedWithoutApplication = true;
                    log(QStringLiteral("Main queue: there is no application object yet; work waits "
                                       "until one exists or runMainQueueUntil runs it"));
                }
                m_pending.push_back(std::move(work));
                m_arrived.notify_all();
                return;
            }
        }
        log(QStringLiteral("Main queue: the application object is gone; work dropped"));
        // `dropped` is destroyed here, outside the lock: its destruction may
        // release a waiting `sync` caller or leave a group.
    }

    void sync(DispatchWork work) override
    {
        if (!acceptWork(work, QStringLiteral("Main queue")))
            return;
        if (isMainThread()) {
            work();
            return;
        }
        runAndWait(*this, std::move(work));
    }

    // Main thread: attaches to an application object created since the last call.
    bool attachApplication()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return attachApplicationLocked();
    }

    // Main thread, no application object: runs what is waiting, or waits up
    // to `milliseconds` for something to arrive and runs it.
    void runWithoutApplication(int64_t milliseconds)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_pending.empty())
            m_arrived.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return !m_pending.empty(); });
        while (!m_pending.empty()) {
            DispatchWork work = std::move(m_pending.front());
            m_pending.pop_front();
            lock.unlock();
            work();
            work = nullptr;
            lock.lock();
        }
    }

    static MainQueue& instance();

    // Called from every QCoreApplication constructor, on the main thread.
    static void applicationCreated()
    {
        MainQueue& queue = instance();
        std::lock_guard<std::mutex> lock(queue.m_mutex);
        queue.attachLocked(QCoreApplication::instance());
    }

private:
    enum class Phase { WithoutApplication, Running, Finished };

    // Running once an application object exists. The application's
    // constructor announces it; the check here covers only an application
    // that was made before this queue was first used, and only on the main
    // thread, where reading the application pointer cannot race with its
    // construction. A finished queue stays finished until the next
    // constructor announces a new application.
    bool attachApplicationLocked()
    {
        if (m_phase == Phase::WithoutApplication && isMainThread())
            attachLocked(QCoreApplication::instance());
        return m_phase == Phase::Running;
    }

    void attachLocked(QCoreApplication* application)
    {
        if (!application || (m_phase == Phase::Running && m_application == application))
            return;
        m_application = application;
        m_phase = Phase::Running;
        qAddPostRoutine(&MainQueue::applicationWillBeDestroyed);
        for (size_t index = 0; index < m_pending.size(); ++index)
            postTickLocked();
    }

    void postTickLocked()
    {
        QMetaObject::invokeMethod(
            m_application, [] { instance().runOne(); }, Qt::QueuedConnection);
    }

    void runOne()
    {
        DispatchWork work;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_pending.empty())
                return;
            work = std::move(m_pending.front());
            m_pending.pop_front();
        }
        work();
    }

    // Called from the application object's destructor, on the main thread,
    // before the object is gone: no tick may be posted to it from now on.
    static void applicationWillBeDestroyed()
    {
        MainQueue& queue = instance();
        std::deque<DispatchWork> dropped;
        {
            std::lock_guard<std::mutex> lock(queue.m_mutex);
            queue.m_phase = Phase::Finished;
            queue.m_application = nullptr;
            dropped.swap(queue.m_pending);
        }
        if (!dropped.empty())
            logf("Main queue: %zu pending work items dropped because the application object is being destroyed",
                 dropped.size());
    }

    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<DispatchWork> m_pending;
    Phase m_phase = Phase::WithoutApplication;
    QCoreApplication* m_application = nullptr;
    bool m_warnedWithoutApplication = false;
};

MainQueue& MainQueue::instance()
{
    // Never destroyed: other threads may still submit while the process exits.
    static MainQueue* queue = new MainQueue();
    return *queue;
}

void announceApplication()
{
    MainQueue::applicationCreated();
}
Q_COREAPP_STARTUP_FUNCTION(announceApplication)

// Processes Qt events until at least one batch was handled or `milliseconds` passed.
void processEventsFor(int64_t milliseconds)
{
    QTimer wakeUp;
    wakeUp.setSingleShot(true);
    wakeUp.start(static_cast<int>(milliseconds));
    QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
}

}  // namespace

// ---------------------------------------------------------------------------

DispatchQueue& mainQueue()
{
    return MainQueue::instance();
}

DispatchQueue& globalQueue()
{
    return workerPool();
}

bool isMainThread()
{
    return std::this_thread::get_id() == g_initialThread;
}

bool runMainQueueUntil(const std::function<bool()>& done, int64_t timeoutMilliseconds)
{
    if (!done) {
        log(QStringLiteral("runMainQueueUntil: no condition given"));
        return false;
    }
    if (!isMainThread()) {
        log(QStringLiteral("runMainQueueUntil: called off the main thread; nothing is run"));
        return done();
    }
    // Wake up at least this often to ask `done`, which may change without an event.
    constexpr int64_t kPollMilliseconds = 10;
    // Saturate: a limit such as INT64_MAX ms ("no limit") must not wrap the deadline into the past.
    const Clock::time_point start = Clock::now();
    const auto limit = std::chrono::milliseconds(std::max<int64_t>(0, timeoutMilliseconds));
    const auto room = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - start);
    const Clock::time_point deadline = limit >= room ? Clock::time_point::max() : start + limit;
    MainQueue& queue = MainQueue::instance();
    for (;;) {
        if (done())
            return true;
        const Clock::time_point now = Clock::now();
        if (now >= deadline)
            return done();
        const int64_t remaining = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
        const int64_t slice = std::clamp<int64_t>(remaining, 1, kPollMilliseconds);
        if (queue.attachApplication())
            processEventsFor(slice);
        else
            queue.runWithoutApplication(slice);
    }
}

// ---------------------------------------------------------------------------
// SerialQueue

struct SerialQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<DispatchWork> pending;
    bool stopping = false;
};

SerialQueue::SerialQueue(QString label)
    : m_label(std::move(label))
    , m_state(std::make_shared<State>())
{
    try {
        m_worker = std::thread(&SerialQueue::run, m_state, m_label);
    } catch (const std::system_error& error) {
        logf("Serial queue %s: cannot start its worker thread (%s); work runs on the submitting thread",
             qUtf8Printable(m_label), error.what());
    }
}

SerialQueue::~SerialQueue()
{
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->stopping = true;
        m_state->wake.notify_all();
    }
    if (!m_worker.joinable())
        return;
    if (isCurrent()) {
        logf("Serial queue %s destroyed from its own work; its worker finishes the pending work and ends",
             qUtf8Printable(m_label));
        m_worker.detach();
        return;
    }
    BlockingRegion region;
    m_worker.join();
}

void SerialQueue::async(DispatchWork work)
{
    if (!acceptWork(work, QStringLiteral("Serial queue ") + m_label))
        return;
    if (!m_worker.joinable()) {
        work();
        return;
    }
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->pending.push_back(std::move(work));
    m_state->wake.notify_one();
}

void SerialQueue::sync(DispatchWork work)
{
    if (!acceptWork(work, QStringLiteral("Serial queue ") + m_label))
        return;
    if (isCurrent()) {
        logf("Serial queue %s: sync from its own work would deadlock; running it inline",
             qUtf8Printable(m_label));
        work();
        return;
    }
    if (!m_worker.joinable()) {
        work();
        return;
    }
    runAndWait(*this, std::move(work));
}

bool SerialQueue::isCurrent() const
{
    return m_worker.get_id() == std::this_thread::get_id();
}

void SerialQueue::run(std::shared_ptr<State> state, QString label)
{
    nameCurrentThread(label);
    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        state->wake.wait(lock, [&] { return !state->pending.empty() || state->stopping; });
        if (state->pending.empty())
            return;
        DispatchWork work = std::move(state->pending.front());
        state->pending.pop_front();
        lock.unlock();
        work();
        work = nullptr;
        lock.lock();
    }
}

// ---------------------------------------------------------------------------
// DispatchGroup

struct DispatchGroup::State {
    std::mutex mutex;
    std::condition_variable empty;
    int64_t count = 0;
    std::vector<std::pair<DispatchQueue*, DispatchWork>> notifications;
};

namespace {
// Leaves the group when the last copy of the submitted work is gone: after it
// ran, or when a queue discarded it.
struct GroupLeaver {
    explicit GroupLeaver(DispatchGroup group)
        : group(std::move(group))
    {
    }
    ~GroupLeaver() { group.leave(); }
    GroupLeaver(const GroupLeaver&) = delete;
    GroupLeaver& operator=(const GroupLeaver&) = delete;

    DispatchGroup group;
};
}  // namespace

DispatchGroup::DispatchGroup()
    : m_state(std::make_shared<State>())
{
}

void DispatchGroup::enter()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    ++m_state->count;
}

void DispatchGroup::leave()
{
    std::vector<std::pair<DispatchQueue*, DispatchWork>> ready;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_state->count <= 0) {
            log(QStringLiteral("DispatchGroup: leave() without a matching enter() ignored"));
            return;
        }
        if (--m_state->count > 0)
            return;
        ready.swap(m_state->notifications);
        m_state->empty.notify_all();
    }
    for (auto& [queue, work] : ready)
        queue->async(std::move(work));
}

void DispatchGroup::async(DispatchQueue& queue, DispatchWork work)
{
    if (!acceptWork(work, QStringLiteral("DispatchGroup")))
        return;
    enter();
    auto leaver = std::make_shared<GroupLeaver>(*this);
    queue.async([work = std::move(work), leaver]() mutable {
        work();
        work = nullptr;
        leaver.reset();
    });
}

void DispatchGroup::wait()
{
    BlockingRegion region;
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->empty.wait(lock, [this] { return m_state->count == 0; });
}

bool DispatchGroup::waitFor(int64_t milliseconds)
{
    BlockingRegion region;
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->empty.wait_for(lock, std::chrono::milliseconds(std::max<int64_t>(0, milliseconds)),
                                   [this] { return m_state->count == 0; });
}

void DispatchGroup::notify(DispatchQueue& queue, DispatchWork work)
{
    if (!acceptWork(work, QStringLiteral("DispatchGroup notification")))
        return;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_state->count > 0) {
            m_state->notifications.emplace_back(&queue, std::move(work));
            return;
        }
    }
    queue.async(std::move(work));
}

}  // namespace brindle
