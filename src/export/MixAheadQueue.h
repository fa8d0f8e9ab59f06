// Mixes an export's blocks on a thread of its own, a few blocks ahead of the
// encoder, so that mixing and encoding use two cores instead of taking turns
// on the muxer's thread. The blocks reach the encoder unchanged and in order.
//
// Contract
// - `produce` fills one block buffer of `blockBytes` bytes and answers where
//   its content lies (offset and size in bytes), or nullopt at the end of
//   the mix. It runs only on the queue's thread, one call at a time, and is
//   not called again after it answered nullopt or after `stop`. `finished`
//   runs once on the queue's thread after the last `produce`, whatever ended
//   the run (the end of the mix or `stop`).
// - `take` (the consumer, one thread) waits for the next block and answers a
//   view of it, valid until the next `take`; nullopt once the mix has ended
//   and every block was taken, or after `stop`. A consumer that has to wait
//   is woken when a few blocks are ready (or the mix ends), so that it takes
//   them in a row instead of sleeping between blocks.
// - `stop` may be called from any thread: the producer ends after the block
//   it is mixing. The destructor stops and waits for the thread.
// - Buffers: `depth` blocks, allocated when the queue is made. The producer
//   writes a block only while the consumer does not hold it; the mutex hands
//   each block from one thread to the other.
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace brindle {

class MixAheadQueue {
public:
    struct Content {
        qsizetype offset = 0;
        qsizetype size = 0;
    };
    using Produce = std::function<std::optional<Content>(char* block)>;

    MixAheadQueue(qsizetype blockBytes, int depth, Produce produce, std::function<void()> finished);
    ~MixAheadQueue();
    MixAheadQueue(const MixAheadQueue&) = delete;
    MixAheadQueue& operator=(const MixAheadQueue&) = delete;

    std::optional<QByteArrayView> take();
    void stop();

private:
    struct Slot {
        QByteArray bytes;
        Content content;
    };

    void run(const Produce& produce, const std::function<void()>& finished);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Slot> m_slots;
    size_t m_head = 0;      // the oldest ready block (the held one while m_holding)
    size_t m_ready = 0;     // blocks mixed and not yet released by the consumer
    bool m_holding = false; // the consumer holds the block at m_head
    bool m_consumerWaiting = false;
    bool m_ended = false;   // the producer made its last block
    bool m_stopped = false;
    std::thread m_thread;
};

}  // namespace brindle
