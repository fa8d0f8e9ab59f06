// Fuzzes one PCM cache record: a zlib stream that inflates to the keyed
// archive of a KRAudioFrame2. The first byte says whether the rest is the
// record as stored (inflated first) or the archive itself (fed to the
// unarchiver directly, so the fuzzer can shape archives quickly). A stored
// record also goes through the reader for the fixed record layout, which
// must accept nothing that the generic path refuses and must read the same
// samples.
#include "FuzzSupport.h"

#include "codec/KRAudioFrame2.h"
#include "codec/KRAudioFrameRecord.h"
#include "codec/KRZlibCompression.h"
#include "foundation/KeyedCoding.h"
#include "media/VTDataBuffer.h"
#include "media/VTDataProvider.h"

#include <cstdlib>

using namespace brindle;

namespace {

// The size limit a provider's read passes for a record: a frame of a few
// thousand samples plus archive overhead.
constexpr qsizetype kRecordLimit = 8 * 1024 * 1024;

void checkFrame(const KRAudioFrame2& frame)
{
    const int64_t bytes = int64_t(frame.numberOfSamples()) * frame.numberOfChannel() *
                          KRAudioFrame2::bytesForSampleFormat(frame.sampleFormat());
    if (frame.numberOfSamples() <= 0 || bytes != frame.dataOfPackedSamples().size())
        std::abort();
    // Touch every byte, as a provider's read does.
    volatile char sink = 0;
    const QByteArray& samples = frame.dataOfPackedSamples();
    for (qsizetype i = 0; i < samples.size(); i += 64)
        sink = sink ^ samples[i];
    (void)frame.bytesAtPlanerIndex(0);
    (void)frame.bytesAtPlanerIndex(1);
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    for (const auto& provider : fuzz::seedProviders()) {
        const auto& table = provider->cacheTable();
        for (size_t i = 0; i < table.size() && i < 3; ++i) {
            if (table[i]->isEndMarker())
                break;
            const QByteArray record =
                provider->dataBuffer()->readDataBuffer(uint64_t(table[i]->lengthOfBuffer()), uint64_t(table[i]->offsetOfBuffer()));
            seeds.add(QStringLiteral("record.zlib"), QByteArray(1, '\0') + record);
            if (const auto archive = KRZlibCompression::zlibCompressionUncompress(record))
                seeds.add(QStringLiteral("record.bplist"), QByteArray(1, '\1') + *archive);
        }
    }
}

}  // namespace

// The fixed-layout reader on `record` for `shape`: whatever it accepts, the
// generic reading `frame` (null when it refused) must have given the same.
void checkRecordReader(const QByteArray& record, const KRAudioFrameRecordReader::Shape& shape,
                       const std::shared_ptr<KRAudioFrame2>& frame)
{
    static KRAudioFrameRecordReader reader;
    static std::vector<unsigned char> holder;
    size_t at = 0;
    if (!reader.unpack(record.constData(), size_t(record.size()), shape, holder, at))
        return;
    if (at + size_t(shape.packedBytes) > holder.size())
        std::abort();
    const QByteArray samples(reinterpret_cast<const char*>(holder.data() + at), shape.packedBytes);
    if (!frame || frame->sampleFormat() != shape.sampleFormat || frame->numberOfChannel() != shape.numberOfChannel ||
        frame->numberOfSamples() != shape.numberOfSamples || frame->dataOfPackedSamples() != samples)
        std::abort();
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("cache_record", writeSeeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray rest = QByteArray::fromRawData(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1));
    QByteArray archive;
    if (data[0] & 1) {
        archive = rest;
    } else {
        const auto inflated = KRZlibCompression::zlibCompressionUncompress(rest, kRecordLimit);
        if (inflated && inflated->size() > kRecordLimit)
            std::abort();
        if (inflated)
            archive = *inflated;
    }
    const auto frame = archive.isEmpty() ? nullptr : KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(archive);
    if (!(data[0] & 1)) {
        // The shapes of the seed records, and the decoded frame's own.
        checkRecordReader(rest, {1, 2, 1024, 4096}, frame);
        checkRecordReader(rest, {3, 2, 1152, 9216}, frame);
        if (frame)
            checkRecordReader(rest, {frame->sampleFormat(), frame->numberOfChannel(), frame->numberOfSamples(),
                                     int64_t(frame->dataOfPackedSamples().size())}, frame);
    }
    if (!frame)
        return 0;
    checkFrame(*frame);
    // The writer's side of the same record must read back identically.
    const QByteArray record = KRZlibCompression::zlibCompressionCompress(KeyedArchiver::archivedDataWithRootObject(*frame));
    const auto archiveAgain = KRZlibCompression::zlibCompressionUncompress(record);
    const auto again = archiveAgain ? KeyedUnarchiver::unarchivedObjectOfClass<KRAudioFrame2>(*archiveAgain) : nullptr;
    if (!again || again->dataOfPackedSamples() != frame->dataOfPackedSamples() ||
        again->numberOfSamples() != frame->numberOfSamples() || again->sampleRate() != frame->sampleRate())
        std::abort();
    return 0;
}
