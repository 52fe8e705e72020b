// Byte vectors written out by hand as hex text, blanks and '|' between bytes for reading.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

inline std::vector<uint8_t> HexBytes(const std::string& text) {
    std::vector<uint8_t> bytes;
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == '|' || c == '\n') continue;
        digits += c;
        if (digits.size() == 2) {
            bytes.push_back(static_cast<uint8_t>(strtoul(digits.c_str(), nullptr, 16)));
            digits.clear();
        }
    }
    if (!digits.empty()) abort();  // an odd digit is a typo in the vector
    return bytes;
}
