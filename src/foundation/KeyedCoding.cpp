// The coding base class and the registry of classes for generic decoding.
#include "foundation/KeyedCoding.h"

#include <QHash>

#include <mutex>
#include <shared_mutex>

namespace brindle {

QStringList KeyedCoding::classChainForArchive() const
{
    return {classNameForArchive(), QStringLiteral("NSObject")};
}

namespace {

struct Registry {
    std::shared_mutex mutex;
    QHash<QString, KeyedClassRegistry::Factory> factories;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

}  // namespace

void KeyedClassRegistry::registerClass(const QString& className, Factory factory)
{
    Registry& shared = registry();
    std::unique_lock lock(shared.mutex);
    if (factory)
        shared.factories.insert(className, factory);
    else
        shared.factories.remove(className);
}

KeyedClassRegistry::Factory KeyedClassRegistry::factoryForClass(const QString& className)
{
    Registry& shared = registry();
    std::shared_lock lock(shared.mutex);
    return shared.factories.value(className, nullptr);
}

}  // namespace brindle
