#include "model/ClipFeed.h"

#include "foundation/Dispatch.h"
#include "model/MixSource.h"

#include <cstring>
#include <utility>

namespace brindle {

namespace {

// A worker is queued again once this many blocks are free: a turn then
// computes several blocks, instead of one job per block.
constexpr size_t kRefillAt = ClipFeed::kDepth / 2;
// A mixing thread that waits for a worker is woken once this many blocks
// are ready (or the worker's turn ends): the following pulls then find
// their blocks, instead of each waking it once more.
constexpr size_t kWakeAt = 4;

}  // namespace

ClipFeed::ClipFeed(size_t blockBytes, uint8_t silence, Compute compute)
    : m_blockBytes(blockBytes),
      m_silence(silence),
      m_compute(std::move(compute)),
      m_blocks(blockBytes * kDepth),
      m_outcomes(kDepth)
{
}

ClipFeed::~ClipFeed() = default;

std::shared_ptr<ClipFeed> ClipFeed::start(size_t blockBytes, uint8_t silence, Compute compute)
{
    std::shared_ptr<ClipFeed> feed(new ClipFeed(blockBytes, silence, std::move(compute)));
    feed->m_queued = true;
    feed->submitWorker();
    return feed;
}

void ClipFeed::submitWorker()
{
    globalQueue().async([feed = shared_from_this()] { feed->work(); });
}

bool ClipFeed::wantsWorkerLocked()
{
    if (m_computing || m_queued || m_ended || m_stopped || kDepth - m_ready < kRefillAt)
        return false;
    m_queued = true;
    return true;
}

void ClipFeed::computeNext(std::unique_lock<std::mutex>& lock)
{
    const size_t slot = (m_head + m_ready) % kDepth;
    lock.unlock();
    const Outcome outcome = m_compute(block(slot));
    lock.lock();
    m_outcomes[slot] = outcome;
    ++m_ready;
    m_ended = outcome.result == MixSource::kEndOfSource;
}

void ClipFeed::work()
{
    std::unique_lock lock(m_mutex);
    m_queued = false;
    if (m_computing)
        return;
    m_computing = true;
    while (!m_stopped && !m_ended && m_ready < kDepth) {
        computeNext(lock);
        if (m_waiting && m_ready >= kWakeAt)
            m_changed.notify_all();
    }
    m_computing = false;
    // The mixing thread may wait for the role (to compute itself) or stop() for its end.
    m_changed.notify_all();
}

ClipFeed::Outcome ClipFeed::take(uint8_t* out)
{
    std::unique_lock lock(m_mutex);
    while (m_ready == 0) {
        if (m_stopped || m_ended) {
            // Nothing more will come: the answer of an exhausted clip.
            lock.unlock();
            std::memset(out, m_silence, m_blockBytes);
            Outcome end;
            end.result = MixSource::kEndOfSource;
            return end;
        }
        if (!m_computing) {
            m_computing = true;
            computeNext(lock);
            m_computing = false;
            m_changed.notify_all();
            break;
        }
        m_waiting = true;
        m_changed.wait(lock);
        m_waiting = false;
    }
    const size_t slot = m_head;
    const Outcome outcome = m_outcomes[slot];
    // The block stays ours until it is released below: nobody writes a ready block.
    lock.unlock();
    std::memcpy(out, block(slot), m_blockBytes);
    lock.lock();
    m_head = (m_head + 1) % kDepth;
    --m_ready;
    const bool submit = wantsWorkerLocked();
    lock.unlock();
    if (submit)
        submitWorker();
    return outcome;
}

void ClipFeed::stop()
{
    Compute dropped;
    {
        std::unique_lock lock(m_mutex);
        m_stopped = true;
        m_changed.wait(lock, [this] { return !m_computing; });
        dropped = std::move(m_compute);
        m_compute = nullptr;
    }
    // What the pulls held (the clip, its state, the converter) goes here, on
    // the stopping thread, outside the lock.
}

}  // namespace brindle
