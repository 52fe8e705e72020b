#include "wire/pdu.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "support/log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;

const wchar16 kAb[] = {'a', 'b', 0};
const wchar16 kEmpty[] = {0};

TEST(WirePrimitives, EncodersByteForByte) {
    // Each writes into a buffer of exactly its measured size, pre-filled with EE so that the
    // bytes it skips show; a null cursor measures the same size.
    const uint8_t five[] = {1, 2, 3, 4, 5};
    struct Row {
        const char* name;
        std::function<uint32_t(uint8_t*, const uint8_t*)> encode;
        Bytes expected;
    } rows[] = {
        {"uint32", [](uint8_t* c, const uint8_t* e) { return Encode_uint32(c, e, 0x01020304); }, {4, 3, 2, 1}},
        {"wstr ab", [](uint8_t* c, const uint8_t* e) { return Encode_wstr(c, e, kAb); },
         {3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0xEE, 0xEE}},
        {"empty wstr", [](uint8_t* c, const uint8_t* e) { return Encode_wstr(c, e, kEmpty); },
         {1, 0, 0, 0, 0, 0, 0xEE, 0xEE}},
        {"null wstr", [](uint8_t* c, const uint8_t* e) { return Encode_wstr(c, e, nullptr); }, {0, 0, 0, 0}},
        {"buf of five", [&](uint8_t* c, const uint8_t* e) { return Encode_buf(c, e, five, 5); },
         {5, 0, 0, 0, 1, 2, 3, 4, 5, 0xEE, 0xEE, 0xEE}},
        {"empty buf, no pointer", [](uint8_t* c, const uint8_t* e) { return Encode_buf(c, e, nullptr, 0); },
         {0, 0, 0, 0}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.encode(nullptr, nullptr), row.expected.size());
        Bytes out(row.expected.size(), 0xEE);
        EXPECT_EQ(row.encode(out.data(), out.data() + out.size()), row.expected.size());
        EXPECT_EQ(out, row.expected);
    }

    // A GetClientInfo answer: requestId 7, dataLen 4, version 1.0.0.
    uint8_t* answer = AllocResponsePdu(4, 7);
    ASSERT_NE(answer, nullptr);
    ASSERT_EQ(Encode_uint32(answer + 8, answer + 12, kClientVersion), 4u);
    EXPECT_EQ(Bytes(answer, answer + 12), (Bytes{7, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 1}));
    FreePdu(answer);
}

TEST(WirePrimitives, EncodersRefuseShortBuffersAndMissingBytes) {
    ScopedLogCapture log;
    uint8_t out[16];
    const uint8_t five[5] = {};
    struct Row {
        uint32_t result;
        const char* line;
        size_t count;  // lines holding that text, of all five
    } rows[] = {
        {Encode_uint32(out, out + 3, 1), "Encode_uint32: Buffer (0x", 1},
        {Encode_buf(out, out + 11, five, 5), ", sum 12\n", 1},  // the padding counts
        {Encode_wstr(out, out + 11, kAb), "len(including terminator) 3\n", 1},
        {Encode_wstr(out, out + 3, kAb), "Encode_wstr: Buffer (0x", 2},
        {Encode_buf(out, out + 8, nullptr, 1), "Encode_buf: size=1, bp is NULL\n", 1},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.result, 0u) << row.line;
        EXPECT_EQ(log->Count(row.line), row.count) << row.line;
    }
    EXPECT_EQ(log->Lines().size(), 5u);
}

TEST(WirePrimitives, Uint32Bounds) {
    const uint8_t data[4] = {0x78, 0x56, 0x34, 0x12};
    uint32_t v = 0;
    EXPECT_EQ(Decode_uint32(data, data + 4, &v), 4u);
    EXPECT_EQ(v, 0x12345678u);
    EXPECT_EQ(Decode_uint32(data, nullptr, &v), 4u) << "no end: unbounded";
    ScopedLogCapture log;
    EXPECT_EQ(Decode_uint32(data, data + 3, &v), 0u);
    EXPECT_EQ(Decode_uint32(data + 4, data, &v), 0u) << "end below the cursor";
    EXPECT_EQ(log->Count("Decode_uint32: Buffer (0x"), 2u);
    log->ClearLines();
    EXPECT_EQ(Decode_uint32(nullptr, data, &v), 0u);
    EXPECT_TRUE(log->Lines().empty()) << "a null cursor fails silently";
    EXPECT_EQ(Decode_uint32(data, data + 4, nullptr), 4u) << "skipping";
}

