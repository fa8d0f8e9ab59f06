// VTDataProvider: decoding the media file into the cache file, and reading
// samples back from it by index.
#include "media/VTDataProvider.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRAudioFrameRecord.h"
#include "codec/KRDemuxerContext.h"
#include "codec/KRZlibCompression.h"
#include "foundation/Log.h"
#include "foundation/Paths.h"
#include "media/CacheFileWriter.h"
#include "media/VTCacheMgr.h"

#include <QFileInfo>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <limits>

namespace {

// A stored frame never inflates to more than its samples plus this much archive overhead.
constexpr int64_t kArchiveOverhead = 64 * 1024;
// How far a read looks ahead in the cache file: records are a few kilobytes,
// so one read takes in a dozen or more of them.
constexpr uint64_t kReadAheadBytes = 64 * 1024;
// The codec layer refuses frames larger than this.
constexpr int64_t kMaximumFrameBytes = int64_t(1) << 30;

// The last path component without its extension ("a.b.mp3" → "a.b"; a
// leading dot does not start an extension).
QString nameWithoutExtension(const QString& path)
{
    const QString last = QFileInfo(path).fileName();
    const qsizetype dot = last.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? last.left(dot) : last;
}

// Paces and computes progress reports while decoding.
class ProgressReporter {
public:
    ProgressReporter(const VTDataProvider::ProgressBlock& block, int64_t duration, int64_t samplerate)
        : m_block(block), m_duration(duration), m_samplerate(samplerate)
    {
        // total = duration × rate / 1000, step = total / 100, truncated.
        int64_t product = 0;
        if (__builtin_mul_overflow(duration, samplerate, &product))
            product = std::numeric_limits<int64_t>::max();
        const int64_t total = product / 1000;
        m_step = total / 100;
    }

    // Called after each frame with the samples decoded so far.
    void decodedUpTo(int64_t index)
    {
        if (!m_block || index - m_lastReported <= m_step)
            return;
        // A stream without a length or rate has no meaningful percentage.
        if (m_duration > 0 && m_samplerate > 0)
            m_block(percentage(index));
        m_lastReported = index;
    }

private:
    // index × 100 / rate and then × 1000 in single precision, divided by the
    // duration in double precision; kept within 0..100 because the decoded
    // stream may run longer than the length the container announced.
    double percentage(int64_t index) const
    {
        const float p = float(index) * 100.0f / float(m_samplerate);
        const float q = 1000.0f * p;
        return std::clamp(double(q) / double(m_duration), 0.0, 100.0);
    }

    const VTDataProvider::ProgressBlock& m_block;
    const int64_t m_duration;
    const int64_t m_samplerate;
    int64_t m_step = 0;
    int64_t m_lastReported = 0;
};

// The frames most recently inflated by this thread, so that consecutive reads
// that share a frame (a mixer pulling 512 samples from 1152-sample frames)
// inflate it once. A mixer pulls several tracks in turn on one thread, so
// the thread keeps one cursor per recently read stream: a read that
// continues a stream (in its cursor's frame or the next) uses that stream's
// cursor, any other read takes the oldest cursor over.
class RecentFrames {
public:
    VTDataProvider::FrameCursor& cursorFor(const VTDataProvider& provider, uint64_t index)
    {
        for (VTDataProvider::FrameCursor& cursor : m_cursors) {
            if (provider.cursorContinuesAt(cursor, index))
                return cursor;
        }
        VTDataProvider::FrameCursor& taken = m_cursors[m_next];
        taken.reset();
        m_next = (m_next + 1) % m_cursors.size();
        return taken;
    }

private:
    std::array<VTDataProvider::FrameCursor, 16> m_cursors;
    size_t m_next = 0;
};
thread_local RecentFrames t_recentFrames;

// The reader that inflates and decodes records, kept by each thread between records.
thread_local KRAudioFrameRecordReader t_recordReader;

std::atomic<uint64_t> g_nextTableSerial{1};

// The byte size of the samples a stored row describes; nullopt when its
// fields are out of range. The row comes from a stored table, so its sample
// count may be anything and the size is computed without overflow.
std::optional<int64_t> packedBytesOfRow(const VTAudioFrameInfo& row, uint64_t bytesPerSample)
{
    int64_t bytes = 0;
    if (row.offsetOfBuffer() < 0 || row.lengthOfBuffer() <= 0 || row.numberOfSamples() <= 0 ||
        __builtin_mul_overflow(row.numberOfSamples(), int64_t(bytesPerSample), &bytes) || bytes <= 0 ||
        bytes > kMaximumFrameBytes)
        return std::nullopt;
    return bytes;
}

void logDamagedRecord(const QString& cacheFile, const VTAudioFrameInfo& row, const char* why)
{
    brindle::log(QStringLiteral("Warning: damaged record at offset %1 of cache file %2 (%3); the read ends here.")
                     .arg(row.offsetOfBuffer())
                     .arg(cacheFile, QLatin1String(why)));
}

}  // namespace

