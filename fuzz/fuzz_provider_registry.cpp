// Fuzzes the data-provider registry as the editor reads it at start-up: the
// input is stored in the user defaults under the registry's key, a manager
// is made (which reads it back), and every provider it kept is looked up and
// read from its cache file.
#include "FuzzSupport.h"

#include "foundation/KeyedCoding.h"
#include "foundation/UserDefaults.h"
#include "media/VTDataProviderMgr.h"

#include <cstdlib>
#include <vector>

using namespace brindle;

namespace {

constexpr uint64_t kReadSamples = 4096;

void readProvider(const VTDataProvider& provider)
{
    const uint64_t total = provider.numberOfSamples();
    const uint64_t frameBytes = provider.bytesPerSample();
    if (frameBytes == 0 || frameBytes > 1024 * 1024)
        return;
    const uint64_t starts[] = {0, total / 2, total > 0 ? total - 1 : 0};
    for (uint64_t start : starts) {
        std::vector<char> buffer(size_t(kReadSamples * frameBytes));
        if (provider.readSampleOfCount(kReadSamples, buffer.data(), start) > kReadSamples)
            std::abort();
    }
}

void writeSeeds(fuzz::SeedFolder& seeds)
{
    VTDataProviderMgr registry;
    const auto providers = fuzz::seedProviders();
    registry.importDataProviders(providers);
    const QByteArray stored = UserDefaults::standardUserDefaults().dataForKey(VTDataProviderMgr::userDefaultsKey()).value_or(QByteArray());
    seeds.add(QStringLiteral("registry.bplist"), stored);
    seeds.add(QStringLiteral("registry.xml"), fuzz::xmlFromBinary(stored));
    // One provider per registry, and the same provider twice.
    for (const auto& provider : providers) {
        registry.removeDataProviders(registry.dataProviders());
        registry.importDataProviders({provider, provider});
        seeds.add(QStringLiteral("registry.bplist"),
                  UserDefaults::standardUserDefaults().dataForKey(VTDataProviderMgr::userDefaultsKey()).value_or(QByteArray()));
    }
    UserDefaults::standardUserDefaults().removeObjectForKey(VTDataProviderMgr::userDefaultsKey());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::initialize("provider_registry", writeSeeds);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    UserDefaults::standardUserDefaults().setData(QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)),
                                                 VTDataProviderMgr::userDefaultsKey());
    VTDataProviderMgr registry;
    const VTDataProviderMgr::ProviderList providers = registry.dataProviders();
    QStringList identifiers;
    for (const auto& provider : providers) {
        if (!provider)
            std::abort();
        identifiers.append(provider->identifier());
        // A provider stored without a URL has a nil identifier, which finds nothing.
        if (!provider->identifier().isNull() && !registry.dataProviderWithIdentifier(provider->identifier()))
            std::abort();
        if (!registry.dataProviderWithURL(provider->url()))
            std::abort();
        readProvider(*provider);
    }
    if (registry.dataProvidersWithIdentifiers(identifiers).size() != providers.size())
        std::abort();
    // What the registry would store again must read back as the same list.
    const auto again = KeyedUnarchiver::unarchivedObjectOfClass<VTDataProviderMgr>(KeyedArchiver::archivedDataWithRootObject(registry));
    if (!again || again->dataProviders().size() != providers.size())
        std::abort();
    return 0;
}
