#include "media/VTWaveBufferMgr.h"

VTWaveBufferMgr& VTWaveBufferMgr::shareWaveBufferMgr()
{
    static VTWaveBufferMgr* instance = new VTWaveBufferMgr();
    return *instance;
}

std::shared_ptr<QByteArray> VTWaveBufferMgr::dataBufferWithIdentifier(const QString& identifier)
{
    std::lock_guard lock(m_mutex);
    std::shared_ptr<QByteArray>& buffer = m_dataBufferInfo[identifier];
    if (!buffer)
        buffer = std::make_shared<QByteArray>();
    return buffer;
}

void VTWaveBufferMgr::removeDataBufferWithIdentifier(const QString& identifier)
{
    std::lock_guard lock(m_mutex);
    const auto found = m_dataBufferInfo.constFind(identifier);
    if (found != m_dataBufferInfo.constEnd())
        found.value()->truncate(0);
}

void VTWaveBufferMgr::clearDataBuffer()
{
    std::lock_guard lock(m_mutex);
    for (const std::shared_ptr<QByteArray>& buffer : std::as_const(m_dataBufferInfo))
        buffer->truncate(0);
}
