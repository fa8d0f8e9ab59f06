// The keyed archiver writes straight into a BplistWriter: every `$objects`
// slot is allocated when its object is first met (pre-order), an object's
// fields are collected on a stack while its encodeWithCoder runs, and its
// dictionary (plus its class dictionary, on first use of the class) is added
// when it returns. finishEncoding adds `$top`, `$objects` and the root
// dictionary, which was reserved first so that it is the top object 0.
#include "foundation/KeyedCoding.h"

#include "foundation/BplistStringTable.h"
#include "foundation/BplistWriter.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

#include <typeinfo>
#include <unordered_map>

namespace brindle {

namespace {

using Ref = BplistWriter::Ref;
constexpr Ref kUnset = UINT32_MAX;

const QString& classKey()
{
    static const QString key = QStringLiteral("$class");
    return key;
}

// A lightweight NSArray over a caller's vector, so that encodeArray needs no copy.
class ArrayView final : public KeyedCoding {
public:
    ArrayView(const std::vector<ConstKeyedObjectPtr>& objects, bool mutableArray)
        : m_objects(objects), m_mutable(mutableArray)
    {
    }
    QString classNameForArchive() const override
    {
        return m_mutable ? QStringLiteral("NSMutableArray") : QStringLiteral("NSArray");
    }
    QStringList classChainForArchive() const override
    {
        if (m_mutable)
            return {QStringLiteral("NSMutableArray"), QStringLiteral("NSArray"), QStringLiteral("NSObject")};
        return {QStringLiteral("NSArray"), QStringLiteral("NSObject")};
    }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        std::vector<ConstKeyedObjectPtr> present;
        const std::vector<ConstKeyedObjectPtr>* list = &m_objects;
        // Collections never hold nil.
        for (const auto& object : m_objects) {
            if (!object) {
                for (const auto& kept : m_objects)
                    if (kept)
                        present.push_back(kept);
                list = &present;
                break;
            }
        }
        coder.encodeArrayOfObjects(*list, QStringLiteral("NS.objects"));
    }

private:
    const std::vector<ConstKeyedObjectPtr>& m_objects;
    bool m_mutable;
};

}  // namespace

struct KeyedArchiver::State {
    BplistWriter writer;
    Ref rootRef = kUnset;
    std::vector<Ref> slotRefs;    // `$objects`: slot → property-list object
    std::vector<Ref> uidRefs;  // slot → its UID object, made on first reference
    std::unordered_map<const void*, uint32_t> objectSlots;  // uniquing by identity
    BplistStringTable<uint32_t> stringSlots;  // immutable strings by value
    BplistStringTable<uint32_t> classSlots;   // class dictionaries by name
    std::vector<ConstKeyedObjectPtr> keepAlive;  // so that no address is reused while encoding
    // The fields of the objects being encoded, stacked; frameStarts.front()
    // is `$top`.
    std::vector<Ref> entryKeys;
    std::vector<Ref> entryValues;
    std::vector<size_t> frameStarts;
    std::vector<Ref> scratch;  // references of arrays being written, stacked
    bool finished = false;
    QByteArray result;

    int depth() const { return static_cast<int>(frameStarts.size()) - 1; }

    Ref keyRef(const QString& key)
    {
        // Coder keys that begin with '$' get one more, so that they never
        // collide with `$class` and the other reserved keys.
        if (key.startsWith(u'$'))
            return writer.addString(QLatin1Char('$') + key);
        return writer.addString(key);
    }

    void addEntry(Ref key, Ref value)
    {
        if (finished) {
            log(QStringLiteral("Keyed archiver: a value was encoded after finishEncoding; it is ignored"));
            return;
        }
        for (size_t i = frameStarts.back(); i < entryKeys.size(); ++i) {
            if (entryKeys[i] == key) {
                log(QStringLiteral("Keyed archiver: a key was encoded twice in one object; the last value is kept"));
                entryValues[i] = value;
                return;
            }
        }
        entryKeys.push_back(key);
        entryValues.push_back(value);
    }

    uint32_t allocateSlot()
    {
        slotRefs.push_back(kUnset);
        return static_cast<uint32_t>(slotRefs.size() - 1);
    }

    Ref uidRef(uint32_t slot)
    {
        if (slot >= uidRefs.size())
            uidRefs.resize(slotRefs.size(), kUnset);
        if (uidRefs[slot] == kUnset)
            uidRefs[slot] = writer.addUID(slot);
        return uidRefs[slot];
    }

    uint32_t stringSlot(const QString& value)
    {
        if (const uint32_t* known = stringSlots.find(value))
            return *known;
        const uint32_t slot = allocateSlot();
        slotRefs[slot] = writer.addString(value);
        stringSlots.insert(value, slot);
        return slot;
    }

