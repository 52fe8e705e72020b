// fido2sim doctor: the library as a real child process finds it, and the API version, the
// registry settings and the log folder as the plug-in's own code in this process sees them.
#include "sim/doctor.h"

#include <gtest/gtest.h>

#include <sstream>

#include "sim/authenticator_client.h"
#include "support/child_process.h"
#include "support/registry_isolation.h"
#include "sysutil/string_utils.h"

namespace {

const wchar_t kPluginKey[] = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";

// PATH of this process, and so of its children, for the life of the object.
class ScopedPath {
public:
    explicit ScopedPath(const std::wstring& folder) {
        wchar_t old[32768];
        DWORD length = GetEnvironmentVariableW(L"PATH", old, 32768);
        saved.assign(old, length);
        if (!folder.empty()) SetEnvironmentVariableW(L"PATH", (folder + L";" + saved).c_str());
    }
    ~ScopedPath() { SetEnvironmentVariableW(L"PATH", saved.c_str()); }

private:
    std::wstring saved;
};

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

TEST(Doctor, ChildProcessSaysWhetherTheLibraryIsUsableAndWhy) {
    struct Case {
        const wchar_t* folder;  // put on PATH, where the child's search for webauthn.dll looks
        DWORD exitCode;
        std::vector<const char*> says;
    };
    const Case cases[] = {
        {L"", 1, {"found      none (error 126", "Redirection would answer no usable library: no webauthn.dll"}},
        {L"sim-authenticator-no-w3c",
         1,
         {"sim-authenticator-no-w3c\\webauthn.dll", "lacks WebAuthNGetW3CExceptionDOMError", "API version 0"}},
        {L"sim-authenticator", 0, {"usable     yes", "API version 4", "Redirection would work."}},
    };
    for (const Case& c : cases) {
        ScopedPath path(*c.folder ? TestProgramFolder() + L"\\" + c.folder : L"");
        std::string output;
        DWORD exitCode = 99;
        ASSERT_TRUE(RunProcessForOutput(L"\"" + TestProgramFolder() + L"\\fido2sim.exe\" doctor", &output, &exitCode));
        const std::string name = StringUtils::WideToUtf8(c.folder);
        EXPECT_EQ(exitCode, c.exitCode) << name << "\n" << output;
        for (const char* fragment : c.says)
            EXPECT_NE(output.find(fragment), std::string::npos) << name << ": " << fragment << "\n" << output;
    }
}

TEST(Doctor, ApiVersionOfTheLibraryDecidesTheRecordVersions) {
    ASSERT_TRUE(Authenticator().Loaded());
    const auto setApiVersion = Authenticator().Get<SimAuth_SetApiVersionFn>("SimAuth_SetApiVersion");
    struct Case {
        DWORD api;
        bool works;
        DWORD makeOptions, assertOptions, attestation, assertion;  // the library's newest; 0: unknown
        std::vector<const char*> says;
    };
    const Case cases[] = {
        {4, true, 5, 6, 4, 3, {"Redirection would work."}},
        {3, true, 4, 5, 4, 2, {"options above v5 reach this library unchanged"}},
        {1, true, 3, 4, 3, 1, {"options above v3 reach this library unchanged", "options above v4"}},
        {9, true, 0, 0, 0, 0, {"newer than this tool's table", "a record of a version newer than v4 goes out as v4"}},
        {0, false, 0, 0, 0, 0, {"Redirection would answer no usable library: the library reports API version 0"}},
    };
    for (const Case& c : cases) {
        setApiVersion(c.api);
        const sim::DoctorReport report = sim::Examine();
        EXPECT_EQ(report.redirectionWorks, c.works) << c.api;
        ASSERT_TRUE(report.library.usable);
        EXPECT_EQ(report.library.apiVersion, c.api);
        ASSERT_EQ(report.library.records.size(), 4u);
        const DWORD library[] = {c.makeOptions, c.assertOptions, c.attestation, c.assertion};
        const DWORD plugin[] = {5, 6, 4, 3};
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(report.library.records[i].library, library[i]) << c.api << " " << report.library.records[i].name;
            EXPECT_EQ(report.library.records[i].plugin, plugin[i]) << report.library.records[i].name;
        }
        std::ostringstream text;
        sim::PrintDoctorText(report, text);
        for (const char* fragment : c.says)
            EXPECT_NE(text.str().find(fragment), std::string::npos) << c.api << ": " << fragment << "\n" << text.str();
    }
    setApiVersion(4);
}

// Data of a registry value as the platform stores it.
struct Stored {
    DWORD type;
    std::vector<uint8_t> bytes;
};
Stored Text(const char* text) {
    std::wstring wide = StringUtils::Utf8ToWide(text);
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(wide.c_str());
    return {REG_SZ, std::vector<uint8_t>(raw, raw + (wide.size() + 1) * sizeof(wchar_t))};
}
Stored Dword(DWORD value) {
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(&value);
    return {REG_DWORD, std::vector<uint8_t>(raw, raw + 4)};
}

