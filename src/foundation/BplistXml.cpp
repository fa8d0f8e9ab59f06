#include "foundation/BplistXml.h"

#include "foundation/BplistWriter.h"
#include "foundation/Log.h"

#include <plist/plist.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace brindle {

namespace {

using Ref = BplistWriter::Ref;

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

bool startsWithAt(const char* at, const char* end, const char* word)
{
    const size_t length = std::strlen(word);
    return static_cast<size_t>(end - at) >= length && std::memcmp(at, word, length) == 0;
}

// The deepest nesting of <array> and <dict> elements, counted without
// parsing: every opening tag that is not self-closing goes one level down,
// every closing tag one up. Comments or CDATA that contain such tags can only
// make the count larger, so the check stays on the safe side.
int containerNestingDepth(const QByteArray& xml)
{
    const char* at = xml.constData();
    const char* const end = at + xml.size();
    int depth = 0;
    int deepest = 0;
    while ((at = static_cast<const char*>(std::memchr(at, '<', static_cast<size_t>(end - at)))) != nullptr) {
        ++at;
        const bool closing = at < end && *at == '/';
        const char* name = closing ? at + 1 : at;
        size_t nameLength = 0;
        if (startsWithAt(name, end, "array"))
            nameLength = 5;
        else if (startsWithAt(name, end, "dict"))
            nameLength = 4;
        if (nameLength == 0)
            continue;
        const char* after = name + nameLength;
        if (after < end && (std::isalnum(static_cast<unsigned char>(*after)) || *after == '_' || *after == '-'))
            continue;  // another element whose name merely starts the same way
        const char* close = static_cast<const char*>(std::memchr(after, '>', static_cast<size_t>(end - after)));
        const bool selfClosing = close && close > after && close[-1] == '/';
        if (closing)
            depth = depth > 0 ? depth - 1 : 0;
        else if (!selfClosing)
            deepest = std::max(deepest, ++depth);
        at = close ? close : end;
    }
    return deepest;
}

// libplist keeps whether an integer was negative or a large unsigned value,
// but its API only hands out the unsigned 64-bit pattern. For the rare values
// above INT64_MAX, its binary writer tells which: an 8-byte integer is a
// negative one, a 16-byte integer an unsigned one.
bool isLargeUnsigned(plist_t node)
{
    char* binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &binary, &length);
    std::unique_ptr<char, FreeDeleter> owner(binary);
    return binary && length > 8 && static_cast<unsigned char>(binary[8]) == 0x14;
}

class Converter {
public:
    explicit Converter(int maxDepth) : m_maxDepth(maxDepth) {}

    BplistWriter writer;

    // The reference of a converted node, or nullopt when it has no binary form.
    std::optional<Ref> convert(plist_t node, int depth)
    {
        if (!node || depth > m_maxDepth)
            return std::nullopt;
        switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return writer.addBool(value != 0);
        }
        case PLIST_UINT: {
            uint64_t value = 0;
            plist_get_uint_val(node, &value);
            if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) && isLargeUnsigned(node))
                return writer.addUnsigned(value);
            return writer.addInteger(static_cast<int64_t>(value));
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return writer.addDouble(value);
        }
        case PLIST_DATE: {
            int32_t seconds = 0;
            int32_t microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            return writer.addDate(seconds + microseconds / 1e6);
        }
        case PLIST_STRING: {
            uint64_t length = 0;
            const char* text = plist_get_string_ptr(node, &length);
            if (!text || length > static_cast<uint64_t>(kMaxXmlPropertyListSize))
                return std::nullopt;
            return writer.addString(QString::fromUtf8(text, static_cast<qsizetype>(length)));
        }
        case PLIST_DATA: {
            uint64_t length = 0;
            const char* bytes = plist_get_data_ptr(node, &length);
            if (length > static_cast<uint64_t>(kMaxXmlPropertyListSize))
                return std::nullopt;
            return writer.addData(bytes, static_cast<qsizetype>(length));
        }
        case PLIST_UID: {
            uint64_t value = 0;
            plist_get_uid_val(node, &value);
            if (value > std::numeric_limits<uint32_t>::max())
                return std::nullopt;
            return writer.addUID(static_cast<uint32_t>(value));
        }
        case PLIST_ARRAY:
            return convertArray(node, depth);
        case PLIST_DICT:
            return convertDictionary(node, depth);
        default:
            return std::nullopt;
        }
    }

