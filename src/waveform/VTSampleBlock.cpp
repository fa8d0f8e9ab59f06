#include "waveform/VTSampleBlock.h"

#include "foundation/Log.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace {

const QString kIndexKey = QStringLiteral("_indexOfSampleInDataProvider");
const QString kCountKey = QStringLiteral("_numberOfSamplesInDataProvider");
const QString kMinKey = QStringLiteral("_minSamples");
const QString kMaxKey = QStringLiteral("_maxSamples");

// Frames read per pass: a long stretch is scanned piecewise, so a block never
// needs more memory than this, whatever count it is asked for.
constexpr uint64_t kFramesPerPass = 16384;

// The scratch buffer a thread scans from, kept between blocks.
thread_local std::vector<char> t_scratch;

// Any number of channels, one sample at a time.
template <class Sample>
void scanFramesOneByOne(const char* bytes, uint64_t frames, int64_t channels, double* max, double* min)
{
    for (uint64_t frame = 0; frame < frames; ++frame) {
        const char* at = bytes + frame * uint64_t(channels) * sizeof(Sample);
        for (int64_t c = 0; c < channels; ++c) {
            Sample sample;
            std::memcpy(&sample, at + uint64_t(c) * sizeof(Sample), sizeof(Sample));
            const double v = double(sample);
            if (v > max[c])
                max[c] = v;
            if (min[c] > v)
                min[c] = v;
        }
    }
}

// Lanes of the vectorised scan; every channel count that divides it is
// scanned in lanes, lane j holding channel j % channels.
constexpr int64_t kLanes = 16;

// The same extremes as scanFramesOneByOne for a channel count dividing
// kLanes, kept per lane in the sample type so that the compiler turns the
// loop into vector minimum and maximum instructions. The comparisons are the
// same (a NaN never becomes an extreme), and converting to double keeps the
// order of values, so the result is identical.
template <class Sample>
void scanFramesInLanes(const char* bytes, uint64_t frames, int64_t channels, double* max, double* min)
{
    constexpr bool kFloating = std::is_floating_point_v<Sample>;
    const Sample lowest = kFloating ? -std::numeric_limits<Sample>::infinity() : std::numeric_limits<Sample>::lowest();
    const Sample highest = kFloating ? std::numeric_limits<Sample>::infinity() : std::numeric_limits<Sample>::max();
    Sample hi[kLanes];
    Sample lo[kLanes];
    std::fill(hi, hi + kLanes, lowest);
    std::fill(lo, lo + kLanes, highest);
    const uint64_t values = frames * uint64_t(channels);
    uint64_t i = 0;
    for (; i + kLanes <= values; i += kLanes) {
        Sample block[kLanes];
        std::memcpy(block, bytes + i * sizeof(Sample), sizeof block);
        for (int64_t j = 0; j < kLanes; ++j) {
            hi[j] = block[j] > hi[j] ? block[j] : hi[j];
            lo[j] = lo[j] > block[j] ? block[j] : lo[j];
        }
    }
    // The rest is shorter than kLanes and starts at a multiple of it, so its
    // value j belongs to lane j as well.
    for (int64_t j = 0; i + uint64_t(j) < values; ++j) {
        Sample sample;
        std::memcpy(&sample, bytes + (i + uint64_t(j)) * sizeof(Sample), sizeof sample);
        hi[j] = sample > hi[j] ? sample : hi[j];
        lo[j] = lo[j] > sample ? sample : lo[j];
    }
    // Lanes past the last value saw no sample: their start is no extreme.
    for (int64_t j = 0; j < kLanes && uint64_t(j) < values; ++j) {
        const int64_t c = j % channels;
        if (double(hi[j]) > max[c])
            max[c] = double(hi[j]);
        if (min[c] > double(lo[j]))
            min[c] = double(lo[j]);
    }
}

template <class Sample>
void scanFrames(const char* bytes, uint64_t frames, int64_t channels, double* max, double* min)
{
    if (channels > 0 && kLanes % channels == 0)
        scanFramesInLanes<Sample>(bytes, frames, channels, max, min);
    else
        scanFramesOneByOne<Sample>(bytes, frames, channels, max, min);
}

using ScanFunction = void (*)(const char*, uint64_t, int64_t, double*, double*);

