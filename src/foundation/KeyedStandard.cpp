#include "foundation/KeyedStandard.h"

#include "foundation/KeyedInternal.h"
#include "foundation/Log.h"

#include <QHash>

#include <cmath>
#include <limits>

namespace brindle {

using keyed::chainOf;
using keyed::firstClassName;

namespace {

// Seconds from 1970-01-01 to 2001-01-01, the reference date of NSDate.
constexpr double kReferenceDateOffset = 978307200.0;

// A real converted to an integer type without undefined behaviour: NaN is 0
// and values outside the range saturate.
template <class Integer>
Integer saturatingCast(double value)
{
    if (std::isnan(value))
        return 0;
    if (value <= static_cast<double>(std::numeric_limits<Integer>::min()))
        return std::numeric_limits<Integer>::min();
    if (value >= static_cast<double>(std::numeric_limits<Integer>::max()))
        return std::numeric_limits<Integer>::max();
    return static_cast<Integer>(value);
}

}  // namespace

// ---- KeyedString

QString KeyedString::classNameForArchive() const
{
    return m_mutable ? QStringLiteral("NSMutableString") : QStringLiteral("NSString");
}

QStringList KeyedString::classChainForArchive() const
{
    if (m_mutable)
        return chainOf({u"NSMutableString", u"NSString", u"NSObject"});
    return chainOf({u"NSString", u"NSObject"});
}

void KeyedString::encodeWithCoder(KeyedArchiver& coder) const
{
    // Only the mutable string is an object; the archiver stores NSString inline.
    coder.encodeInlineString(m_string, QStringLiteral("NS.string"));
}

QStringList KeyedString::archiveClassNames()
{
    return chainOf({u"NSString", u"NSMutableString"});
}

std::shared_ptr<KeyedString> KeyedString::initWithCoder(KeyedUnarchiver& coder)
{
    auto text = coder.decodeInlineStringForKey(QStringLiteral("NS.string"));
    if (!text) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: a string object has no NS.string text"));
        return nullptr;
    }
    const bool mutableString = firstClassName(coder.currentClassChain()) == u"NSMutableString";
    return std::make_shared<KeyedString>(std::move(*text), mutableString);
}

// ---- KeyedData

QString KeyedData::classNameForArchive() const
{
    return m_mutable ? QStringLiteral("NSMutableData") : QStringLiteral("NSData");
}

QStringList KeyedData::classChainForArchive() const
{
    if (m_mutable)
        return chainOf({u"NSMutableData", u"NSData", u"NSObject"});
    return chainOf({u"NSData", u"NSObject"});
}

void KeyedData::encodeWithCoder(KeyedArchiver& coder) const
{
    coder.encodeBytes(m_data, QStringLiteral("NS.data"));
}

QStringList KeyedData::archiveClassNames()
{
    return chainOf({u"NSData", u"NSMutableData"});
}

std::shared_ptr<KeyedData> KeyedData::initWithCoder(KeyedUnarchiver& coder)
{
    const QString key = QStringLiteral("NS.data");
    const uint64_t problemsBefore = KeyedUnarchiverAccess::problemCount(coder);
    QByteArray bytes = coder.decodeBytesForKey(key);
    if (!coder.containsValueForKey(key) || KeyedUnarchiverAccess::problemCount(coder) != problemsBefore) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: a data object has no NS.data bytes"));
        return nullptr;
    }
    const bool mutableData = firstClassName(coder.currentClassChain()) == u"NSMutableData";
    return std::make_shared<KeyedData>(std::move(bytes), mutableData);
}

// ---- KeyedNumber

std::shared_ptr<KeyedNumber> KeyedNumber::fromBool(bool value)
{
    auto number = std::make_shared<KeyedNumber>();
    number->m_kind = Kind::Bool;
    number->m_signed = value ? 1 : 0;
    return number;
}

std::shared_ptr<KeyedNumber> KeyedNumber::fromSigned(int64_t value)
{
    auto number = std::make_shared<KeyedNumber>();
    number->m_kind = Kind::Signed;
    number->m_signed = value;
    return number;
}

