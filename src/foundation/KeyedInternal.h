// Internal access to the coders for the standard value classes.
#pragma once

#include "foundation/KeyedCoding.h"

#include <QStringList>

#include <cstdint>
#include <initializer_list>

namespace brindle {

class KeyedUnarchiverAccess {
public:
    // How many problems the unarchiver has met so far; a decoder compares the
    // count before and after reading a field to know whether that field was bad.
    static uint64_t problemCount(const KeyedUnarchiver& coder);
};

namespace keyed {

// A class chain from literal names.
inline QStringList chainOf(std::initializer_list<const char16_t*> names)
{
    QStringList chain;
    for (const char16_t* name : names)
        chain.append(QString::fromUtf16(name));
    return chain;
}

// The class an object was archived as: the first entry of its chain.
inline QString firstClassName(const QStringList& chain)
{
    return chain.isEmpty() ? QString() : chain.front();
}

}  // namespace keyed

}  // namespace brindle
