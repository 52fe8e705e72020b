#include "registry/sy_reg_key.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/registry_isolation.h"
#include "support/session_fakes.h"

namespace {

const wchar_t kKey[] = L"Software\\Orvane Test\\Values";
const char kPath[] = "HKLM\\Software\\Orvane Test\\Values";

void Put(const std::wstring& name, DWORD type, const void* bytes, size_t size) {
    ASSERT_TRUE(WriteHklmValue(kKey, name, type, bytes ? bytes : "", static_cast<DWORD>(size)));
}
// UTF-16 text as stored: with its terminator unless told otherwise.
std::vector<uint8_t> Text(const std::wstring& text, bool terminated = true) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.c_str());
    return std::vector<uint8_t>(bytes, bytes + (text.size() + terminated) * sizeof(wchar_t));
}

class RegistryValues : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(isolation.IsActive()); }
    ScopedHklmOverride isolation;
};

TEST_F(RegistryValues, EveryTypeThroughEveryGetter) {
    const std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8};
    auto first = [&](size_t n) { return std::vector<uint8_t>(bytes.begin(), bytes.begin() + n); };
    const struct {
        const wchar_t* name;  // REG_NONE with no bytes: not written at all
        DWORD type;
        std::vector<uint8_t> data;
        char boolean;  // 'T', 'F', or 'D' for the default
        uint64_t u64;  // default 77
        uint32_t u32;
        const char* text;  // default "dflt"
        const wchar_t* wide;
    } rows[] = {
        {L"hex", REG_SZ, Text(L"0x10"), 'D', 16, 16, "0x10", L"0x10"},
        {L"octal", REG_SZ, Text(L"010"), 'D', 8, 8, "010", L"010"},
        {L"yes", REG_SZ, Text(L"YES"), 'T', 0, 0, "YES", L"YES"},
        {L"no", REG_SZ, Text(L"no"), 'F', 0, 0, "no", L"no"},
        {L"word", REG_SZ, Text(L"maybe"), 'D', 0, 0, "maybe", L"maybe"},
        {L"expand", REG_EXPAND_SZ, Text(L"%TEMP%\\x"), 'D', 0, 0, "%TEMP%\\x", L"%TEMP%\\x"},
        {L"multi", REG_MULTI_SZ, Text(std::wstring(L"12\0second\0", 10)), 'D', 12, 12, "12", L"12"},
        {L"bare", REG_SZ, Text(L"abc", false), 'D', 0, 0, "abc", L"abc"},
        {L"unicode", REG_SZ, Text(L"caf\u00E9"), 'D', 0, 0, "caf\xC3\xA9", L"caf\u00E9"},
        {L"bin0", REG_BINARY, {}, 'F', 77, 77, "", L""},
        {L"bin1", REG_BINARY, first(1), 'T', 0x01, 0x01, "01", L"01"},
        {L"bin3", REG_BINARY, first(3), 'T', 0x0201, 0x0201, "01 02 03", L"01 02 03"},
        {L"bin4", REG_BINARY, first(4), 'T', 0x04030201, 0x04030201, "01 02 03 04", L"01 02 03 04"},
        {L"bin8", REG_BINARY, bytes, 'T', 0x0807060504030201ULL, 0xFFFFFFFF, "01 02 03 04 05 06 07 08",
         L"01 02 03 04 05 06 07 08"},
        {L"binzero", REG_BINARY, {0, 0, 0, 0}, 'F', 0, 0, "00 00 00 00", L"00 00 00 00"},
        {L"dword", REG_DWORD, {0xFE, 0xFF, 0xFF, 0xFF}, 'T', 0xFFFFFFFE, 0xFFFFFFFE, "-2", L"-2"},
        {L"dword0", REG_DWORD, {0, 0, 0, 0}, 'F', 0, 0, "0", L"0"},
        {L"qword", REG_QWORD, {0, 0, 0, 0, 1, 0, 0, 0}, 'T', 0x100000000ULL, 0xFFFFFFFF, "4294967296", L"4294967296"},
        {L"qword3", REG_QWORD, first(3), 'T', 0x030201, 0x030201, "197121", L"197121"},
        {L"none", REG_NONE, first(4), 'D', 77, 77, "dflt", L"dflt"},
        {L"missing", REG_NONE, {}, 'D', 77, 77, "dflt", L"dflt"},
    };
    for (const auto& row : rows) {
        if (row.type != REG_NONE || !row.data.empty()) Put(row.name, row.type, row.data.data(), row.data.size());
        for (bool wide : {false, true}) {
            SCOPED_TRACE(StringUtils::WideToUtf8(row.name) + (wide ? " wide" : " narrow"));
            SyRegValue value(kPath, StringUtils::WideToUtf8(row.name), RegView::Win32Default, false);
            value.Load(wide, 7);
            EXPECT_EQ(value.GetBool(true), row.boolean != 'F');
            EXPECT_EQ(value.GetBool(false), row.boolean == 'T');
            EXPECT_EQ(value.GetUInt64(77), row.u64);
            EXPECT_EQ(value.GetUInt32(77), row.u32);
            EXPECT_EQ(value.GetString("dflt"), row.text);
            EXPECT_EQ(value.GetWString(L"dflt"), row.wide);
        }
    }
}

