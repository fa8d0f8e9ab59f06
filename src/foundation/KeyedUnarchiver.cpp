// The keyed unarchiver reads the archive in place through BplistReader. Each
// `$objects` slot is decoded at most once (memoised by UID); a slot that is
// being decoded when it is referenced again is a cycle and decodes as nil.
// Decoding recurses once per object level, capped at kMaxDepth, and a work
// budget proportional to the archive's size stops archives that share one
// large property-list object between many slots from multiplying the work.
#include "foundation/KeyedCoding.h"

#include "foundation/BplistReader.h"
#include "foundation/BplistXml.h"
#include "foundation/KeyedInternal.h"
#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

#include <QHash>

#include <cmath>
#include <limits>
#include <unordered_map>

namespace brindle {

namespace {

// A slot's class: the UID of its class dictionary, or one of these for the
// property-list values stored inline.
using ClassKey = uint32_t;
constexpr ClassKey kInlineString = UINT32_MAX;
constexpr ClassKey kInlineData = UINT32_MAX - 1;
constexpr ClassKey kInlineNumber = UINT32_MAX - 2;
constexpr ClassKey kNoClass = UINT32_MAX - 3;  // `$top`
constexpr uint64_t kMaxObjects = UINT32_MAX - 4;

constexpr uint64_t kIndexedDictionarySize = 16;  // larger objects get a hash index of their keys
constexpr size_t kDenseSlotLimit = size_t{1} << 16;
constexpr int kMaxLoggedProblems = 8;
constexpr int kMaxXmlDepth = 32;  // an archive is at most five containers deep
constexpr qsizetype kMaxClassChain = 64;
constexpr uint64_t kBaseWorkBudget = 1'000'000;
constexpr uint64_t kWorkPerByte = 64;

enum class SlotState : uint8_t { Untouched, InProgress, Done, Failed, Damaged };

struct Slot {
    SlotState state = SlotState::Untouched;
    ClassKey classKey = 0;
    KeyedObjectPtr object;
};

enum class Outcome { Object, Nil, WrongClass, Damaged };

struct Decoded {
    Outcome outcome;
    KeyedObjectPtr object;
};

struct ClassInfo {
    bool valid = false;
    QString name;
    QStringList chain;
};

struct Frame {
    BplistObject dictionary;
    uint32_t classSlot = kNoClass;
    std::unique_ptr<QHash<QString, uint64_t>> index;
};

bool isArrayClass(const QString& name)
{
    static const QStringList names = KeyedArray::archiveClassNames();
    return names.contains(name);
}

bool isOrderedSetClass(const QString& name)
{
    return name == u"NSOrderedSet" || name == u"NSMutableOrderedSet";
}

// The generic keys of unkeyed encoding ("$0", "$1", …) are stored unescaped.
bool isGenericKey(QStringView key)
{
    if (key.size() < 2 || key[0] != u'$')
        return false;
    for (qsizetype i = 1; i < key.size(); ++i)
        if (!key[i].isDigit())
            return false;
    return true;
}

}  // namespace

struct KeyedUnarchiver::State {
    QByteArray bytes;
    BplistReader reader;
    BplistObject objects;
    uint32_t objectCount = 0;
    std::vector<Slot> denseSlots;
    std::unordered_map<uint32_t, Slot> sparseSlots;
    std::vector<Frame> frames;
    std::unordered_map<uint32_t, ClassInfo> classes;
    struct Acceptance {
        ClassNamesFn names;
        ClassKey key;
        bool accepted;
    };
    std::vector<Acceptance> acceptances;
    bool valid = false;
    uint64_t problems = 0;
    uint64_t budget = 0;
    bool exhausted = false;
    bool cycleLogged = false;

    void problem(const QString& reason, bool prefixed = true)
    {
        ++problems;
        if (problems <= kMaxLoggedProblems)
            log(prefixed ? QStringLiteral("Keyed unarchiver: ") + reason : reason);
        if (problems == kMaxLoggedProblems)
            log(QStringLiteral("Keyed unarchiver: further problems with this archive are not logged"));
    }