bool Put(const std::string& name, const Stored& value) {
    return WriteHklmValue(kPluginKey, StringUtils::Utf8ToWide(name), value.type, value.bytes.data(),
                          static_cast<DWORD>(value.bytes.size()));
}

const sim::DoctorSetting* Find(const sim::DoctorReport& report, const std::string& name) {
    for (const sim::DoctorSetting& setting : report.settings) {
        if (setting.name == name) return &setting;
    }
    return nullptr;
}

TEST(Doctor, EachSettingSaysWhatThePluginMakesOfIt) {
    Authenticator();
    ScopedHklmOverride hklm;
    ASSERT_TRUE(hklm.IsActive());
    struct Case {
        const char* name;
        Stored value;
        bool wrongType;
        const char* readAs;
        const char* resolves;
    };
    const Case cases[] = {
        {"logMaxFileSizeMB", Text("big"), true, "0", "maxFileSizeMB 0"},
        {"logLevel", Dword(4), true, "\"4\"", "level INFO"},
        {"logToStdout", Text("on"), true, "false", "no stdout writer"},
        {"tcpEnabled", Dword(1), true, "\"1\"", "TCP side channel not wanted"},
        {"logMaxRollingFiles", Dword(5000), false, "5000", "maxRollingFiles 1000"},
        {"logToStderr", Dword(1), false, "true", "stderr writer on"},
        {"logDiskThresholdLowMB", Text("0x40"), true, "64", "diskThresholdLowMB 64"},
        {"vchanSideChannelEnabled", Text("TRUE"), false, "\"TRUE\"", "virtual side channel wanted"},
        {"logRemotePort", Dword(600), false, "", "not read by the plug-in as things stand"},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(Put(c.name, c.value)) << c.name;
    }
    const sim::DoctorReport report = sim::Examine();
    for (const Case& c : cases) {
        const sim::DoctorSetting* setting = Find(report, c.name);
        ASSERT_NE(setting, nullptr) << c.name;
        EXPECT_TRUE(setting->set) << c.name;
        EXPECT_EQ(setting->wrongType, c.wrongType) << c.name;
        EXPECT_EQ(setting->readAs, c.readAs) << c.name;
        EXPECT_EQ(setting->resolves, c.resolves) << c.name;
    }
    EXPECT_EQ(report.sideChannel, "virtual");
    std::ostringstream text;
    sim::PrintDoctorText(report, text);
    EXPECT_NE(text.str().find("logMaxFileSizeMB        REG_SZ \"big\", read as 0 (wrong type) -> maxFileSizeMB 0"),
              std::string::npos)
        << text.str();
}

TEST(Doctor, LogFolderThatCantBeWrittenIsNamed) {
    Authenticator();
    const std::string scratch = StringUtils::WideToUtf8(TestProgramFolder()) + "\\doctor-scratch";
    CreateDirectoryW(StringUtils::Utf8ToWide(scratch).c_str(), nullptr);
    const std::string blocker = scratch + "\\a-file";
    HANDLE made =
        CreateFileW(StringUtils::Utf8ToWide(blocker).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(made, INVALID_HANDLE_VALUE);
    CloseHandle(made);
    struct Case {
        const char* what;
        std::string folder;  // empty: no logDirectory
        bool writable;
        const char* why;
    };
    const Case cases[] = {
        {"existing folder", scratch, true, ""},
        {"missing folder", scratch + "\\missing", false, "the folder doesn't exist"},
        {"below a file", blocker + "\\logs", false, "the folder doesn't exist"},
        {"default folder", "", true, ""},
    };
    for (const Case& c : cases) {
        ScopedHklmOverride hklm;
        ASSERT_TRUE(hklm.IsActive());
        if (!c.folder.empty()) {
            ASSERT_TRUE(Put("logDirectory", Text(c.folder.c_str())));
        }
        const sim::DoctorReport report = sim::Examine();
        EXPECT_EQ(report.log.writable, c.writable) << c.what;
        EXPECT_EQ(report.log.notWritable, c.why) << c.what;
        EXPECT_EQ(report.log.defaultFolder, c.folder.empty()) << c.what;
        if (!c.folder.empty()) {
            EXPECT_EQ(report.log.folder, c.folder) << c.what;
        }
        EXPECT_EQ(report.log.fileName.rfind("orvane-fido2Client-", 0), 0u) << c.what << ": " << report.log.fileName;
        std::ostringstream text;
        sim::PrintDoctorText(report, text);
        EXPECT_NE(text.str().find(c.writable ? "writable   yes" : "writable   no, the folder doesn't exist"),
                  std::string::npos)
            << c.what << "\n"
            << text.str();
    }
    DeleteFileW(StringUtils::Utf8ToWide(blocker).c_str());
    RemoveDirectoryW(StringUtils::Utf8ToWide(scratch).c_str());
}

}  // namespace