TEST_F(RegistryValues, NonAsciiKeysAndValuesSurviveTheNarrowPath) {
    // Inside, narrow text is UTF-8: the path goes to the registry as wide text, and the
    // narrow function's text in the ANSI code page comes back as UTF-8.
    ASSERT_TRUE(WriteHklmValue(L"Software\\Orvane Test\\Z\u00FCrich", L"Gr\u00F6\u00DFe", REG_SZ, L"\u00DC",
                               2 * sizeof(wchar_t)));
    const std::string key = "HKLM\\Software\\Orvane Test\\Z\xC3\xBCrich", name = "Gr\xC3\xB6\xC3\x9F" "e";
    for (bool wide : {false, true}) {
        SCOPED_TRACE(wide ? "wide" : "narrow");
        SyRegValue value(key, name, RegView::Win32Default, false);
        ASSERT_TRUE(value.Load(wide, 7));
        EXPECT_EQ(value.GetString(""), "\xC3\x9C");
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

TEST_F(RegistryValues, LoadReportsChangesExactlyAndClearForgets) {
    SyRegValue value(kPath, "probe", RegView::Win32Default, false);
    EXPECT_FALSE(value.Load(false, 7)) << "a value that was never there doesn't change";
    const uint32_t one = 1, two = 2;
    const struct {
        const char* what;
        DWORD type;
        const void* data;
        size_t size;
    } steps[] = {{"the first load", REG_DWORD, &one, 4},
                 {"other bytes", REG_DWORD, &two, 4},
                 {"same bytes, other type", REG_BINARY, &two, 4},
                 {"other size", REG_BINARY, &two, 3}};
    for (const auto& step : steps) {
        Put(L"probe", step.type, step.data, step.size);
        EXPECT_TRUE(value.Load(false, 7)) << step.what;
        EXPECT_FALSE(value.Load(false, 7)) << "then unchanged: " << step.what;
    }
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_SET_VALUE, &key), ERROR_SUCCESS);
    RegDeleteValueW(key, L"probe");
    RegCloseKey(key);
    EXPECT_TRUE(value.Load(false, 7)) << "a value that vanished reports one change";
    EXPECT_FALSE(value.HasData());
    EXPECT_EQ(value.GetUInt32(5), 5u);
    EXPECT_FALSE(value.Load(false, 7));

    const std::vector<uint8_t> text = Text(L"caf\u00E9");
    Put(L"probe", REG_SZ, text.data(), text.size());
    EXPECT_TRUE(value.Load(false, 7));
    EXPECT_TRUE(value.Load(true, 7)) << "another width is another content";
    EXPECT_FALSE(value.Load(true, 7));
    ASSERT_TRUE(value.Load(false, 7));
    EXPECT_EQ(value.GetWString(L""), L"caf\u00E9");
    EXPECT_TRUE(value.IsWide()) << "the wide getter reloads narrow text as UTF-16";
    EXPECT_EQ(value.GetDataSize(), 10u) << "four UTF-16 characters and the terminator";

    EXPECT_TRUE(value.Clear(false)) << "Clear reports the state before";
    EXPECT_FALSE(value.HasData());
    EXPECT_FALSE(value.IsOpen());
    EXPECT_EQ(value.GetDataType(), 0u);
    EXPECT_FALSE(value.Clear(true));
    EXPECT_TRUE(value.HasData()) << "and reloaded";
}

