#include "media/VTDataProviderMgr.h"

#include "codec/KRDemuxerContext.h"
#include "foundation/Log.h"
#include "foundation/UserDefaults.h"

#include <algorithm>

namespace {

const QString kDataProvidersKey = QStringLiteral("_dataProviders");

}  // namespace

const QString& VTDataProviderMgr::userDefaultsKey()
{
    static const QString key = QStringLiteral("com.quarnely.brindle");
    return key;
}

VTDataProviderMgr::VTDataProviderMgr(Empty) {}

VTDataProviderMgr::VTDataProviderMgr()
{
    ProviderList stored = readFromUserDefault();
    std::lock_guard lock(m_mutex);
    m_dataProviders.insert(m_dataProviders.end(), stored.begin(), stored.end());
}

VTDataProviderMgr& VTDataProviderMgr::shareDataProviderMgr()
{
    static VTDataProviderMgr* instance = new VTDataProviderMgr();
    return *instance;
}

QStringList VTDataProviderMgr::supportFormats()
{
    return KRDemuxerContext::supportAllFormats();
}

VTDataProviderMgr::ProviderList VTDataProviderMgr::dataProviders() const
{
    std::lock_guard lock(m_mutex);
    return m_dataProviders;
}

std::shared_ptr<VTDataProvider> VTDataProviderMgr::dataProviderWithIdentifier(const QString& identifier) const
{
    if (identifier.isNull())
        return nullptr;
    std::lock_guard lock(m_mutex);
    for (const std::shared_ptr<VTDataProvider>& provider : m_dataProviders) {
        if (provider->identifier() == identifier)
            return provider;
    }
    return nullptr;
}

std::shared_ptr<VTDataProvider> VTDataProviderMgr::dataProviderWithURL(const QUrl& url) const
{
    std::lock_guard lock(m_mutex);
    for (const std::shared_ptr<VTDataProvider>& provider : m_dataProviders) {
        if (provider->url() == url)
            return provider;
    }
    return nullptr;
}

VTDataProviderMgr::ProviderList VTDataProviderMgr::dataProvidersWithIdentifiers(const QStringList& identifiers) const
{
    ProviderList found;
    std::lock_guard lock(m_mutex);
    for (const std::shared_ptr<VTDataProvider>& provider : m_dataProviders) {
        if (identifiers.contains(provider->identifier()))
            found.push_back(provider);
    }
    return found;
}

void VTDataProviderMgr::importDataProviders(const ProviderList& providers)
{
    {
        std::lock_guard lock(m_mutex);
        for (const std::shared_ptr<VTDataProvider>& provider : providers) {
            if (provider)
                m_dataProviders.push_back(provider);
        }
    }
    writeToUserDefault();
}

void VTDataProviderMgr::removeAndWrite(const ProviderList& providers)
{
    for (const std::shared_ptr<VTDataProvider>& provider : providers) {
        if (provider)
            provider->clearCache();
    }
    {
        std::lock_guard lock(m_mutex);
        std::erase_if(m_dataProviders, [&](const std::shared_ptr<VTDataProvider>& held) {
            return std::find(providers.begin(), providers.end(), held) != providers.end();
        });
    }
    writeToUserDefault();
}

void VTDataProviderMgr::removeDataProvider(const std::shared_ptr<VTDataProvider>& provider)
{
    removeAndWrite(ProviderList{provider});
}

void VTDataProviderMgr::removeDataProviders(const ProviderList& providers)
{
    removeAndWrite(providers);
}

void VTDataProviderMgr::removeDataProviderWithIdentifier(const QString& identifier)
{
    removeDataProvider(dataProviderWithIdentifier(identifier));
}

void VTDataProviderMgr::removeDataProvidersWithIdentifiers(const QStringList& identifiers)
{
    removeDataProviders(dataProvidersWithIdentifiers(identifiers));
}

void VTDataProviderMgr::writeToUserDefault() const
{
    std::lock_guard writing(m_writeMutex);
    const QByteArray bytes = brindle::KeyedArchiver::archivedDataWithRootObject(*this);
    brindle::UserDefaults::standardUserDefaults().setData(bytes, userDefaultsKey());
}

VTDataProviderMgr::ProviderList VTDataProviderMgr::readFromUserDefault() const
{
    const std::optional<QByteArray> bytes = brindle::UserDefaults::standardUserDefaults().dataForKey(userDefaultsKey());
    if (!bytes || bytes->isEmpty())
        return {};
    const std::shared_ptr<VTDataProviderMgr> stored =
        brindle::KeyedUnarchiver::unarchivedObjectOfClass<VTDataProviderMgr>(*bytes);
    if (!stored) {
        brindle::log(QStringLiteral("Warning: the data provider registry in the user defaults is damaged; it is ignored."));
        return {};
    }
    return stored->dataProviders();
}

QStringList VTDataProviderMgr::archiveClassNames()
{
    return {QStringLiteral("VTDataProviderMgr")};
}

std::shared_ptr<VTDataProviderMgr> VTDataProviderMgr::initWithCoder(brindle::KeyedUnarchiver& coder)
{
    // Providers that fail to decode (missing or crashed cache files) are left out.
    std::optional<ProviderList> providers = coder.decodeArrayOfClass<VTDataProvider>(kDataProvidersKey);
    if (!providers)
        return nullptr;
    std::shared_ptr<VTDataProviderMgr> manager(new VTDataProviderMgr(Empty{}));
    manager->m_dataProviders = std::move(*providers);
    return manager;
}

QString VTDataProviderMgr::classNameForArchive() const
{
    return QStringLiteral("VTDataProviderMgr");
}

void VTDataProviderMgr::encodeWithCoder(brindle::KeyedArchiver& coder) const
{
    coder.encodeArrayOf(dataProviders(), kDataProvidersKey, true);
}