std::shared_ptr<KeyedNumber> KeyedNumber::fromUnsigned(uint64_t value)
{
    auto number = std::make_shared<KeyedNumber>();
    number->m_kind = Kind::Unsigned;
    number->m_unsigned = value;
    return number;
}

std::shared_ptr<KeyedNumber> KeyedNumber::fromFloat(float value)
{
    auto number = std::make_shared<KeyedNumber>();
    number->m_kind = Kind::Float;
    number->m_real = value;
    return number;
}

std::shared_ptr<KeyedNumber> KeyedNumber::fromDouble(double value)
{
    auto number = std::make_shared<KeyedNumber>();
    number->m_kind = Kind::Double;
    number->m_real = value;
    return number;
}

bool KeyedNumber::boolValue() const
{
    switch (m_kind) {
    case Kind::Bool:
    case Kind::Signed:
        return m_signed != 0;
    case Kind::Unsigned:
        return m_unsigned != 0;
    case Kind::Float:
    case Kind::Double:
        break;
    }
    return m_real != 0.0;
}

int64_t KeyedNumber::int64Value() const
{
    switch (m_kind) {
    case Kind::Bool:
    case Kind::Signed:
        return m_signed;
    case Kind::Unsigned:
        return static_cast<int64_t>(m_unsigned);
    case Kind::Float:
    case Kind::Double:
        break;
    }
    return saturatingCast<int64_t>(m_real);
}

uint64_t KeyedNumber::unsignedValue() const
{
    switch (m_kind) {
    case Kind::Bool:
    case Kind::Signed:
        return static_cast<uint64_t>(m_signed);
    case Kind::Unsigned:
        return m_unsigned;
    case Kind::Float:
    case Kind::Double:
        break;
    }
    return saturatingCast<uint64_t>(m_real);
}

double KeyedNumber::doubleValue() const
{
    switch (m_kind) {
    case Kind::Bool:
    case Kind::Signed:
        return static_cast<double>(m_signed);
    case Kind::Unsigned:
        return static_cast<double>(m_unsigned);
    case Kind::Float:
    case Kind::Double:
        break;
    }
    return m_real;
}

QString KeyedNumber::classNameForArchive() const
{
    return QStringLiteral("NSNumber");
}

void KeyedNumber::encodeWithCoder(KeyedArchiver&) const
{
    // Numbers are stored inline in their slot by the archiver; nothing to add.
}

QStringList KeyedNumber::archiveClassNames()
{
    return {QStringLiteral("NSNumber")};
}

std::shared_ptr<KeyedNumber> KeyedNumber::initWithCoder(KeyedUnarchiver& coder)
{
    coder.failWithError(QStringLiteral("Keyed unarchiver: a number stored as an object dictionary is not accepted"));
    return nullptr;
}

// ---- KeyedURL

KeyedURL::KeyedURL(const QUrl& url) : m_relative(url.toString(QUrl::FullyEncoded)) {}

QUrl KeyedURL::url() const
{
    const QUrl relative(m_relative);
    if (!m_base)
        return relative;
    return m_base->url().resolved(relative);
}

QString KeyedURL::classNameForArchive() const
{
    return QStringLiteral("NSURL");
}

void KeyedURL::encodeWithCoder(KeyedArchiver& coder) const
{
    coder.encodeObject(ConstKeyedObjectPtr(m_base), QStringLiteral("NS.base"));
    coder.encodeString(m_relative, QStringLiteral("NS.relative"));
}

QStringList KeyedURL::archiveClassNames()
{
    return {QStringLiteral("NSURL")};
}

std::shared_ptr<KeyedURL> KeyedURL::initWithCoder(KeyedUnarchiver& coder)
{
    auto relative = coder.decodeStringForKey(QStringLiteral("NS.relative"));
    if (!relative) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: a URL has no NS.relative string"));
        return nullptr;
    }
    return std::make_shared<KeyedURL>(std::move(*relative), coder.decodeObjectOfClass<KeyedURL>(QStringLiteral("NS.base")));
}

// ---- KeyedNull

namespace {

const std::shared_ptr<KeyedNull>& sharedNull()
{
    static const auto instance = std::make_shared<KeyedNull>();
    return instance;
}

}  // namespace

std::shared_ptr<const KeyedNull> KeyedNull::null()
{
    return sharedNull();
}

