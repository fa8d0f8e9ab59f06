// Fuzzes the stored forms of the waveform's values: the first byte picks the
// binary form of a VTSampleBlock, the binary form of a VTFeatureSample, or
// the keyed archive (binary or XML) of a VTSampleBlock; the rest is decoded.
// Whatever decodes is encoded again, and that must decode to the same value;
// a binary form must encode back to exactly the bytes it was read from.
#include "FuzzSupport.h"

#include "foundation/KeyedCoding.h"
#include "media/VTDataProviderMgr.h"
#include "model/VTClip.h"
#include "waveform/VTClipAdapter.h"
#include "waveform/VTFeatureSample.h"
#include "waveform/VTSampleBlock.h"

#include <QByteArray>

#include <cstdlib>

using namespace brindle;

namespace {

enum Encoding : uint8_t { BlockBinary, FeatureSampleBinary, BlockKeyed, EncodingCount };

bool sameBlock(const VTSampleBlock& a, const VTSampleBlock& b)
{
    return a.indexOfSampleInDataProvider() == b.indexOfSampleInDataProvider() &&
           a.numberOfSamplesInDataProvider() == b.numberOfSamplesInDataProvider() && a.maxSamples() == b.maxSamples() &&
           a.minSamples() == b.minSamples();
}

// Reads every value of both buffers, and the channels just outside them.
template <class T>
void readChannels(const T& value, qsizetype bytes)
{
    const int64_t channels = int64_t(bytes / qsizetype(sizeof(double)));
    for (int64_t channel = -1; channel <= channels; ++channel) {
        (void)value.maxSampleOfChannel(channel);
        (void)value.minSampleOfChannel(channel);
    }
    if (value.maxSampleOfChannel(-1) != 0.0 || value.minSampleOfChannel(channels) != 0.0)
        std::abort();
}

void checkBlockBinary(const QByteArray& data)
{
    const auto block = VTSampleBlock::initWithData(data);
    if (!block)
        return;
    if (block->maxSamples().isEmpty() || block->minSamples().isEmpty())
        std::abort();
    readChannels(*block, std::max(block->maxSamples().size(), block->minSamples().size()));
    const QByteArray encoded = block->encodeToData();
    if (uint64_t(encoded.size()) != block->encodeSize() || encoded != data.left(encoded.size()))
        std::abort();
    const auto again = VTSampleBlock::initWithData(encoded);
    if (!again || !sameBlock(*block, *again))
        std::abort();
}

void checkFeatureSampleBinary(const QByteArray& data)
{
    const auto sample = VTFeatureSample::initWithData(data);
    if (!sample)
        return;
    readChannels(*sample, std::max(sample->maxSamples().size(), sample->minSamples().size()));
    const QByteArray encoded = sample->encodeToData();
    if (encoded != data.left(encoded.size()))
        std::abort();
    const auto again = VTFeatureSample::initWithData(encoded);
    if (!again || again->timestampOfDataProvider() != sample->timestampOfDataProvider() ||
        again->durationOfTrack() != sample->durationOfTrack() || again->numberOfChannel() != sample->numberOfChannel() ||
        again->maxSamples() != sample->maxSamples() || again->minSamples() != sample->minSamples())
        std::abort();
}

void checkBlockKeyed(const QByteArray& archive)
{
    const auto block = KeyedUnarchiver::unarchivedObjectOfClass<VTSampleBlock>(archive);
    if (!block)
        return;
    readChannels(*block, std::max(block->maxSamples().size(), block->minSamples().size()));
    const auto again = KeyedUnarchiver::unarchivedObjectOfClass<VTSampleBlock>(KeyedArchiver::archivedDataWithRootObject(*block));
    if (!again || !sameBlock(*block, *again))
        std::abort();
    // With both buffers present, the binary form carries the same block.
    if (!block->maxSamples().isEmpty() && !block->minSamples().isEmpty()) {
        const auto binary = VTSampleBlock::initWithData(block->encodeToData());
        if (!binary || !sameBlock(*block, *binary))
            std::abort();
    }
}

QByteArray withEncoding(Encoding encoding, const QByteArray& bytes)
{
    return QByteArray(1, char(encoding)) + bytes;
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    const auto providers = fuzz::seedProviders();
    VTDataProviderMgr::shareDataProviderMgr().importDataProviders(providers);
    for (const auto& provider : providers) {
        const uint64_t total = provider->numberOfSamples();
        auto clip = VTClip::initWithDataProviderIDs(provider->identifier());
        auto adapter = VTClipAdapter::initWithClip(clip);
        if (clip) {
            clip->setVolume(0.5);
            clip->setEnableFadeIn(true);
            clip->setDurationOfFadeIn(300);
        }
        // Blocks as the overview walks the media: the start, the middle and
        // the last stretch, which runs past the end.
        for (const uint64_t index : {uint64_t(0), total / 2, total > 100 ? total - 100 : 0}) {
            const auto block = VTSampleBlock::initWithIndexOfDataProvider(index, 441, provider);
            if (!block)
                continue;
            seeds.add(QStringLiteral("block.bin"), withEncoding(BlockBinary, block->encodeToData()));
            const QByteArray archive = KeyedArchiver::archivedDataWithRootObject(*block);
            seeds.add(QStringLiteral("block.bplist"), withEncoding(BlockKeyed, archive));
            seeds.add(QStringLiteral("block.xml"), withEncoding(BlockKeyed, fuzz::xmlFromBinary(archive)));
            if (adapter) {
                const auto point = adapter->calcFeatureSamplesWithTimestamp(-1, clip->durationOfTrack() + 2, *block, 10);
                if (point)
                    seeds.add(QStringLiteral("point.bin"), withEncoding(FeatureSampleBinary, point->encodeToData()));
            }
        }
    }
    // A new point, with empty buffers and no channels.
    seeds.add(QStringLiteral("point.bin"),
              withEncoding(FeatureSampleBinary, VTFeatureSample::initWithTimestampOfDp(25, 10)->encodeToData()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("waveform_encodings", writeSeeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArray rest = QByteArray::fromRawData(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1));
    switch (data[0] % EncodingCount) {
    case BlockBinary:
        checkBlockBinary(rest);
        break;
    case FeatureSampleBinary:
        checkFeatureSampleBinary(rest);
        break;
    case BlockKeyed:
        checkBlockKeyed(rest);
        break;
    }
    return 0;
}
