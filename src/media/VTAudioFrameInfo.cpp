#include "media/VTAudioFrameInfo.h"

namespace {

const QString kOffsetOfBufferKey = QStringLiteral("kKROffsetOfBuffer");
const QString kLengthOfBufferKey = QStringLiteral("kKRLengthOfBuffer");
const QString kIndexOfSamplesKey = QStringLiteral("kKRIndexOfSamples");
const QString kNumberOfSamplesKey = QStringLiteral("kKRNumberOfSamples");

}  // namespace

VTAudioFrameInfo::VTAudioFrameInfo(int64_t offsetOfBuffer, int64_t lengthOfBuffer, int64_t indexOfSamples,
                                   int64_t numberOfSamples)
    : m_offsetOfBuffer(offsetOfBuffer),
      m_lengthOfBuffer(lengthOfBuffer),
      m_indexOfSamples(indexOfSamples),
      m_numberOfSamples(numberOfSamples)
{
}

std::shared_ptr<VTAudioFrameInfo> VTAudioFrameInfo::initWithOffset(int64_t offsetOfBuffer, int64_t length,
                                                                   int64_t indexOfSamples, int64_t numberOfSamples)
{
    return std::make_shared<VTAudioFrameInfo>(offsetOfBuffer, length, indexOfSamples, numberOfSamples);
}

std::shared_ptr<VTAudioFrameInfo> VTAudioFrameInfo::endMarker(int64_t totalBytes, int64_t totalSamples)
{
    return std::make_shared<VTAudioFrameInfo>(totalBytes, kVTAudioFrameEndValue, totalSamples, kVTAudioFrameEndValue);
}

QStringList VTAudioFrameInfo::archiveClassNames()
{
    return {QStringLiteral("VTAudioFrameInfo")};
}

std::shared_ptr<VTAudioFrameInfo> VTAudioFrameInfo::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    return std::make_shared<VTAudioFrameInfo>(
        coder.decodeInt64ForKey(kOffsetOfBufferKey), coder.decodeInt64ForKey(kLengthOfBufferKey),
        coder.decodeInt64ForKey(kIndexOfSamplesKey), coder.decodeInt64ForKey(kNumberOfSamplesKey));
}

QString VTAudioFrameInfo::classNameForArchive() const
{
    return QStringLiteral("VTAudioFrameInfo");
}

void VTAudioFrameInfo::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeInt64(m_offsetOfBuffer, kOffsetOfBufferKey);
    coder.encodeInt64(m_lengthOfBuffer, kLengthOfBufferKey);
    coder.encodeInt64(m_indexOfSamples, kIndexOfSamplesKey);
    coder.encodeInt64(m_numberOfSamples, kNumberOfSamplesKey);
}
