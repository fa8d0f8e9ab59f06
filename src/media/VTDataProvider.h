// One imported media file: probed when made, decoded once into a PCM cache
// file, then read by sample index without touching the media file again.
//
// Contract
// - `initWithURL` probes the file and answers null when it cannot be opened,
//   has no audio stream, or its decoded audio is not a sample format 0–4 with
//   1–1024 channels. A file refused as protected content also shows the alert
//   "You can not add DRM protected file." / "DRM protected information has
//   been detected in file: <path>" (alertFailedInMainThread). An empty URL
//   logs "data provider url can't empty." and answers a provider with empty
//   fields.
// - `startParserWithBlock` decodes the whole stream, synchronously, into a new
//   "<name>.medialibrary" (or "<name> N.medialibrary") file in
//   "<XDG data home>/com.tarnwell.brindle", reserved exclusively so parallel
//   decodes of one file never share a cache file. Each decoded frame becomes
//   one record: the keyed archive of the KRAudioFrame2, zlib-compressed; the
//   frame table (cacheTable) indexes the records and ends with the end marker.
//   The progress block receives percentages, non-decreasing and within
//   0..100; a final 100 is not promised. Answers false when no cache file
//   could be made or a write failed (logged); the table is then still closed
//   when decoding had started.
// - Reads copy interleaved sample frames ("samples": one per channel group,
//   `bytesPerSample` bytes each) by sample index. A read starting mid-frame
//   continues seamlessly into the following frames; a read at or past
//   `numberOfSamples` answers 0 and leaves the destination untouched; a read
//   longer than the rest answers the rest. A damaged record (short, not
//   inflatable, not a frame, or a frame that disagrees with its row) ends the
//   read early with a log line.
// - `numberOfSamples` is the end marker's index; without an end marker it
//   logs "Error data provider. May be can not parser end." and answers 0.
// - Keyed coding: class "VTDataProvider"; keys "_oringalURL", "_cacheTable",
//   "_cachePathFile", "_dataBuffer" (objects), "_sampleFormat" (int32),
//   "_samplerate", "_duration", "_numberOfChannel" (integers). Decoding fails
//   (null) when the cache file is missing ("Warning: miss cache file(%@)."
//   from the buffer, then "Warning, cache file crashed.") or shorter than the
//   last row's offset ("Warning, cache file crashed."), and when the format
//   fields are unusable.
// - Threads: probing runs on the calling thread; decoding too, while a
//   writer thread of its own (CacheFileWriter) stores the frames decoded
//   before, and the progress block is called on the calling thread. Once decoding has
//   returned, the table is never changed, so any number of threads may read
//   at once; each read opens the cache file for itself and reads by position.
//   `sampleOffset` is atomic. No read may run while the provider decodes.
#pragma once

#include "foundation/KeyedCoding.h"
#include "media/KRDataProviderLegacyFields.h"
#include "media/VTAudioFrameInfo.h"
#include "media/VTDataBuffer.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class KRAudioFrame2;

class VTDataProvider final : public brindle::KeyedCoding {
public:
    using FrameTable = std::vector<std::shared_ptr<VTAudioFrameInfo>>;
    using ProgressBlock = std::function<void(double)>;

    // A reader's memory of the frame it unpacked last, so that consecutive
    // reads falling in one frame (short blocks walked in order) inflate it
    // once, and a read that continues in that frame or the next one finds
    // its row without searching the table. Owned by one reader and used by
    // one thread at a time; it names the table it came from by a serial
    // number that is never reused, so a cursor passed to another provider
    // simply misses.
    class FrameCursor {
    public:
        // How many frames reads through this cursor have unpacked.
        uint64_t framesUnpacked() const { return m_framesUnpacked; }

        // Forgets the frame; the memory for its samples is kept for the next.
        void reset()
        {
            m_tableSerial = 0;
            m_position = 0;
            m_holdsFrame = false;
        }

    private:
        friend class VTDataProvider;
        uint64_t m_tableSerial = 0;
        size_t m_position = 0;
        // The packed samples of the frame in row m_position, when
        // m_holdsFrame: they start at m_samplesAt (the buffer is often the
        // frame's whole inflated record).
        std::vector<unsigned char> m_samples;
        size_t m_samplesAt = 0;
        bool m_holdsFrame = false;
        uint64_t m_framesUnpacked = 0;
        // Cache-file bytes [m_windowOffset, m_windowOffset + m_windowLength)
        // of the table with serial m_windowSerial, read ahead: the record
        // last needed and those stored right after it, so that reading on
        // walks the file in large pieces. Kept across reset(); serials are
        // never reused, so a window is never taken for another table's.
        std::vector<char> m_window;
        uint64_t m_windowSerial = 0;
        uint64_t m_windowOffset = 0;
        uint64_t m_windowLength = 0;
    };

    // The extension of the cache files that decoding writes.
    static constexpr const char* kCacheFileExtensionForDecode = "medialibrary";

