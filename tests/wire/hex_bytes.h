// Byte vectors written out by hand as hex text, blanks and '|' between bytes for reading.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline Bytes HexBytes(const std::string& text) {
    std::string digits;
    for (char c : text)
        if (c != ' ' && c != '|' && c != '\n') digits += c;
    if (digits.size() % 2) abort();  // an odd digit is a typo in the vector
    Bytes bytes;
    for (size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

inline std::string HexWord(uint32_t v) {
    char text[12];
    snprintf(text, sizeof(text), "%02X%02X%02X%02X", v & 0xFF, (v >> 8) & 0xFF, (v >> 16) & 0xFF, v >> 24);
    return text;
}