private:
    std::optional<Ref> convertArray(plist_t node, int depth)
    {
        std::vector<Ref> elements;
        elements.reserve(plist_array_get_size(node));
        plist_array_iter iterator = nullptr;
        plist_array_new_iter(node, &iterator);
        std::unique_ptr<void, FreeDeleter> iteratorOwner(iterator);
        for (;;) {
            plist_t item = nullptr;
            plist_array_next_item(node, iterator, &item);
            if (!item)
                break;
            const auto ref = convert(item, depth + 1);
            if (!ref)
                return std::nullopt;
            elements.push_back(*ref);
        }
        return writer.addArray(elements.data(), elements.size());
    }

    // {"CF$UID": n} is how the XML form writes a UID.
    static plist_t uidValue(plist_t node)
    {
        if (plist_dict_get_size(node) != 1)
            return nullptr;
        plist_t value = plist_dict_get_item(node, "CF$UID");
        return value && plist_get_node_type(value) == PLIST_UINT ? value : nullptr;
    }

    std::optional<Ref> convertDictionary(plist_t node, int depth)
    {
        if (plist_t value = uidValue(node)) {
            uint64_t uid = 0;
            plist_get_uint_val(value, &uid);
            if (uid > std::numeric_limits<uint32_t>::max())
                return std::nullopt;
            return writer.addUID(static_cast<uint32_t>(uid));
        }
        std::vector<Ref> keys;
        std::vector<Ref> values;
        plist_dict_iter iterator = nullptr;
        plist_dict_new_iter(node, &iterator);
        std::unique_ptr<void, FreeDeleter> iteratorOwner(iterator);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, iterator, &key, &item);
            std::unique_ptr<char, FreeDeleter> keyOwner(key);
            if (!item)
                break;
            if (!key)
                return std::nullopt;
            const auto value = convert(item, depth + 1);
            if (!value)
                return std::nullopt;
            keys.push_back(writer.addString(QString::fromUtf8(key)));
            values.push_back(*value);
        }
        return writer.addDictionary(keys.data(), values.data(), keys.size());
    }

    int m_maxDepth;
};

}  // namespace

bool looksLikeXmlPropertyList(const QByteArray& bytes)
{
    qsizetype at = 0;
    if (bytes.startsWith("\xEF\xBB\xBF"))
        at = 3;
    while (at < bytes.size() && (bytes[at] == ' ' || bytes[at] == '\t' || bytes[at] == '\r' || bytes[at] == '\n'))
        ++at;
    return at < bytes.size() && bytes[at] == '<';
}

std::optional<QByteArray> binaryPropertyListFromXml(const QByteArray& xml, int maxDepth)
{
    if (xml.size() > kMaxXmlPropertyListSize) {
        logf("XML property list: %lld bytes is more than the %lld accepted", static_cast<long long>(xml.size()),
             static_cast<long long>(kMaxXmlPropertyListSize));
        return std::nullopt;
    }
    if (containerNestingDepth(xml) > maxDepth) {
        logf("XML property list: containers are nested deeper than %d", maxDepth);
        return std::nullopt;
    }
    plist_t root = nullptr;
    // constData() is NUL-terminated, which libplist's parser relies on near the end.
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &root);
    const PlistPtr owner(root);
    if (!root) {
        log(QStringLiteral("XML property list: not a well-formed property list"));
        return std::nullopt;
    }
    Converter converter(maxDepth);
    const auto top = converter.convert(root, 0);
    if (!top) {
        log(QStringLiteral("XML property list: holds a value that a binary property list cannot express"));
        return std::nullopt;
    }
    return converter.writer.finish(*top);
}

}  // namespace brindle
