// Keyed archiving compatible with Foundation's NSKeyedArchiver binary
// property lists ("bplist00", `$archiver`/`$top`/`$objects`, UID references).
//
// Contract
// - Every archivable class derives from KeyedCoding, names the class it is
//   recorded as (`classNameForArchive`, plus its superclass chain ending in
//   "NSObject") and writes its fields in `encodeWithCoder`.
// - Decoding is typed: the caller says which class it expects
//   (`decodeObjectOfClass<T>`), and only then is `T::initWithCoder` run, after
//   the recorded `$classname` was checked against `T::archiveClassNames()`.
//   Nothing is instantiated by name from the archive except the standard
//   Foundation value classes (KeyedStandard.h) and classes registered with
//   `KeyedClassRegistry` (used only for generic decoding, tests and tools).
// - `initWithCoder` returns a null pointer when the object cannot be decoded;
//   the reference that asked for it then decodes as nil.
// - Damaged input never crashes, never reads outside the archive and never
//   recurses without bound: every reference, type and size is checked, objects
//   are memoised by UID, and a reference back to an object that is still being
//   decoded (a cycle) decodes as nil.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace brindle {

class KeyedArchiver;
class KeyedUnarchiver;

// Base of every object that can be written into a keyed archive.
class KeyedCoding {
public:
    virtual ~KeyedCoding() = default;

    // The `$classname` recorded for this object.
    virtual QString classNameForArchive() const = 0;
    // The `$classes` chain: this class, its superclasses, ending in "NSObject".
    // The default is { classNameForArchive(), "NSObject" }.
    virtual QStringList classChainForArchive() const;
    // Writes the object's fields into the current object of the archiver.
    virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

using KeyedObjectPtr = std::shared_ptr<KeyedCoding>;
using ConstKeyedObjectPtr = std::shared_ptr<const KeyedCoding>;

// A class that can be decoded with decodeObjectOfClass<T>: it provides
//   static QStringList archiveClassNames();            // accepted $classname values
//   static std::shared_ptr<T> initWithCoder(KeyedUnarchiver&);  // null on failure
template <class T>
concept KeyedDecodable = requires(KeyedUnarchiver& coder) {
    { T::archiveClassNames() } -> std::convertible_to<QStringList>;
    { T::initWithCoder(coder) } -> std::convertible_to<std::shared_ptr<T>>;
};

// Writes one archive. Use `archivedDataWithRootObject` for the common case;
// construct one and call `encode…ForKey` and `finishEncoding` to put several
// top-level keys into `$top`.
//
// Objects are uniqued by identity (the same instance is written once and
// referenced by UID wherever it occurs); strings are uniqued by value.
// Not thread-safe: one archiver per thread.
class KeyedArchiver {
public:
    // Objects nested deeper than this are written as nil (with a log line).
    static constexpr int kMaxDepth = 256;

    KeyedArchiver();
    ~KeyedArchiver();
    KeyedArchiver(const KeyedArchiver&) = delete;
    KeyedArchiver& operator=(const KeyedArchiver&) = delete;

    // Archives `root` under the top-level key "root". A null root writes UID 0.
    static QByteArray archivedDataWithRootObject(const ConstKeyedObjectPtr& root);
    static QByteArray archivedDataWithRootObject(const KeyedCoding& root);

    // Object references (a UID in the current object). Null writes UID 0.
    void encodeObject(const ConstKeyedObjectPtr& object, const QString& key);
    // Encodes an object that the caller owns on the stack; it is uniqued by
    // address, so it must stay alive until finishEncoding (members of the
    // object being encoded and the root do).
    void encodeObject(const KeyedCoding& object, const QString& key);
    // An inline property-list array of references to the given objects (the
    // `NS.objects` / `NS.keys` of collections). A null element is written as nil.
    void encodeArrayOfObjects(const std::vector<ConstKeyedObjectPtr>& objects, const QString& key);

