#include "sysutil/string_utils.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <regex>
#include <string>

#include "support/log_capture.h"

using namespace StringUtils;

namespace {

TEST(TextForms, FormatBytes) {
    struct Row {
        double value;
        int precision;
        const char* expected;
    } rows[] = {
        {512, 2, "512B"},        {999, 2, "999B"},           {1000, 2, "0.98KB"},
        {1024, 0, " 1KB"},       {1536, 2, "1.50KB"},        {0, 2, "0B"},
        {999.9, 1, "999B"},      {-1536, 1, "-1.5KB"},       {1048576, 1, "1.0MB"},
        {1073741824.0 * 3, 2, "3.00GB"},
        {1125899906842624.0, 1, "1.0PB"},
        {1125899906842624.0 * 4096, 0, "4096PB"},  // beyond P the number grows
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FormatBytes(row.value, row.precision), row.expected) << row.value << " / " << row.precision;
    }
}

TEST(TextForms, FormatDuration) {
    struct Row {
        double seconds;
        int precision;
        const char* expected;
    } rows[] = {
        {0.25, 3, "250ms"},
        {0, 3, "0ms"},
        {1.5, 3, "1.500s"},
        {90, 3, "0:01:30.000"},
        {172800, 3, "2 days 0:00:00.000"},
        {45, 0, "45s"},
        {86400, 0, "1 day"},
        {172800, 0, "2 days"},
        {90061, 0, "1 day 1:01:01"},
        {0.9999, 3, "999ms"},  // cut, never rounded up
        {0.125, 6, "125000us"},
        {0.5, 9, "500000000ns"},
        {0.5, 2, "0.50s"},
        {44.6, 0, "45s"},  // precision 0 rounds
        {3600, 0, "1:00:00"},
        {86400 + 0.5, 3, "1 day 0:00:00.500"},
        {59.999, -4, "0:01:00"},  // rounding reaches a full minute
    };
    for (const Row& row : rows) {
        EXPECT_EQ(FormatDuration(row.seconds, row.precision), row.expected) << row.seconds << " / " << row.precision;
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
}

TEST(HexDumps, LoggedNullDataIsOneDefinedLine) {
    // A host may hand over a null blob with a length: the log line says so instead of
    // delivering whatever the dump buffer held.
    ScopedLogCapture log(LOG_VERBOSE);
    LogHex("Host::Blob()", LOG_VERBOSE, nullptr, 12);
    ASSERT_EQ(log->Lines().size(), 1u);
    EXPECT_EQ(log->Lines()[0].text, "(null)\n");
}

TEST(TimeTexts, TimeStampForms) {
    std::string utc = FormatTimeStamp(true);
    std::string local = FormatTimeStamp(false);
    EXPECT_TRUE(std::regex_match(utc, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)"))) << utc;
    EXPECT_TRUE(std::regex_match(local, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})"))) << local;
    char small[11];
    EXPECT_EQ(FormatTimeStamp(small, sizeof(small), true), 10);
    EXPECT_EQ(std::string(small), utc.substr(0, 10));
    EXPECT_EQ(FormatTimeStamp(nullptr, 10, true), 0);
    EXPECT_EQ(FormatTimeStamp(small, 0, true), 0);
}

TIME_ZONE_INFORMATION Zone(LONG bias, const wchar_t* standard, LONG standardBias, const wchar_t* daylight,
                           LONG daylightBias) {
    TIME_ZONE_INFORMATION info{};
    info.Bias = bias;
    wcscpy(info.StandardName, standard);
    info.StandardBias = standardBias;
    wcscpy(info.DaylightName, daylight);
    info.DaylightBias = daylightBias;
    return info;
}

TEST(TimeTexts, TimeZoneText) {
    auto cet = Zone(-60, L"W. Europe Standard Time", 0, L"W. Europe Daylight Time", -60);
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_STANDARD, cet), L"W. Europe Standard Time (UTC +1)");
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_DAYLIGHT, cet), L"W. Europe Daylight Time (UTC +2)");
    auto india = Zone(-330, L"India Standard Time", 0, L"", 0);
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_STANDARD, india), L"India Standard Time (UTC +5:30)");
    auto newfoundland = Zone(210, L"Newfoundland Standard Time", 0, L"Newfoundland Daylight Time", -60);
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_STANDARD, newfoundland), L"Newfoundland Standard Time (UTC -3:30)");
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_DAYLIGHT, newfoundland), L"Newfoundland Daylight Time (UTC -2:30)");
    auto utc = Zone(0, L"Coordinated Universal Time", 0, L"", 0);
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_STANDARD, utc), L"Coordinated Universal Time (UTC -0)");
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_UNKNOWN, cet), L"");
    auto unnamed = Zone(-60, L"", 0, L"", 0);
    EXPECT_EQ(FormatTimeZoneText(TIME_ZONE_ID_STANDARD, unnamed), L"");
    // The live reading goes through the same formatter.
    TIME_ZONE_INFORMATION live{};
    DWORD id = GetTimeZoneInformation(&live);
    EXPECT_EQ(GetTimeZoneText(), FormatTimeZoneText(id, live));
}