TEST_F(RegistryValues, LoadLogsTheValueAtTheLevelAskedAndNoLower) {
    Put(L"bin3", REG_BINARY, "\x01\x02\x03", 3);
    Put(L"dword", REG_DWORD, "\x01\x02\x03\x04", 4);
    {
        ScopedLogCapture quiet(LOG_INFO);
        SyRegValue value(kPath, "dword", RegView::Win32Default, false);
        EXPECT_TRUE(value.Load(false, 7));
        SyRegValue missing("HKLM\\Software\\Orvane Test\\Nowhere", "x", RegView::Win32Default, false);
        EXPECT_FALSE(missing.Load(false, LOG_DEBUG));
        EXPECT_EQ(quiet->Count("Orvane Test"), 0u) << "other threads may log; this one must not";
    }
    ScopedLogCapture log(LOG_NEVER);
    SyRegValue value(kPath, "bin3", RegView::Win32Default, false);
    ASSERT_TRUE(value.Load(false, 6));
    std::vector<CapturedLine> data;
    for (const auto& line : log->Lines()) {
        if (line.function == "SyRegValue::LogData()") data.push_back(line);
    }
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(data[0].level, 6);
    const std::string head = std::string(kPath) + "\\bin3  Location(Win32Default)  Type(REG_BINARY/A)  Size(3)\n";
    ASSERT_EQ(data[0].text.substr(0, head.size()), head);
    const std::string dump = data[0].text.substr(head.size());
    EXPECT_EQ(dump.find_first_not_of(' '), strlen("SyRegValue::LogData()") + 42);
    EXPECT_NE(dump.find("0x0000: 01 02 03 "), std::string::npos) << dump;
    EXPECT_EQ(log->Count("\\bin3\" has changed"), 1u);
    ASSERT_FALSE(value.Load(false, 6));
    EXPECT_EQ(log->Count("\\bin3\" has not changed"), 1u);
    SyRegValue wow(kPath, "dword", RegView::Reg32Bit, false);
    wow.Load(true, 7);
    EXPECT_EQ(log->Count("Location(Reg32Bit/WOW64)  Type(REG_DWORD/W)  Size(4)\n"), 1u);
}

TEST_F(RegistryValues, PathGrammarAndViews) {
    Put(L"dword", REG_DWORD, "\xFE\xFF\xFF\xFF", 4);
    ScopedLogCapture log(LOG_DEBUG);
    SyRegValue lower("hklm/Software\\Orvane Test\\Values", "dword", RegView::Win32Default, true);
    EXPECT_EQ(lower.GetUInt32(0), 0xFFFFFFFEu) << "root names ignore case and / separates too";
    SyRegValue longName("HKEY_LOCAL_MACHINE\\Software\\Orvane Test\\Values", "dword", RegView::Reg64Bit, true);
    EXPECT_EQ(longName.GetUInt32(0), 0xFFFFFFFEu);
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
        SyRegKey key(row.path);
        EXPECT_EQ(key.OpenKey(), 11) << row.path;
        const auto lines = log->Lines();
        ASSERT_EQ(lines.size(), 1u) << row.path;
        EXPECT_EQ(lines[0].level, LOG_WARN);
        EXPECT_EQ(lines[0].text.rfind(row.line, 0), 0u) << lines[0].text;
    }
    log->ClearLines();
    SyRegKey missing("HKLM\\Software\\Orvane Test\\Nowhere");
    EXPECT_EQ(missing.OpenKey(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(missing.IsOpen());
    EXPECT_EQ(log->Count("failed"), 0u) << "a missing key is no error";
    SyRegKey present(kPath, RegView::Win32Default, true);
    HKEY first = present.GetKey();
    EXPECT_EQ(present.OpenKey(), 0);
    EXPECT_EQ(present.GetKey(), first) << "an open key stays open";

    EXPECT_EQ(GetWow64Path("HKLM\\Software\\Orvane", RegView::Reg32Bit), "HKLM\\Software\\WOW6432Node\\Orvane");
    EXPECT_EQ(GetWow64Path("HKLM\\SOFTWARE\\Orvane", RegView::Alternate), "HKLM\\SOFTWARE\\WOW6432Node\\Orvane");
    EXPECT_EQ(GetWow64Path("HKLM\\Software\\Orvane", RegView::Reg64Bit), "HKLM\\Software\\Orvane");
    EXPECT_EQ(GetWow64Path("HKLM\\System\\Orvane", RegView::Reg32Bit), "HKLM\\System\\Orvane");
    EXPECT_EQ(RegTypeName(11), "REG_QWORD");
    EXPECT_EQ(RegTypeName(12), "12") << "past the table: the number";
    EXPECT_EQ(RegViewName(static_cast<RegView>(9)), "9");
}

void WriteWhere(HKEY root, const std::wstring& keyPath, const wchar_t* text) {
    HKEY k = nullptr;
    ASSERT_EQ(RegCreateKeyExW(root, keyPath.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr), ERROR_SUCCESS);
    RegSetValueExW(k, L"where", 0, REG_SZ, reinterpret_cast<const BYTE*>(text),
                   static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t)));
    RegCloseKey(k);
}