    // Convenience writers for the standard Foundation value classes.
    void encodeString(const QString& value, const QString& key);          // NSString (inline)
    // A property-list string stored directly under the key, not as a
    // reference (NSMutableString's `NS.string`).
    void encodeInlineString(const QString& value, const QString& key);
    void encodeURL(const QUrl& value, const QString& key);                // NSURL; an empty URL is nil
    void encodeData(const QByteArray& value, const QString& key);         // NSData (inline)
    // NSArray (or NSMutableArray when `mutableArray`) of the given objects.
    void encodeArray(const std::vector<ConstKeyedObjectPtr>& objects, const QString& key,
                     bool mutableArray = false);
    template <class T>
    void encodeArrayOf(const std::vector<std::shared_ptr<T>>& objects, const QString& key,
                       bool mutableArray = false)
    {
        std::vector<ConstKeyedObjectPtr> list(objects.begin(), objects.end());
        encodeArray(list, key, mutableArray);
    }

    // Scalars, stored inline in the current object.
    void encodeBool(bool value, const QString& key);
    void encodeInt32(int32_t value, const QString& key);
    void encodeInt64(int64_t value, const QString& key);
    void encodeInteger(int64_t value, const QString& key) { encodeInt64(value, key); }
    void encodeFloat(float value, const QString& key);    // a real, 4 bytes
    void encodeDouble(double value, const QString& key);  // a real, 8 bytes
    void encodeBytes(const QByteArray& value, const QString& key);  // inline data

    // Closes `$top` and returns the binary property list.
    QByteArray finishEncoding();

private:
    struct State;
    std::unique_ptr<State> m_state;
    friend class KeyedArchiverAccess;
};

// Reads one archive. Construct it on the bytes; if `isValid()` the top-level
// keys of `$top` are the current object, so `decode…ForKey` reads them.
// Inside `initWithCoder` the current object is the one being decoded.
// Not thread-safe: one unarchiver per thread.
class KeyedUnarchiver {
public:
    // Objects nested deeper than this decode as nil and count as damage.
    static constexpr int kMaxDepth = KeyedArchiver::kMaxDepth;

    // Accepts the binary form and the XML form (where a one-entry dictionary
    // {"CF$UID": n} is a UID).
    explicit KeyedUnarchiver(const QByteArray& data);
    ~KeyedUnarchiver();
    KeyedUnarchiver(const KeyedUnarchiver&) = delete;
    KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

    // False when the bytes are not a well-formed keyed archive.
    bool isValid() const;

    // Decodes `$top["root"]` as a T; null on any failure.
    template <KeyedDecodable T>
    static std::shared_ptr<T> unarchivedObjectOfClass(const QByteArray& data)
    {
        KeyedUnarchiver coder(data);
        if (!coder.isValid())
            return nullptr;
        return coder.decodeObjectOfClass<T>(QStringLiteral("root"));
    }
    // Decodes `$top["root"]` generically: standard classes and registered classes only.
    static KeyedObjectPtr unarchiveObjectWithData(const QByteArray& data);

    // Whether the current object has the key (a nil object counts). Keys that
    // begin with '$' are looked up escaped, as the archiver stores them; the
    // generic keys of unkeyed encoding ("$0", "$1", …) are also found as they are.
    bool containsValueForKey(const QString& key) const;

    // A typed object reference: null when absent, nil, of another class, or damaged.
    template <KeyedDecodable T>
    std::shared_ptr<T> decodeObjectOfClass(const QString& key)
    {
        return std::dynamic_pointer_cast<T>(decodeReference(key, &T::archiveClassNames, &decodeThunk<T>));
    }
    // An NSArray/NSMutableArray whose elements are all decodable as T. Elements
    // that decode as nil are skipped (a collection never holds nil); nullopt
    // when the key is absent, not an array, or an element is of another class.
    template <KeyedDecodable T>
    std::optional<std::vector<std::shared_ptr<T>>> decodeArrayOfClass(const QString& key)
    {
        std::vector<std::shared_ptr<T>> out;
        bool ok = decodeArrayElements(key, &T::archiveClassNames, &decodeThunk<T>,
                                      [&](const KeyedObjectPtr& element) {
                                          auto typed = std::dynamic_pointer_cast<T>(element);
                                          if (!typed)
                                              return false;
                                          out.push_back(std::move(typed));
                                          return true;
                                      });
        if (!ok)
            return std::nullopt;
        return out;
    }

