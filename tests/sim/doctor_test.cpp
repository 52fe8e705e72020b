// fido2sim doctor: the library as a real child process finds it, and the registry settings and
// the log folder as the plug-in's own code in this process sees them.
#include "sim/doctor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "sim/authenticator_client.h"
#include "support/child_process.h"
#include "support/registry_isolation.h"
#include "sysutil/string_utils.h"

namespace {

// The software authenticator, loaded before the plug-in's one attempt of this process, which
// then finds it under its name. The DLL folder goes back, so that children search as usual.
void LoadAuthenticator() {
    static const sim::SoftwareAuthenticator* loaded = new sim::SoftwareAuthenticator();
    SetDllDirectoryW(nullptr);
    ASSERT_TRUE(loaded->Loaded());
}

void ExpectSays(const std::string& text, const std::vector<const char*>& says, const std::string& what) {
    for (const char* fragment : says)
        EXPECT_NE(text.find(fragment), std::string::npos) << what << ": " << fragment << "\n" << text;
}

// A REG_SZ value, or a REG_DWORD one where `text` is null.
bool Put(const char* name, const char* text, DWORD number = 0) {
    const wchar_t key[] = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";
    const std::wstring wide = StringUtils::Utf8ToWide(text ? text : ""), wideName = StringUtils::Utf8ToWide(name);
    return text ? WriteHklmValue(key, wideName, REG_SZ, wide.c_str(), static_cast<DWORD>((wide.size() + 1) * 2))
                : WriteHklmValue(key, wideName, REG_DWORD, &number, sizeof(number));
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
    ASSERT_LT(GetEnvironmentVariableW(L"PATH", saved, 32768), 32768u);
    for (const auto& c : cases) {
        const std::wstring path = *c.folder ? TestProgramFolder() + L"\\" + c.folder + L";" + saved : saved;
        SetEnvironmentVariableW(L"PATH", path.c_str());
        std::string output;
        DWORD exitCode = 99;
        const std::wstring command = L"\"" + TestProgramFolder() + L"\\fido2sim.exe\" doctor";
        const bool ran = RunProcessForOutput(command, &output, &exitCode);
        SetEnvironmentVariableW(L"PATH", saved);
        ASSERT_TRUE(ran);
        EXPECT_EQ(exitCode, c.exitCode) << output;
        ExpectSays(output, c.says, StringUtils::WideToUtf8(c.folder));
    }
}

// The settings with every folder: a setting of the log doesn't move the folder's verdict.
TEST(Doctor, EachSettingAndTheLogFolderSayWhatThePluginMakesOfThem) {
    LoadAuthenticator();
    // text: REG_SZ; null for the REG_DWORD `number`
    const struct { const char* name, *text; DWORD number; bool wrongType; const char* readAs, *resolves; } values[] = {
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
    const std::string scratch = StringUtils::WideToUtf8(TestProgramFolder()) + "\\doctor-scratch";
    CreateDirectoryW(StringUtils::Utf8ToWide(scratch).c_str(), nullptr);
    const struct { std::string folder; const char* why; } folders[] = {  // folder "": no logDirectory
        {scratch, ""},
        {scratch + "\\missing", "the folder doesn't exist"},
        {"", ""},
    };
    for (const auto& f : folders) {
        ScopedHklmOverride hklm;
        ASSERT_TRUE(hklm.IsActive());
        for (const auto& c : values) ASSERT_TRUE(Put(c.name, c.text, c.number)) << c.name;
        ASSERT_TRUE(f.folder.empty() || Put("logDirectory", f.folder.c_str()));
        const sim::DoctorReport report = sim::Examine();
        for (const auto& c : values) {
            auto s = std::find_if(report.settings.begin(), report.settings.end(),
                                  [&](const sim::DoctorSetting& s) { return s.name == c.name; });
            ASSERT_NE(s, report.settings.end()) << c.name;
            SCOPED_TRACE(c.name);
            EXPECT_TRUE(s->set);
            EXPECT_EQ(s->wrongType, c.wrongType);
            EXPECT_EQ(s->readAs, c.readAs);
            EXPECT_EQ(s->resolves, c.resolves);
        }
        EXPECT_EQ(report.sideChannel, "virtual");
        const sim::DoctorLog& log = report.log;
        const bool writable = *f.why == '\0';
        EXPECT_EQ(log.writable, writable) << f.folder;
        EXPECT_EQ(log.notWritable, f.why) << f.folder;
        EXPECT_EQ(log.defaultFolder, f.folder.empty()) << f.folder;
        EXPECT_TRUE(f.folder.empty() || log.folder == f.folder) << log.folder;
        EXPECT_EQ(log.fileName.rfind("orvane-fido2Client-", 0), 0u) << log.fileName;
        std::ostringstream text;
        sim::PrintDoctorText(report, text);
        ExpectSays(text.str(),
                   {writable ? "writable   yes" : "writable   no, the folder doesn't exist",
                    "logMaxFileSizeMB        REG_SZ \"big\", read as 0 (wrong type) -> maxFileSizeMB 0"},
                   f.folder);
    }
    RemoveDirectoryW(StringUtils::Utf8ToWide(scratch).c_str());
}

}  // namespace
