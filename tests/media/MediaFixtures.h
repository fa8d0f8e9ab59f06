// Helpers shared by the media tests: decoded providers shared within a
// process, a read checker against FFmpeg's own decode, and a provider's
// frame table and legacy fields.
#pragma once

#include "codec/KRAudioFrame2.h"
#include "codec/KRDemuxerContext.h"
#include "media/VTDataProvider.h"
#include "support/TestMedia.h"

#include <zlib.h>

#include <QUrl>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace brindle::test {

// Probes and decodes `path` into a new cache file; null when probing fails.
inline std::shared_ptr<VTDataProvider> importFresh(const QString& path)
{
    auto provider = VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
    if (provider)
        provider->startParserWithBlock(nullptr);
    return provider;
}

struct ImportedMedia {
    std::shared_ptr<VTDataProvider> provider;
    QByteArray reference;  // the ffmpeg program's decode in the provider's sample format
};

// importFresh once per path and process (later calls answer the same provider).
inline const ImportedMedia& importedMedia(const QString& path)
{
    static std::mutex mutex;
    static auto* cache = new std::map<QString, ImportedMedia>();
    std::lock_guard lock(mutex);
    auto found = cache->find(path);
    if (found == cache->end()) {
        ImportedMedia media{importFresh(path), {}};
        if (media.provider)
            media.reference = TestMedia::decodeWithFfmpeg(path, media.provider->sampleFormat()).value_or(QByteArray());
        found = cache->emplace(path, std::move(media)).first;
    }
    return found->second;
}

// Reads `count` samples at `index` into a guarded buffer and checks the count,
// the bytes against the reference, and that nothing beyond them was written.
// Answers an empty string on success, else a description of the first fault.
inline QString checkRead(const VTDataProvider& provider, const QByteArray& reference, uint64_t index, uint64_t count)
{
    constexpr char kGuard = char(0xA5);
    const uint64_t frameBytes = provider.bytesPerSample();
    const uint64_t total = uint64_t(reference.size()) / frameBytes;
    const uint64_t expected = index >= total ? 0 : std::min(count, total - index);
    // Room for the request, bounded for huge counts, plus a guard band.
    std::vector<char> buffer(size_t(std::min<uint64_t>(count, total + 16) * frameBytes + 64), kGuard);
    const uint64_t got = provider.readSampleOfCount(count, buffer.data(), index);
    const QString where = QStringLiteral("read of %1 at %2: ").arg(count).arg(index);
    if (got != expected)
        return where + QStringLiteral("got %1 samples, expected %2").arg(got).arg(expected);
    const size_t bytes = size_t(got * frameBytes);
    if (bytes && std::memcmp(buffer.data(), reference.constData() + index * frameBytes, bytes) != 0)
        return where + QStringLiteral("bytes differ from FFmpeg's decode");
    if (std::any_of(buffer.begin() + ptrdiff_t(bytes), buffer.end(), [](char c) { return c != kGuard; }))
        return where + QStringLiteral("wrote beyond the samples it reported");
    return QString();
}

// The cache file that decoding `path` must write, computed here with zlib
// itself: every decoded frame's keyed archive, run-length coded (level 1,
// Z_RLE) when at least one byte in eight repeats its predecessor, else
// stored (level 0), the records one after the other.
inline QByteArray cacheFileOfDecode(const QString& path)
{
    auto demuxer = KRDemuxerContext::initWithFilename(path);
    if (!demuxer)
        return {};
    demuxer->disableVideoStream(true);
    QByteArray file;
    while (const auto frame = demuxer->decodeNextAudioFrame()) {
        const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(*frame);
        qsizetype repeated = 0;
        for (qsizetype i = 1; i < archive.size(); ++i)
            repeated += archive[i] == archive[i - 1];
        const bool runLength = repeated * 8 >= archive.size();
        z_stream stream{};
        deflateInit2(&stream, runLength ? 1 : 0, Z_DEFLATED, 15, 8, runLength ? Z_RLE : Z_DEFAULT_STRATEGY);
        QByteArray record(qsizetype(deflateBound(&stream, uLong(archive.size()))), '\0');
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(archive.constData()));
        stream.avail_in = uInt(archive.size());
        stream.next_out = reinterpret_cast<Bytef*>(record.data());
        stream.avail_out = uInt(record.size());
        deflate(&stream, Z_FINISH);
        record.truncate(qsizetype(stream.total_out));
        deflateEnd(&stream);
        file += record;
    }
    return file;
}

// A provider's frame table as comparable rows: offset, length, index, count.
inline std::vector<std::array<int64_t, 4>> rowsOf(const VTDataProvider& provider)
{
    std::vector<std::array<int64_t, 4>> rows;
    for (const auto& row : provider.cacheTable())
        rows.push_back({row->offsetOfBuffer(), row->lengthOfBuffer(), row->indexOfSamples(), row->numberOfSamples()});
    return rows;
}

// The fields an older project file holds for `provider`.
inline KRDataProviderLegacyFields legacyFieldsOf(const VTDataProvider& provider)
{
    KRDataProviderLegacyFields legacy{provider.identifier(), provider.sampleFormat(), provider.samplerate(),
                                      provider.numberOfChannel(), provider.cachePathFile(), provider.duration(), {}};
    for (const auto& [offset, length, index, count] : rowsOf(provider))
        legacy.cacheTable.push_back({offset, length, index, count});
    return legacy;
}

}  // namespace brindle::test