TEST(LevelNames, ParseLogLevelIgnoresCaseAndGuardsItsDefault) {
    EXPECT_EQ(ParseLogLevel("WARN", 5), 2u);
    EXPECT_EQ(ParseLogLevel("warning", 5), 5u) << "no prefix match";
    EXPECT_EQ(ParseLogLevel("loud", 9), 3u) << "a default outside the levels gives INFO";
    EXPECT_EQ(ParseLogLevel(nullptr, 1), 1u);
}

TEST(Formatting, BufferResultsAndCutting) {
    char buffer[8];
    EXPECT_EQ(FormatBuffer(buffer, sizeof(buffer), "%d", 12345), 5);
    EXPECT_STREQ(buffer, "12345");
    EXPECT_EQ(FormatBuffer(buffer, sizeof(buffer), "%s", "0123456789"), 7);
    EXPECT_STREQ(buffer, "0123456");
    EXPECT_EQ(FormatBuffer(buffer, sizeof(buffer), "%s", "0123456"), 7) << "exactly full";

    EXPECT_EQ(FormatString("%s-%d", "a", 7), "a-7");
    std::string big(20000, 'x');
    EXPECT_EQ(FormatString("%s", big.c_str()).size(), 10239u) << "cut to the 10,240-character buffer";
}

TEST(StringTools, EndsWith) {
    EXPECT_TRUE(EndsWith("file.log", ".log", true));
    EXPECT_FALSE(EndsWith("file.LOG", ".log", true));
    EXPECT_TRUE(EndsWith("file.LOG", ".log", false));
    EXPECT_TRUE(EndsWith("abc", "abc", true));
    EXPECT_TRUE(EndsWith("abc", "", true));
    EXPECT_FALSE(EndsWith("bc", "abc", true));
    EXPECT_FALSE(EndsWith(nullptr, "a", true));
    EXPECT_FALSE(EndsWith("a", nullptr, true));
}

TEST(StringTools, FindNoCase) {
    const char* text = "Hello World";
    EXPECT_EQ(FindNoCase(text, "WORLD"), text + 6);
    EXPECT_EQ(FindNoCase(text, "hello"), text);
    EXPECT_EQ(FindNoCase(text, "worlds"), nullptr);
    EXPECT_EQ(FindNoCase(text, ""), text);
    EXPECT_EQ(FindNoCase(text, nullptr), text);
    EXPECT_EQ(FindNoCase("", "a"), nullptr);
    EXPECT_EQ(FindNoCase(nullptr, "a"), nullptr);
    const char* repeat = "aaab";
    EXPECT_EQ(FindNoCase(repeat, "AAB"), repeat + 1);
}

TEST(StringTools, CopyBounded) {
    char dest[8];
    memset(dest, '#', sizeof(dest));
    EXPECT_EQ(CopyBounded(dest, "abc", 7), 3);
    EXPECT_STREQ(dest, "abc");
    EXPECT_EQ(CopyBounded(dest, "abcdefghij", 7), 7);
    EXPECT_STREQ(dest, "abcdefg");
    EXPECT_EQ(CopyBounded(dest, "abc", 0), 0);
    EXPECT_STREQ(dest, "");
    EXPECT_EQ(CopyBounded(dest, "abc", -3), 0);
    EXPECT_STREQ(dest, "");
}

TEST(Conversions, XStringBothWays) {
    const char* utf8 = "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\x91";  // café € and a key emoji
    const wchar_t* utf16 = L"caf\u00E9 \u20AC \U0001F511";
    {
        XString x(utf8);
        ASSERT_NE(x.GetWide(), nullptr);
        EXPECT_STREQ(x.GetWide(), utf16);
        EXPECT_EQ(x.GetNarrow(), utf8) << "the given form is kept, not copied";
    }
    {
        XString x(utf16);
        EXPECT_STREQ(x.GetNarrow(), utf8);
        x.SetNarrow(nullptr, false);
        EXPECT_STREQ(x.GetNarrow(), "");
        EXPECT_STREQ(x.GetWide(), L"");
        x.CopyWide(nullptr);
        EXPECT_STREQ(x.GetWide(), L"");
        wchar_t temporary[] = L"copied";
        x.CopyWide(temporary);
        temporary[0] = L'X';
        EXPECT_STREQ(x.GetNarrow(), "copied");
        x.Clear();
        EXPECT_EQ(x.GetNarrow(), nullptr);
        EXPECT_EQ(x.GetWide(), nullptr);
    }
    EXPECT_EQ(Utf8ToWide(utf8), utf16);
    EXPECT_EQ(WideToUtf8(utf16), utf8);
    EXPECT_EQ(Utf8ToWide(""), L"");
    EXPECT_EQ(WideToUtf8(L""), "");
}

TEST(Conversions, OwnedFormsAreFreedWithTheObject) {
    // Owned blocks come from new[]; running this under a leak checker would show a miss.
    char* owned = new char[4];
    strcpy(owned, "abc");
    XString x;
    x.SetNarrow(owned, true);
    EXPECT_STREQ(x.GetWide(), L"abc");
    x.SetWide(L"literal", false);
    EXPECT_STREQ(x.GetNarrow(), "literal");
}

}  // namespace