    // Generic reference: standard value classes and registered classes only.
    KeyedObjectPtr decodeObjectForKey(const QString& key);
    // The inline property-list array of references under the key (a
    // collection's `NS.objects` / `NS.keys`), decoded generically. Elements
    // that are nil, or of a class that cannot be decoded, are null entries so
    // that parallel arrays stay aligned. nullopt when absent or damaged.
    std::optional<std::vector<KeyedObjectPtr>> decodeArrayOfObjectsForKey(const QString& key);

    // Convenience readers for the standard value classes (NSString or
    // NSMutableString, NSURL, NSData or NSMutableData). nullopt when absent,
    // nil or of another type; a URL also when its string or its base does
    // not parse (logged, and marked as damage).
    std::optional<QString> decodeStringForKey(const QString& key);
    std::optional<QUrl> decodeURLForKey(const QString& key);
    std::optional<QByteArray> decodeDataForKey(const QString& key);
    // A property-list string stored directly under the key (NSMutableString's
    // `NS.string`); nullopt when absent or not a string.
    std::optional<QString> decodeInlineStringForKey(const QString& key);

    // Scalars. Missing keys give false / 0 / 0.0 / empty, like Foundation.
    // A value of the wrong kind (a real where an integer is expected, a UID where
    // a scalar is expected, an integer that does not fit) gives the default and
    // marks the unarchiver as having met damage (`hasDecodingError`).
    // Integer readers take any stored integer that fits, and a boolean as 0/1;
    // the boolean reader also takes the integers 0 and 1; real readers take
    // 4- and 8-byte reals (a float reader refuses a double beyond float range).
    bool decodeBoolForKey(const QString& key);
    int32_t decodeInt32ForKey(const QString& key);
    int64_t decodeInt64ForKey(const QString& key);
    int64_t decodeIntegerForKey(const QString& key) { return decodeInt64ForKey(key); }
    float decodeFloatForKey(const QString& key);
    double decodeDoubleForKey(const QString& key);
    QByteArray decodeBytesForKey(const QString& key);

    // True once any decode met a value of the wrong kind or a bad reference.
    bool hasDecodingError() const;
    // Lets an initWithCoder report that its own checks failed.
    void failWithError(const QString& reason);
    // The class chain (`$classes`, or just `$classname`) of the object being decoded.
    QStringList currentClassChain() const;

private:
    using ClassNamesFn = QStringList (*)();
    using DecodeFn = KeyedObjectPtr (*)(KeyedUnarchiver&);

    template <class T>
    static KeyedObjectPtr decodeThunk(KeyedUnarchiver& coder)
    {
        return T::initWithCoder(coder);
    }

    KeyedObjectPtr decodeReference(const QString& key, ClassNamesFn names, DecodeFn decode);
    bool decodeArrayElements(const QString& key, ClassNamesFn names, DecodeFn decode,
                             const std::function<bool(const KeyedObjectPtr&)>& sink);

    struct State;
    std::unique_ptr<State> m_state;
    friend class KeyedUnarchiverAccess;
};

// Names that generic decoding (`decodeObjectForKey`, `unarchiveObjectWithData`)
// may instantiate besides the standard value classes. Thread-safe.
class KeyedClassRegistry {
public:
    using Factory = KeyedObjectPtr (*)(KeyedUnarchiver&);
    static void registerClass(const QString& className, Factory factory);
    template <KeyedDecodable T>
    static void registerClass()
    {
        for (const QString& name : T::archiveClassNames())
            registerClass(name, [](KeyedUnarchiver& coder) -> KeyedObjectPtr { return T::initWithCoder(coder); });
    }
    static Factory factoryForClass(const QString& className);
};

}  // namespace brindle
