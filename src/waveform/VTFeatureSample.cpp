#include "waveform/VTFeatureSample.h"

#include <QtEndian>

#include <cstring>

namespace {

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

QByteArray VTFeatureSample::maxSamples() const
{
    std::lock_guard lock(m_mutex);
    return m_maxSamples;
}

QByteArray VTFeatureSample::minSamples() const
{
    std::lock_guard lock(m_mutex);
    return m_minSamples;
}

int64_t VTFeatureSample::numberOfChannel() const
{
    std::lock_guard lock(m_mutex);
    return m_numberOfChannel;
}

void VTFeatureSample::setMaxSamples(const QByteArray& maxSamples)
{
    std::lock_guard lock(m_mutex);
    m_maxSamples = maxSamples;
}

void VTFeatureSample::setMinSamples(const QByteArray& minSamples)
{
    std::lock_guard lock(m_mutex);
    m_minSamples = minSamples;
}

void VTFeatureSample::setNumberOfChannel(int64_t numberOfChannel)
{
    std::lock_guard lock(m_mutex);
    m_numberOfChannel = numberOfChannel;
}

double VTFeatureSample::maxSampleOfChannel(int64_t channel) const
{
    return valueAt(maxSamples(), channel);
}

double VTFeatureSample::minSampleOfChannel(int64_t channel) const
{
    return valueAt(minSamples(), channel);
}

QByteArray VTFeatureSample::encodeToData() const
{
    std::lock_guard lock(m_mutex);
    QByteArray out;
    out.reserve(4);
    appendUInt64(out, uint64_t(m_timestampOfDataProvider));
    appendUInt64(out, uint64_t(m_durationOfTrack));
    appendUInt64(out, uint64_t(m_numberOfChannel));
    appendUInt64(out, uint64_t(m_maxSamples.size()));
    out.append(m_maxSamples);
    appendUInt64(out, uint64_t(m_minSamples.size()));
    out.append(m_minSamples);
    return out;
}

std::shared_ptr<VTFeatureSample> VTFeatureSample::initWithData(const QByteArray& data)
{
    // Every length is compared with what is left, so no sum can wrap around.
    const char* bytes = data.constData();
    const uint64_t size = uint64_t(data.size());
    if (size < 32)
        return nullptr;
    const uint64_t maxLength = readUInt64(bytes + 24);
    if (maxLength > size - 32 || 8 > size - 32 - maxLength)
        return nullptr;
    const uint64_t minLength = readUInt64(bytes + 32 + maxLength);
    if (minLength > size - 40 - maxLength)
        return nullptr;
    auto sample = initWithTimestampOfDp(int64_t(readUInt64(bytes)), int64_t(readUInt64(bytes + 8)));
    sample->setNumberOfChannel(int64_t(readUInt64(bytes + 16)));
    sample->setMaxSamples(QByteArray(bytes + 32, qsizetype(maxLength)));
    sample->setMinSamples(QByteArray(bytes + 40 + maxLength, qsizetype(minLength)));
    return sample;
}
