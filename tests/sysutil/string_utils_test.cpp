#include "sysutil/string_utils.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>

#include "support/log_capture.h"

using namespace StringUtils;

namespace {

TEST(TextForms, BytesAndDurations) {
    struct Row {
        bool bytes;
        double value;
        int precision;
        const char* expected;
    } rows[] = {
        {true, 999.9, 1, "999B"},  // cut towards zero
        {true, 1000, 2, "0.98KB"},  // the threshold is 1000, the divisor 1024
        {true, -1536, 1, "-1.5KB"},
        {false, 0.9999, 3, "999ms"},  // cut, never rounded up
        {false, 1.5, 3, "1.500s"},
        {false, 44.6, 0, "45s"},  // precision 0 rounds
        {false, 59.999, 0, "0:01:00"},  // rounding reaches a full minute
        {false, 90, 3, "0:01:30.000"},
        {false, 90061, 0, "1 day 1:01:01"},
        {false, 172800, 3, "2 days 0:00:00.000"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.bytes ? FormatBytes(row.value, row.precision) : FormatDuration(row.value, row.precision),
                  row.expected)
            << row.value << " / " << row.precision;
    }
}

TEST(HexDumps, LinesIndentsAndBufferLimits) {
    const uint8_t data[40] = {'A', 'B', 0x00, 0xFF, 'z'};
    struct Row {
        const char* name;
        int bufferSize, dataSize, perLine, indent;
        const char* expected;
    } rows[] = {
        {"one full line, indented", 256, 4, 4, 2, "  0x0000: 41 42 00 FF  AB..\n"},
        {"a short last line is filled", 256, 5, 4, 0, "0x0000: 41 42 00 FF  AB..\n0x0004: 7A           z   \n"},
        {"negative indent: bare first line", 256, 3, 2, -3, "0x0000: 41 42  AB\n   0x0002: 00     . \n"},
        {"bytes per line below one count as one", 64, 2, 0, 0, "0x0000: 41  A\n0x0001: 42  B\n"},
        {"exactly one line fits, all the data", 27, 4, 4, 0, "0x0000: 41 42 00 FF  AB..\n"},
        {"no line fits", 20, 4, 4, 0, "BUFFER TOO SMALL\n"},
        {"the notice cut to what is free", 8, 4, 4, 0, "BUFFER\n"},
        {"more data than lines", 71, 40, 4, 0,
         "0x0000: 41 42 00 FF  AB..\n0x0004: 7A 00 00 00  z...\nBUFFER TOO SMALL\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        char buffer[256];
        memset(buffer, 'X', sizeof(buffer));
        EXPECT_EQ(HexDump(buffer, row.bufferSize, data, row.dataSize, row.perLine, row.indent),
                  static_cast<int>(strlen(row.expected)));
        EXPECT_STREQ(buffer, row.expected);
    }
}

TEST(HexDumps, EmptyNullAndRefusedInputs) {
    char buffer[64];
    HexDump(buffer, sizeof(buffer), nullptr, 0, 2, 0);
    EXPECT_STREQ(buffer, "0x0000:          \n") << "an empty block still gives one line";
    const uint8_t data[1] = {};
    EXPECT_EQ(HexDump(nullptr, 10, data, 1, 4, 0), 0);
    memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(HexDump(buffer, 0, data, 1, 4, 0), 0);
    EXPECT_EQ(buffer[0], 'X') << "a size of 0 leaves the buffer alone";
    EXPECT_EQ(HexDump(buffer, 64, nullptr, 3, 4, 0), 0);
    EXPECT_STREQ(buffer, "") << "null data leaves a terminated, empty text";
    // A host may hand over a null blob with a length: the log line says so instead of
    // delivering whatever the dump buffer held.
    ScopedLogCapture log(LOG_VERBOSE);
    LogHex("Host::Blob()", LOG_VERBOSE, nullptr, 12);
    ASSERT_EQ(log->Lines().size(), 1u);
    EXPECT_EQ(log->Lines()[0].text, "(null)\n");
}

TEST(TimeTexts, TimeZoneText) {
    struct Row {
        DWORD id;
        LONG bias;
        const wchar_t *standard, *daylight, *expected;
    } rows[] = {
        {TIME_ZONE_ID_DAYLIGHT, -60, L"W. Europe Standard", L"W. Europe Daylight", L"W. Europe Daylight (UTC +2)"},
        {TIME_ZONE_ID_DAYLIGHT, 210, L"Newfoundland Standard Time", L"Newfoundland Daylight Time",
         L"Newfoundland Daylight Time (UTC -2:30)"},
        {TIME_ZONE_ID_STANDARD, 0, L"Coordinated Universal Time", L"", L"Coordinated Universal Time (UTC -0)"},
        {TIME_ZONE_ID_UNKNOWN, -60, L"W. Europe Standard", L"W. Europe Daylight", L""},
        {TIME_ZONE_ID_STANDARD, -60, L"", L"", L""},
    };
    for (const Row& row : rows) {
        TIME_ZONE_INFORMATION info{};
        info.Bias = row.bias;
        wcscpy(info.StandardName, row.standard);
        wcscpy(info.DaylightName, row.daylight);
        info.DaylightBias = -60;  // the daylight bias of every zone here
        EXPECT_EQ(FormatTimeZoneText(row.id, info), row.expected) << row.bias;
    }
}

TEST(StringTools, FormattingSuffixesAndLevelNames) {
    char buffer[8];
    EXPECT_EQ(FormatBuffer(buffer, sizeof(buffer), "%d", 12345), 5);
    EXPECT_EQ(FormatBuffer(buffer, sizeof(buffer), "%s", "0123456789"), 7);
    EXPECT_STREQ(buffer, "0123456");
    EXPECT_EQ(FormatBuffer(buffer, sizeof(buffer), "%s", "0123456"), 7) << "exactly full";
    EXPECT_EQ(FormatString("%s", std::string(20000, 'x').c_str()).size(), 10239u) << "cut to its 10,240 characters";
    EXPECT_TRUE(EndsWith("file.LOG", ".log", false));
    EXPECT_FALSE(EndsWith("file.LOG", ".log", true));
    EXPECT_FALSE(EndsWith("bc", "abc", true)) << "a suffix longer than the text";
    EXPECT_EQ(ParseLogLevel("warning", 5), 5u) << "no prefix match";
    EXPECT_EQ(ParseLogLevel("loud", 9), 3u) << "a default outside the levels gives INFO";
}

TEST(Conversions, Utf8AndUtf16BothWays) {
    const char* utf8 = "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\x91";  // café € and a key emoji
    const wchar_t* utf16 = L"caf\u00E9 \u20AC \U0001F511";
    EXPECT_EQ(Utf8ToWide(utf8), utf16);
    EXPECT_EQ(WideToUtf8(utf16), utf8);
    EXPECT_EQ(WideToUtf8(L""), "");
}

}  // namespace