    static std::shared_ptr<VTDataProvider> initWithURL(const QUrl& url);
    // initWithURL with an empty URL: a provider with empty fields.
    static std::shared_ptr<VTDataProvider> init();
    // Converts a provider of the earlier generation; its cache file is reused
    // as it is. Null (logged) when its format fields are unusable.
    static std::shared_ptr<VTDataProvider> initWithKRDataProvider(const KRDataProviderLegacyFields& legacy);

    ~VTDataProvider() override;
    VTDataProvider(const VTDataProvider&) = delete;
    VTDataProvider& operator=(const VTDataProvider&) = delete;

    // Decoding.
    bool startParserWithBlock(const ProgressBlock& block);

    // Reading by sample index.
    uint64_t readSampleOfCount(uint64_t count, void* buffer, uint64_t index) const;
    // The same, keeping the last unpacked frame in `cursor` instead of the
    // calling thread's own memory of it.
    uint64_t readSampleOfCount(uint64_t count, void* buffer, uint64_t index, FrameCursor& cursor) const;
    // Whether a read at `index` through `cursor` continues in the cursor's
    // frame or the next one (then no table search is needed).
    bool cursorContinuesAt(const FrameCursor& cursor, uint64_t index) const;
    QByteArray readSampleOfCount(uint64_t count, uint64_t index) const;
    // Reads at sampleOffset, which it does not advance.
    QByteArray readSampleOfCount(uint64_t count) const;
    // Both clamp to numberOfSamples.
    void seekToSampleOffset(uint64_t sampleOffset);
    void setSampleOffset(uint64_t sampleOffset);
    uint64_t sampleOffset() const { return m_sampleOffset.load(std::memory_order_relaxed); }

    // The row that holds sample `index`: the end marker for every index from
    // numberOfSamples on; null when none holds it.
    std::shared_ptr<VTAudioFrameInfo> frameInfoAtIndex(uint64_t index) const;
    // The row after `row`; null when that is the end marker or `row` is not in the table.
    std::shared_ptr<VTAudioFrameInfo> nextFrameInfo(const std::shared_ptr<VTAudioFrameInfo>& row) const;

    // "cache"; decoding names its files with "medialibrary".
    QString cacheFileExtension() const { return QStringLiteral("cache"); }
    // Does nothing: cache files are kept.
    void clearCache() {}

    // Shows the refusal alert for a protected file, on the main thread when the
    // installed VTAlertPresenter needs it (and waits for it).
    static void alertFailedInMainThread(const QString& path);

    // Fields.
    const QUrl& url() const { return m_oringalURL; }
    // The path of url(); two providers of one file share it.
    QString identifier() const;
    int64_t duration() const { return m_duration; }
    int32_t sampleFormat() const { return m_sampleFormat; }
    int64_t samplerate() const { return m_samplerate; }
    int64_t numberOfChannel() const { return m_numberOfChannel; }
    // Bytes of one interleaved sample frame (all channels); 0 for unusable fields.
    uint64_t bytesPerSample() const;
    uint64_t numberOfSamples() const;
    const QString& cachePathFile() const { return m_cachePathFile; }
    const std::shared_ptr<VTDataBuffer>& dataBuffer() const { return m_dataBuffer; }
    const FrameTable& cacheTable() const { return m_cacheTable; }

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTDataProvider> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    // The row of `index` when a read through `cursor` continues in its row or the next.
    std::optional<size_t> continuedPosition(const FrameCursor& cursor, uint64_t index) const;
    VTDataProvider() = default;

    // Probing (VTDataProvider.cpp).
    bool probe();
    QString mediaPath() const;
    static bool hasUsableFormat(int32_t sampleFormat, int64_t numberOfChannel);

    // Decoding and reading (VTDataProviderCache.cpp).
    // Installs a finished table and notes whether it is in stream order.
    void setFinishedTable(FrameTable table);
    // The position in the table of the row that holds `index`.
    std::optional<size_t> rowPositionAtIndex(uint64_t index) const;
    std::optional<size_t> rowPositionOf(const VTAudioFrameInfo* row) const;
    // The frame stored for `row`, checked against the row and this provider's format.
    std::shared_ptr<KRAudioFrame2> frameOfRow(const VTAudioFrameInfo& row) const;
    // Unpacks the samples of `row` into `samples`; false (logged) when the record is damaged.
    bool unpackRow(size_t position, FrameCursor& cursor) const;
    const char* recordBytes(size_t position, FrameCursor& cursor) const;
    // numberOfSamples without the log line: 0 when the table has no end marker.
    uint64_t samplesInTable() const;

    QUrl m_oringalURL;
    int64_t m_duration = 0;
    int32_t m_sampleFormat = 0;
    int64_t m_samplerate = 0;
    int64_t m_numberOfChannel = 0;
    std::atomic<uint64_t> m_sampleOffset{0};
    FrameTable m_cacheTable;
    std::shared_ptr<VTDataBuffer> m_dataBuffer;
    QString m_cachePathFile;
    // True when the rows follow each other without gaps and the last one is
    // the end marker, so a row can be found by binary search.
    bool m_tableInStreamOrder = false;
    // Names this table in the per-thread cache of the last inflated frame; new
    // for every table installed, never reused.
    uint64_t m_tableSerial = 0;
};
