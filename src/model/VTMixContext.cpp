#include "model/VTMixContext.h"

#include "codec/KRAudioFrame2.h"

const QString VTMixContext::kProjectMixOperationKey = QStringLiteral("project.mixoperation");

VTMixContext::VTMixContext(int64_t samplerate, int64_t numberOfChannel, int32_t sampleFormat)
    : m_sampleFormat(sampleFormat),
      m_samplerate(samplerate),
      m_numberOfChannel(numberOfChannel),
      m_bytesPerSample(static_cast<int64_t>(KRAudioFrame2::bytesForSampleFormat(sampleFormat)) * numberOfChannel)
{
}

std::shared_ptr<VTMixContext> VTMixContext::initWithSamplerate(int64_t samplerate, int64_t nubmerOfChannel,
                                                               int32_t sampleFormat)
{
    return std::make_shared<VTMixContext>(samplerate, nubmerOfChannel, sampleFormat);
}

void VTMixContext::setUserInfo(std::any value, const QString& key)
{
    if (m_userInfo.isEmpty())
        m_userInfo.reserve(4);
    m_userInfo.insert(key, std::move(value));
}

const std::any* VTMixContext::userInfoForKey(const QString& key) const
{
    auto found = m_userInfo.constFind(key);
    return found == m_userInfo.constEnd() ? nullptr : &found.value();
}

void VTMixContext::removeUserInfoWithKey(const QString& key)
{
    m_userInfo.remove(key);
}