    bool spend(uint64_t units)
    {
        if (units <= budget) {
            budget -= units;
            return true;
        }
        if (!exhausted)
            problem(QStringLiteral("the archive asks for far more work than its size justifies; decoding stops"));
        exhausted = true;
        budget = 0;
        return false;
    }

    Slot& slotAt(uint32_t uid)
    {
        if (!denseSlots.empty())
            return denseSlots[uid];
        return sparseSlots[uid];
    }

    // Validates that every key of an object dictionary is a string.
    bool hasStringKeys(const BplistObject& dictionary)
    {
        if (!spend(dictionary.count))
            return false;
        for (uint64_t i = 0; i < dictionary.count; ++i) {
            if (!reader.object(reader.keyRef(dictionary, i)).isString()) {
                problem(QStringLiteral("a dictionary has a key that is not a string"));
                return false;
            }
        }
        return true;
    }

    void buildIndex(Frame& frame)
    {
        frame.index = std::make_unique<QHash<QString, uint64_t>>();
        frame.index->reserve(static_cast<qsizetype>(frame.dictionary.count));
        for (uint64_t i = 0; i < frame.dictionary.count; ++i) {
            const auto key = reader.string(reader.object(reader.keyRef(frame.dictionary, i)));
            if (key)
                frame.index->insert(*key, reader.valueRef(frame.dictionary, i));  // the last duplicate wins
        }
    }

    // The value reference stored under a raw (already escaped) key, or kNoRef.
    uint64_t lookupRaw(Frame& frame, QStringView key, bool extraDollar)
    {
        const BplistObject& dictionary = frame.dictionary;
        if (dictionary.count > kIndexedDictionarySize) {
            if (!frame.index)
                buildIndex(frame);
            const QString stored = extraDollar ? QLatin1Char('$') + key.toString() : key.toString();
            return frame.index->value(stored, BplistReader::kNoRef);
        }
        for (uint64_t i = dictionary.count; i-- > 0;) {
            if (reader.stringEquals(reader.object(reader.keyRef(dictionary, i)), key, extraDollar))
                return reader.valueRef(dictionary, i);
        }
        return BplistReader::kNoRef;
    }

    // The value reference for a coder key in the current object, or kNoRef.
    uint64_t lookup(QStringView key)
    {
        if (!valid)
            return BplistReader::kNoRef;
        Frame& frame = frames.back();
        if (!key.startsWith(u'$'))
            return lookupRaw(frame, key, false);
        const uint64_t escaped = lookupRaw(frame, key, true);
        if (escaped != BplistReader::kNoRef || !isGenericKey(key))
            return escaped;
        return lookupRaw(frame, key, false);
    }

    const ClassInfo& classInfo(uint32_t classSlot)
    {
        const auto known = classes.find(classSlot);
        if (known != classes.end())
            return known->second;
        ClassInfo& info = classes[classSlot];
        const BplistObject dictionary = reader.object(reader.elementRef(objects, classSlot));
        if (dictionary.type != BplistType::Dictionary || !hasStringKeys(dictionary)) {
            problem(QStringLiteral("$class refers to slot %1, which is not a class dictionary").arg(classSlot));
            return info;
        }
        Frame frame{dictionary, kNoClass, nullptr};
        const auto name = reader.string(reader.object(lookupRaw(frame, u"$classname", false)));
        if (!name || name->isEmpty()) {
            problem(QStringLiteral("the class dictionary in slot %1 has no string $classname").arg(classSlot));
            return info;
        }
        QStringList chain;
        const uint64_t chainRef = lookupRaw(frame, u"$classes", false);
        if (chainRef != BplistReader::kNoRef) {
            const BplistObject list = reader.object(chainRef);
            if (list.type != BplistType::Array || list.count > static_cast<uint64_t>(kMaxClassChain)) {
                problem(QStringLiteral("the $classes of class %1 is not a short array").arg(*name));
                return info;
            }
            for (uint64_t i = 0; i < list.count; ++i) {
                const auto entry = reader.string(reader.object(reader.elementRef(list, i)));
                if (!entry) {
                    problem(QStringLiteral("the $classes of class %1 holds a non-string").arg(*name));
                    return info;
                }
                chain.append(*entry);
            }
        }
        if (chain.isEmpty())
            chain.append(*name);
        info.name = *name;
        info.chain = std::move(chain);
        info.valid = true;
        return info;
    }

