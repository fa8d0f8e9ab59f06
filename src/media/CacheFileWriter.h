// Writes a decode's frames into its cache file on a thread of its own, so
// that decoding the next frames and storing the previous ones (archiving,
// compressing, the file system's copy) run side by side.
//
// Contract
// - `push` (the decoding thread) hands over the next frame and returns at
//   once unless kQueuedFrames frames are still waiting, in which case it
//   waits for room. It answers false once a record could not be made or
//   written: decoding should stop there.
// - The writer makes each frame's record (KRAudioFrameRecordWriter: the
//   compressed keyed archive), appends it to the data buffer and notes its
//   row (offset, record length, first sample index, sample count), strictly
//   in the order the frames were pushed. After a failure it stores nothing
//   more: the rows are those of the records written before it.
// - `finish` (the decoding thread, once) waits until every frame pushed has
//   been stored, flushes the data buffer and answers the rows, the byte and
//   sample totals (where the end marker goes) and whether every write
//   succeeded. The destructor finishes a writer that was not finished.
// - Threads: the data buffer is written only by the writer thread between
//   the constructor and `finish`; the caller must not touch it meanwhile.
//   The frames change hands under the mutex. The decoding thread waits only
//   for room and at the end; the writer waits only for frames. When no
//   thread can be started, `push` stores each frame itself (logged once).
#pragma once

#include "codec/KRAudioFrameRecordWriter.h"
#include "media/VTAudioFrameInfo.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class KRAudioFrame2;
class VTDataBuffer;

class CacheFileWriter {
public:
    // Frames that may wait for the writer (about three seconds of
    // 44.1 kHz MP3).
    static constexpr size_t kQueuedFrames = 128;

    struct Result {
        std::vector<std::shared_ptr<VTAudioFrameInfo>> rows;
        int64_t offset = 0;  // bytes written: the end marker's offset
        int64_t index = 0;   // samples written: the end marker's index
        bool written = true;
    };

    explicit CacheFileWriter(VTDataBuffer& dataBuffer);
    ~CacheFileWriter();
    CacheFileWriter(const CacheFileWriter&) = delete;
    CacheFileWriter& operator=(const CacheFileWriter&) = delete;

    bool push(std::shared_ptr<KRAudioFrame2> frame);
    Result finish();

private:
    // Frames that wait before a waiting writer is woken: it then takes them
    // all at once instead of waking for every frame.
    static constexpr size_t kWakeBatch = 32;

    void run();
    // Stores one frame; false when its record could not be made or written.
    bool store(const KRAudioFrame2& frame);

    VTDataBuffer& m_dataBuffer;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::shared_ptr<KRAudioFrame2>> m_queued;
    bool m_finishing = false;
    bool m_failed = false;
    bool m_writerWaiting = false;
    bool m_pusherWaiting = false;
    // The writer thread's own until it ends (the join hands them over); the
    // calling thread's when no thread could be started.
    KRAudioFrameRecordWriter m_records;
    std::vector<char> m_record;
    Result m_result;
    bool m_finished = false;
    std::thread m_thread;
};
