// The registry of every data provider the application knows, persisted in
// the user defaults.
//
// Contract
// - `shareDataProviderMgr` is the process-wide registry, created once; a
//   manager made with the constructor starts with what the user defaults hold
//   (`readFromUserDefault`).
// - Look-ups answer the first match in registry order, or null.
//   `dataProvidersWithIdentifiers` answers every match, in registry order.
// - `importDataProviders` appends (duplicates are kept); the remove
//   operations drop every occurrence of the given providers after sending them
//   `clearCache`. Every change rewrites the user-defaults entry.
// - Persistence: the keyed archive of the manager (class
//   "VTDataProviderMgr", key "_dataProviders", a mutable array of providers)
//   stored as bytes under "com.quarnely.brindle". Reading survives damaged
//   bytes (a log line, nothing registered) and skips providers whose cache
//   file is missing or shorter than its table says.
// - Threads: the list is guarded by a lock (never held while archiving or
//   touching the user defaults), so look-ups are safe from any thread, e.g.
//   a mixer resolving a clip's provider.
#pragma once

#include "foundation/KeyedCoding.h"
#include "media/VTDataProvider.h"

#include <QString>
#include <QStringList>
#include <QUrl>

#include <memory>
#include <mutex>
#include <vector>

class VTDataProviderMgr final : public brindle::KeyedCoding {
public:
    using ProviderList = std::vector<std::shared_ptr<VTDataProvider>>;

    // The user-defaults key of the registry.
    static const QString& userDefaultsKey();

    // init: an empty list, then what readFromUserDefault answers.
    VTDataProviderMgr();
    VTDataProviderMgr(const VTDataProviderMgr&) = delete;
    VTDataProviderMgr& operator=(const VTDataProviderMgr&) = delete;

    static VTDataProviderMgr& shareDataProviderMgr();
    // File extensions the demuxer can open (lower case, no dots).
    static QStringList supportFormats();

    // A snapshot of the registry, in order.
    ProviderList dataProviders() const;

    std::shared_ptr<VTDataProvider> dataProviderWithIdentifier(const QString& identifier) const;
    std::shared_ptr<VTDataProvider> dataProviderWithURL(const QUrl& url) const;
    ProviderList dataProvidersWithIdentifiers(const QStringList& identifiers) const;

    void importDataProviders(const ProviderList& providers);
    void removeDataProvider(const std::shared_ptr<VTDataProvider>& provider);
    void removeDataProviders(const ProviderList& providers);
    void removeDataProviderWithIdentifier(const QString& identifier);
    void removeDataProvidersWithIdentifiers(const QStringList& identifiers);

    void writeToUserDefault() const;
    // The providers stored in the user defaults; empty when there are none or
    // the stored bytes are damaged (logged).
    ProviderList readFromUserDefault() const;

    // Keyed coding.
    static QStringList archiveClassNames();
    static std::shared_ptr<VTDataProviderMgr> initWithCoder(brindle::KeyedUnarchiver& coder);
    QString classNameForArchive() const override;
    void encodeWithCoder(brindle::KeyedArchiver& coder) const override;

private:
    struct Empty {};
    explicit VTDataProviderMgr(Empty);

    // Removes every occurrence of the providers, then persists.
    void removeAndWrite(const ProviderList& providers);

    mutable std::mutex m_mutex;
    ProviderList m_dataProviders;
    // Serialises writers so that the last change is the one that stays stored.
    mutable std::mutex m_writeMutex;
};
