// Dispatch queues and groups.
//
// - mainQueue(): work runs on the Qt event loop of the application's main
//   thread, in submission order. `sync` from the main thread runs inline.
//   Before a QCoreApplication exists, submitted work waits in the queue until
//   an application object appears or runMainQueueUntil() runs it. When the
//   application object is destroyed, work still waiting is discarded with a
//   log line (the process is shutting down), and later submissions from other
//   threads are discarded too; a `sync` caller waiting on discarded work
//   returns, so that no thread stays blocked at exit.
// - globalQueue(): a pool of background threads (one per core, at least two);
//   work may run concurrently and in any order. It may be used from any
//   thread, including from work running on the pool. `sync` runs the work
//   inline on the calling thread (the queue is concurrent, so nothing orders
//   it against other work). A pool thread that blocks in one of these
//   primitives (a group wait, a `sync` on another queue) lends its place to a
//   new worker, so work that waits for other pool work cannot starve the pool.
//   The pool lives until the process ends: its threads are detached and park
//   on a condition variable of an object that is never destroyed, so they
//   neither hold up exit nor race with static destruction.
// - SerialQueue: one worker thread, work runs one at a time in submission
//   order; created on first use by the objects that own one. Destroying a
//   queue runs what is already submitted, then joins the worker. `sync` from
//   the queue's own work would deadlock: it is logged and runs inline.
// - DispatchGroup: counts outstanding work; `wait` blocks until it is done,
//   `notify` submits work to a queue once it is done. The queue given to
//   `async` and `notify` must outlive the work submitted to it.
#pragma once

#include <QString>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace brindle {

using DispatchWork = std::function<void()>;

class DispatchQueue {
public:
    virtual ~DispatchQueue() = default;
    // Submits work and returns at once.
    virtual void async(DispatchWork work) = 0;
    // Submits work and waits until it has run. Never call `sync` on the queue
    // you are running on (except the main queue from the main thread, which
    // runs inline).
    virtual void sync(DispatchWork work) = 0;
};

DispatchQueue& mainQueue();
DispatchQueue& globalQueue();
bool isMainThread();

class SerialQueue final : public DispatchQueue {
public:
    explicit SerialQueue(QString label);
    ~SerialQueue() override;
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const QString& label() const { return m_label; }
    void async(DispatchWork work) override;
    void sync(DispatchWork work) override;
    // True when called from this queue's worker thread.
    bool isCurrent() const;

private:
    // Shared with the worker thread, so that a queue destroyed from its own
    // work leaves the worker something valid to finish with.
    struct State;
    static void run(std::shared_ptr<State> state, QString label);

    QString m_label;
    std::shared_ptr<State> m_state;
    std::thread m_worker;
};

class DispatchGroup {
public:
    DispatchGroup();
    void enter();
    void leave();
    // enter(), then run the work on the queue, then leave().
    void async(DispatchQueue& queue, DispatchWork work);
    // Blocks until every entered piece of work has left.
    void wait();
    // As wait(), with a limit; false on timeout.
    bool waitFor(int64_t milliseconds);
    // Runs `work` on `queue` once the group is empty (at once if it is now).
    void notify(DispatchQueue& queue, DispatchWork work);

private:
    struct State;
    std::shared_ptr<State> m_state;
};

// Runs the main queue's pending work until `done` answers true or the time
// runs out; for programs without their own event loop (the command-line tool)
// and for tests. Must be called on the main thread. Returns `done()`.
bool runMainQueueUntil(const std::function<bool()>& done, int64_t timeoutMilliseconds);

}  // namespace brindle
