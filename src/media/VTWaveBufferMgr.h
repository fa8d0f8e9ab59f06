// A process-wide registry of named, growable in-memory byte buffers.
//
// Contract
// - `dataBufferWithIdentifier` answers the buffer registered under a name,
//   registering a new empty one first if there is none. The same name always
//   answers the same buffer object.
// - `removeDataBufferWithIdentifier` only empties that buffer (length 0); the
//   entry stays, so a later look-up answers the same, now empty, object.
//   `clearDataBuffer` empties every buffer and keeps every entry.
// - Threads: the registry itself is guarded by a lock, so look-ups may come
//   from any thread; the contents of a buffer are the callers' to serialise.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <memory>
#include <mutex>

class VTWaveBufferMgr {
public:
    VTWaveBufferMgr() = default;
    VTWaveBufferMgr(const VTWaveBufferMgr&) = delete;
    VTWaveBufferMgr& operator=(const VTWaveBufferMgr&) = delete;

    // The single instance, created once.
    static VTWaveBufferMgr& shareWaveBufferMgr();

    std::shared_ptr<QByteArray> dataBufferWithIdentifier(const QString& identifier);
    void removeDataBufferWithIdentifier(const QString& identifier);
    void clearDataBuffer();

private:
    std::mutex m_mutex;
    QHash<QString, std::shared_ptr<QByteArray>> m_dataBufferInfo;
};