bool VTDataProvider::startParserWithBlock(const ProgressBlock& block)
{
    const VTCacheMgr cacheMgr(brindle::SearchDirectory::ApplicationSupport);
    const QString cacheFile = cacheMgr.reserveUniformPathWithName(
        nameWithoutExtension(mediaPath()), QLatin1String(kCacheFileExtensionForDecode), QString());
    if (cacheFile.isEmpty()) {
        brindle::log(QStringLiteral("Warning: no cache file for %1; it is not decoded.").arg(mediaPath()));
        return false;
    }
    m_cachePathFile = cacheFile;
    m_dataBuffer = VTDataBuffer::initWithCacheFile(cacheFile);

    std::unique_ptr<KRDemuxerContext> demuxer = KRDemuxerContext::initWithFilename(mediaPath());
    std::shared_ptr<KRAudioFrame2> frame;
    if (demuxer) {
        demuxer->disableVideoStream(true);
        frame = demuxer->decodeNextAudioFrame();
    }
    // This thread decodes; the writer stores the frames decoded before.
    CacheFileWriter writer(*m_dataBuffer);
    ProgressReporter progress(block, m_duration, m_samplerate);
    int64_t index = 0;
    while (frame) {
        if (frame->sampleFormat() != m_sampleFormat || frame->numberOfChannel() != m_numberOfChannel) {
            brindle::log(QStringLiteral("Warning: the audio format of %1 changes at sample %2; decoding ends there.")
                             .arg(mediaPath())
                             .arg(index));
            break;
        }
        index += int64_t(frame->numberOfSamples());
        if (!writer.push(std::move(frame)))
            break;
        frame = demuxer->decodeNextAudioFrame();
        progress.decodedUpTo(index);
    }
    CacheFileWriter::Result stored = writer.finish();
    FrameTable table = std::move(stored.rows);
    table.push_back(VTAudioFrameInfo::endMarker(stored.offset, stored.index));
    setFinishedTable(std::move(table));
    return stored.written;
}

void VTDataProvider::setFinishedTable(FrameTable table)
{
    bool ordered = !table.empty() && table.back()->isEndMarker();
    int64_t expectedIndex = 0;
    for (size_t i = 0; ordered && i + 1 < table.size(); ++i) {
        const VTAudioFrameInfo& row = *table[i];
        ordered = !row.isEndMarker() && row.indexOfSamples() == expectedIndex && row.numberOfSamples() > 0 &&
                  !__builtin_add_overflow(expectedIndex, row.numberOfSamples(), &expectedIndex);
    }
    ordered = ordered && table.back()->indexOfSamples() == expectedIndex;
    m_cacheTable = std::move(table);
    m_tableInStreamOrder = ordered;
    m_tableSerial = g_nextTableSerial.fetch_add(1, std::memory_order_relaxed);
}

std::optional<size_t> VTDataProvider::rowPositionAtIndex(uint64_t index) const
{
    if (!m_tableInStreamOrder) {
        for (size_t i = 0; i < m_cacheTable.size(); ++i) {
            if (m_cacheTable[i]->containsSampleIndex(index))
                return i;
        }
        return std::nullopt;
    }
    // Rows in stream order are disjoint and ascending (all indexes are
    // non-negative), so only the last row starting at or before `index` can hold it.
    const auto after = std::upper_bound(m_cacheTable.begin(), m_cacheTable.end(), index,
                                        [](uint64_t value, const std::shared_ptr<VTAudioFrameInfo>& row) {
                                            return value < uint64_t(row->indexOfSamples());
                                        });
    if (after == m_cacheTable.begin())
        return std::nullopt;
    const size_t position = size_t(after - m_cacheTable.begin()) - 1;
    if (!m_cacheTable[position]->containsSampleIndex(index))
        return std::nullopt;
    return position;
}

std::optional<size_t> VTDataProvider::rowPositionOf(const VTAudioFrameInfo* row) const
{
    if (!row)
        return std::nullopt;
    if (m_tableInStreamOrder && row->indexOfSamples() >= 0) {
        const std::optional<size_t> position = rowPositionAtIndex(uint64_t(row->indexOfSamples()));
        if (position && m_cacheTable[*position].get() == row)
            return position;
    }
    for (size_t i = 0; i < m_cacheTable.size(); ++i) {
        if (m_cacheTable[i].get() == row)
            return i;
    }
    return std::nullopt;
}

