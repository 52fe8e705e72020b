// The FIDO2 PDU: request and response frames and the three wire primitives (uint32, buf,
// wstr) that every record is built from. Portable: no platform headers.
//
// Cursor convention of every encoder and decoder: (cursor, end, ...) -> bytes, 0 on failure.
// A null end means unbounded. A null cursor makes an encoder measure and a decoder fail.
// A decoder given a null out-argument skips the field: it checks bounds and returns its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// A UTF-16 code unit: wchar_t where that is 16 bits (Windows), char16_t elsewhere.
using wchar16 = std::conditional<sizeof(wchar_t) == 2, wchar_t, char16_t>::type;

constexpr uint32_t kRequestHeaderSize = 12;
constexpr uint32_t kResponseHeaderSize = 8;

enum Fido2Command : uint32_t {
    kCmdGetClientInfo = 1,
    kCmdGetWebauthnApiVersion = 2,
    kCmdMakeCredential = 3,
    kCmdGetAssertion = 4,
    kCmdCancelCurrentOperation = 5,
};

// The client's own version, major.minor.patch packed as 8.8.16 bits.
constexpr uint32_t kClientVersion = 0x01000000;

struct RequestHeader {
    uint32_t requestId;
    uint32_t fido2Cmd;
    uint32_t dataLen;
};

enum class FrameCheck {
    Ok,
    TooShort,  // null, or fewer than 12 bytes
    Overrun,   // dataLen + 12 is more than the bytes received
};
// Checks a received blob against the request frame. Bytes behind dataLen + 12 are allowed
// and ignored. `total` gets dataLen + 12, computed without wrapping.
FrameCheck CheckRequestFrame(const uint8_t* pdu, uint32_t length, RequestHeader* header, uint64_t* total);

// Reads the header of a request of at least 12 bytes.
RequestHeader ReadRequestHeader(const uint8_t* pdu);
uint32_t ReadLe32(const uint8_t* at);
void WriteLe32(uint8_t* at, uint32_t value);

// n rounded up to a multiple of 4, without wrapping.
constexpr uint64_t Pad4(uint64_t n) { return (n + 3) & ~static_cast<uint64_t>(3); }

uint32_t Decode_uint32(const uint8_t* cursor, const uint8_t* end, uint32_t* value);
uint32_t Decode_buf_uint32Len(const uint8_t* cursor, const uint8_t* end, uint8_t** bytes, uint32_t* length);
uint32_t Decode_wstr(const uint8_t* cursor, const uint8_t* end, wchar16** text);

uint32_t Encode_uint32(uint8_t* cursor, const uint8_t* end, uint32_t value);
uint32_t Encode_buf(uint8_t* cursor, const uint8_t* end, const uint8_t* bytes, uint32_t length);
uint32_t Encode_wstr(uint8_t* cursor, const uint8_t* end, const wchar16* text);

// Units before the first zero unit.
size_t Wstr16Length(const wchar16* text);

// A zero-filled response of dataLen + 8 bytes with both header words set; null if it can't
// be had. Freed with FreePdu (the heap's plain free).
uint8_t* AllocResponsePdu(uint32_t dataLen, uint32_t requestId);
// A copy of the request's dataLen + 12 bytes; null for null or on allocation failure.
uint8_t* DuplicateRequestPdu(const uint8_t* request);
void FreePdu(uint8_t* pdu);

// Allocation of the wire layer, zero-filled, null on failure. Fuzzing and tests replace it
// to reach every allocation-failure path.
using WireAllocFn = void* (*)(size_t count, size_t size);
using WireFreeFn = void (*)(void* block);
void* WireCalloc(size_t count, size_t size);
void WireFree(void* block);
void SetWireAllocator(WireAllocFn alloc, WireFreeFn release);
