// The Foundation value classes that keyed archives hold, as plain values.
//
// Contract
// - Each class is a KeyedCoding, decodable with decodeObjectOfClass<T>, and is
//   what generic decoding (`decodeObjectForKey`, `unarchiveObjectWithData`)
//   produces for the Foundation class names it lists in archiveClassNames().
// - KeyedString, KeyedNumber and immutable KeyedData are stored inline in their
//   `$objects` slot; the mutable string and data are `{NS.string}` /
//   `{NS.data}` objects. Collections never hold nil: null elements are skipped.
// - Objects are immutable once shared with an archiver; the collection setters
//   exist for building a graph before it is archived.
// - A decoded object keeps the Foundation class it was read as (array flavour,
//   mutability), so writing it again records the same class.
#pragma once

#include "foundation/KeyedCoding.h"

#include <QDateTime>
#include <QUuid>

namespace brindle {

// NSString / NSMutableString.
class KeyedString final : public KeyedCoding {
public:
    KeyedString() = default;
    explicit KeyedString(QString string, bool mutableString = false)
        : m_string(std::move(string)), m_mutable(mutableString)
    {
    }

    const QString& string() const { return m_string; }
    bool isMutable() const { return m_mutable; }

    QString classNameForArchive() const override;
    QStringList classChainForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedString> initWithCoder(KeyedUnarchiver& coder);

private:
    QString m_string;
    bool m_mutable = false;
};

// NSData / NSMutableData.
class KeyedData final : public KeyedCoding {
public:
    KeyedData() = default;
    explicit KeyedData(QByteArray data, bool mutableData = false) : m_data(std::move(data)), m_mutable(mutableData) {}

    const QByteArray& data() const { return m_data; }
    bool isMutable() const { return m_mutable; }

    QString classNameForArchive() const override;
    QStringList classChainForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedData> initWithCoder(KeyedUnarchiver& coder);

private:
    QByteArray m_data;
    bool m_mutable = false;
};

// NSNumber: a boolean, a signed or unsigned 64-bit integer, or a real (float
// or double; a float is written as a 4-byte real). Conversions between kinds
// behave like NSNumber's accessors (C casts).
class KeyedNumber final : public KeyedCoding {
public:
    enum class Kind { Bool, Signed, Unsigned, Float, Double };

    KeyedNumber() = default;
    static std::shared_ptr<KeyedNumber> fromBool(bool value);
    static std::shared_ptr<KeyedNumber> fromSigned(int64_t value);
    static std::shared_ptr<KeyedNumber> fromUnsigned(uint64_t value);
    static std::shared_ptr<KeyedNumber> fromFloat(float value);
    static std::shared_ptr<KeyedNumber> fromDouble(double value);

    Kind kind() const { return m_kind; }
    bool isReal() const { return m_kind == Kind::Float || m_kind == Kind::Double; }
    bool boolValue() const;
    int64_t int64Value() const;
    uint64_t unsignedValue() const;
    double doubleValue() const;

    QString classNameForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    // NSNumber is never an object dictionary in a keyed archive: always null.
    static std::shared_ptr<KeyedNumber> initWithCoder(KeyedUnarchiver& coder);

private:
    Kind m_kind = Kind::Signed;
    int64_t m_signed = 0;
    uint64_t m_unsigned = 0;
    double m_real = 0.0;
};

// NSArray, NSMutableArray, and the sets and ordered sets, kept as an ordered
// list that remembers which of these classes it is.
class KeyedArray final : public KeyedCoding {
public:
    enum class Flavor { Array, MutableArray, Set, MutableSet, OrderedSet, MutableOrderedSet };

    KeyedArray() = default;
    explicit KeyedArray(std::vector<ConstKeyedObjectPtr> objects, Flavor flavor = Flavor::Array);

    const std::vector<ConstKeyedObjectPtr>& objects() const { return m_objects; }
    size_t count() const { return m_objects.size(); }
    // The element at `index` as a T; null when out of range or of another class.
    template <class T>
    std::shared_ptr<const T> objectAtIndex(size_t index) const
    {
        return index < m_objects.size() ? std::dynamic_pointer_cast<const T>(m_objects[index]) : nullptr;
    }
    // Appends; a null object is ignored.
    void addObject(ConstKeyedObjectPtr object);
    Flavor flavor() const { return m_flavor; }
    void setFlavor(Flavor flavor) { m_flavor = flavor; }

