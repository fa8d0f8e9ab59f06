// The collection classes among the standard values: arrays (with sets and
// ordered sets) and dictionaries.
#include "foundation/KeyedInternal.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

namespace brindle {

using keyed::chainOf;
using keyed::firstClassName;

// ---- KeyedArray

namespace {

struct ArrayFlavorName {
    KeyedArray::Flavor flavor;
    const char16_t* name;
    const char16_t* superclass;  // null when the chain is just name, NSObject
};

constexpr ArrayFlavorName kArrayFlavors[] = {
    {KeyedArray::Flavor::Array, u"NSArray", nullptr},
    {KeyedArray::Flavor::MutableArray, u"NSMutableArray", u"NSArray"},
    {KeyedArray::Flavor::Set, u"NSSet", nullptr},
    {KeyedArray::Flavor::MutableSet, u"NSMutableSet", u"NSSet"},
    {KeyedArray::Flavor::OrderedSet, u"NSOrderedSet", nullptr},
    {KeyedArray::Flavor::MutableOrderedSet, u"NSMutableOrderedSet", u"NSOrderedSet"},
};

const ArrayFlavorName& flavorName(KeyedArray::Flavor flavor)
{
    for (const ArrayFlavorName& entry : kArrayFlavors)
        if (entry.flavor == flavor)
            return entry;
    return kArrayFlavors[0];
}

bool isOrderedSet(KeyedArray::Flavor flavor)
{
    return flavor == KeyedArray::Flavor::OrderedSet || flavor == KeyedArray::Flavor::MutableOrderedSet;
}

QString orderedSetKey(size_t index)
{
    return QStringLiteral("NS.object.%1").arg(index);
}

}  // namespace

KeyedArray::KeyedArray(std::vector<ConstKeyedObjectPtr> objects, Flavor flavor)
    : m_objects(std::move(objects)), m_flavor(flavor)
{
    std::erase(m_objects, nullptr);
}

void KeyedArray::addObject(ConstKeyedObjectPtr object)
{
    if (object)
        m_objects.push_back(std::move(object));
}

QString KeyedArray::classNameForArchive() const
{
    return QString::fromUtf16(flavorName(m_flavor).name);
}

QStringList KeyedArray::classChainForArchive() const
{
    const ArrayFlavorName& entry = flavorName(m_flavor);
    if (entry.superclass)
        return chainOf({entry.name, entry.superclass, u"NSObject"});
    return chainOf({entry.name, u"NSObject"});
}

void KeyedArray::encodeWithCoder(KeyedArchiver& coder) const
{
    if (!isOrderedSet(m_flavor)) {
        coder.encodeArrayOfObjects(m_objects, QStringLiteral("NS.objects"));
        return;
    }
    for (size_t i = 0; i < m_objects.size(); ++i)
        coder.encodeObject(m_objects[i], orderedSetKey(i));
}

QStringList KeyedArray::archiveClassNames()
{
    QStringList names;
    for (const ArrayFlavorName& entry : kArrayFlavors)
        names.append(QString::fromUtf16(entry.name));
    return names;
}

std::shared_ptr<KeyedArray> KeyedArray::initWithCoder(KeyedUnarchiver& coder)
{
    const QString name = firstClassName(coder.currentClassChain());
    Flavor flavor = Flavor::Array;
    for (const ArrayFlavorName& entry : kArrayFlavors)
        if (name == QStringView(entry.name))
            flavor = entry.flavor;

    auto array = std::make_shared<KeyedArray>();
    array->m_flavor = flavor;
    if (isOrderedSet(flavor)) {
        for (size_t i = 0;; ++i) {
            const QString key = orderedSetKey(i);
            if (!coder.containsValueForKey(key))
                break;
            array->addObject(coder.decodeObjectForKey(key));
        }
        return array;
    }
    auto elements = coder.decodeArrayOfObjectsForKey(QStringLiteral("NS.objects"));
    if (!elements) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: an array has no readable NS.objects"));
        return nullptr;
    }
    array->m_objects.reserve(elements->size());
    for (auto& element : *elements)
        array->addObject(std::move(element));
    return array;
}

// ---- KeyedDictionary