    QString classNameOf(ClassKey key)
    {
        switch (key) {
        case kInlineString:
            return QStringLiteral("NSString");
        case kInlineData:
            return QStringLiteral("NSData");
        case kInlineNumber:
            return QStringLiteral("NSNumber");
        default:
            return classInfo(key).name;
        }
    }

    bool accepts(ClassNamesFn names, ClassKey key)
    {
        for (const Acceptance& known : acceptances)
            if (known.names == names && known.key == key)
                return known.accepted;
        const bool accepted = names().contains(classNameOf(key));
        acceptances.push_back({names, key, accepted});
        return accepted;
    }

    void reportWrongClass(ClassNamesFn names, ClassKey key)
    {
        problem(QStringLiteral("expected an object of class %1 but found %2")
                    .arg(names().join(QStringLiteral(" or ")), classNameOf(key)));
    }

    void reportCycle()
    {
        if (cycleLogged)
            return;
        cycleLogged = true;
        log(QStringLiteral("Keyed unarchiver: a reference back to an object that is still being decoded "
                           "(a cycle) decodes as nil"));
    }

    // Opens the object dictionary of a slot: string keys and a valid `$class`.
    bool openObjectFrame(uint32_t uid, const BplistObject& dictionary, Frame& frame)
    {
        if (!hasStringKeys(dictionary))
            return false;
        frame.dictionary = dictionary;
        const BplistObject classRef = reader.object(lookupRaw(frame, u"$class", false));
        if (classRef.type != BplistType::UID) {
            problem(QStringLiteral("slot %1 is a dictionary without a $class reference, not an object").arg(uid));
            return false;
        }
        if (classRef.low == 0 || classRef.low >= objectCount) {
            problem(QStringLiteral("the $class of slot %1 is out of range").arg(uid));
            return false;
        }
        frame.classSlot = static_cast<uint32_t>(classRef.low);
        return classInfo(frame.classSlot).valid;
    }

    KeyedObjectPtr makeInlineValue(const BplistObject& value)
    {
        switch (value.type) {
        case BplistType::AsciiString:
        case BplistType::Utf16String: {
            auto text = reader.string(value);
            if (!text) {
                problem(QStringLiteral("a string is not well-formed UTF-16"));
                return nullptr;
            }
            return std::make_shared<KeyedString>(std::move(*text));
        }
        case BplistType::Data:
            return std::make_shared<KeyedData>(reader.data(value));
        case BplistType::Bool:
            return KeyedNumber::fromBool(value.boolValue);
        case BplistType::Real:
            if (value.width == 4)
                return KeyedNumber::fromFloat(static_cast<float>(value.real));
            return KeyedNumber::fromDouble(value.real);
        case BplistType::Integer:
            if (const auto number = value.signedValue())
                return KeyedNumber::fromSigned(*number);
            if (const auto number = value.unsignedValue())
                return KeyedNumber::fromUnsigned(*number);
            problem(QStringLiteral("an integer does not fit in 64 bits"));
            return nullptr;
        default:
            return nullptr;
        }
    }

    // A slot's class key; Damaged when the slot holds no object.
    Outcome classOfSlot(uint32_t uid, const BplistObject& value, ClassKey& key, Frame& frame)
    {
        switch (value.type) {
        case BplistType::AsciiString:
        case BplistType::Utf16String:
            if (reader.stringEquals(value, u"$null"))
                return Outcome::Nil;
            key = kInlineString;
            return Outcome::Object;
        case BplistType::Data:
            key = kInlineData;
            return Outcome::Object;
        case BplistType::Bool:
        case BplistType::Integer:
        case BplistType::Real:
            key = kInlineNumber;
            return Outcome::Object;
        case BplistType::Dictionary:
            if (!openObjectFrame(uid, value, frame))
                return Outcome::Damaged;
            key = frame.classSlot;
            return Outcome::Object;
        default:
            problem(QStringLiteral("slot %1 holds no object").arg(uid));
            return Outcome::Damaged;
        }
    }