std::shared_ptr<VTAudioFrameInfo> VTDataProvider::frameInfoAtIndex(uint64_t index) const
{
    const std::optional<size_t> position = rowPositionAtIndex(index);
    return position ? m_cacheTable[*position] : nullptr;
}

std::shared_ptr<VTAudioFrameInfo> VTDataProvider::nextFrameInfo(const std::shared_ptr<VTAudioFrameInfo>& row) const
{
    const std::optional<size_t> position = rowPositionOf(row.get());
    if (!position || *position + 1 >= m_cacheTable.size())
        return nullptr;
    const std::shared_ptr<VTAudioFrameInfo>& next = m_cacheTable[*position + 1];
    return next->isEndMarker() ? nullptr : next;
}

std::shared_ptr<KRAudioFrame2> VTDataProvider::frameOfRow(const VTAudioFrameInfo& row) const
{
    const std::optional<int64_t> samplesBytes = packedBytesOfRow(row, bytesPerSample());
    if (!m_dataBuffer || !samplesBytes) {
        logDamagedRecord(m_cachePathFile, row, "row out of range");
        return nullptr;
    }
    const int64_t expectedBytes = *samplesBytes;
    const QByteArray record = m_dataBuffer->readDataBuffer(uint64_t(row.lengthOfBuffer()), uint64_t(row.offsetOfBuffer()));
    if (record.size() != row.lengthOfBuffer()) {
        logDamagedRecord(m_cachePathFile, row, "short record");
        return nullptr;
    }
    const std::optional<QByteArray> archive =
        KRZlibCompression::zlibCompressionUncompress(record, qsizetype(expectedBytes + kArchiveOverhead));
    if (!archive) {
        logDamagedRecord(m_cachePathFile, row, "not a zlib stream");
        return nullptr;
    }
    std::shared_ptr<KRAudioFrame2> frame = brindle::KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(*archive);
    if (!frame) {
        logDamagedRecord(m_cachePathFile, row, "not an audio frame");
        return nullptr;
    }
    if (frame->numberOfSamples() != row.numberOfSamples() || frame->sampleFormat() != m_sampleFormat ||
        frame->numberOfChannel() != m_numberOfChannel || frame->dataOfPackedSamples().size() != expectedBytes) {
        logDamagedRecord(m_cachePathFile, row, "frame disagrees with its row");
        return nullptr;
    }
    return frame;
}

const char* VTDataProvider::recordBytes(size_t position, FrameCursor& cursor) const
{
    const VTAudioFrameInfo& row = *m_cacheTable[position];
    const auto offset = uint64_t(row.offsetOfBuffer());
    const auto length = uint64_t(row.lengthOfBuffer());
    if (cursor.m_windowSerial == m_tableSerial && offset >= cursor.m_windowOffset &&
        cursor.m_windowLength >= length && offset - cursor.m_windowOffset <= cursor.m_windowLength - length)
        return cursor.m_window.data() + (offset - cursor.m_windowOffset);

    // This record and those stored right after it, up to kReadAheadBytes.
    uint64_t end = offset + length;
    for (size_t next = position + 1; next < m_cacheTable.size(); ++next) {
        const VTAudioFrameInfo& following = *m_cacheTable[next];
        if (following.isEndMarker() || following.offsetOfBuffer() != int64_t(end) || following.lengthOfBuffer() <= 0 ||
            end - offset + uint64_t(following.lengthOfBuffer()) > kReadAheadBytes)
            break;
        end += uint64_t(following.lengthOfBuffer());
    }
    if (cursor.m_window.size() < end - offset)
        cursor.m_window.resize(end - offset);
    const uint64_t got = m_dataBuffer->readDataBuffer(cursor.m_window.data(), end - offset, offset);
    cursor.m_windowSerial = got >= length ? m_tableSerial : 0;
    cursor.m_windowOffset = offset;
    cursor.m_windowLength = got;
    return got >= length ? cursor.m_window.data() : nullptr;
}

