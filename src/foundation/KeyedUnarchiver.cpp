// The public decoding calls of the keyed unarchiver, over the state in
// KeyedUnarchiverState.h.
#include "foundation/KeyedCoding.h"

#include "foundation/BplistXml.h"
#include "foundation/KeyedInternal.h"
#include "foundation/KeyedStandard.h"
#include "foundation/KeyedUnarchiverState.h"
#include "foundation/Log.h"

#include <cmath>
#include <limits>

namespace brindle {

using namespace unarchiving;

namespace {

bool isArrayClass(const QString& name)
{
    static const QStringList names = KeyedArray::archiveClassNames();
    return names.contains(name);
}

bool isOrderedSetClass(const QString& name)
{
    return name == u"NSOrderedSet" || name == u"NSMutableOrderedSet";
}

}  // namespace

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
    // A string that does not parse as a URL would be archived again as an
    // empty one, and a base that does not parse is silently dropped when the
    // relative part is resolved against it; either is refused rather than
    // handed on as another URL. An empty string stays the empty URL.
    const QUrl resolved = url->url();
    for (const QUrl& part : {url->baseURL() ? url->baseURL()->url() : QUrl(), resolved}) {
        if (!part.isEmpty() && !part.isValid()) {
            m_state->problem(QStringLiteral("the URL for key '%1' does not parse: %2").arg(key, part.errorString()));
            return std::nullopt;
        }
    }
    return resolved;
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