ScanFunction scanFunctionOfFormat(int32_t sampleFormat)
{
    switch (sampleFormat) {
    case 0: return &scanFrames<uint8_t>;
    case 1: return &scanFrames<int16_t>;
    case 2: return &scanFrames<int32_t>;
    case 3: return &scanFrames<float>;
    case 4: return &scanFrames<double>;
    default: return nullptr;
    }
}

uint64_t readUInt64(const char* at)
{
    uint64_t value = 0;
    std::memcpy(&value, at, sizeof value);
    return qFromLittleEndian(value);
}

void appendUInt64(QByteArray& out, uint64_t value)
{
    const uint64_t little = qToLittleEndian(value);
    out.append(reinterpret_cast<const char*>(&little), sizeof little);
}

double valueAt(const QByteArray& buffer, int64_t channel)
{
    if (channel < 0 || uint64_t(channel) >= uint64_t(buffer.size()) / sizeof(double))
        return 0.0;
    double value = 0.0;
    std::memcpy(&value, buffer.constData() + channel * qsizetype(sizeof(double)), sizeof value);
    return value;
}

}  // namespace

std::shared_ptr<VTSampleBlock> VTSampleBlock::initWithIndexOfDataProvider(
    uint64_t index, uint64_t numberOfSamples, const std::shared_ptr<VTDataProvider>& dataProvider)
{
    VTDataProvider::FrameCursor cursor;
    return initWithIndexOfDataProvider(index, numberOfSamples, dataProvider, cursor);
}

std::shared_ptr<VTSampleBlock> VTSampleBlock::initWithIndexOfDataProvider(
    uint64_t index, uint64_t numberOfSamples, const std::shared_ptr<VTDataProvider>& dataProvider,
    VTDataProvider::FrameCursor& cursor)
{
    if (!dataProvider)
        return nullptr;
    std::shared_ptr<VTSampleBlock> block(new VTSampleBlock(index, numberOfSamples));
    block->scan(*dataProvider, cursor);
    return block;
}

std::shared_ptr<VTSampleBlock> VTSampleBlock::initWithFields(uint64_t index, uint64_t numberOfSamples,
                                                             QByteArray maxSamples, QByteArray minSamples)
{
    std::shared_ptr<VTSampleBlock> block(new VTSampleBlock(index, numberOfSamples));
    block->m_maxSamples = std::move(maxSamples);
    block->m_minSamples = std::move(minSamples);
    return block;
}

void VTSampleBlock::scan(const VTDataProvider& dataProvider, VTDataProvider::FrameCursor& cursor)
{
    const int64_t channels = std::max<int64_t>(dataProvider.numberOfChannel(), 0);
    // Up to eight channels on the stack: the common case of a walk allocates
    // nothing but the two buffers it keeps.
    constexpr int64_t kOnStack = 8;
    double maxOnStack[kOnStack] = {};
    double minOnStack[kOnStack] = {};
    std::vector<double> maxOnHeap;
    std::vector<double> minOnHeap;
    double* max = maxOnStack;
    double* min = minOnStack;
    if (channels > kOnStack) {
        maxOnHeap.assign(size_t(channels), 0.0);
        minOnHeap.assign(size_t(channels), 0.0);
        max = maxOnHeap.data();
        min = minOnHeap.data();
    }
    scanInto(dataProvider, cursor, max, min);
    const auto bytes = qsizetype(channels * qsizetype(sizeof(double)));
    m_maxSamples = QByteArray(reinterpret_cast<const char*>(max), bytes);
    m_minSamples = QByteArray(reinterpret_cast<const char*>(min), bytes);
}