    uint32_t classSlot(const KeyedCoding& object)
    {
        const QString name = object.classNameForArchive();
        if (const uint32_t* known = classSlots.find(name))
            return *known;
        QStringList chain = object.classChainForArchive();
        if (chain.isEmpty())
            chain = {name, QStringLiteral("NSObject")};
        std::vector<Ref> chainRefs;
        chainRefs.reserve(static_cast<size_t>(chain.size()));
        for (const QString& entry : chain)
            chainRefs.push_back(writer.addString(entry));
        const Ref keys[] = {writer.addString(QStringLiteral("$classname")), writer.addString(QStringLiteral("$classes"))};
        const Ref values[] = {writer.addString(name), writer.addArray(chainRefs.data(), chainRefs.size())};
        const uint32_t slot = allocateSlot();
        slotRefs[slot] = writer.addDictionary(keys, values, 2);
        classSlots.insert(name, slot);
        return slot;
    }

    Ref numberRef(const KeyedNumber& number)
    {
        switch (number.kind()) {
        case KeyedNumber::Kind::Bool:
            return writer.addBool(number.boolValue());
        case KeyedNumber::Kind::Signed:
            return writer.addInteger(number.int64Value());
        case KeyedNumber::Kind::Unsigned:
            return writer.addUnsigned(number.unsignedValue());
        case KeyedNumber::Kind::Float:
            return writer.addFloat(static_cast<float>(number.doubleValue()));
        case KeyedNumber::Kind::Double:
            break;
        }
        return writer.addDouble(number.doubleValue());
    }

    uint32_t slotForObject(KeyedArchiver& archiver, const KeyedCoding* object, const ConstKeyedObjectPtr* keep,
                           bool byIdentity);
};

KeyedArchiver::KeyedArchiver() : m_state(std::make_unique<State>())
{
    State& s = *m_state;
    s.rootRef = s.writer.reserve();
    s.slotRefs.push_back(s.writer.addString(QStringLiteral("$null")));
    s.frameStarts.push_back(0);
}

KeyedArchiver::~KeyedArchiver() = default;

QByteArray KeyedArchiver::archivedDataWithRootObject(const ConstKeyedObjectPtr& root)
{
    KeyedArchiver archiver;
    archiver.encodeObject(root, QStringLiteral("root"));
    return archiver.finishEncoding();
}

QByteArray KeyedArchiver::archivedDataWithRootObject(const KeyedCoding& root)
{
    KeyedArchiver archiver;
    archiver.encodeObject(root, QStringLiteral("root"));
    return archiver.finishEncoding();
}

// The slot of an object, writing it on first use. `keep` holds a shared
// object alive; `byIdentity` is false for objects made up by the convenience
// writers, which nobody else can refer to.
uint32_t KeyedArchiver::State::slotForObject(KeyedArchiver& archiver, const KeyedCoding* object,
                                             const ConstKeyedObjectPtr* keep, bool byIdentity)
{
    State& s = *this;
    if (!object)
        return 0;
    const std::type_info& type = typeid(*object);
    if (type == typeid(KeyedString)) {
        const auto& string = static_cast<const KeyedString&>(*object);
        if (!string.isMutable())
            return s.stringSlot(string.string());
    }
    if (byIdentity) {
        const auto known = s.objectSlots.find(object);
        if (known != s.objectSlots.end())
            return known->second;
    }
    if (s.depth() >= KeyedArchiver::kMaxDepth) {
        logf("Keyed archiver: objects are nested deeper than %d; the deeper object is written as nil",
             KeyedArchiver::kMaxDepth);
        return 0;
    }

    const uint32_t slot = s.allocateSlot();
    if (byIdentity) {
        s.objectSlots.emplace(object, slot);
        if (keep)
            s.keepAlive.push_back(*keep);
    }
    if (type == typeid(KeyedNumber)) {
        s.slotRefs[slot] = s.numberRef(static_cast<const KeyedNumber&>(*object));
        return slot;
    }
    if (type == typeid(KeyedData)) {
        const auto& data = static_cast<const KeyedData&>(*object);
        if (!data.isMutable()) {
            s.slotRefs[slot] = s.writer.addData(data.data());
            return slot;
        }
    }

    const size_t start = s.entryKeys.size();
    s.frameStarts.push_back(start);
    object->encodeWithCoder(archiver);
    s.addEntry(s.writer.addString(classKey()), s.uidRef(s.classSlot(*object)));
    const size_t count = s.entryKeys.size() - start;
    s.slotRefs[slot] = s.writer.addDictionary(s.entryKeys.data() + start, s.entryValues.data() + start, count);
    s.entryKeys.resize(start);
    s.entryValues.resize(start);
    s.frameStarts.pop_back();
    return slot;
}