    Decoded decodeSlot(KeyedUnarchiver& coder, uint32_t uid, ClassNamesFn names, DecodeFn decode);
};

Decoded KeyedUnarchiver::State::decodeSlot(KeyedUnarchiver& coder, uint32_t uid, ClassNamesFn names, DecodeFn decode)
{
    if (uid == 0)
        return {Outcome::Nil, nullptr};
    if (uid >= objectCount) {
        problem(QStringLiteral("a reference points past the end of $objects (%1 of %2)").arg(uid).arg(objectCount));
        return {Outcome::Damaged, nullptr};
    }
    if (!spend(1))
        return {Outcome::Damaged, nullptr};
    {
        Slot& slot = slotAt(uid);
        switch (slot.state) {
        case SlotState::Done:
            if (names && !accepts(names, slot.classKey)) {
                reportWrongClass(names, slot.classKey);
                return {Outcome::WrongClass, nullptr};
            }
            return {Outcome::Object, slot.object};
        case SlotState::InProgress:
            reportCycle();
            return {Outcome::Nil, nullptr};
        case SlotState::Failed:
            return {Outcome::Nil, nullptr};
        case SlotState::Damaged:
            return {Outcome::Damaged, nullptr};
        case SlotState::Untouched:
            break;
        }
    }

    const BplistObject value = reader.object(reader.elementRef(objects, uid));
    ClassKey key = 0;
    Frame frame;
    const Outcome kind = classOfSlot(uid, value, key, frame);
    if (kind != Outcome::Object) {
        if (kind == Outcome::Damaged)
            slotAt(uid).state = SlotState::Damaged;
        return {kind, nullptr};
    }
    if (names && !accepts(names, key)) {
        reportWrongClass(names, key);
        return {Outcome::WrongClass, nullptr};
    }

    if (key == kInlineString || key == kInlineData || key == kInlineNumber) {
        KeyedObjectPtr object = makeInlineValue(value);
        Slot& slot = slotAt(uid);
        slot.state = object ? SlotState::Done : SlotState::Damaged;
        slot.classKey = key;
        slot.object = object;
        return {object ? Outcome::Object : Outcome::Damaged, object};
    }

    DecodeFn factory = decode;
    if (!names) {
        const QString& name = classInfo(key).name;
        factory = keyed::standardFactoryForClass(name);
        if (!factory)
            factory = KeyedClassRegistry::factoryForClass(name);
        if (!factory) {
            problem(QStringLiteral("cannot decode object of class (%1)").arg(name));
            return {Outcome::WrongClass, nullptr};
        }
    }
    if (static_cast<int>(frames.size()) > kMaxDepth) {
        problem(QStringLiteral("objects are nested deeper than %1").arg(kMaxDepth));
        return {Outcome::Damaged, nullptr};
    }

    slotAt(uid).state = SlotState::InProgress;
    slotAt(uid).classKey = key;
    frames.push_back(std::move(frame));
    KeyedObjectPtr object = factory(coder);
    frames.pop_back();
    Slot& slot = slotAt(uid);
    slot.state = object ? SlotState::Done : SlotState::Failed;
    slot.object = object;
    return {object ? Outcome::Object : Outcome::Nil, object};
}

KeyedUnarchiver::KeyedUnarchiver(const QByteArray& data) : m_state(std::make_unique<State>())
{
    State& s = *m_state;
    if (data.startsWith("bplist")) {
        s.bytes = data;
    } else if (looksLikeXmlPropertyList(data)) {
        auto binary = binaryPropertyListFromXml(data, kMaxXmlDepth);
        if (!binary) {
            s.problem(QStringLiteral("the XML property list cannot be read"));
            return;
        }
        s.bytes = std::move(*binary);
    } else {
        s.problem(data.isEmpty() ? QStringLiteral("no data") : QStringLiteral("the data is not a property list"));
        return;
    }
    s.budget = kBaseWorkBudget + kWorkPerByte * static_cast<uint64_t>(s.bytes.size());
    if (!s.reader.open(s.bytes.constData(), static_cast<uint64_t>(s.bytes.size()))) {
        s.problem(QStringLiteral("the binary property list is damaged (header, trailer or offset table)"));
        return;
    }
    const BplistObject root = s.reader.object(s.reader.topObject());
    if (root.type != BplistType::Dictionary || !s.hasStringKeys(root)) {
        s.problem(QStringLiteral("the property list is not a keyed archive (its root is not a dictionary)"));
        return;
    }
    Frame rootFrame{root, kNoClass, nullptr};
    const BplistObject archiver = s.reader.object(s.lookupRaw(rootFrame, u"$archiver", false));
    if (!s.reader.stringEquals(archiver, u"NSKeyedArchiver")) {
        s.problem(QStringLiteral("$archiver is not NSKeyedArchiver"));
        return;
    }
    const BplistObject version = s.reader.object(s.lookupRaw(rootFrame, u"$version", false));
    if (version.signedValue() != 100000) {
        s.problem(QStringLiteral("$version is not 100000"));
        return;
    }
    const BplistObject top = s.reader.object(s.lookupRaw(rootFrame, u"$top", false));
    if (top.type != BplistType::Dictionary || !s.hasStringKeys(top)) {
        s.problem(QStringLiteral("$top is not a dictionary with string keys"));
        return;
    }
    s.objects = s.reader.object(s.lookupRaw(rootFrame, u"$objects", false));
    if (s.objects.type != BplistType::Array || s.objects.count < 1 || s.objects.count > kMaxObjects) {
        s.problem(QStringLiteral("$objects is not a non-empty array"));
        return;
    }
    s.objectCount = static_cast<uint32_t>(s.objects.count);
    if (s.objectCount <= kDenseSlotLimit)
        s.denseSlots.resize(s.objectCount);
    s.frames.push_back(Frame{top, kNoClass, nullptr});
    s.valid = true;
}

KeyedUnarchiver::~KeyedUnarchiver() = default;

bool KeyedUnarchiver::isValid() const
{
    return m_state->valid;
}

KeyedObjectPtr KeyedUnarchiver::unarchiveObjectWithData(const QByteArray& data)
{
    KeyedUnarchiver coder(data);
    if (!coder.isValid())
        return nullptr;
    return coder.decodeObjectForKey(QStringLiteral("root"));
}

bool KeyedUnarchiver::containsValueForKey(const QString& key) const
{
    return m_state->lookup(key) != BplistReader::kNoRef;
}

KeyedObjectPtr KeyedUnarchiver::decodeReference(const QString& key, ClassNamesFn names, DecodeFn decode)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return nullptr;
    const BplistObject value = s.reader.object(ref);
    if (value.type != BplistType::UID) {
        s.problem(QStringLiteral("the value for key '%1' is not a reference").arg(key));
        return nullptr;
    }
    return s.decodeSlot(*this, static_cast<uint32_t>(value.low), names, decode).object;
}

