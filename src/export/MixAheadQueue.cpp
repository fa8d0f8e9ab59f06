#include "export/MixAheadQueue.h"

#include <algorithm>

namespace brindle {

namespace {

// Blocks ready before a waiting consumer is woken (fewer when the mix ends).
constexpr size_t kWakeConsumerAt = 4;

}  // namespace

MixAheadQueue::MixAheadQueue(qsizetype blockBytes, int depth, Produce produce, std::function<void()> finished)
    : m_slots(size_t(std::max(depth, 2)))
{
    for (Slot& slot : m_slots)
        slot.bytes = QByteArray(blockBytes, '\0');
    m_thread = std::thread([this, produce = std::move(produce), finished = std::move(finished)] {
        run(produce, finished);
    });
}

MixAheadQueue::~MixAheadQueue()
{
    stop();
    if (m_thread.joinable())
        m_thread.join();
}

void MixAheadQueue::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
}

void MixAheadQueue::run(const Produce& produce, const std::function<void()>& finished)
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopped || m_ready < m_slots.size(); });
        if (m_stopped)
            break;
        Slot& slot = m_slots[(m_head + m_ready) % m_slots.size()];
        lock.unlock();
        const std::optional<Content> content = produce(slot.bytes.data());
        lock.lock();
        if (!content)
            break;
        slot.content = *content;
        ++m_ready;
        // A waiting consumer is woken for a few blocks at a time, not each one.
        if (m_consumerWaiting && m_ready >= std::min(kWakeConsumerAt, m_slots.size()))
            m_changed.notify_all();
    }
    m_ended = true;
    lock.unlock();
    m_changed.notify_all();
    if (finished)
        finished();
}

std::optional<QByteArrayView> MixAheadQueue::take()
{
    std::unique_lock lock(m_mutex);
    if (m_holding) {
        m_holding = false;
        m_head = (m_head + 1) % m_slots.size();
        --m_ready;
        m_changed.notify_all();
    }
    m_consumerWaiting = true;
    m_changed.wait(lock, [this] { return m_stopped || m_ended || m_ready > 0; });
    m_consumerWaiting = false;
    if (m_stopped || m_ready == 0)
        return std::nullopt;
    m_holding = true;
    const Slot& slot = m_slots[m_head];
    return QByteArrayView(slot.bytes.constData() + slot.content.offset, slot.content.size);
}

}  // namespace brindle