size_t KeyedDictionary::indexOfStringKey(const QString& key) const
{
    for (size_t i = 0; i < m_entries.size(); ++i) {
        const auto* string = dynamic_cast<const KeyedString*>(m_entries[i].key.get());
        if (string && string->string() == key)
            return i;
    }
    return m_entries.size();
}

size_t KeyedDictionary::indexOfKey(const KeyedCoding* key) const
{
    if (const auto* string = dynamic_cast<const KeyedString*>(key))
        return indexOfStringKey(string->string());
    for (size_t i = 0; i < m_entries.size(); ++i)
        if (m_entries[i].key.get() == key)
            return i;
    return m_entries.size();
}

ConstKeyedObjectPtr KeyedDictionary::objectForKey(const QString& key) const
{
    const size_t index = indexOfStringKey(key);
    return index < m_entries.size() ? m_entries[index].value : nullptr;
}

ConstKeyedObjectPtr KeyedDictionary::objectForKey(const ConstKeyedObjectPtr& key) const
{
    const size_t index = indexOfKey(key.get());
    return index < m_entries.size() ? m_entries[index].value : nullptr;
}

void KeyedDictionary::setObjectForKey(ConstKeyedObjectPtr value, const QString& key)
{
    const size_t index = indexOfStringKey(key);
    if (!value) {
        if (index < m_entries.size())
            m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(index));
        return;
    }
    if (index < m_entries.size()) {
        m_entries[index].value = std::move(value);
        return;
    }
    m_entries.push_back({std::make_shared<KeyedString>(key), std::move(value)});
}

void KeyedDictionary::setObjectForKey(ConstKeyedObjectPtr value, ConstKeyedObjectPtr key)
{
    if (!key) {
        log(QStringLiteral("KeyedDictionary: a nil key is ignored"));
        return;
    }
    const size_t index = indexOfKey(key.get());
    if (!value) {
        if (index < m_entries.size())
            m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(index));
        return;
    }
    if (index < m_entries.size()) {
        m_entries[index].value = std::move(value);
        return;
    }
    m_entries.push_back({std::move(key), std::move(value)});
}

QString KeyedDictionary::classNameForArchive() const
{
    return m_mutable ? QStringLiteral("NSMutableDictionary") : QStringLiteral("NSDictionary");
}

QStringList KeyedDictionary::classChainForArchive() const
{
    if (m_mutable)
        return chainOf({u"NSMutableDictionary", u"NSDictionary", u"NSObject"});
    return chainOf({u"NSDictionary", u"NSObject"});
}

void KeyedDictionary::encodeWithCoder(KeyedArchiver& coder) const
{
    std::vector<ConstKeyedObjectPtr> keys;
    std::vector<ConstKeyedObjectPtr> values;
    keys.reserve(m_entries.size());
    values.reserve(m_entries.size());
    for (const Entry& entry : m_entries) {
        keys.push_back(entry.key);
        values.push_back(entry.value);
    }
    // All keys are written before all values, as Foundation does.
    coder.encodeArrayOfObjects(keys, QStringLiteral("NS.keys"));
    coder.encodeArrayOfObjects(values, QStringLiteral("NS.objects"));
}

QStringList KeyedDictionary::archiveClassNames()
{
    return chainOf({u"NSDictionary", u"NSMutableDictionary"});
}

std::shared_ptr<KeyedDictionary> KeyedDictionary::initWithCoder(KeyedUnarchiver& coder)
{
    auto keys = coder.decodeArrayOfObjectsForKey(QStringLiteral("NS.keys"));
    auto values = coder.decodeArrayOfObjectsForKey(QStringLiteral("NS.objects"));
    if (!keys || !values || keys->size() != values->size()) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: a dictionary's NS.keys and NS.objects are missing "
                                           "or of different lengths"));
        return nullptr;
    }
    const bool mutableDictionary = firstClassName(coder.currentClassChain()) == u"NSMutableDictionary";
    auto dictionary = std::make_shared<KeyedDictionary>(mutableDictionary);
    dictionary->m_entries.reserve(keys->size());
    for (size_t i = 0; i < keys->size(); ++i) {
        // A pair whose key or value decodes as nil is left out.
        if ((*keys)[i] && (*values)[i])
            dictionary->m_entries.push_back({std::move((*keys)[i]), std::move((*values)[i])});
    }
    return dictionary;
}

}  // namespace brindle