QString KeyedNull::classNameForArchive() const
{
    return QStringLiteral("NSNull");
}

void KeyedNull::encodeWithCoder(KeyedArchiver&) const
{
    // NSNull has no fields: only its $class is written.
}

QStringList KeyedNull::archiveClassNames()
{
    return {QStringLiteral("NSNull")};
}

std::shared_ptr<KeyedNull> KeyedNull::initWithCoder(KeyedUnarchiver&)
{
    return sharedNull();
}

// ---- KeyedUUID

QString KeyedUUID::classNameForArchive() const
{
    return QStringLiteral("NSUUID");
}

void KeyedUUID::encodeWithCoder(KeyedArchiver& coder) const
{
    coder.encodeBytes(m_uuid.toRfc4122(), QStringLiteral("NS.uuidbytes"));
}

QStringList KeyedUUID::archiveClassNames()
{
    return {QStringLiteral("NSUUID")};
}

std::shared_ptr<KeyedUUID> KeyedUUID::initWithCoder(KeyedUnarchiver& coder)
{
    const QByteArray bytes = coder.decodeBytesForKey(QStringLiteral("NS.uuidbytes"));
    if (bytes.size() != 16) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: a UUID's NS.uuidbytes is not 16 bytes"));
        return nullptr;
    }
    return std::make_shared<KeyedUUID>(QUuid::fromRfc4122(bytes));
}

// ---- KeyedDate

std::shared_ptr<KeyedDate> KeyedDate::fromDateTime(const QDateTime& dateTime)
{
    return std::make_shared<KeyedDate>(static_cast<double>(dateTime.toMSecsSinceEpoch()) / 1000.0 -
                                       kReferenceDateOffset);
}

QDateTime KeyedDate::dateTime() const
{
    const double milliseconds = (m_time + kReferenceDateOffset) * 1000.0;
    return QDateTime::fromMSecsSinceEpoch(saturatingCast<int64_t>(std::round(milliseconds)), Qt::UTC);
}

QString KeyedDate::classNameForArchive() const
{
    return QStringLiteral("NSDate");
}

void KeyedDate::encodeWithCoder(KeyedArchiver& coder) const
{
    coder.encodeDouble(m_time, QStringLiteral("NS.time"));
}

QStringList KeyedDate::archiveClassNames()
{
    return {QStringLiteral("NSDate")};
}

std::shared_ptr<KeyedDate> KeyedDate::initWithCoder(KeyedUnarchiver& coder)
{
    const QString key = QStringLiteral("NS.time");
    const uint64_t problemsBefore = KeyedUnarchiverAccess::problemCount(coder);
    const double time = coder.decodeDoubleForKey(key);
    if (!coder.containsValueForKey(key) || KeyedUnarchiverAccess::problemCount(coder) != problemsBefore) {
        coder.failWithError(QStringLiteral("Keyed unarchiver: a date has no real NS.time"));
        return nullptr;
    }
    return std::make_shared<KeyedDate>(time);
}

// ---- generic decoding of the standard classes

namespace keyed {

namespace {

template <class T>
KeyedObjectPtr decodeAs(KeyedUnarchiver& coder)
{
    return T::initWithCoder(coder);
}

template <class T>
void addFactories(QHash<QString, KeyedClassRegistry::Factory>& table)
{
    for (const QString& name : T::archiveClassNames())
        table.insert(name, &decodeAs<T>);
}

}  // namespace

KeyedClassRegistry::Factory standardFactoryForClass(const QString& className)
{
    static const QHash<QString, KeyedClassRegistry::Factory> table = [] {
        QHash<QString, KeyedClassRegistry::Factory> factories;
        addFactories<KeyedString>(factories);
        addFactories<KeyedData>(factories);
        addFactories<KeyedNumber>(factories);
        addFactories<KeyedArray>(factories);
        addFactories<KeyedDictionary>(factories);
        addFactories<KeyedURL>(factories);
        addFactories<KeyedNull>(factories);
        addFactories<KeyedUUID>(factories);
        addFactories<KeyedDate>(factories);
        return factories;
    }();
    return table.value(className, nullptr);
}

}  // namespace keyed

}  // namespace brindle