bool VTDataProvider::unpackRow(size_t position, FrameCursor& cursor) const
{
    // Most records are unpacked by the reader for their fixed layout, which
    // allocates nothing; anything it does not take goes the generic way,
    // which also says what is wrong with a damaged record.
    const VTAudioFrameInfo& row = *m_cacheTable[position];
    const std::optional<int64_t> expectedBytes = packedBytesOfRow(row, bytesPerSample());
    if (m_dataBuffer && expectedBytes && row.lengthOfBuffer() <= *expectedBytes + kArchiveOverhead) {
        // At most 1 GiB of samples of at least one byte: the count fits 32 bits.
        const KRAudioFrameRecordReader::Shape shape{m_sampleFormat, m_numberOfChannel, int32_t(row.numberOfSamples()),
                                                    *expectedBytes};
        const char* record = recordBytes(position, cursor);
        if (record &&
            t_recordReader.unpack(record, uint64_t(row.lengthOfBuffer()), shape, cursor.m_samples, cursor.m_samplesAt))
            return true;
    }
    const std::shared_ptr<KRAudioFrame2> frame = frameOfRow(row);
    if (!frame)
        return false;
    const QByteArray& packed = frame->dataOfPackedSamples();
    cursor.m_samples.assign(packed.constData(), packed.constData() + packed.size());
    cursor.m_samplesAt = 0;
    return true;
}

std::optional<size_t> VTDataProvider::continuedPosition(const FrameCursor& cursor, uint64_t index) const
{
    if (!m_tableInStreamOrder || cursor.m_tableSerial != m_tableSerial || !cursor.m_holdsFrame)
        return std::nullopt;
    for (size_t candidate : {cursor.m_position, cursor.m_position + 1}) {
        if (candidate < m_cacheTable.size() && m_cacheTable[candidate]->containsSampleIndex(index))
            return candidate;
    }
    return std::nullopt;
}

bool VTDataProvider::cursorContinuesAt(const FrameCursor& cursor, uint64_t index) const
{
    return continuedPosition(cursor, index).has_value();
}

uint64_t VTDataProvider::readSampleOfCount(uint64_t count, void* buffer, uint64_t index) const
{
    return readSampleOfCount(count, buffer, index, t_recentFrames.cursorFor(*this, index));
}

uint64_t VTDataProvider::readSampleOfCount(uint64_t count, void* buffer, uint64_t index, FrameCursor& cursor) const
{
    // A read that continues in the cursor's row or the one after it needs no
    // search of the table (rows in stream order are disjoint, so it is the same row).
    std::optional<size_t> position = continuedPosition(cursor, index);
    if (!position)
        position = rowPositionAtIndex(index);
    const uint64_t frameBytes = bytesPerSample();
    if (!position || count == 0 || !buffer || frameBytes == 0)
        return 0;
    char* destination = static_cast<char*>(buffer);
    uint64_t done = 0;
    while (done < count && *position < m_cacheTable.size()) {
        const VTAudioFrameInfo& row = *m_cacheTable[*position];
        if (row.isEndMarker())
            break;
        // Also catches tables whose rows do not follow each other.
        if (!row.containsSampleIndex(index) || row.numberOfSamples() <= 0) {
            logDamagedRecord(m_cachePathFile, row, "rows out of order");
            break;
        }
        if (cursor.m_tableSerial != m_tableSerial || cursor.m_position != *position || !cursor.m_holdsFrame) {
            cursor.reset();
            if (!unpackRow(*position, cursor))
                break;
            cursor.m_tableSerial = m_tableSerial;
            cursor.m_position = *position;
            cursor.m_holdsFrame = true;
            ++cursor.m_framesUnpacked;
        }
        const uint64_t skip = index - uint64_t(row.indexOfSamples());
        const uint64_t n = std::min(count - done, uint64_t(row.numberOfSamples()) - skip);
        const unsigned char* samples = cursor.m_samples.data() + cursor.m_samplesAt;
        std::memcpy(destination + done * frameBytes, samples + skip * frameBytes, size_t(n * frameBytes));
        index += n;
        done += n;
        *position += 1;
    }
    return done;
}

QByteArray VTDataProvider::readSampleOfCount(uint64_t count, uint64_t index) const
{
    const uint64_t total = samplesInTable();
    const uint64_t frameBytes = bytesPerSample();
    if (index >= total || frameBytes == 0)
        return QByteArray();
    // Sized for what can be read at most, so an absurd count allocates nothing absurd.
    const uint64_t wanted = std::min(count, total - index);
    QByteArray bytes(qsizetype(wanted * frameBytes), Qt::Uninitialized);
    const uint64_t got = readSampleOfCount(wanted, bytes.data(), index);
    bytes.truncate(qsizetype(got * frameBytes));
    return bytes;
}

QByteArray VTDataProvider::readSampleOfCount(uint64_t count) const
{
    return readSampleOfCount(count, sampleOffset());
}
