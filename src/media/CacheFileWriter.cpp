#include "media/CacheFileWriter.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/Log.h"
#include "media/VTDataBuffer.h"

#include <pthread.h>

#include <system_error>
#include <utility>

CacheFileWriter::CacheFileWriter(VTDataBuffer& dataBuffer) : m_dataBuffer(dataBuffer)
{
    m_queued.reserve(kQueuedFrames);
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error& error) {
        brindle::logf("Cache writer: cannot start a thread (%s); frames are stored as they are decoded", error.what());
    }
}

CacheFileWriter::~CacheFileWriter()
{
    if (!m_finished)
        finish();
}

bool CacheFileWriter::store(const KRAudioFrame2& frame)
{
    if (!m_records.write(frame, m_record) || m_record.empty())
        return false;
    const auto length = int64_t(m_record.size());
    if (!m_dataBuffer.writeDataBuffer(m_record.data(), length))
        return false;
    m_result.rows.push_back(VTAudioFrameInfo::initWithOffset(m_result.offset, length, m_result.index,
                                                             int64_t(frame.numberOfSamples())));
    m_result.index += int64_t(frame.numberOfSamples());
    m_result.offset += length;
    return true;
}

bool CacheFileWriter::push(std::shared_ptr<KRAudioFrame2> frame)
{
    if (!frame)
        return !m_failed;
    if (!m_thread.joinable()) {
        m_failed = m_failed || !store(*frame);
        return !m_failed;
    }
    bool wake = false;
    {
        std::unique_lock lock(m_mutex);
        while (!m_failed && m_queued.size() >= kQueuedFrames) {
            m_pusherWaiting = true;
            m_changed.wait(lock);
            m_pusherWaiting = false;
        }
        if (m_failed)
            return false;
        m_queued.push_back(std::move(frame));
        wake = m_writerWaiting && m_queued.size() >= kWakeBatch;
    }
    if (wake)
        m_changed.notify_all();
    return true;
}

void CacheFileWriter::run()
{
    pthread_setname_np(pthread_self(), "brindle-cache");
    std::vector<std::shared_ptr<KRAudioFrame2>> batch;
    batch.reserve(kQueuedFrames);
    std::unique_lock lock(m_mutex);
    for (;;) {
        while (m_queued.empty() && !m_finishing) {
            m_writerWaiting = true;
            m_changed.wait(lock);
            m_writerWaiting = false;
        }
        if (m_queued.empty())
            break;
        batch.swap(m_queued);
        if (m_pusherWaiting)
            m_changed.notify_all();
        const bool failed = m_failed;
        lock.unlock();
        bool stored = !failed;
        for (const auto& frame : batch) {
            if (!stored)
                break;
            stored = store(*frame);
        }
        batch.clear();
        lock.lock();
        if (!stored && !m_failed) {
            m_failed = true;
            m_changed.notify_all();
        }
    }
    lock.unlock();
    m_result.written = m_dataBuffer.flushCacheDataBuffer() && !m_failed;
}

CacheFileWriter::Result CacheFileWriter::finish()
{
    if (m_finished)
        return {};
    m_finished = true;
    if (!m_thread.joinable()) {
        m_result.written = m_dataBuffer.flushCacheDataBuffer() && !m_failed;
        return std::move(m_result);
    }
    {
        std::lock_guard lock(m_mutex);
        m_finishing = true;
    }
    m_changed.notify_all();
    m_thread.join();
    return std::move(m_result);
}
