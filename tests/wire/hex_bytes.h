// Byte vectors written out by hand as hex text, blanks and '|' between bytes for reading, and
// the plain forms in which tests compare what a decoder made of them.
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

// A little-endian word as hex text, for vectors whose words vary by row.
inline std::string HexWord(uint32_t v) {
    char text[12];
    snprintf(text, sizeof(text), "%02X%02X%02X%02X", v & 0xFF, (v >> 8) & 0xFF, (v >> 16) & 0xFF, v >> 24);
    return text;
}

// A decoded wide string, empty for null.
template <class Unit>
std::u16string Text(const Unit* text) {
    std::u16string s;
    for (size_t i = 0; text && text[i]; ++i) s += static_cast<char16_t>(text[i]);
    return s;
}

// A decoded byte field, empty for null.
inline Bytes Data(const void* bytes, uint32_t length) {
    auto* p = static_cast<const uint8_t*>(bytes);
    return p ? Bytes(p, p + length) : Bytes();
}
