// The few CBOR forms an attestation object needs: integers, byte and text strings, maps.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace simauth {

class Cbor {
public:
    Cbor& Int(int64_t value) {
        if (value >= 0) return Head(0, static_cast<uint64_t>(value));
        return Head(1, static_cast<uint64_t>(-(value + 1)));
    }
    Cbor& Bytes(const std::vector<uint8_t>& bytes) {
        Head(2, bytes.size());
        out.insert(out.end(), bytes.begin(), bytes.end());
        return *this;
    }
    Cbor& Text(const std::string& text) {
        Head(3, text.size());
        out.insert(out.end(), text.begin(), text.end());
        return *this;
    }
    Cbor& Map(size_t pairs) { return Head(5, pairs); }
    std::vector<uint8_t> out;

private:
    Cbor& Head(uint8_t major, uint64_t value) {
        const uint8_t m = static_cast<uint8_t>(major << 5);
        if (value < 24) {
            out.push_back(static_cast<uint8_t>(m | value));
        } else if (value <= 0xFF) {
            out.push_back(m | 24);
            out.push_back(static_cast<uint8_t>(value));
        } else if (value <= 0xFFFF) {
            out.push_back(m | 25);
            out.push_back(static_cast<uint8_t>(value >> 8));
            out.push_back(static_cast<uint8_t>(value));
        } else {
            out.push_back(m | 26);
            for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
        }
        return *this;
    }
};

}  // namespace simauth