void VTSampleBlock::scanInto(const VTDataProvider& dataProvider, VTDataProvider::FrameCursor& cursor, double* max,
                             double* min) const
{
    const int64_t channels = std::max<int64_t>(dataProvider.numberOfChannel(), 0);
    const int32_t format = dataProvider.sampleFormat();
    const ScanFunction scanFunction = scanFunctionOfFormat(format);
    if (!scanFunction) {
        brindle::log(QStringLiteral("Cannot support such format."));
        return;
    }
    if (format == 0) {
        std::fill(max, max + channels, 127.0);
        std::fill(min, min + channels, 127.0);
    }
    const uint64_t frameBytes = dataProvider.bytesPerSample();
    const uint64_t total = dataProvider.numberOfSamples();
    if (frameBytes == 0 || channels == 0 || m_indexOfSampleInDataProvider >= total)
        return;
    // Only the frames that exist are read and scanned.
    uint64_t remaining = std::min(m_numberOfSamplesInDataProvider, total - m_indexOfSampleInDataProvider);
    uint64_t at = m_indexOfSampleInDataProvider;
    std::vector<char>& scratch = t_scratch;
    while (remaining > 0) {
        const uint64_t wanted = std::min(remaining, kFramesPerPass);
        if (scratch.size() < wanted * frameBytes)
            scratch.resize(size_t(wanted * frameBytes));
        const uint64_t got = dataProvider.readSampleOfCount(wanted, scratch.data(), at, cursor);
        scanFunction(scratch.data(), got, channels, max, min);
        if (got < wanted)
            break;
        remaining -= got;
        at += got;
    }
}

double VTSampleBlock::maxSampleOfChannel(int64_t channel) const
{
    return valueAt(m_maxSamples, channel);
}

double VTSampleBlock::minSampleOfChannel(int64_t channel) const
{
    return valueAt(m_minSamples, channel);
}

uint64_t VTSampleBlock::encodeSize() const
{
    return uint64_t(m_maxSamples.size()) + uint64_t(m_minSamples.size()) + 32;
}

QByteArray VTSampleBlock::encodeToData() const
{
    QByteArray out;
    out.reserve(qsizetype(encodeSize()));
    appendUInt64(out, m_indexOfSampleInDataProvider);
    appendUInt64(out, m_numberOfSamplesInDataProvider);
    appendUInt64(out, uint64_t(m_maxSamples.size()));
    out.append(m_maxSamples);
    appendUInt64(out, uint64_t(m_minSamples.size()));
    out.append(m_minSamples);
    return out;
}

std::shared_ptr<VTSampleBlock> VTSampleBlock::initWithData(const QByteArray& data)
{
    // Every length is compared with what is left, so no sum can wrap around.
    const char* bytes = data.constData();
    const uint64_t size = uint64_t(data.size());
    if (size < 24)
        return nullptr;
    const uint64_t index = readUInt64(bytes);
    const uint64_t count = readUInt64(bytes + 8);
    const uint64_t maxLength = readUInt64(bytes + 16);
    if (maxLength == 0 || maxLength > size - 24 || 8 > size - 24 - maxLength)
        return nullptr;
    const uint64_t minLength = readUInt64(bytes + 24 + maxLength);
    if (minLength == 0 || minLength > size - 32 - maxLength)
        return nullptr;
    return initWithFields(index, count, QByteArray(bytes + 24, qsizetype(maxLength)),
                          QByteArray(bytes + 32 + maxLength, qsizetype(minLength)));
}

QStringList VTSampleBlock::archiveClassNames()
{
    return {QStringLiteral("VTSampleBlock")};
}

std::shared_ptr<VTSampleBlock> VTSampleBlock::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    const uint64_t index = uint64_t(coder.decodeIntegerForKey(kIndexKey));
    const uint64_t count = uint64_t(coder.decodeIntegerForKey(kCountKey));
    std::optional<QByteArray> minSamples = coder.decodeDataForKey(kMinKey);
    std::optional<QByteArray> maxSamples = coder.decodeDataForKey(kMaxKey);
    // Copies of their own, as the decoded buffers are mutable.
    QByteArray maxCopy = maxSamples.value_or(QByteArray());
    QByteArray minCopy = minSamples.value_or(QByteArray());
    maxCopy.detach();
    minCopy.detach();
    return initWithFields(index, count, std::move(maxCopy), std::move(minCopy));
}

QString VTSampleBlock::classNameForArchive() const
{
    return QStringLiteral("VTSampleBlock");
}

void VTSampleBlock::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeInteger(int64_t(m_indexOfSampleInDataProvider), kIndexKey);
    coder.encodeInteger(int64_t(m_numberOfSamplesInDataProvider), kCountKey);
    coder.encodeData(m_minSamples, kMinKey);
    coder.encodeData(m_maxSamples, kMaxKey);
}
