// Internal access to the coders for the standard value classes.
#pragma once

#include "foundation/KeyedCoding.h"

#include <cstdint>

namespace brindle {

class KeyedUnarchiverAccess {
public:
    // How many problems the unarchiver has met so far; a decoder compares the
    // count before and after reading a field to know whether that field was bad.
    static uint64_t problemCount(const KeyedUnarchiver& coder);
};

}  // namespace brindle
