#include "wire/pdu.h"

#include <cstdlib>
#include <cstring>

#include "logging/log.h"

namespace {

WireAllocFn allocHook = nullptr;
WireFreeFn freeHook = nullptr;

// Bytes left between cursor and end, as a signed value; a missing end means unbounded.
bool Fits(const uint8_t* cursor, const uint8_t* end, uint64_t need) {
    if (!end) return true;
    ptrdiff_t left = end - cursor;
    return left >= 0 && static_cast<uint64_t>(left) >= need;
}

void LogHead(const char* function, const char* label, const void* cursor, const void* end) {
    SY_LOG(LOG_ERROR, function, "%s: Buffer (0x%p, 0x%p)\n", label, cursor, end);
}

}  // namespace

void* WireCalloc(size_t count, size_t size) {
    return allocHook ? allocHook(count, size) : calloc(count, size);
}

void WireFree(void* block) {
    if (freeHook) {
        freeHook(block);
    } else {
        free(block);
    }
}

void SetWireAllocator(WireAllocFn alloc, WireFreeFn release) {
    allocHook = alloc;
    freeHook = release;
}

uint32_t ReadLe32(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | (static_cast<uint32_t>(at[1]) << 8) | (static_cast<uint32_t>(at[2]) << 16) |
           (static_cast<uint32_t>(at[3]) << 24);
}

void WriteLe32(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
    at[2] = static_cast<uint8_t>(value >> 16);
    at[3] = static_cast<uint8_t>(value >> 24);
}

RequestHeader ReadRequestHeader(const uint8_t* pdu) {
    return RequestHeader{ReadLe32(pdu), ReadLe32(pdu + 4), ReadLe32(pdu + 8)};
}

FrameCheck CheckRequestFrame(const uint8_t* pdu, uint32_t length, RequestHeader* header, uint64_t* total) {
    if (!pdu || length < kRequestHeaderSize) return FrameCheck::TooShort;
    const RequestHeader h = ReadRequestHeader(pdu);
    const uint64_t need = static_cast<uint64_t>(h.dataLen) + kRequestHeaderSize;
    if (header) *header = h;
    if (total) *total = need;
    return need > length ? FrameCheck::Overrun : FrameCheck::Ok;
}

size_t Wstr16Length(const wchar16* text) {
    size_t n = 0;
    if (text) {
        while (text[n] != 0) ++n;
    }
    return n;
}

uint32_t Decode_uint32(const uint8_t* cursor, const uint8_t* end, uint32_t* value) {
    if (!cursor) return 0;
    if (!Fits(cursor, end, 4)) {
        LogHead("Decode_uint32()", "Decode_uint32", cursor, end);
        return 0;
    }
    if (value) *value = ReadLe32(cursor);
    return 4;
}

uint32_t Decode_buf_uint32Len(const uint8_t* cursor, const uint8_t* end, uint8_t** bytes, uint32_t* length) {
    if (!cursor) return 0;
    if (!Fits(cursor, end, 4)) {
        LogHead("Decode_uint32()", "Decode_uint32", cursor, end);
        LogHead("Decode_buf_uint32Len()", "Decode_buf_uint32Len", cursor, end);
        return 0;
    }
    const uint32_t n = ReadLe32(cursor);
    const uint64_t total = 4 + Pad4(n);
    if (!Fits(cursor, end, total) || total > UINT32_MAX) {
        SY_LOG(LOG_ERROR, "Decode_buf_uint32Len()", "%s: Buffer (%p, %p), sum %u\n", "Decode_buf_uint32Len",
               static_cast<const void*>(cursor), static_cast<const void*>(end), static_cast<unsigned>(total));
        return 0;
    }
    if (bytes && n != 0) {
        auto* copy = static_cast<uint8_t*>(WireCalloc(n, 1));
        *bytes = copy;
        if (!copy) return 0;
        memcpy(copy, cursor + 4, n);
    }
    if (length) *length = n;
    return static_cast<uint32_t>(total);
}

