#include "model/VTPasteboard.h"

#include "foundation/Log.h"

namespace {

std::mutex& installMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<VTPasteboard>& installedPasteboard()
{
    static std::shared_ptr<VTPasteboard> pasteboard;
    return pasteboard;
}

}  // namespace

std::shared_ptr<VTPasteboard> VTPasteboard::generalPasteboard()
{
    std::lock_guard<std::mutex> lock(installMutex());
    auto& pasteboard = installedPasteboard();
    if (!pasteboard)
        pasteboard = std::make_shared<brindle::MemoryPasteboard>();
    return pasteboard;
}

void VTPasteboard::setGeneralPasteboard(std::shared_ptr<VTPasteboard> pasteboard)
{
    std::shared_ptr<VTPasteboard> previous;
    {
        std::lock_guard<std::mutex> lock(installMutex());
        previous = std::exchange(installedPasteboard(), std::move(pasteboard));
    }
}

namespace brindle {

QStringList MemoryPasteboard::types() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_types;
}

void MemoryPasteboard::declareTypes(const QStringList& types)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_types = types;
    m_types.removeDuplicates();
    m_data.clear();
}

bool MemoryPasteboard::setData(const QByteArray& data, const QString& type)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_types.contains(type)) {
        logf("Pasteboard: type %s was not declared; data refused.", qUtf8Printable(type));
        return false;
    }
    m_data[type] = data;
    return true;
}

std::optional<QByteArray> MemoryPasteboard::dataForType(const QString& type) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_data.find(type);
    if (found == m_data.end())
        return std::nullopt;
    return found->second;
}

}  // namespace brindle
