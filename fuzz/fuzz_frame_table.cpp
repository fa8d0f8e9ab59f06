// Fuzzes a data provider over a damaged cache file: the input gives the
// provider's format fields, its frame table and read requests, and the rest
// is the cache file. The provider is archived as the editor stores it and
// decoded through its own initWithCoder, then read by sample index into
// buffers of exactly the requested size.
//
// Input layout (little-endian): int32 sampleFormat, int64 numberOfChannel,
// int64 samplerate, int64 duration, uint8 row count, rows of four int64
// (offset, length, index, samples), uint8 read count, reads of (uint64 index,
// uint32 count), then the cache file's bytes.
#include "FuzzSupport.h"

#include "codec/KRAudioFrame2.h"
#include "foundation/KeyedCoding.h"
#include "media/VTDataProvider.h"

#include <QFile>
#include <QUrl>

#include <cstdlib>
#include <vector>

using namespace brindle;

namespace {

constexpr size_t kMaximumRows = 64;
constexpr size_t kMaximumReads = 8;
// Reads larger than this (in bytes) are cut down to keep one input cheap.
constexpr uint64_t kMaximumReadBytes = 256 * 1024;

// The fields of a provider, archived under the provider's own class name and keys.
class ProviderRecord final : public KeyedCoding {
public:
    QString path;
    int32_t sampleFormat = 0;
    int64_t numberOfChannel = 0;
    int64_t samplerate = 0;
    int64_t duration = 0;
    std::vector<std::shared_ptr<VTAudioFrameInfo>> table;

    QString classNameForArchive() const override { return QStringLiteral("VTDataProvider"); }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeURL(QUrl::fromLocalFile(path + QStringLiteral(".wav")), QStringLiteral("_oringalURL"));
        coder.encodeArrayOf(table, QStringLiteral("_cacheTable"), true);
        coder.encodeString(path, QStringLiteral("_cachePathFile"));
        coder.encodeObject(ConstKeyedObjectPtr(VTDataBuffer::initWithCacheFile(path)), QStringLiteral("_dataBuffer"));
        coder.encodeInt32(sampleFormat, QStringLiteral("_sampleFormat"));
        coder.encodeInteger(samplerate, QStringLiteral("_samplerate"));
        coder.encodeInt64(duration, QStringLiteral("_duration"));
        coder.encodeInteger(numberOfChannel, QStringLiteral("_numberOfChannel"));
    }
};

struct Read {
    uint64_t index;
    uint32_t count;
};

void readAndCheck(const VTDataProvider& provider, const Read& read)
{
    const uint64_t frameBytes = provider.bytesPerSample();
    if (frameBytes == 0)
        return;
    const uint64_t count = std::min<uint64_t>(read.count, kMaximumReadBytes / frameBytes);
    // Exactly the requested size, so a write past it is caught.
    std::vector<char> buffer(size_t(count * frameBytes) + (count == 0 ? 1 : 0));
    const uint64_t got = provider.readSampleOfCount(count, buffer.data(), read.index);
    if (got > count)
        std::abort();
    const QByteArray bytes = provider.readSampleOfCount(count, read.index);
    if (uint64_t(bytes.size()) > count * frameBytes)
        std::abort();
    if (const auto row = provider.frameInfoAtIndex(read.index))
        (void)provider.nextFrameInfo(row);
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    for (const auto& provider : fuzz::seedProviders()) {
        QFile cache(provider->cachePathFile());
        if (!cache.open(QIODevice::ReadOnly))
            continue;
        const QByteArray file = cache.readAll();
        const auto& table = provider->cacheTable();
        const uint64_t total = provider->numberOfSamples();
        QByteArray input;
        fuzz::appendField<int32_t>(input, provider->sampleFormat());
        fuzz::appendField<int64_t>(input, provider->numberOfChannel());
        fuzz::appendField<int64_t>(input, provider->samplerate());
        fuzz::appendField<int64_t>(input, provider->duration());
        const size_t rows = std::min(table.size(), kMaximumRows);
        fuzz::appendField<uint8_t>(input, uint8_t(rows));
        for (size_t i = 0; i < rows; ++i) {
            fuzz::appendField<int64_t>(input, table[i]->offsetOfBuffer());
            fuzz::appendField<int64_t>(input, table[i]->lengthOfBuffer());
            fuzz::appendField<int64_t>(input, table[i]->indexOfSamples());
            fuzz::appendField<int64_t>(input, table[i]->numberOfSamples());
        }
        const Read reads[] = {{0, 100}, {total / 3, uint32_t(total)}, {total - 1, 10}, {total, 5}};
        fuzz::appendField<uint8_t>(input, uint8_t(std::size(reads)));
        for (const Read& read : reads) {
            fuzz::appendField<uint64_t>(input, read.index);
            fuzz::appendField<uint32_t>(input, read.count);
        }
        seeds.add(QStringLiteral("table"), input + file);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("frame_table", writeSeeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::InputReader input(data, size);
    ProviderRecord record;
    record.path = fuzz::scratchFile(QStringLiteral("table.medialibrary"));
    record.sampleFormat = input.take<int32_t>();
    record.numberOfChannel = input.take<int64_t>();
    record.samplerate = input.take<int64_t>();
    record.duration = input.take<int64_t>();
    const size_t rows = std::min<size_t>(input.take<uint8_t>(), kMaximumRows);
    for (size_t i = 0; i < rows; ++i) {
        const auto offset = input.take<int64_t>();
        const auto length = input.take<int64_t>();
        const auto index = input.take<int64_t>();
        const auto samples = input.take<int64_t>();
        record.table.push_back(VTAudioFrameInfo::initWithOffset(offset, length, index, samples));
    }
    std::vector<Read> reads(std::min<size_t>(input.take<uint8_t>(), kMaximumReads));
    for (Read& read : reads) {
        read.index = input.take<uint64_t>();
        read.count = input.take<uint32_t>();
    }
    if (!fuzz::writeFile(record.path, input.restData(), input.restSize()))
        return 0;

    const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(record);
    const auto provider = KeyedUnarchiver::unarchivedObjectOfClass<VTDataProvider>(archive);
    if (!provider)
        return 0;
    (void)provider->numberOfSamples();
    provider->seekToSampleOffset(reads.empty() ? 0 : reads.front().index);
    if (provider->sampleOffset() > provider->numberOfSamples())
        std::abort();
    for (const Read& read : reads)
        readAndCheck(*provider, read);
    return 0;
}