uint32_t Decode_wstr(const uint8_t* cursor, const uint8_t* end, wchar16** text) {
    if (!cursor) return 0;
    if (!Fits(cursor, end, 4)) {
        LogHead("Decode_uint32()", "Decode_uint32", cursor, end);
        LogHead("Decode_wstr()", "Decode_wstr", cursor, end);
        return 0;
    }
    const uint32_t count = ReadLe32(cursor);
    const uint64_t total = 4 + Pad4(2ULL * count);
    if (!Fits(cursor, end, total) || total > UINT32_MAX) {
        SY_LOG(LOG_ERROR, "Decode_wstr()", "%s: Buffer (%p, %p), sum %d\n", "Decode_wstr",
               static_cast<const void*>(cursor), static_cast<const void*>(end), static_cast<int>(total));
        return 0;
    }
    if (!text) return static_cast<uint32_t>(total);
    if (count == 0) {
        *text = nullptr;
        return static_cast<uint32_t>(total);
    }
    auto* copy = static_cast<wchar16*>(WireCalloc(count, sizeof(wchar16)));
    *text = copy;
    if (!copy) return 0;
    // Like wcsncpy of count - 1 units: a zero unit ends the text early, the rest stays zero,
    // and the last unit is always the terminator.
    const uint8_t* units = cursor + 4;
    for (uint32_t i = 0; i + 1 < count; ++i) {
        wchar16 unit = static_cast<wchar16>(units[2 * i] | (units[2 * i + 1] << 8));
        if (unit == 0) break;
        copy[i] = unit;
    }
    copy[count - 1] = 0;
    return static_cast<uint32_t>(total);
}

uint32_t Encode_uint32(uint8_t* cursor, const uint8_t* end, uint32_t value) {
    if (!cursor) return 4;
    if (!Fits(cursor, end, 4)) {
        LogHead("Encode_uint32()", "Encode_uint32", cursor, end);
        return 0;
    }
    WriteLe32(cursor, value);
    return 4;
}

uint32_t Encode_buf(uint8_t* cursor, const uint8_t* end, const uint8_t* bytes, uint32_t length) {
    const uint64_t total = 4 + Pad4(length);
    if (total > UINT32_MAX) return 0;
    if (!cursor) return static_cast<uint32_t>(total);
    if (!Fits(cursor, end, 4)) {
        LogHead("Encode_buf()", "Encode_buf", cursor, end);
        return 0;
    }
    WriteLe32(cursor, length);
    if (!Fits(cursor, end, total)) {
        SY_LOG(LOG_ERROR, "Encode_buf()", "%s: Buffer (%p, %p), sum %u\n", "Encode_buf",
               static_cast<const void*>(cursor), static_cast<const void*>(end), static_cast<unsigned>(total));
        return 0;
    }
    if (length == 0) return static_cast<uint32_t>(total);
    if (!bytes) {
        SY_LOG(LOG_ERROR, "Encode_buf()", "%s: size=%u, bp is NULL\n", "Encode_buf", length);
        return 0;
    }
    memcpy(cursor + 4, bytes, length);
    return static_cast<uint32_t>(total);
}

uint32_t Encode_wstr(uint8_t* cursor, const uint8_t* end, const wchar16* text) {
    if (cursor && !Fits(cursor, end, 4)) {
        LogHead("Encode_wstr()", "Encode_wstr", cursor, end);
        return 0;
    }
    const uint64_t count = text ? Wstr16Length(text) + 1 : 0;
    const uint64_t total = 4 + Pad4(2 * count);
    if (total > UINT32_MAX) return 0;
    if (!cursor) return static_cast<uint32_t>(total);
    WriteLe32(cursor, static_cast<uint32_t>(count));
    if (!Fits(cursor, end, total)) {
        SY_LOG(LOG_ERROR, "Encode_wstr()", "%s: Buffer (0x%p, 0x%p), len(including terminator) %u\n", "Encode_wstr",
               static_cast<void*>(cursor), static_cast<const void*>(end), static_cast<unsigned>(count));
        return 0;
    }
    for (uint64_t i = 0; i < count; ++i) {
        uint16_t unit = static_cast<uint16_t>(text[i]);
        cursor[4 + 2 * i] = static_cast<uint8_t>(unit);
        cursor[5 + 2 * i] = static_cast<uint8_t>(unit >> 8);
    }
    return static_cast<uint32_t>(total);
}

uint8_t* AllocResponsePdu(uint32_t dataLen, uint32_t requestId) {
    const uint64_t total = static_cast<uint64_t>(dataLen) + kResponseHeaderSize;
    if (total > SIZE_MAX) return nullptr;
    auto* pdu = static_cast<uint8_t*>(WireCalloc(static_cast<size_t>(total), 1));
    if (!pdu) return nullptr;
    WriteLe32(pdu, requestId);
    WriteLe32(pdu + 4, dataLen);
    return pdu;
}

uint8_t* DuplicateRequestPdu(const uint8_t* request) {
    if (!request) return nullptr;
    const uint64_t total = static_cast<uint64_t>(ReadLe32(request + 8)) + kRequestHeaderSize;
    if (total > SIZE_MAX) return nullptr;
    auto* copy = static_cast<uint8_t*>(WireCalloc(static_cast<size_t>(total), 1));
    if (copy) memcpy(copy, request, static_cast<size_t>(total));
    return copy;
}

void FreePdu(uint8_t* pdu) { WireFree(pdu); }
