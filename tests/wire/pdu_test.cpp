// The bounds of the three wire primitives, against bytes written out by hand. What they write and
// store is pinned by whole answers and requests; the frames through the plug-in and fuzz_frame.
#include "wire/pdu.h"

#include <gtest/gtest.h>

#include <string>

#include "hex_bytes.h"
#include "support/log_capture.h"

namespace {

TEST(WirePrimitives, EncodersRefuseShortBuffersAndMissingBytes) {
    ScopedLogCapture log;
    uint8_t out[16];
    const uint8_t five[5] = {};
    const wchar16 ab[] = {'a', 'b', 0};
    const struct { uint32_t result; const char* line; size_t count; } rows[] = {  // count: lines holding `line`
        {Encode_uint32(out, out + 3, 1), "Encode_uint32: Buffer (0x", 1},
        {Encode_buf(out, out + 11, five, 5), ", sum 12\n", 1},  // the padding counts
        {Encode_wstr(out, out + 11, ab), "len(including terminator) 3\n", 1},
        {Encode_wstr(out, out + 3, ab), "Encode_wstr: Buffer (0x", 2},
        {Encode_buf(out, out + 8, nullptr, 1), "Encode_buf: size=1, bp is NULL\n", 1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.result, 0u) << row.line;
        EXPECT_EQ(log->Count(row.line), row.count) << row.line;
    }
    EXPECT_EQ(log->Lines().size(), 5u);
}

// Runs a primitive decoder (kind u: uint32, b: buf, w: wstr) with out-arguments, whatever it
// stores freed, or skipping without; the bytes taken.
uint32_t Decode(char kind, const uint8_t* cursor, const uint8_t* end, bool skip) {
    uint32_t value = 0;
    uint8_t* bytes = nullptr;
    wchar16* text = nullptr;
    const uint32_t taken = kind == 'u'   ? Decode_uint32(cursor, end, skip ? nullptr : &value)
                           : kind == 'b' ? Decode_buf_uint32Len(cursor, end, skip ? nullptr : &bytes, &value)
                                         : Decode_wstr(cursor, end, skip ? nullptr : &text);
    WireFree(bytes);
    WireFree(text);
    return taken;
}

TEST(WirePrimitives, DecodersAndTheirBounds) {
    // left: the bytes behind the cursor, -1 no end, -2 the end below the cursor; line: the one
    // line of a failure.
    const struct { char kind; const char* wire; int left; uint32_t taken; const char* line; } rows[] = {
        {'u', "78563412", 4, 4, nullptr},
        {'u', "78563412", -1, 4, nullptr},
        {'u', "78563412", 3, 0, "Decode_uint32: Buffer (0x"},
        {'u', "78563412", -2, 0, "Decode_uint32: Buffer (0x"},
        {'b', "05000000 0102030405 000000", 12, 12, nullptr},
        {'b', "05000000 0102030405 000000", 9, 0, ", sum 12\n"},
        {'b', "05000000 0102030405 000000", 11, 0, "Decode_buf_uint32Len: Buffer ("},  // short of its padding
        {'b', "FFFFFFFF 00000000", -1, 0, "Decode_buf_uint32Len: Buffer ("},  // beyond 32 bits
        {'w', "00000000", 4, 4, nullptr},
        {'w', "03000000 6100 6200 0000 0000", 12, 12, nullptr},
        {'w', "03000000 6100 6200 0000 0000", 10, 0, "Decode_wstr: Buffer ("},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.kind << " " << row.wire << " in " << row.left);
        const Bytes wire = HexBytes(row.wire);
        const uint8_t* end = row.left == -1 ? nullptr : row.left == -2 ? wire.data() - 1 : wire.data() + row.left;
        ScopedLogCapture log;
        EXPECT_EQ(Decode(row.kind, wire.data(), end, false), row.taken);
        EXPECT_EQ(Decode(row.kind, wire.data(), end, true), row.taken) << "skipping";
        EXPECT_EQ(Decode(row.kind, nullptr, end, false), 0u) << "a null cursor";
        // One line each run, none for the null cursor.
        EXPECT_EQ(log->Lines().size(), row.line ? 2u : 0u);
        EXPECT_EQ(row.line ? log->Count(row.line) : 0u, log->Lines().size());
    }
}

uint8_t* FailingAlloc(size_t, size_t) { return nullptr; }

TEST(WirePrimitives, AllocationFailureFailsWithoutALine) {
    SetWireAllocator(reinterpret_cast<WireAllocFn>(FailingAlloc), nullptr);
    ScopedLogCapture log;
    const Bytes wire = HexBytes("03000000 6100 6200 0000 0000");
    wchar16* text = reinterpret_cast<wchar16*>(1);
    uint8_t* bytes = reinterpret_cast<uint8_t*>(1);
    EXPECT_EQ(Decode_wstr(wire.data(), wire.data() + 12, &text), 0u);
    EXPECT_EQ(Decode_buf_uint32Len(wire.data(), wire.data() + 12, &bytes, nullptr), 0u);
    EXPECT_EQ(AllocResponsePdu(4, 1), nullptr);
    SetWireAllocator(nullptr, nullptr);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_TRUE(log->Lines().empty());
}

}  // namespace
