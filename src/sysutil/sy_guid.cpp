#include "sysutil/sy_guid.h"

#include <cstdio>
#include <cstring>

Syguid::Syguid(uint64_t first, uint64_t second) {
    uint8_t bytes[16];
    memcpy(bytes, &first, 8);
    memcpy(bytes + 8, &second, 8);
    memcpy(&Data1, bytes, 4);
    memcpy(&Data2, bytes + 4, 2);
    memcpy(&Data3, bytes + 6, 2);
    memcpy(Data4, bytes + 8, 8);
}

std::string Syguid::ToString() const {
    char buffer[128];
    snprintf(buffer, sizeof(buffer), "%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X",
             static_cast<unsigned long>(Data1), Data2, Data3, Data4[0], Data4[1], Data4[2], Data4[3], Data4[4],
             Data4[5], Data4[6], Data4[7]);
    return buffer;
}