TEST(RegistrySessions, SessionKeysGoThroughTheUsersHiveOfTheSessionUser) {
    ScopedLogCapture log(LOG_DEBUG);
    ScopedSessionFake fake;
    const std::wstring sub = L"Software\\Fido2SessionProbe-" + std::to_wstring(GetCurrentProcessId());
    const std::string path = "HKCU\\" + StringUtils::WideToUtf8(sub);
    WriteWhere(HKEY_CURRENT_USER, sub, L"current user");
    char* sid = nullptr;
    ASSERT_TRUE(ProcessUtils::GetUserSIDForSession(ProcessUtils::kCurrentSession, &sid, LOG_ERROR));
    const std::wstring underUsers = StringUtils::Utf8ToWide(sid) + L"\\" + sub;
    free(sid);
    {
        // Only the mapped HKEY_USERS holds this text below the SID.
        ScopedRegistryOverride users(HKEY_USERS);
        ASSERT_TRUE(users.IsActive());
        WriteWhere(HKEY_USERS, underUsers, L"session user");
        SyRegValue value(path, "where", RegView::Win32Default, false);
        ASSERT_TRUE(value.SetSessionID(2));
        EXPECT_EQ(log->Count("not opened yet, reopen ignored"), 1u);
        EXPECT_TRUE(value.Load(false, 7));
        EXPECT_EQ(value.GetString(""), "session user");
        EXPECT_EQ(std::string(value.GetValueDisplayName()), "Session\\2\\" + path + "\\where");
        ASSERT_TRUE(value.SetSessionID(4)) << "an open key is reopened for the new session";
        EXPECT_STREQ(value.GetDisplayName(), ("Session\\4\\" + path).c_str());
        EXPECT_TRUE(value.IsOpen());
        ScopedSessionFake::connectStateOk = false;
        EXPECT_FALSE(value.SetSessionID(3));
        EXPECT_EQ(log->Count(" - invalid session ID 3"), 1u);
        EXPECT_EQ(value.GetSessionId(), 4) << "an invalid session leaves the key where it was";
    }
    // Without the session user's token the key falls back to the current user, and says why.
    ScopedSessionFake::connectStateOk = true;
    ScopedSessionFake::userTokenOk = false;
    SyRegValue value(path, "where", RegView::Win32Default, false);
    ASSERT_TRUE(value.SetSessionID(2));
    log->ClearLines();
    EXPECT_TRUE(value.Load(false, 7));
    EXPECT_EQ(value.GetString(""), "current user");
    EXPECT_EQ(log->Count("Unable to get user token of session (id: 2)"), 1u);
    RegDeleteTreeW(HKEY_CURRENT_USER, sub.c_str());
    RegDeleteKeyW(HKEY_CURRENT_USER, sub.c_str());
}

}  // namespace