KeyedObjectPtr KeyedUnarchiver::decodeObjectForKey(const QString& key)
{
    return decodeReference(key, nullptr, nullptr);
}

bool KeyedUnarchiver::decodeArrayElements(const QString& key, ClassNamesFn names, DecodeFn decode,
                                          const std::function<bool(const KeyedObjectPtr&)>& sink)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return false;
    const BplistObject value = s.reader.object(ref);
    if (value.type != BplistType::UID) {
        s.problem(QStringLiteral("the value for key '%1' is not a reference").arg(key));
        return false;
    }
    const uint32_t uid = static_cast<uint32_t>(value.low);
    if (uid == 0)
        return false;
    if (uid >= s.objectCount) {
        s.problem(QStringLiteral("the array for key '%1' is out of range").arg(key));
        return false;
    }
    if (!s.spend(1))
        return false;

    // Already decoded generically: hand out its elements.
    switch (s.slotAt(uid).state) {
    case SlotState::Done: {
        auto array = std::dynamic_pointer_cast<KeyedArray>(s.slotAt(uid).object);
        if (!array) {
            s.problem(QStringLiteral("the value for key '%1' is not an array").arg(key));
            return false;
        }
        for (const ConstKeyedObjectPtr& element : array->objects()) {
            if (!sink(std::const_pointer_cast<KeyedCoding>(element))) {
                s.problem(QStringLiteral("an element of the array for key '%1' is of another class").arg(key));
                return false;
            }
        }
        return true;
    }
    case SlotState::InProgress:
        s.reportCycle();
        return false;
    case SlotState::Untouched:
        break;
    default:
        return false;
    }

    Frame frame;
    const BplistObject slotValue = s.reader.object(s.reader.elementRef(s.objects, uid));
    if (slotValue.type != BplistType::Dictionary || !s.openObjectFrame(uid, slotValue, frame)) {
        s.problem(QStringLiteral("the value for key '%1' is not an array object").arg(key));
        return false;
    }
    const QString className = s.classInfo(frame.classSlot).name;
    if (!isArrayClass(className)) {
        s.problem(QStringLiteral("the value for key '%1' is a %2, not an array").arg(key, className));
        return false;
    }
    if (static_cast<int>(s.frames.size()) > kMaxDepth) {
        s.problem(QStringLiteral("objects are nested deeper than %1").arg(kMaxDepth));
        return false;
    }

    s.slotAt(uid).state = SlotState::InProgress;
    s.frames.push_back(std::move(frame));
    // One element: true to go on. Nil elements are skipped.
    auto take = [&](uint64_t elementRef) {
        const BplistObject element = s.reader.object(elementRef);
        if (element.type != BplistType::UID) {
            s.problem(QStringLiteral("an element of the array for key '%1' is not a reference").arg(key));
            return false;
        }
        const Decoded decoded = s.decodeSlot(*this, static_cast<uint32_t>(element.low), names, decode);
        if (decoded.outcome == Outcome::Nil)
            return true;
        if (decoded.outcome != Outcome::Object)
            return false;
        if (!sink(decoded.object)) {
            s.problem(QStringLiteral("an element of the array for key '%1' is of another class").arg(key));
            return false;
        }
        return true;
    };
    bool ok = true;
    if (isOrderedSetClass(className)) {
        const uint64_t keyCount = s.frames.back().dictionary.count;
        for (uint64_t i = 0; ok && i < keyCount; ++i) {
            const uint64_t elementRef = s.lookupRaw(s.frames.back(), QStringLiteral("NS.object.%1").arg(i), false);
            if (elementRef == BplistReader::kNoRef)
                break;
            ok = take(elementRef);
        }
    } else {
        const BplistObject list = s.reader.object(s.lookupRaw(s.frames.back(), u"NS.objects", false));
        if (list.type != BplistType::Array) {
            s.problem(QStringLiteral("the array for key '%1' has no NS.objects array").arg(key));
            ok = false;
        } else if (!s.spend(list.count)) {
            ok = false;
        }
        for (uint64_t i = 0; ok && i < list.count; ++i)
            ok = take(s.reader.elementRef(list, i));
    }
    s.frames.pop_back();
    s.slotAt(uid).state = SlotState::Untouched;
    return ok;
}

