// Slots, frames and class dictionaries of the keyed unarchiver. Each
// `$objects` slot is decoded at most once (memoised by UID); a slot that is
// being decoded when it is referenced again is a cycle and decodes as nil.
// Decoding recurses once per object level, capped at kMaxDepth, and a work
// budget proportional to the archive's size stops archives that share one
// large property-list object between many slots from multiplying the work.
#include "foundation/KeyedUnarchiverState.h"

#include "foundation/KeyedStandard.h"
#include "foundation/Log.h"

namespace brindle {

using namespace unarchiving;

namespace {

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

void KeyedUnarchiver::State::problem(const QString& reason, bool prefixed)
{
    ++problems;
    if (problems <= kMaxLoggedProblems)
        log(prefixed ? QStringLiteral("Keyed unarchiver: ") + reason : reason);
    if (problems == kMaxLoggedProblems)
        log(QStringLiteral("Keyed unarchiver: further problems with this archive are not logged"));
}

bool KeyedUnarchiver::State::spend(uint64_t units)
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

Slot& KeyedUnarchiver::State::slotAt(uint32_t uid)
{
    if (!denseSlots.empty())
        return denseSlots[uid];
    return sparseSlots[uid];
}

bool KeyedUnarchiver::State::hasStringKeys(const BplistObject& dictionary)
{
    if (!spend(dictionary.count))
        return false;
    for (uint64_t i = 0; i < dictionary.count; ++i) {
        if (!keyObject(reader.keyRef(dictionary, i)).isString()) {
            problem(QStringLiteral("a dictionary has a key that is not a string"));
            return false;
        }
    }
    return true;
}

void KeyedUnarchiver::State::buildIndex(Frame& frame)
{
    frame.index = std::make_unique<QHash<QString, uint64_t>>();
    frame.index->reserve(static_cast<qsizetype>(frame.dictionary.count));
    for (uint64_t i = 0; i < frame.dictionary.count; ++i) {
        const auto key = reader.string(reader.object(reader.keyRef(frame.dictionary, i)));
        if (key)
            frame.index->insert(*key, reader.valueRef(frame.dictionary, i));  // the last duplicate wins
    }
}

BplistObject KeyedUnarchiver::State::keyObject(uint64_t ref)
{
    KeyCacheEntry& entry = keyCache[ref % keyCache.size()];
    if (entry.ref != ref) {
        entry.ref = ref;
        entry.object = reader.object(ref);
    }
    return entry.object;
}

uint64_t KeyedUnarchiver::State::lookupRaw(Frame& frame, QStringView key, bool extraDollar)
{
    const BplistObject& dictionary = frame.dictionary;
    if (dictionary.count > kIndexedDictionarySize) {
        if (!frame.index)
            buildIndex(frame);
        const QString stored = extraDollar ? QLatin1Char('$') + key.toString() : key.toString();
        return frame.index->value(stored, BplistReader::kNoRef);
    }
    for (uint64_t i = dictionary.count; i-- > 0;) {
        if (reader.stringEquals(keyObject(reader.keyRef(dictionary, i)), key, extraDollar))
            return reader.valueRef(dictionary, i);
    }
    return BplistReader::kNoRef;
}

uint64_t KeyedUnarchiver::State::lookup(QStringView key)
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

const ClassInfo& KeyedUnarchiver::State::classInfo(uint32_t classSlot)
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

QString KeyedUnarchiver::State::classNameOf(ClassKey key)
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

bool KeyedUnarchiver::State::accepts(ClassNamesFn names, ClassKey key)
{
    for (const Acceptance& known : acceptances)
        if (known.names == names && known.key == key)
            return known.accepted;
    const bool accepted = names().contains(classNameOf(key));
    acceptances.push_back({names, key, accepted});
    return accepted;
}

void KeyedUnarchiver::State::reportWrongClass(ClassNamesFn names, ClassKey key)
{
    problem(QStringLiteral("expected an object of class %1 but found %2")
                .arg(names().join(QStringLiteral(" or ")), classNameOf(key)));
}

void KeyedUnarchiver::State::reportCycle()
{
    if (cycleLogged)
        return;
    cycleLogged = true;
    log(QStringLiteral("Keyed unarchiver: a reference back to an object that is still being decoded "
                       "(a cycle) decodes as nil"));
}

bool KeyedUnarchiver::State::openObjectFrame(uint32_t uid, const BplistObject& dictionary, Frame& frame)
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

KeyedObjectPtr KeyedUnarchiver::State::makeInlineValue(const BplistObject& value)
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

Outcome KeyedUnarchiver::State::classOfSlot(uint32_t uid, const BplistObject& value, ClassKey& key, Frame& frame)
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
        // The limit makes the deeper object nil; what holds it stays intact.
        problem(QStringLiteral("objects are nested deeper than %1").arg(kMaxDepth));
        return {Outcome::Nil, nullptr};
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

}  // namespace brindle
