#include "registry/sy_reg_key.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/registry_isolation.h"
#include "sysutil/string_utils.h"

namespace {

const wchar_t kKey[] = L"Software\\Orvane Test\\Values";
const char kPath[] = "HKLM\\Software\\Orvane Test\\Values";

// UTF-16 text as stored: with its terminator unless told otherwise.
std::vector<uint8_t> Text(const std::wstring& text, bool terminated = true) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
    return std::vector<uint8_t>(bytes, bytes + (text.size() + terminated) * sizeof(wchar_t));
}

TEST(RegistryValues, EveryTypeThroughEveryGetterQuietlyBelowDebug) {
    ScopedHklmOverride isolation;
    ASSERT_TRUE(isolation.IsActive());
    ScopedLogCapture log(LOG_INFO);
    const std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8};
    const struct {
        const wchar_t* name;  // REG_NONE with no bytes: not written at all
        DWORD type;
        std::vector<uint8_t> data;
        char boolean;  // 'T', 'F', or 'D' for the default
        uint64_t u64;  // default 77
        uint32_t u32;
        const char* text;  // default "dflt"
    } rows[] = {
        {L"hex", REG_SZ, Text(L"0x10"), 'D', 16, 16, "0x10"},
        {L"yes", REG_SZ, Text(L"YES"), 'T', 0, 0, "YES"},
        {L"no", REG_SZ, Text(L"no"), 'F', 0, 0, "no"},
        {L"word", REG_SZ, Text(L"maybe"), 'D', 0, 0, "maybe"},
        {L"multi", REG_MULTI_SZ, Text(std::wstring(L"12\0second\0", 10)), 'D', 12, 12, "12"},
        {L"bare", REG_SZ, Text(L"abc", false), 'D', 0, 0, "abc"},
        {L"bin0", REG_BINARY, {}, 'F', 77, 77, ""},
        {L"bin3", REG_BINARY, {1, 2, 3}, 'T', 0x0201, 0x0201, "01 02 03"},
        {L"bin8", REG_BINARY, bytes, 'T', 0x0807060504030201ULL, 0xFFFFFFFF, "01 02 03 04 05 06 07 08"},
        {L"dword", REG_DWORD, {0xFE, 0xFF, 0xFF, 0xFF}, 'T', 0xFFFFFFFE, 0xFFFFFFFE, "-2"},
        {L"qword3", REG_QWORD, {1, 2, 3}, 'T', 0x030201, 0x030201, "197121"},
        {L"none", REG_NONE, {1, 2, 3, 4}, 'D', 77, 77, "dflt"},
        {L"missing", REG_NONE, {}, 'D', 77, 77, "dflt"},
    };
    for (const auto& row : rows) {
        if (row.type != REG_NONE || !row.data.empty()) {
            const uint8_t* data = row.data.empty() ? bytes.data() : row.data.data();
            ASSERT_TRUE(WriteHklmValue(kKey, row.name, row.type, data, static_cast<DWORD>(row.data.size())));
        }
        for (bool wide : {false, true}) {
            SCOPED_TRACE(StringUtils::WideToUtf8(row.name) + (wide ? " wide" : " narrow"));
            SyRegValue value(kPath, StringUtils::WideToUtf8(row.name), RegView::Win32Default, false);
            value.Load(wide, 7);
            EXPECT_EQ(value.GetBool(true), row.boolean != 'F');
            EXPECT_EQ(value.GetBool(false), row.boolean == 'T');
            EXPECT_EQ(value.GetUInt64(77), row.u64);
            EXPECT_EQ(value.GetUInt32(77), row.u32);
            EXPECT_EQ(value.GetString("dflt"), row.text);
        }
    }
    EXPECT_EQ(log->Count("Orvane Test"), 0u) << "reads log at debug levels only";
}