std::optional<std::vector<KeyedObjectPtr>> KeyedUnarchiver::decodeArrayOfObjectsForKey(const QString& key)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return std::nullopt;
    const BplistObject list = s.reader.object(ref);
    if (list.type != BplistType::Array) {
        s.problem(QStringLiteral("the value for key '%1' is not an array of references").arg(key));
        return std::nullopt;
    }
    if (!s.spend(list.count))
        return std::nullopt;
    std::vector<KeyedObjectPtr> elements;
    elements.reserve(static_cast<size_t>(list.count));
    for (uint64_t i = 0; i < list.count; ++i) {
        const BplistObject element = s.reader.object(s.reader.elementRef(list, i));
        if (element.type != BplistType::UID) {
            s.problem(QStringLiteral("an element of the array for key '%1' is not a reference").arg(key));
            return std::nullopt;
        }
        const Decoded decoded = s.decodeSlot(*this, static_cast<uint32_t>(element.low), nullptr, nullptr);
        if (decoded.outcome == Outcome::Damaged)
            return std::nullopt;
        elements.push_back(decoded.object);
    }
    return elements;
}

std::optional<QString> KeyedUnarchiver::decodeStringForKey(const QString& key)
{
    const auto string = decodeObjectOfClass<KeyedString>(key);
    if (!string)
        return std::nullopt;
    return string->string();
}