void KeyedArchiver::encodeObject(const ConstKeyedObjectPtr& object, const QString& key)
{
    State& s = *m_state;
    const uint32_t slot = s.slotForObject(*this, object.get(), &object, true);
    s.addEntry(s.keyRef(key), s.uidRef(slot));
}

void KeyedArchiver::encodeObject(const KeyedCoding& object, const QString& key)
{
    State& s = *m_state;
    const uint32_t slot = s.slotForObject(*this, &object, nullptr, true);
    s.addEntry(s.keyRef(key), s.uidRef(slot));
}

void KeyedArchiver::encodeArrayOfObjects(const std::vector<ConstKeyedObjectPtr>& objects, const QString& key)
{
    State& s = *m_state;
    const size_t start = s.scratch.size();
    for (const auto& object : objects) {
        const uint32_t slot = s.slotForObject(*this, object.get(), &object, true);
        s.scratch.push_back(s.uidRef(slot));
    }
    const Ref array = s.writer.addArray(s.scratch.data() + start, s.scratch.size() - start);
    s.scratch.resize(start);
    s.addEntry(s.keyRef(key), array);
}

void KeyedArchiver::encodeString(const QString& value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.uidRef(s.stringSlot(value)));
}

void KeyedArchiver::encodeInlineString(const QString& value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.writer.addString(value));
}

void KeyedArchiver::encodeURL(const QUrl& value, const QString& key)
{
    State& s = *m_state;
    if (value.isEmpty()) {
        s.addEntry(s.keyRef(key), s.uidRef(0));
        return;
    }
    const KeyedURL url(value);
    const uint32_t slot = s.slotForObject(*this, &url, nullptr, false);
    s.addEntry(s.keyRef(key), s.uidRef(slot));
}

void KeyedArchiver::encodeData(const QByteArray& value, const QString& key)
{
    State& s = *m_state;
    const uint32_t slot = s.allocateSlot();
    s.slotRefs[slot] = s.writer.addData(value);
    s.addEntry(s.keyRef(key), s.uidRef(slot));
}

void KeyedArchiver::encodeArray(const std::vector<ConstKeyedObjectPtr>& objects, const QString& key, bool mutableArray)
{
    State& s = *m_state;
    const ArrayView array(objects, mutableArray);
    const uint32_t slot = s.slotForObject(*this, &array, nullptr, false);
    s.addEntry(s.keyRef(key), s.uidRef(slot));
}

void KeyedArchiver::encodeBool(bool value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.writer.addBool(value));
}

void KeyedArchiver::encodeInt32(int32_t value, const QString& key)
{
    encodeInt64(value, key);
}

void KeyedArchiver::encodeInt64(int64_t value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.writer.addInteger(value));
}

void KeyedArchiver::encodeFloat(float value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.writer.addFloat(value));
}

void KeyedArchiver::encodeDouble(double value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.writer.addDouble(value));
}

void KeyedArchiver::encodeBytes(const QByteArray& value, const QString& key)
{
    State& s = *m_state;
    s.addEntry(s.keyRef(key), s.writer.addData(value));
}

QByteArray KeyedArchiver::finishEncoding()
{
    State& s = *m_state;
    if (s.finished)
        return s.result;
    if (s.depth() != 0) {
        log(QStringLiteral("Keyed archiver: finishEncoding was called while an object was being encoded"));
        return {};
    }
    const Ref top = s.writer.addDictionary(s.entryKeys.data(), s.entryValues.data(), s.entryKeys.size());
    for (Ref slot : s.slotRefs) {
        if (slot == kUnset) {
            log(QStringLiteral("Keyed archiver: an object slot was never written"));
            return {};
        }
    }
    const Ref objects = s.writer.addArray(s.slotRefs.data(), s.slotRefs.size());
    const Ref keys[] = {
        s.writer.addString(QStringLiteral("$version")),
        s.writer.addString(QStringLiteral("$archiver")),
        s.writer.addString(QStringLiteral("$top")),
        s.writer.addString(QStringLiteral("$objects")),
    };
    const Ref values[] = {
        s.writer.addInteger(100000),
        s.writer.addString(QStringLiteral("NSKeyedArchiver")),
        top,
        objects,
    };
    s.writer.setDictionary(s.rootRef, keys, values, 4);
    s.result = s.writer.finish(s.rootRef);
    s.finished = true;
    s.keepAlive.clear();
    return s.result;
}

}  // namespace brindle
