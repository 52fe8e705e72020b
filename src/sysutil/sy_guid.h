// A GUID that prints itself, for the log of the cancellation path.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/rc_object.h"

class Syguid : public RCObject {
public:
    // The 16 bytes of the GUID as two 64-bit words in memory order.
    Syguid(uint64_t first, uint64_t second);

    // Upper case, without braces: "00000000-0000-0000-0000-000000000000".
    std::string ToString() const;

    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};