std::optional<QUrl> KeyedUnarchiver::decodeURLForKey(const QString& key)
{
    const auto url = decodeObjectOfClass<KeyedURL>(key);
    if (!url)
        return std::nullopt;
    return url->url();
}

std::optional<QByteArray> KeyedUnarchiver::decodeDataForKey(const QString& key)
{
    const auto data = decodeObjectOfClass<KeyedData>(key);
    if (!data)
        return std::nullopt;
    return data->data();
}

std::optional<QString> KeyedUnarchiver::decodeInlineStringForKey(const QString& key)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return std::nullopt;
    const BplistObject value = s.reader.object(ref);
    auto text = s.reader.string(value);
    if (!text)
        s.problem(QStringLiteral("the value for key '%1' is not a string").arg(key));
    return text;
}

bool KeyedUnarchiver::decodeBoolForKey(const QString& key)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return false;
    const BplistObject value = s.reader.object(ref);
    if (value.type == BplistType::Bool)
        return value.boolValue;
    // Integers 0 and 1 are accepted too: some writers store booleans that way.
    const auto number = value.signedValue();
    if (number == 0 || number == 1)
        return *number == 1;
    s.problem(QStringLiteral("the value for key '%1' is not a boolean").arg(key));
    return false;
}

int64_t KeyedUnarchiver::decodeInt64ForKey(const QString& key)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return 0;
    const BplistObject value = s.reader.object(ref);
    if (value.type == BplistType::Bool)
        return value.boolValue ? 1 : 0;
    if (value.type != BplistType::Integer) {
        s.problem(QStringLiteral("the value for key '%1' is not an integer").arg(key));
        return 0;
    }
    const auto number = value.signedValue();
    if (!number) {
        s.problem(QStringLiteral("the integer for key '%1' does not fit in 64 bits").arg(key));
        return 0;
    }
    return *number;
}

int32_t KeyedUnarchiver::decodeInt32ForKey(const QString& key)
{
    const uint64_t problemsBefore = m_state->problems;
    const int64_t value = decodeInt64ForKey(key);
    if (m_state->problems != problemsBefore)
        return 0;
    if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max()) {
        m_state->problem(QStringLiteral("the integer for key '%1' does not fit in 32 bits").arg(key));
        return 0;
    }
    return static_cast<int32_t>(value);
}

double KeyedUnarchiver::decodeDoubleForKey(const QString& key)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return 0.0;
    const BplistObject value = s.reader.object(ref);
    if (value.type != BplistType::Real) {
        s.problem(QStringLiteral("the value for key '%1' is not a real number").arg(key));
        return 0.0;
    }
    return value.real;
}

float KeyedUnarchiver::decodeFloatForKey(const QString& key)
{
    const uint64_t problemsBefore = m_state->problems;
    const double value = decodeDoubleForKey(key);
    if (m_state->problems != problemsBefore)
        return 0.0f;
    if (std::isfinite(value) && std::fabs(value) > std::numeric_limits<float>::max()) {
        m_state->problem(QStringLiteral("the real number for key '%1' does not fit a float").arg(key));
        return 0.0f;
    }
    return static_cast<float>(value);
}

QByteArray KeyedUnarchiver::decodeBytesForKey(const QString& key)
{
    State& s = *m_state;
    const uint64_t ref = s.lookup(key);
    if (ref == BplistReader::kNoRef)
        return {};
    const BplistObject value = s.reader.object(ref);
    if (value.type != BplistType::Data) {
        s.problem(QStringLiteral("the value for key '%1' is not data").arg(key));
        return {};
    }
    return s.reader.data(value);
}

bool KeyedUnarchiver::hasDecodingError() const
{
    return m_state->problems > 0;
}

void KeyedUnarchiver::failWithError(const QString& reason)
{
    m_state->problem(reason, false);
}

QStringList KeyedUnarchiver::currentClassChain() const
{
    State& s = *m_state;
    if (!s.valid || s.frames.back().classSlot == kNoClass)
        return {};
    return s.classInfo(s.frames.back().classSlot).chain;
}

uint64_t KeyedUnarchiverAccess::problemCount(const KeyedUnarchiver& coder)
{
    return coder.m_state->problems;
}

}  // namespace brindle