TEST(WirePrimitives, BufDecoding) {
    const uint8_t wire[] = {5, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0};
    uint8_t* bytes = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(Decode_buf_uint32Len(wire, wire + 12, &bytes, &length), 12u);
    EXPECT_EQ(length, 5u);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(Bytes(bytes, bytes + 5), (Bytes{1, 2, 3, 4, 5}));
    WireFree(bytes);
    ScopedLogCapture log;
    for (int left = 9; left <= 11; ++left) {
        bytes = nullptr;
        EXPECT_EQ(Decode_buf_uint32Len(wire, wire + left, &bytes, &length), 0u) << left;
        EXPECT_EQ(bytes, nullptr);
    }
    EXPECT_EQ(log->Count("Decode_buf_uint32Len: Buffer ("), 3u);
    EXPECT_EQ(log->Count(", sum 12\n"), 3u);

    const uint8_t empty[] = {0, 0, 0, 0};
    length = 99;
    EXPECT_EQ(Decode_buf_uint32Len(empty, empty + 4, &bytes, &length), 4u);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(length, 0u);

    const uint8_t huge[] = {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
    EXPECT_EQ(Decode_buf_uint32Len(huge, huge + 8, &bytes, &length), 0u);
    EXPECT_EQ(Decode_buf_uint32Len(huge, nullptr, nullptr, nullptr), 0u) << "a total beyond 32 bits fails";
}

std::u16string Units(const wchar16* text) {
    std::u16string s;
    for (size_t i = 0; text && text[i]; ++i) s += static_cast<char16_t>(text[i]);
    return s;
}

TEST(WirePrimitives, WstrDecoding) {
    struct Row {
        Bytes wire;
        uint32_t size;
        bool isNull;
        std::u16string text;
    } rows[] = {
        {{0, 0, 0, 0}, 4, true, u""},
        {{1, 0, 0, 0, 'x', 0, 0, 0}, 8, false, u""},  // C = 1 is the empty string, whatever the unit
        {{3, 0, 0, 0, 'a', 0, 0, 0, 'b', 0, 0, 0}, 12, false, u"a"},  // a zero unit ends it early
        {{2, 0, 0, 0, 'a', 0, 'b', 0}, 8, false, u"a"},               // the last unit is forced to 0
        {{3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}, 12, false, u"ab"},
    };
    for (const Row& row : rows) {
        wchar16* text = reinterpret_cast<wchar16*>(1);
        ASSERT_EQ(Decode_wstr(row.wire.data(), row.wire.data() + row.wire.size(), &text), row.size);
        EXPECT_EQ(text == nullptr, row.isNull);
        EXPECT_EQ(Units(text), row.text);
        WireFree(text);
        EXPECT_EQ(Decode_wstr(row.wire.data(), row.wire.data() + row.wire.size(), nullptr), row.size);
    }
    ScopedLogCapture log;
    const uint8_t shortText[] = {3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0};
    wchar16* text = nullptr;
    EXPECT_EQ(Decode_wstr(shortText, shortText + sizeof(shortText), &text), 0u);
    EXPECT_EQ(log->Count("Decode_wstr: Buffer ("), 1u);
}

uint8_t* FailingAlloc(size_t, size_t) { return nullptr; }

TEST(WirePrimitives, AllocationFailureFailsWithoutALine) {
    SetWireAllocator(reinterpret_cast<WireAllocFn>(FailingAlloc), nullptr);
    ScopedLogCapture log;
    const uint8_t wire[] = {3, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0};
    wchar16* text = reinterpret_cast<wchar16*>(1);
    uint8_t* bytes = reinterpret_cast<uint8_t*>(1);
    EXPECT_EQ(Decode_wstr(wire, wire + 12, &text), 0u);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(Decode_buf_uint32Len(wire, wire + 12, &bytes, nullptr), 0u);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(AllocResponsePdu(4, 1), nullptr);
    SetWireAllocator(nullptr, nullptr);
    EXPECT_TRUE(log->Lines().empty());
}

TEST(PduFrames, ResponseAndDuplicate) {
    uint8_t* response = AllocResponsePdu(6, 0xDEADBEEF);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(ReadLe32(response), 0xDEADBEEFu);
    EXPECT_EQ(ReadLe32(response + 4), 6u);
    for (int i = 8; i < 14; ++i) EXPECT_EQ(response[i], 0) << "zero-filled";
    FreePdu(response);

    const uint8_t request[] = {7, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 3, 0, 1, 2, 0xAA};
    uint8_t* copy = DuplicateRequestPdu(request);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(Bytes(copy, copy + 16), Bytes(request, request + 16)) << "dataLen + 12 bytes, not the trailing one";
    RequestHeader header = ReadRequestHeader(copy);
    EXPECT_EQ(header.requestId, 7u);
    EXPECT_EQ(header.fido2Cmd, 1u);
    EXPECT_EQ(header.dataLen, 4u);
    FreePdu(copy);
    EXPECT_EQ(DuplicateRequestPdu(nullptr), nullptr);
    FreePdu(nullptr);
}

}  // namespace
