// One append-only cache file with a write-behind memory buffer and reads by
// logical offset.
//
// Contract
// - The logical stream is the file followed by the held bytes (written but not
//   yet in the file). `length()` is the size of the file only.
// - `writeDataBuffer` keeps bytes in memory while the held total stays at most
//   8 MiB (0x800000 bytes, inclusive); the write that would exceed it appends
//   everything held, itself included, to the file. So the file grows in chunks
//   of a little over 8 MiB.
// - `readDataBuffer(length, offset)` answers up to `length` bytes of the
//   logical stream from `offset`, never padded; past the end it logs
//   "reach to end of data buffer." and answers empty data. The result is never
//   larger than what the file and held bytes hold, whatever `length` says.
// - Keyed coding: class "VTDataBuffer", key "kKRCachePathFile". Encoding flushes
//   first, so an archived buffer names a complete file. Decoding fails (null,
//   "Warning: miss cache file(%@).") when no file exists at the path.
// - The file is never deleted here; `clearCache` only empties it.
// - Threads: writes (decoding) and reads never overlap. Reads may run from
//   several threads at once: the first read opens the file once, read-only,
//   and every read after it reads by position on that descriptor (a mixer
//   pulling eight tracks would otherwise open and close the file for every
//   frame). The descriptor is closed with the buffer. The queue is for callers that want to serialise their own work.
#pragma once

#include "foundation/Dispatch.h"
#include "foundation/KeyedCoding.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

class VTDataBuffer final : public brindle::KeyedCoding {
public:
    // The held bytes never exceed this many.
    static constexpr int64_t kMaximumHeldBytes = 0x800000;

    // init: a new file "<cachePath>/<currentDateString>.temp".
    VTDataBuffer();
    // initWithCacheFile: stores the path; creates an empty file if none exists.
    explicit VTDataBuffer(const QString& cacheFile);
    ~VTDataBuffer() override;
    VTDataBuffer(const VTDataBuffer&) = delete;
    VTDataBuffer& operator=(const VTDataBuffer&) = delete;

    static std::shared_ptr<VTDataBuffer> initWithCacheFile(const QString& cacheFile);
    // Stores the path of a cache file that another program wrote and creates
    // nothing: a path read from a document must not make files appear.
    static std::shared_ptr<VTDataBuffer> initWithExistingCacheFile(const QString& cacheFile);

    // "<Caches, or the temporary folder>/com.tarnwell.brindle", created if missing.
    static QString cachePath();
    // The current date as "%Y-%m-%d %H-%M-%S %z".
    static QString currentDateString();

    const QString& cachePathFile() const { return m_dataBufferFile; }
    const QString& pathfile() const { return m_dataBufferFile; }
    // The object's address, as used in the queue's label.
    uint64_t identifier() const { return uint64_t(reinterpret_cast<uintptr_t>(this)); }
    // A serial queue labelled "0x…: databuffer", created on first request.
    brindle::SerialQueue& dataBufferQueue();

    // Appends bytes to the logical stream. True unless a file write failed
    // (logged), in which case the held bytes of that write are lost.
    bool writeDataBuffer(const QByteArray& bytes);
    // The same for `length` bytes at `bytes`.
    bool writeDataBuffer(const char* bytes, int64_t length);
    // Writes the held bytes to the end of the file. False when the write failed (logged).
    bool flushCacheDataBuffer();
    QByteArray readDataBuffer(uint64_t length, uint64_t offset) const;
    // The same read into `out`, which has room for `length` bytes; answers
    // how many were read. Allocates nothing, and reads inside the part of the
    // file already seen by an earlier read make one system call.
    uint64_t readDataBuffer(char* out, uint64_t length, uint64_t offset) const;
    // The file's size on disk; held bytes are not counted. 0 when the file is missing.
    uint64_t length() const;
    // Bytes written but not yet in the file.
    int64_t heldLength() const { return m_cacheDataBuffer.size(); }
    // Empties the held bytes and the file.
    void clearCache();

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTDataBuffer> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    // Flushes held bytes first (the logical stream is unchanged by that).
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    struct FromArchive {};
    VTDataBuffer(const QString& cacheFile, FromArchive);

    bool appendHeldToFile() const;
    // The shared read-only descriptor, opened on first use; -1 when the file
    // cannot be opened (then each read tries again).
    int readDescriptor() const;

    const QString m_dataBufferFile;
    // Mutable so that encoding (a const operation that leaves the logical stream
    // unchanged) can move the held bytes into the file.
    mutable QByteArray m_cacheDataBuffer;
    // Written once under m_readDescriptorMutex, read by every reading thread.
    mutable std::atomic<int> m_readDescriptor{-1};
    mutable std::mutex m_readDescriptorMutex;
    // The file's size as last examined by a read. The file only grows while
    // it is read (clearCache, which empties it, never runs beside a read),
    // so a read that ends inside it need not examine the file again.
    mutable std::atomic<uint64_t> m_lengthSeen{0};
    std::once_flag m_queueOnce;
    std::unique_ptr<brindle::SerialQueue> m_dataBufferQueue;
};
