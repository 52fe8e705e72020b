#include "sysutil/version_texts.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <regex>

#include "support/registry_isolation.h"
#include "sysutil/file_utils.h"
#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

using namespace ProcessUtils;

namespace {

std::string BesideProgram(const std::string& leaf) {
    std::string path = GetModulePath(false);
    return path.substr(0, path.find_last_of("\\/") + 1) + leaf;
}

const char kDate[] = R"((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\d \d{4} \d\d:\d\d:\d\d)";

TEST(VersionTexts, ModuleWithAndWithoutVersionBlock) {
    std::string plugin = GetFileVersionText(BesideProgram("fido2Client.dll"));
    EXPECT_TRUE(std::regex_match(plugin, std::regex(std::string("version=1\\.0\\.0 \\(") + kDate + "\\)"))) << plugin;
    // The path is UTF-8 and reaches the system as wide text, also outside ASCII.
    const std::string pid = std::to_string(GetCurrentProcessId());
    std::string copy = BesideProgram("fido2Client-\xC3\xA9t\xC3\xA9-" + pid + ".dll");
    ASSERT_TRUE(CopyFileW(StringUtils::Utf8ToWide(BesideProgram("fido2Client.dll")).c_str(),
                          StringUtils::Utf8ToWide(copy).c_str(), FALSE));
    EXPECT_EQ(GetFileVersionText(copy), plugin);
    FileUtils::DeleteFileAt(copy, nullptr);

    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    std::string plain = FileUtils::JoinPath(StringUtils::WideToUtf8(temp), "fido2-no-version-" + pid + ".txt");
    ASSERT_TRUE(FileUtils::CreateEmptyFile(plain, true));
    std::string text = GetFileVersionText(plain);
    EXPECT_TRUE(std::regex_match(text, std::regex(std::string("No version information \\(") + kDate + "\\)"))) << text;
    FileUtils::DeleteFileAt(plain, nullptr);
    EXPECT_EQ(GetFileVersionText(plain), "No version information");
    EXPECT_EQ(GetFileVersionText(""), "No version information");
}

TEST(VersionTexts, OperatingSystemFromTheRegistry) {
    ScopedHklmOverride isolation;
    const std::wstring key = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
    auto text = [&](const wchar_t* name, const wchar_t* value) {
        WriteHklmValue(key, name, REG_SZ, value, static_cast<DWORD>((wcslen(value) + 1) * sizeof(wchar_t)));
    };
    text(L"ProductName", L"Windows Test Edition");
    text(L"ReleaseId", L"2009");
    text(L"CurrentBuildNumber", L"19045");
    DWORD major = 10, minor = 0;
    WriteHklmValue(key, L"CurrentMajorVersionNumber", REG_DWORD, &major, sizeof(major));
    WriteHklmValue(key, L"CurrentMinorVersionNumber", REG_DWORD, &minor, sizeof(minor));
    std::string os = GetOSVersionText();
    EXPECT_TRUE(std::regex_match(os, std::regex(
                                         "Windows Test Edition(, RDS installed)?, Version 10\\.0\\.2009, Build 19045, 64-bit")))
        << os;
}

}  // namespace