    QString classNameForArchive() const override;
    QStringList classChainForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedArray> initWithCoder(KeyedUnarchiver& coder);

private:
    std::vector<ConstKeyedObjectPtr> m_objects;
    Flavor m_flavor = Flavor::Array;
};

// NSDictionary / NSMutableDictionary: ordered key/value pairs. Keys are usually
// strings (KeyedString) but may be any object; string look-ups compare text,
// other keys compare by identity.
class KeyedDictionary final : public KeyedCoding {
public:
    struct Entry {
        ConstKeyedObjectPtr key;
        ConstKeyedObjectPtr value;
    };

    KeyedDictionary() = default;
    explicit KeyedDictionary(bool mutableDictionary) : m_mutable(mutableDictionary) {}

    const std::vector<Entry>& entries() const { return m_entries; }
    size_t count() const { return m_entries.size(); }
    bool isMutable() const { return m_mutable; }
    void setMutable(bool mutableDictionary) { m_mutable = mutableDictionary; }

    // The value for a string key; null when absent.
    ConstKeyedObjectPtr objectForKey(const QString& key) const;
    template <class T>
    std::shared_ptr<const T> objectOfClassForKey(const QString& key) const
    {
        return std::dynamic_pointer_cast<const T>(objectForKey(key));
    }
    // The value for any key: text for string keys, identity for others.
    ConstKeyedObjectPtr objectForKey(const ConstKeyedObjectPtr& key) const;
    // Sets or replaces the value of a key; a null value removes the key.
    void setObjectForKey(ConstKeyedObjectPtr value, const QString& key);
    void setObjectForKey(ConstKeyedObjectPtr value, ConstKeyedObjectPtr key);

    QString classNameForArchive() const override;
    QStringList classChainForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedDictionary> initWithCoder(KeyedUnarchiver& coder);

private:
    size_t indexOfKey(const KeyedCoding* key) const;
    size_t indexOfStringKey(const QString& key) const;

    std::vector<Entry> m_entries;
    bool m_mutable = false;
};

// NSURL: a relative string, optionally against a base URL.
class KeyedURL final : public KeyedCoding {
public:
    KeyedURL() = default;
    // A URL without base: its whole encoded string is the relative part.
    explicit KeyedURL(const QUrl& url);
    KeyedURL(QString relative, std::shared_ptr<const KeyedURL> base)
        : m_relative(std::move(relative)), m_base(std::move(base))
    {
    }

    const QString& relativeString() const { return m_relative; }
    const std::shared_ptr<const KeyedURL>& baseURL() const { return m_base; }
    // The absolute URL: the relative string resolved against the base.
    QUrl url() const;

    QString classNameForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedURL> initWithCoder(KeyedUnarchiver& coder);

private:
    QString m_relative;
    std::shared_ptr<const KeyedURL> m_base;
};

// NSNull.
class KeyedNull final : public KeyedCoding {
public:
    // One shared instance, so that every NSNull of a graph is one slot.
    static std::shared_ptr<const KeyedNull> null();

    QString classNameForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedNull> initWithCoder(KeyedUnarchiver& coder);
};

// NSUUID: 16 bytes in `NS.uuidbytes`.
class KeyedUUID final : public KeyedCoding {
public:
    KeyedUUID() = default;
    explicit KeyedUUID(const QUuid& uuid) : m_uuid(uuid) {}

    const QUuid& uuid() const { return m_uuid; }

    QString classNameForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedUUID> initWithCoder(KeyedUnarchiver& coder);

private:
    QUuid m_uuid;
};

// NSDate: seconds since 2001-01-01T00:00:00Z in `NS.time`.
class KeyedDate final : public KeyedCoding {
public:
    KeyedDate() = default;
    explicit KeyedDate(double timeIntervalSinceReferenceDate) : m_time(timeIntervalSinceReferenceDate) {}
    static std::shared_ptr<KeyedDate> fromDateTime(const QDateTime& dateTime);

    double timeIntervalSinceReferenceDate() const { return m_time; }
    // Millisecond precision, UTC.
    QDateTime dateTime() const;

    QString classNameForArchive() const override;
    void encodeWithCoder(KeyedArchiver& coder) const override;
    static QStringList archiveClassNames();
    static std::shared_ptr<KeyedDate> initWithCoder(KeyedUnarchiver& coder);

private:
    double m_time = 0.0;
};

namespace keyed {

// The decoder that generic decoding uses for a standard Foundation class
// name, or null when the name is not one of them.
KeyedClassRegistry::Factory standardFactoryForClass(const QString& className);

}  // namespace keyed

}  // namespace brindle
