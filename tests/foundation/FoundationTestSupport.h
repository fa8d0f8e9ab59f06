// Helpers shared by the foundation tests: the archives in fixtures/, keyed
// archives built by hand, custom classes for object graphs, and a one-line
// rendering of decoded values.
#pragma once

#include "foundation/BplistWriter.h"
#include "foundation/KeyedCoding.h"
#include "foundation/KeyedStandard.h"
#include "media/LogCapture.h"

#include <QFile>
#include <QHash>
#include <QLocale>

#include <algorithm>
#include <atomic>
#include <optional>
#include <string>
#include <unordered_map>

namespace brindle::test {

// An archive of fixtures/ (see its README.md).
inline QByteArray fixture(const QString& name)
{
    QFile file(QStringLiteral(BRINDLE_TESTS_DIR "/foundation/fixtures/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// How many captured log lines contain the text.
inline qsizetype linesContaining(const LogCapture& log, const QString& text)
{
    return log.lines().filter(text).size();
}

// Builds keyed archives by hand, including ones our archiver never writes.
// `$objects` starts with "$null"; slot() appends a slot and answers its UID.
struct HandArchive {
    using Ref = BplistWriter::Ref;
    using Fields = std::vector<std::pair<QString, Ref>>;

    BplistWriter w;
    Ref rootRef = w.reserve();
    std::vector<Ref> objects{w.addString(QStringLiteral("$null"))};
    Fields top;

    Ref s(const QString& text) { return w.addString(text); }
    Ref uid(uint32_t value) { return w.addUID(value); }
    Ref integer(int64_t value) { return w.addInteger(value); }
    Ref array(const std::vector<Ref>& refs) { return w.addArray(refs.data(), refs.size()); }
    Ref uids(const std::vector<uint32_t>& values)
    {
        std::vector<Ref> refs;
        for (uint32_t value : values)
            refs.push_back(uid(value));
        return array(refs);
    }
    // A dictionary; `into` fills a reserved reference instead of adding one.
    Ref dict(const Fields& fields, std::optional<Ref> into = std::nullopt)
    {
        std::vector<Ref> keys, values;
        for (const auto& [key, value] : fields) {
            keys.push_back(s(key));
            values.push_back(value);
        }
        if (!into)
            return w.addDictionary(keys.data(), values.data(), keys.size());
        w.setDictionary(*into, keys.data(), values.data(), keys.size());
        return *into;
    }
    uint32_t slot(Ref object)
    {
        objects.push_back(object);
        return static_cast<uint32_t>(objects.size() - 1);
    }
    uint32_t classSlot(const QString& name)
    {
        return slot(dict({{"$classname", s(name)}, {"$classes", array({s(name), s("NSObject")})}}));
    }
    uint32_t object(uint32_t classSlot, Fields fields)
    {
        fields.push_back({"$class", uid(classSlot)});
        return slot(dict(fields));
    }
    void root(uint32_t value) { top.push_back({"root", uid(value)}); }

    // The archive; `replace` swaps (or, with kDrop, removes) top-level entries.
    static constexpr Ref kDrop = UINT32_MAX;
    QByteArray finish(const Fields& replace = {})
    {
        Fields entries = {{"$archiver", s("NSKeyedArchiver")},
                          {"$version", integer(100000)},
                          {"$top", dict(top)},
                          {"$objects", array(objects)}};
        for (const auto& [key, value] : replace) {
            auto at = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) { return entry.first == key; });
            if (at == entries.end())
                entries.push_back({key, value});
            else if (value == kDrop)
                entries.erase(at);
            else
                at->second = value;
        }
        return w.finish(dict(entries, rootRef));
    }
};

// A custom class for object graphs: fields of every scalar kind, a URL, a
// mutable array of children and a link that may share an object or close a
// cycle. It counts its instances, to show which decodes never make one.
class TestNode final : public KeyedCoding {
public:
    static inline std::atomic<int> instances{0};
    QString name;
    int64_t number = 0;
    double real = 0.0;
    float gain = 0.0f;
    bool flag = false;
    QByteArray bytes;
    QUrl url;
    std::vector<std::shared_ptr<TestNode>> children;
    std::shared_ptr<TestNode> link;

    TestNode() { ++instances; }
    TestNode(const TestNode&) = default;
    static std::shared_ptr<TestNode> named(const QString& name)
    {
        auto node = std::make_shared<TestNode>();
        node->name = name;
        return node;
    }

    QString classNameForArchive() const override { return QStringLiteral("TestNode"); }
    QStringList classChainForArchive() const override { return {"TestNode", "TestBase", "NSObject"}; }
    void encodeWithCoder(KeyedArchiver& coder) const override
    {
        coder.encodeString(name, QStringLiteral("name"));
        coder.encodeArrayOf(children, QStringLiteral("children"), true);
        coder.encodeObject(link, QStringLiteral("link"));
        coder.encodeInt64(number, QStringLiteral("number"));
        coder.encodeDouble(real, QStringLiteral("real"));
        coder.encodeFloat(gain, QStringLiteral("gain"));
        coder.encodeBool(flag, QStringLiteral("flag"));
        coder.encodeBytes(bytes, QStringLiteral("bytes"));
        coder.encodeURL(url, QStringLiteral("url"));
    }
    static QStringList archiveClassNames() { return {QStringLiteral("TestNode")}; }
    static std::shared_ptr<TestNode> initWithCoder(KeyedUnarchiver& coder)
    {
        auto node = std::make_shared<TestNode>();
        node->name = coder.decodeStringForKey(QStringLiteral("name")).value_or(QString());
        node->children = coder.decodeArrayOfClass<TestNode>(QStringLiteral("children")).value_or(node->children);
        node->link = coder.decodeObjectOfClass<TestNode>(QStringLiteral("link"));
        node->number = coder.decodeInt64ForKey(QStringLiteral("number"));
        node->real = coder.decodeDoubleForKey(QStringLiteral("real"));
        node->gain = coder.decodeFloatForKey(QStringLiteral("gain"));
        node->flag = coder.decodeBoolForKey(QStringLiteral("flag"));
        node->bytes = coder.decodeBytesForKey(QStringLiteral("bytes"));
        node->url = coder.decodeURLForKey(QStringLiteral("url")).value_or(QUrl());
        return node;
    }
};

// A stand-in for the custom classes of the fixture archives: it reads the
// fields listed for its class name, in order; a prefix marks a scalar field
// (# integer, ? boolean, ~ real), which it keeps as a number.
class RecordedObject final : public KeyedCoding {
public:
    QStringList chain;
    std::vector<std::pair<QString, ConstKeyedObjectPtr>> fields;

    static const QHash<QString, QStringList>& layouts()
    {
        static const QStringList column = {"keyPath", "stopValue"};
        static const QHash<QString, QStringList> table = {
            {"XXCustomObject", {"foo", "#bar"}},
            {"NSAttributedString", {"NSString", "NSAttributes", "NSAttributeInfo"}},
            {"NSMeasurement", {"~NS.value", "NS.unit"}},
            {"NSUnitLength", {"#NS.specifier", "NS.symbol", "NS.converter"}},
            {"NSUnitConverterLinear", {"~NS.coefficient", "~NS.constant"}},
            {"NSDateIntervalFormatter", {"#NS.dateStyle", "#NS.timeStyle", "?NS.modified", "?NS.useTemplate",
                                         "NS.dateTemplate", "NS.locale", "NS.calendar", "NS.timeZone"}},
            {"NSLocale", {"NS.identifier"}},
            {"NSCalendar", {"NS.identifier", "#NS.firstwkdy", "NS.gstartdate", "NS.timezone", "NS.locale"}},
            {"NSTimeZone", {"NS.name", "NS.data"}},
            {"JNStreamTable", {"tableID", "#rowHeader", "#replyHeader", "replyColumns", "columns"}},
            {"JNStreamTableUInt8Column", column},
            {"JNStreamTableUInt64Column", column},
            {"JNStreamTableStringColumn", column},
            {"JNStreamTablePackedValueColumn", column},
            {"JNStreamTableDictionaryColumn", {"keyPath", "keyColumn", "valueColumn"}},
        };
        return table;
    }

    static QStringList archiveClassNames() { return layouts().keys(); }
    static std::shared_ptr<RecordedObject> initWithCoder(KeyedUnarchiver& coder)
    {
        auto object = std::make_shared<RecordedObject>();
        object->chain = coder.currentClassChain();
        for (const QString& field : layouts().value(object->chain.value(0))) {
            const QChar kind = field[0];
            const QString key = QStringLiteral("#?~").contains(kind) ? field.mid(1) : field;
            ConstKeyedObjectPtr value;
            if (kind == u'#')
                value = KeyedNumber::fromSigned(coder.decodeInt64ForKey(key));
            else if (kind == u'?')
                value = KeyedNumber::fromBool(coder.decodeBoolForKey(key));
            else if (kind == u'~')
                value = KeyedNumber::fromDouble(coder.decodeDoubleForKey(key));
            else
                value = coder.decodeObjectForKey(key);
            object->fields.emplace_back(key, value);
        }
        return object;
    }
    QString classNameForArchive() const override { return chain.value(0); }
    void encodeWithCoder(KeyedArchiver&) const override {}
};

// One line for a decoded value, to compare a whole graph at once:
//   "text"  m"text" (mutable)   5  5u (unsigned)  1.5 (double)  1.5f  true
//   null (NSNull)  nil  <cafe> (data; longer than 16 bytes <N bytes: first 8…>)
//   [a, b] prefixed m, set, mset, oset or moset by flavour   {key: value}  m{…}
//   url(relative | base)  uuid(…)  date(seconds)
//   Class:Superclass:…{field: value} for recorded objects.
// With `sharing`, an object that occurs more than once is &N=… where it first
// appears and *N after, so that the rendering also shows which are one instance.
class Describer {
public:
    explicit Describer(bool sharing) : m_sharing(sharing) {}

    QString operator()(const KeyedCoding* object)
    {
        if (m_sharing)
            count(object);
        return render(object);
    }

private:
    // The objects a value shows, in order.
    static std::vector<const KeyedCoding*> children(const KeyedCoding* object)
    {
        std::vector<const KeyedCoding*> out;
        if (auto array = dynamic_cast<const KeyedArray*>(object)) {
            for (const auto& element : array->objects())
                out.push_back(element.get());
        } else if (auto dictionary = dynamic_cast<const KeyedDictionary*>(object)) {
            for (const auto& [key, value] : dictionary->entries())
                out.insert(out.end(), {key.get(), value.get()});
        } else if (auto url = dynamic_cast<const KeyedURL*>(object)) {
            out.push_back(url->baseURL().get());
        } else if (auto recorded = dynamic_cast<const RecordedObject*>(object)) {
            for (const auto& field : recorded->fields)
                out.push_back(field.second.get());
        }
        return out;
    }

    void count(const KeyedCoding* object)
    {
        if (object && !dynamic_cast<const KeyedNull*>(object) && ++m_seen[object] == 1)
            for (const KeyedCoding* child : children(object))
                count(child);
    }

    QString render(const KeyedCoding* object)
    {
        if (!object)
            return QStringLiteral("nil");
        if (!m_sharing || m_seen[object] < 2)
            return renderValue(object);
        const auto [at, first] = m_labels.try_emplace(object, static_cast<int>(m_labels.size()) + 1);
        return first ? QStringLiteral("&%1=").arg(at->second) + renderValue(object) : QStringLiteral("*%1").arg(at->second);
    }

    QString renderValue(const KeyedCoding* object)
    {
        auto shortest = [](double value) { return QString::number(value, 'g', QLocale::FloatingPointShortest); };
        if (dynamic_cast<const KeyedNull*>(object))
            return QStringLiteral("null");
        if (auto string = dynamic_cast<const KeyedString*>(object))
            return (string->isMutable() ? "m\"" : "\"") + string->string() + '"';
        if (auto data = dynamic_cast<const KeyedData*>(object)) {
            const QByteArray& bytes = data->data();
            const QString text = bytes.size() <= 16
                                     ? QString::fromLatin1(bytes.toHex())
                                     : QStringLiteral("%1 bytes: %2…").arg(bytes.size()).arg(bytes.left(8).toHex());
            return (data->isMutable() ? "m<" : "<") + text + '>';
        }
        if (auto number = dynamic_cast<const KeyedNumber*>(object)) {
            switch (number->kind()) {
            case KeyedNumber::Kind::Bool:
                return number->boolValue() ? QStringLiteral("true") : QStringLiteral("false");
            case KeyedNumber::Kind::Signed:
                return QString::number(number->int64Value());
            case KeyedNumber::Kind::Unsigned:
                return QString::number(number->unsignedValue()) + 'u';
            case KeyedNumber::Kind::Float:
                return shortest(static_cast<float>(number->doubleValue())) + 'f';
            case KeyedNumber::Kind::Double:
                break;
            }
            const QString text = shortest(number->doubleValue());
            return text.contains(u'.') || text.contains(u'e') || text.contains(u'n') ? text : text + QStringLiteral(".0");
        }
        if (auto uuid = dynamic_cast<const KeyedUUID*>(object))
            return QStringLiteral("uuid(%1)").arg(uuid->uuid().toString(QUuid::WithoutBraces));
        if (auto date = dynamic_cast<const KeyedDate*>(object))
            return QStringLiteral("date(%1)").arg(date->timeIntervalSinceReferenceDate(), 0, 'g', 17);
        QStringList parts;
        for (const KeyedCoding* child : children(object))
            parts << render(child);
        if (auto array = dynamic_cast<const KeyedArray*>(object)) {
            static const char* const prefixes[] = {"", "m", "set", "mset", "oset", "moset"};
            return prefixes[static_cast<int>(array->flavor())] + ('[' + parts.join(QStringLiteral(", ")) + ']');
        }
        if (auto url = dynamic_cast<const KeyedURL*>(object))
            return QStringLiteral("url(%1%2)").arg(url->relativeString(), url->baseURL() ? " | " + parts[0] : QString());
        QStringList pairs;
        if (auto dictionary = dynamic_cast<const KeyedDictionary*>(object)) {
            for (qsizetype i = 0; i + 1 < parts.size(); i += 2)
                pairs << parts[i] + QStringLiteral(": ") + parts[i + 1];
            return (dictionary->isMutable() ? "m{" : "{") + pairs.join(QStringLiteral(", ")) + '}';
        }
        if (auto recorded = dynamic_cast<const RecordedObject*>(object)) {
            for (size_t i = 0; i < recorded->fields.size(); ++i)
                pairs << recorded->fields[i].first + QStringLiteral(": ") + parts[static_cast<qsizetype>(i)];
            return recorded->chain.join(':') + '{' + pairs.join(QStringLiteral(", ")) + '}';
        }
        return QStringLiteral("?") + object->classNameForArchive();
    }

    bool m_sharing;
    std::unordered_map<const KeyedCoding*, int> m_seen;
    std::unordered_map<const KeyedCoding*, int> m_labels;
};

inline std::string describe(const ConstKeyedObjectPtr& object, bool sharing = true)
{
    return Describer(sharing)(object.get()).toStdString();
}

}  // namespace brindle::test
