// The pulls of one clip, computed ahead of the mix by the global queue's
// workers, so that the clips of a project are read, converted and given
// their gain and fades on every core while the mixing thread mixes.
//
// Contract
// - A feed runs `compute` once per pull, strictly in order, each time into a
//   block of `blockBytes` bytes, and keeps up to kDepth computed blocks with
//   what each pull answered (its Outcome). `compute` is the clip's own pull
//   on a state of its own (a copy of the mixing thread's state made when the
//   feed starts), so the blocks are exactly what the mixing thread's pulls
//   would have given.
// - `take` (the mixing thread, one at a time) copies the oldest block into
//   its buffer and answers its outcome. When no block is ready and no worker
//   is computing one, the calling thread computes it itself: a feed never
//   waits for a worker that has not started (the pool may be busy or
//   exhausted), only for a block already under way.
// - After a block whose answer is the end marker nothing more is computed:
//   every later pull of the clip answers the same without reading anything.
// - `stop` may be called from any thread: it waits for a block under way to
//   be finished, then drops `compute` and everything it holds (the clip, its
//   state, the converter), so that nothing of the mix is touched after it
//   returns. Later `take`s answer the end marker with a silent block. A job that
//   was queued on the pool but has not run finds the feed stopped and ends.
// - Threads: `compute` runs on one thread at a time (a worker or the mixing
//   thread); the mutex hands the computing role and every block from one
//   thread to the next. Blocks are written by the computing thread while
//   they are free, read by the mixing thread once published.
// - Buffers: the blocks are allocated when the feed is made; a steady run
//   allocates nothing but the pool's job records.
#pragma once

#include "model/MixSource.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace brindle {

class ClipFeed : public std::enable_shared_from_this<ClipFeed> {
public:
    // Blocks kept ahead of the mix (2048-frame blocks: about 1.4 s at 48 kHz).
    static constexpr size_t kDepth = 32;

    // What one pull answered, and the state's counters after it.
    struct Outcome {
        int64_t result = 0;
        FlagWrite flag = FlagWrite::None;
        int64_t numberOfSampleOut = 0;
        int64_t numberOfSampleOutInDataProvider = 0;
    };
    using Compute = std::function<Outcome(uint8_t* block)>;

    // A feed that starts computing at once on the global queue; `silence`
    // is the byte of a silent block in the mix format.
    static std::shared_ptr<ClipFeed> start(size_t blockBytes, uint8_t silence, Compute compute);
    ~ClipFeed();
    ClipFeed(const ClipFeed&) = delete;
    ClipFeed& operator=(const ClipFeed&) = delete;

    // The next pull: its block copied into `out` (blockBytes bytes) and its outcome.
    Outcome take(uint8_t* out);
    void stop();

    size_t blockBytes() const { return m_blockBytes; }

private:
    ClipFeed(size_t blockBytes, uint8_t silence, Compute compute);
    uint8_t* block(size_t slot) { return m_blocks.data() + slot * m_blockBytes; }
    // A worker's turn: computes blocks while there is room.
    void work();
    // Computes the block after the last one; called with the lock held and
    // the computing role taken, releases the lock while computing.
    void computeNext(std::unique_lock<std::mutex>& lock);
    // Queues a worker's turn when there is room and nobody is at it (lock held);
    // answers whether the caller must submit one.
    bool wantsWorkerLocked();
    void submitWorker();

    const size_t m_blockBytes;
    const uint8_t m_silence;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Compute m_compute;  // dropped by stop(); used only by the thread that computes
    std::vector<uint8_t> m_blocks;
    std::vector<Outcome> m_outcomes;
    size_t m_head = 0;        // the oldest ready block
    size_t m_ready = 0;       // blocks computed and not yet taken
    bool m_computing = false; // a thread is computing the block after the ready ones
    bool m_queued = false;    // a worker's turn waits in the pool
    bool m_waiting = false;   // the mixing thread waits for a block
    bool m_ended = false;     // the last block computed answered the end marker
    bool m_stopped = false;
};

}  // namespace brindle
