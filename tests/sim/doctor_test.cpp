// fido2sim doctor: the library as a real child process finds it, and the API version, the
// registry settings and the log folder as the plug-in's own code in this process sees them.
#include "sim/doctor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "sim/authenticator_client.h"
#include "support/child_process.h"
#include "support/registry_isolation.h"
#include "sysutil/string_utils.h"

namespace {

const wchar_t kPluginKey[] = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";

// The software authenticator, loaded before the plug-in's one attempt of this process, which
// then finds it under its name. The DLL folder goes back, so that children search as usual.
const sim::SoftwareAuthenticator& Authenticator() {
    static const sim::SoftwareAuthenticator* loaded = [] {
        auto* authenticator = new sim::SoftwareAuthenticator();
        SetDllDirectoryW(nullptr);
        return authenticator;
    }();
    return *loaded;
}

std::string Text(const sim::DoctorReport& report) {
    std::ostringstream text;
    sim::PrintDoctorText(report, text);
    return text.str();
}

bool Put(const char* name, DWORD value) {
    return WriteHklmValue(kPluginKey, StringUtils::Utf8ToWide(name), REG_DWORD, &value, sizeof(value));
}
bool Put(const char* name, const std::string& text) {
    const std::wstring wide = StringUtils::Utf8ToWide(text);
    return WriteHklmValue(kPluginKey, StringUtils::Utf8ToWide(name), REG_SZ, wide.c_str(),
                          static_cast<DWORD>((wide.size() + 1) * sizeof(wchar_t)));
}

TEST(Doctor, ChildProcessSaysWhetherTheLibraryIsUsableAndWhy) {
    const struct { const wchar_t* folder; DWORD exitCode; std::vector<const char*> says; } cases[] = {
        // folder: put in front of PATH, where the child's search for webauthn.dll looks
        {L"", 1, {"found      none (error 126", "Redirection would answer no usable library: no webauthn.dll"}},
        {L"sim-authenticator-no-w3c", 1,
         {"sim-authenticator-no-w3c\\webauthn.dll", "lacks WebAuthNGetW3CExceptionDOMError", "API version 0"}},
        {L"sim-authenticator", 0, {"usable     yes", "API version 4", "Redirection would work."}},
    };
    wchar_t saved[32768];
    const DWORD length = GetEnvironmentVariableW(L"PATH", saved, 32768);
    ASSERT_LT(length, 32768u);
    for (const auto& c : cases) {
        const std::wstring path = *c.folder ? TestProgramFolder() + L"\\" + c.folder + L";" + saved : saved;
        SetEnvironmentVariableW(L"PATH", path.c_str());
        std::string output;
        DWORD exitCode = 99;
        const std::wstring command = L"\"" + TestProgramFolder() + L"\\fido2sim.exe\" doctor";
        const bool ran = RunProcessForOutput(command, &output, &exitCode);
        SetEnvironmentVariableW(L"PATH", saved);
        ASSERT_TRUE(ran);
        const std::string name = StringUtils::WideToUtf8(c.folder);
        EXPECT_EQ(exitCode, c.exitCode) << name << "\n" << output;
        for (const char* fragment : c.says)
            EXPECT_NE(output.find(fragment), std::string::npos) << name << ": " << fragment << "\n" << output;
    }
}

TEST(Doctor, ApiVersionOfTheLibraryDecidesTheRecordVersions) {
    ASSERT_TRUE(Authenticator().Loaded());
    const auto setApiVersion = Authenticator().Get<SimAuth_SetApiVersionFn>("SimAuth_SetApiVersion");
    const struct { DWORD api; bool works; std::vector<const char*> says; } cases[] = {
        {4, true, {"Redirection would work."}},
        {3, true, {"options above v5 reach this library unchanged"}},
        {1, true, {"options above v3 reach this library unchanged", "options above v4"}},
        {9, true, {"newer than this tool's table", "a record of a version newer than v4 goes out as v4"}},
        {0, false, {"Redirection would answer no usable library: the library reports API version 0"}},
    };
    for (const auto& c : cases) {
        setApiVersion(c.api);
        const sim::DoctorReport report = sim::Examine();
        EXPECT_EQ(report.redirectionWorks, c.works) << c.api;
        EXPECT_TRUE(report.library.usable);
        EXPECT_EQ(report.library.apiVersion, c.api);
        const std::string text = Text(report);
        for (const char* fragment : c.says)
            EXPECT_NE(text.find(fragment), std::string::npos) << c.api << ": " << fragment << "\n" << text;
    }
    setApiVersion(4);
}

TEST(Doctor, EachSettingSaysWhatThePluginMakesOfIt) {
    Authenticator();
    ScopedHklmOverride hklm;
    ASSERT_TRUE(hklm.IsActive());
    const struct {
        const char* name;
        const char* text;  // REG_SZ; null for the REG_DWORD `number`
        DWORD number;
        bool wrongType;
        const char* readAs;
        const char* resolves;
    } cases[] = {
        {"logMaxFileSizeMB", "big", 0, true, "0", "maxFileSizeMB 0"},
        {"logLevel", nullptr, 4, true, "\"4\"", "level INFO"},
        {"logToStdout", "on", 0, true, "false", "no stdout writer"},
        {"tcpEnabled", nullptr, 1, true, "\"1\"", "TCP side channel not wanted"},
        {"logMaxRollingFiles", nullptr, 5000, false, "5000", "maxRollingFiles 1000"},
        {"logToStderr", nullptr, 1, false, "true", "stderr writer on"},
        {"logDiskThresholdLowMB", "0x40", 0, true, "64", "diskThresholdLowMB 64"},
        {"vchanSideChannelEnabled", "TRUE", 0, false, "\"TRUE\"", "virtual side channel wanted"},
        {"logRemotePort", nullptr, 600, false, "", "not read by the plug-in as things stand"},
    };
    for (const auto& c : cases) ASSERT_TRUE(c.text ? Put(c.name, c.text) : Put(c.name, c.number)) << c.name;
    const sim::DoctorReport report = sim::Examine();
    for (const auto& c : cases) {
        auto setting = std::find_if(report.settings.begin(), report.settings.end(),
                                    [&](const sim::DoctorSetting& s) { return s.name == c.name; });
        ASSERT_NE(setting, report.settings.end()) << c.name;
        EXPECT_TRUE(setting->set) << c.name;
        EXPECT_EQ(setting->wrongType, c.wrongType) << c.name;
        EXPECT_EQ(setting->readAs, c.readAs) << c.name;
        EXPECT_EQ(setting->resolves, c.resolves) << c.name;
    }
    EXPECT_EQ(report.sideChannel, "virtual");
    EXPECT_NE(Text(report).find("logMaxFileSizeMB        REG_SZ \"big\", read as 0 (wrong type) -> maxFileSizeMB 0"),
              std::string::npos)
        << Text(report);
}

TEST(Doctor, LogFolderThatCantBeWrittenIsNamed) {
    Authenticator();
    const std::string scratch = StringUtils::WideToUtf8(TestProgramFolder()) + "\\doctor-scratch";
    const std::string blocker = scratch + "\\a-file";
    CreateDirectoryW(StringUtils::Utf8ToWide(scratch).c_str(), nullptr);
    const std::wstring blockerW = StringUtils::Utf8ToWide(blocker);
    HANDLE made = CreateFileW(blockerW.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(made, INVALID_HANDLE_VALUE);
    CloseHandle(made);
    const struct { const char* what; std::string folder; const char* why; } cases[] = {  // folder "": no logDirectory
        {"existing folder", scratch, ""},
        {"missing folder", scratch + "\\missing", "the folder doesn't exist"},
        {"below a file", blocker + "\\logs", "the folder doesn't exist"},
        {"default folder", "", ""},
    };
    for (const auto& c : cases) {
        ScopedHklmOverride hklm;
        ASSERT_TRUE(hklm.IsActive());
        if (!c.folder.empty()) ASSERT_TRUE(Put("logDirectory", c.folder));
        const sim::DoctorReport report = sim::Examine();
        const bool writable = *c.why == '\0';
        EXPECT_EQ(report.log.writable, writable) << c.what;
        EXPECT_EQ(report.log.notWritable, c.why) << c.what;
        EXPECT_EQ(report.log.defaultFolder, c.folder.empty()) << c.what;
        if (!c.folder.empty()) EXPECT_EQ(report.log.folder, c.folder) << c.what;
        EXPECT_EQ(report.log.fileName.rfind("orvane-fido2Client-", 0), 0u) << c.what << ": " << report.log.fileName;
        const std::string text = Text(report);
        EXPECT_NE(text.find(writable ? "writable   yes" : "writable   no, the folder doesn't exist"), std::string::npos)
            << c.what << "\n" << text;
    }
    DeleteFileW(blockerW.c_str());
    RemoveDirectoryW(StringUtils::Utf8ToWide(scratch).c_str());
}

}  // namespace
