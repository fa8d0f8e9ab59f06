// Turns an XML property list into the equivalent binary property list, so
// that one binary reader serves both forms. In keyed archives the XML form
// writes a UID as the one-entry dictionary {"CF$UID": n}; such a dictionary
// becomes a real UID here.
//
// The XML is parsed by libplist, whose parser recurses once per nesting level
// and fails on very deep input: documents nested deeper than `maxDepth`
// containers, or larger than kMaxXmlPropertyListSize, are refused before
// libplist sees them.
#pragma once

#include <QByteArray>

#include <optional>

namespace brindle {

constexpr qsizetype kMaxXmlPropertyListSize = 64 * 1024 * 1024;

// Whether the bytes look like an XML document (optional byte-order mark and
// white space, then '<').
bool looksLikeXmlPropertyList(const QByteArray& bytes);

// The binary form of an XML property list; nullopt when it cannot be parsed,
// is too deep or too large, or holds a value that has no binary form.
std::optional<QByteArray> binaryPropertyListFromXml(const QByteArray& xml, int maxDepth);

}  // namespace brindle
