#include "sysutil/process_utils.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "support/log_capture.h"
#include "support/session_fakes.h"

using namespace ProcessUtils;

namespace {

uint32_t ProcessSession() {
    DWORD id = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &id);
    return id;
}

TEST(SessionIds, TheProcessSessionSilentlyAndFailuresLeaveNothingBehind) {
    ScopedLogCapture log(LOG_VERBOSE);
    EXPECT_EQ(GetSessionID(true), ProcessSession());
    for (const CapturedLine& line : log->Lines()) {
        EXPECT_NE(line.function, "ProcessUtils::GetSessionID()") << "not impersonating is the normal case";
    }
    ScopedSessionFake fake;

    ScopedSessionFake::connectStateOk = false;
    uint32_t resolved = 99;
    EXPECT_FALSE(IsSessionValid(3, &resolved));
    EXPECT_EQ(resolved, 99u) << "a rejected session leaves the out value alone";
    ScopedSessionFake::userTokenOk = false;
    char* sid = reinterpret_cast<char*>(1);
    log->ClearLines();
    EXPECT_FALSE(GetUserSIDForSession(4, &sid, -1));
    EXPECT_EQ(sid, nullptr) << "the out pointer is cleared first";
    EXPECT_EQ(log->Count("Unable to get user token"), 0u) << "level -1 is silent";
}

bool ThreadImpersonates() {
    HANDLE token = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return false;
    CloseHandle(token);
    return true;
}

// Nothing switches impersonation on today; should anything do so, the thread gets its own token back.
TEST(Impersonation, StopAndTheEndOfTheObjectGiveTheThreadItsOwnTokenBack) {
    ScopedSessionFake fake;
    {
        SyImpersonateSession impersonation;
        ASSERT_TRUE(impersonation.Init(ProcessSession()));
        ASSERT_TRUE(impersonation.Start());
        EXPECT_TRUE(ThreadImpersonates());
        EXPECT_TRUE(impersonation.Stop());
        EXPECT_FALSE(ThreadImpersonates());
        ASSERT_TRUE(impersonation.Start());
    }
    EXPECT_FALSE(ThreadImpersonates()) << "the end of the object reverts";
}

std::string ModuleFile(HMODULE module) {
    wchar_t path[MAX_PATH];
    return StringUtils::WideToUtf8(std::wstring(path, GetModuleFileNameW(module, path, MAX_PATH)));
}

TEST(ModulePaths, TheOwnModuleIsTheExecutableOrTheDllInUtf8) {
    EXPECT_EQ(GetModulePath(true), ModuleFile(nullptr)) << "linked into the executable, the module is the executable";
    // A copy of the probe under a name outside ASCII: the path comes back as UTF-8.
    std::wstring exe = StringUtils::Utf8ToWide(ModuleFile(nullptr));
    std::wstring folder = exe.substr(0, exe.find_last_of(L"\\/") + 1);
    std::wstring copy = folder + L"module_probe-\u00E9t\u00E9-" + std::to_wstring(GetCurrentProcessId()) + L".dll";
    ASSERT_TRUE(CopyFileW((folder + L"module_probe.dll").c_str(), copy.c_str(), FALSE));
    HMODULE module = LoadLibraryW(copy.c_str());
    using Probe = int (*)(int, char*, int);
    auto probe = reinterpret_cast<Probe>(reinterpret_cast<void*>(GetProcAddress(module, "ProbeModulePath")));
    ASSERT_NE(probe, nullptr);
    char buffer[MAX_PATH + 1];
    probe(1, buffer, sizeof(buffer));
    EXPECT_EQ(std::string(buffer), StringUtils::WideToUtf8(copy));
    FreeLibrary(module);
    DeleteFileW(copy.c_str());
}

}  // namespace