TEST(RegistryValues, NonAsciiKeysAndValuesSurviveTheNarrowPath) {
    ScopedHklmOverride isolation;
    // Inside, narrow text is UTF-8: the path goes to the registry as wide text, and the
    // narrow function's text in the ANSI code page comes back as UTF-8.
    ASSERT_TRUE(WriteHklmValue(L"Software\\Orvane Test\\Z\u00FCrich", L"Gr\u00F6\u00DFe", REG_SZ, L"\u00DC",
                               2 * sizeof(wchar_t)));
    const std::string key = "HKLM\\Software\\Orvane Test\\Z\xC3\xBCrich", name = "Gr\xC3\xB6\xC3\x9F" "e";
    for (bool wide : {false, true}) {
        SyRegValue value(key, name, RegView::Win32Default, false);
        ASSERT_TRUE(value.Load(wide, 7)) << wide;
        EXPECT_EQ(value.GetString(""), "\xC3\x9C") << wide;
    }
    EXPECT_EQ(ReadRegString(key + "\\" + name), "\xC3\x9C");
    std::string narrow = "untouched";
    std::wstring wide = L"untouched";
    EXPECT_FALSE(ReadRegValue(key + "\\missing", RegView::Win32Default, &narrow, &wide, -1));
    EXPECT_EQ(narrow + StringUtils::WideToUtf8(wide), "untoucheduntouched") << "a value not found leaves both alone";
    EXPECT_FALSE(ReadRegString(key + "\\missing", &narrow));
    EXPECT_TRUE(ReadRegValue(key + "\\" + name, RegView::Win32Default, &narrow, &wide, -1));
    EXPECT_EQ(wide, L"\u00DC");
    EXPECT_EQ(narrow, "\xC3\x9C");
}

TEST(RegistryNumbers, ShortValuesAreReadNoFurtherThanTheirSize) {
    // The value's bytes end where a page that can't be read begins: reading past them faults.
    const SIZE_T page = 4096;
    auto* block = static_cast<uint8_t*>(VirtualAlloc(nullptr, 2 * page, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
    ASSERT_NE(block, nullptr);
    DWORD old = 0;
    ASSERT_TRUE(VirtualProtect(block + page, page, PAGE_NOACCESS, &old));
    struct Row {
        uint32_t size, width;
        uint64_t value;
    } rows[] = {{3, 8, 0x030201}, {1, 4, 0x01}, {8, 8, 0x0807060504030201ULL}, {8, 4, 0x04030201}, {0, 8, 0}};
    for (const Row& row : rows) {
        uint8_t* bytes = block + page - row.size;
        for (uint32_t i = 0; i < row.size; ++i) bytes[i] = static_cast<uint8_t>(i + 1);
        EXPECT_EQ(RegLittleEndian(bytes, row.size, row.width), row.value) << row.size << " bytes as " << row.width;
    }
    VirtualFree(block, 0, MEM_RELEASE);
}

TEST(RegistryPaths, MalformedPathsAreRefusedWithAWarningAndAMissingKeySilently) {
    ScopedHklmOverride isolation;
    ScopedLogCapture log(LOG_DEBUG);
    const struct {
        const char* path;
        const char* line;
    } bad[] = {
        {"", "Missing root key \"\""},
        {"HKLM", "Missing root key \"HKLM\""},
        {"HKLM\\", "Missing key name \"HKLM\\\""},
        {"HKXX\\Software", "Invalid root key \"HKXX\\Software\""},
        {"HKEY_LOCAL_MACHINE_AND_A_VERY_LONG_TAIL\\Software", "Invalid root key"},
    };
    for (const auto& row : bad) {
        log->ClearLines();
        EXPECT_EQ(SyRegKey(row.path).OpenKey(), 11) << row.path;
        const auto lines = log->Lines();
        ASSERT_EQ(lines.size(), 1u) << row.path;
        EXPECT_EQ(lines[0].level, LOG_WARN);
        EXPECT_EQ(lines[0].text.rfind(row.line, 0), 0u) << lines[0].text;
    }
    log->ClearLines();
    EXPECT_EQ(SyRegKey("HKLM\\Software\\Orvane Test\\Nowhere").OpenKey(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(log->Count("failed"), 0u) << "a missing key is no error";
}

}  // namespace
