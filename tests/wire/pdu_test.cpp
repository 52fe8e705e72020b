// The three wire primitives and the two frames, against bytes written out by hand. What the
// encoders write is pinned by the answers they make up (response_encoder_test.cpp).
#include "wire/pdu.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "hex_bytes.h"
#include "support/log_capture.h"

namespace {

const wchar16 kAb[] = {'a', 'b', 0};

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

// A decoder run over a field; `made` shows what it stored: a number, "length:bytes" in hex or
// a string in brackets, "null" for a null pointer. A null `made` runs it without out-arguments.
using Decoder = std::function<uint32_t(const uint8_t* cursor, const uint8_t* end, std::string* made)>;

std::string Shown(const uint8_t* bytes, size_t length) {
    std::string text;
    for (size_t i = 0; bytes && i < length; ++i) text += HexWord(bytes[i]).substr(0, 2);
    return bytes ? text : "null";
}

const Decoder kUint32 = [](const uint8_t* c, const uint8_t* e, std::string* made) {
    uint32_t value = 0;
    const uint32_t taken = Decode_uint32(c, e, made ? &value : nullptr);
    if (made) *made = std::to_string(value);
    return taken;
};
const Decoder kBuf = [](const uint8_t* c, const uint8_t* e, std::string* made) {
    uint8_t* bytes = nullptr;
    uint32_t length = 99;
    const uint32_t taken = Decode_buf_uint32Len(c, e, made ? &bytes : nullptr, made ? &length : nullptr);
    if (made) *made = std::to_string(length) + ":" + Shown(bytes, length);
    WireFree(bytes);
    return taken;
};
const Decoder kWstr = [](const uint8_t* c, const uint8_t* e, std::string* made) {
    wchar16* text = reinterpret_cast<wchar16*>(1);
    const uint32_t taken = Decode_wstr(c, e, made ? &text : nullptr);
    if (!made || text == reinterpret_cast<wchar16*>(1)) return taken;
    const std::u16string units = Text(text);
    *made = text ? "[" + std::string(units.begin(), units.end()) + "]" : "null";
    WireFree(text);
    return taken;
};

TEST(WirePrimitives, DecodersAndTheirBounds) {
    struct Row {
        const char* name;
        const Decoder& decode;
        const char* wire;
        int left;  // bytes behind the cursor; -1: no end, unbounded; -2: the end below the cursor
        uint32_t taken;
        std::string made;
        const char* line;  // the one line of a failure
    } rows[] = {
        {"uint32", kUint32, "78563412", 4, 4, "305419896", nullptr},
        {"uint32 unbounded", kUint32, "78563412", -1, 4, "305419896", nullptr},
        {"uint32 of 3 bytes", kUint32, "78563412", 3, 0, "", "Decode_uint32: Buffer (0x"},
        {"uint32, end below the cursor", kUint32, "78563412", -2, 0, "", "Decode_uint32: Buffer (0x"},
        {"buf of five", kBuf, "05000000 0102030405 000000", 12, 12, "5:0102030405", nullptr},
        {"buf of five in 9 bytes", kBuf, "05000000 0102030405 000000", 9, 0, "", ", sum 12\n"},
        {"buf of five in 11 bytes", kBuf, "05000000 0102030405 000000", 11, 0, "", "Decode_buf_uint32Len: Buffer ("},
        {"empty buf", kBuf, "00000000", 4, 4, "0:null", nullptr},
        {"buf beyond 32 bits", kBuf, "FFFFFFFF 00000000", -1, 0, "", "Decode_buf_uint32Len: Buffer ("},
        {"null wstr", kWstr, "00000000", 4, 4, "null", nullptr},
        {"wstr of 1 whatever the unit", kWstr, "01000000 7800 0000", 8, 8, "[]", nullptr},
        {"zero unit inside", kWstr, "03000000 6100 0000 6200 0000", 12, 12, "[a]", nullptr},
        {"last unit forced to 0", kWstr, "02000000 6100 6200", 8, 8, "[a]", nullptr},
        {"wstr ab", kWstr, "03000000 6100 6200 0000 0000", 12, 12, "[ab]", nullptr},
        {"wstr ab cut", kWstr, "03000000 6100 6200 0000 0000", 10, 0, "", "Decode_wstr: Buffer ("},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Bytes wire = HexBytes(row.wire);
        const uint8_t* end = row.left == -1 ? nullptr : row.left == -2 ? wire.data() - 1 : wire.data() + row.left;
        ScopedLogCapture log;
        std::string made;
        EXPECT_EQ(row.decode(wire.data(), end, &made), row.taken);
        if (row.taken) {
            EXPECT_EQ(made, row.made);
        }
        EXPECT_EQ(row.decode(wire.data(), end, nullptr), row.taken) << "skipping";
        if (row.line) {
            EXPECT_EQ(log->Lines().size(), 2u) << "one line each run";
            EXPECT_EQ(log->Count(row.line), 2u);
        } else {
            EXPECT_TRUE(log->Lines().empty());
        }
        log->ClearLines();
        EXPECT_EQ(row.decode(nullptr, end, &made), 0u) << "a null cursor";
        EXPECT_TRUE(log->Lines().empty()) << "fails silently";
    }
}

uint8_t* FailingAlloc(size_t, size_t) { return nullptr; }

TEST(WirePrimitives, AllocationFailureFailsWithoutALine) {
    SetWireAllocator(reinterpret_cast<WireAllocFn>(FailingAlloc), nullptr);
    ScopedLogCapture log;
    const Bytes wire = HexBytes("03000000 6100 6200 0000 0000");
    std::string made;
    EXPECT_EQ(kWstr(wire.data(), wire.data() + 12, &made), 0u);
    EXPECT_EQ(made, "null");
    EXPECT_EQ(kBuf(wire.data(), wire.data() + 12, &made), 0u);
    EXPECT_EQ(made.substr(made.find(':')), ":null");
    EXPECT_EQ(AllocResponsePdu(4, 1), nullptr);
    SetWireAllocator(nullptr, nullptr);
    EXPECT_TRUE(log->Lines().empty());
}

TEST(PduFrames, CheckResponseAndDuplicate) {
    // A GetClientInfo request of id 7 with 4 bytes of data, and what lies behind them.
    const Bytes request = HexBytes("07000000 01000000 04000000 03000102 AA");
    struct Row {
        uint32_t length;
        FrameCheck check;
    } rows[] = {{0, FrameCheck::TooShort}, {11, FrameCheck::TooShort}, {15, FrameCheck::Overrun},
                {16, FrameCheck::Ok}, {17, FrameCheck::Ok}};
    for (const Row& row : rows) {
        RequestHeader header{};
        uint64_t total = 0;
        EXPECT_EQ(CheckRequestFrame(request.data(), row.length, &header, &total), row.check) << row.length;
        if (row.check != FrameCheck::TooShort) {
            EXPECT_EQ(total, 16u);
            EXPECT_EQ(header.requestId + header.fido2Cmd * 10 + header.dataLen * 100, 417u);
        }
    }
    const Bytes wraps = HexBytes("07000000 01000000 FFFFFFFF");
    uint64_t total = 0;
    EXPECT_EQ(CheckRequestFrame(wraps.data(), 12, nullptr, &total), FrameCheck::Overrun);
    EXPECT_EQ(total, 0xFFFFFFFFull + 12) << "no wrap";

    uint8_t* copy = DuplicateRequestPdu(request.data());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(Bytes(copy, copy + 16), Bytes(request.begin(), request.begin() + 16)) << "dataLen + 12 bytes";
    FreePdu(copy);
    EXPECT_EQ(DuplicateRequestPdu(nullptr), nullptr);

    // Zero-filled behind the header; here a GetClientInfo answer: requestId 7, version 1.0.0.
    uint8_t* response = AllocResponsePdu(6, 7);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(Bytes(response, response + 14), HexBytes("07000000 06000000 000000000000"));
    ASSERT_EQ(Encode_uint32(response + 8, response + 12, kClientVersion), 4u);
    EXPECT_EQ(Bytes(response, response + 12), HexBytes("07000000 06000000 00000001"));
    FreePdu(response);
    FreePdu(nullptr);
}

}  // namespace
