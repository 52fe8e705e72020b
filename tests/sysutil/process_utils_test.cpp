#include "sysutil/process_utils.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
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

// Lines logged under one function label: the counts are this function's, whatever else the
// process logs meanwhile.
size_t LinesOf(const ScopedLogCapture& log, const std::string& function) {
    size_t n = 0;
    for (const CapturedLine& line : log->Lines()) n += line.function == function ? 1 : 0;
    return n;
}

TEST(SessionIds, GivenOrElseTheProcessSessionSilentlyAndValidityAndSidFollowTheSessionServices) {
    ScopedLogCapture log(LOG_VERBOSE);
    EXPECT_EQ(GetSessionID(true), ProcessSession());
    EXPECT_EQ(GetSessionID(false), ProcessSession());
    EXPECT_EQ(LinesOf(log, "ProcessUtils::GetSessionID()"), 0u) << "not impersonating is the normal case";
    ScopedSessionFake fake;
    EXPECT_EQ(GetSessionID(true, 7), 7u);
    EXPECT_EQ(fake.connectStateCalls, 0);
    uint32_t resolved = 0;
    EXPECT_TRUE(IsSessionValid(kCurrentSession, &resolved));
    EXPECT_EQ(resolved, ProcessSession());
    EXPECT_EQ(GetSessionUserName(3), L"alice");
    char* sid = reinterpret_cast<char*>(1);
    ASSERT_TRUE(GetUserSIDForSession(kCurrentSession, &sid, LOG_ERROR));
    ASSERT_NE(sid, nullptr);
    EXPECT_EQ(std::string(sid).rfind("S-1-", 0), 0u) << sid;
    free(sid);

    ScopedSessionFake::connectStateOk = false;
    resolved = 99;
    EXPECT_FALSE(IsSessionValid(3, &resolved));
    EXPECT_EQ(resolved, 99u) << "a rejected session leaves the out value alone";
    // A failure is logged at the given level, or not at all for -1.
    ScopedSessionFake::userTokenOk = false;
    sid = reinterpret_cast<char*>(1);
    EXPECT_FALSE(GetUserSIDForSession(4, &sid, LOG_DEBUG));
    EXPECT_EQ(sid, nullptr) << "the out pointer is cleared first";
    EXPECT_FALSE(GetUserSIDForSession(4, &sid, -1));
    ASSERT_EQ(LinesOf(log, "ProcessUtils::GetUserSIDForSession()"), 1u);
    for (const CapturedLine& line : log->Lines()) {
        if (line.function == "ProcessUtils::GetUserSIDForSession()") EXPECT_EQ(line.level, LOG_DEBUG) << line.text;
    }
}

bool HasThreadToken() {
    HANDLE token = nullptr;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) return false;
    CloseHandle(token);
    return true;
}

TEST(UserTokens, OnlyActiveAndDisconnectedSessionsOtherThanZeroHaveAUser) {
    ScopedLogCapture log(LOG_VERBOSE);
    ScopedSessionFake fake;
    SyImpersonateSession impersonation;
    EXPECT_EQ(impersonation.GetUserToken(0), nullptr);
    EXPECT_EQ(fake.connectStateCalls + fake.userTokenCalls, 0) << "session 0: nobody is asked";
    EXPECT_EQ(log->Count("SessionID(0) - Impersonating session 0 not allowed"), 1u);
    for (WTS_CONNECTSTATE_CLASS state : {WTSConnected, WTSShadow, WTSListen, WTSIdle, WTSDown}) {
        ScopedSessionFake::connectState = state;
        EXPECT_EQ(impersonation.GetUserToken(5), nullptr) << state;
    }
    ScopedSessionFake::connectStateOk = false;
    EXPECT_EQ(impersonation.GetUserToken(5), nullptr);
    EXPECT_EQ(log->Count("SessionID(5) - Nobody is logged on"), 6u);
    EXPECT_EQ(fake.userTokenCalls, 0);
    ScopedSessionFake::connectStateOk = true;
    for (WTS_CONNECTSTATE_CLASS state : {WTSActive, WTSDisconnected}) {
        ScopedSessionFake::connectState = state;
        HANDLE token = impersonation.GetUserToken(5);
        EXPECT_NE(token, nullptr) << state;
        if (token) CloseHandle(token);
    }
    EXPECT_EQ(log->Count("SessionID(5) - user token 0x"), 2u);

    // Without the service's token, the own session falls back to the shell's; no other does.
    ScopedSessionFake::userTokenOk = false;
    HWND shell = CreateWindowExA(0, "STATIC", "shell", 0, 0, 0, 1, 1, HWND_MESSAGE, nullptr, nullptr, nullptr);
    ASSERT_NE(shell, nullptr);
    ScopedSessionFake::shellWindow = shell;
    const uint32_t own = ProcessSession();
    ASSERT_NE(own, 0u);
    HANDLE token = impersonation.GetUserToken(own);
    ASSERT_NE(token, nullptr);
    TOKEN_TYPE type{};
    DWORD length = 0;
    EXPECT_TRUE(GetTokenInformation(token, TokenType, &type, sizeof(type), &length) && type == TokenPrimary);
    CloseHandle(token);
    log->ClearLines();
    EXPECT_EQ(impersonation.GetUserToken(own + 1), nullptr) << "another session has no shell of ours";
    EXPECT_EQ(LinesOf(log, "SyImpersonateSession::GetUserToken()"), 1u);
    EXPECT_EQ(log->Count("SessionID(" + std::to_string(own + 1) + ") - WTSQueryUserToken() failed"), 1u);
    ScopedSessionFake::shellWindow = nullptr;
    DestroyWindow(shell);
    EXPECT_EQ(impersonation.GetUserToken(own), nullptr);
    EXPECT_EQ(log->Count("GetShellWindow() failed"), 1u);
}

TEST(Impersonation, InitStartStopAndClear) {
    ScopedLogCapture log(LOG_VERBOSE);
    ScopedSessionFake fake;
    SyImpersonateSession impersonation;
    EXPECT_FALSE(impersonation.Start());
    EXPECT_EQ(log->Count("Not initialized on session -1"), 1u);
    EXPECT_TRUE(impersonation.Stop()) << "stop without start is a success";
    ScopedSessionFake::connectStateOk = false;
    EXPECT_FALSE(impersonation.Init(8));
    EXPECT_EQ(log->Count("Invalid session ID 8"), 1u);
    ScopedSessionFake::connectStateOk = true;
    EXPECT_FALSE(impersonation.Init(0));
    EXPECT_EQ(log->Count("Failed to get user token for session 0"), 1u);
    fake.userTokenCalls = 0;

    const uint32_t own = ProcessSession();
    const std::string ownText = std::to_string(own), otherText = std::to_string(own + 1);
    ASSERT_TRUE(impersonation.Init(own));
    EXPECT_EQ(impersonation.GetSession(), static_cast<int32_t>(own));
    EXPECT_TRUE(impersonation.Init(own));
    EXPECT_EQ(log->Count("Already impersonating session " + ownText), 1u);
    EXPECT_EQ(fake.userTokenCalls, 1) << "the second Init changed nothing";
    EXPECT_TRUE(impersonation.Start());
    EXPECT_TRUE(impersonation.Start());
    EXPECT_EQ(log->Count("Impersonating alice on session " + ownText + " started"), 1u);
    EXPECT_TRUE(HasThreadToken());
    EXPECT_FALSE(impersonation.Init(own + 1)) << "a thread has to stop before it changes session";
    EXPECT_EQ(log->Count("Attempt to impersonate session " + otherText + " ignored, already impersonating session " +
                         ownText),
              1u);
    EXPECT_TRUE(impersonation.Stop());
    EXPECT_TRUE(impersonation.Stop());
    EXPECT_EQ(log->Count("on session " + ownText + " stopped"), 1u);
    EXPECT_FALSE(HasThreadToken());

    ASSERT_TRUE(impersonation.Init(own + 1)) << "initialised but not impersonating: another session is fine";
    EXPECT_EQ(impersonation.GetSession(), static_cast<int32_t>(own + 1));
    impersonation.Start();
    impersonation.Clear();
    EXPECT_FALSE(impersonation.IsImpersonating());
    EXPECT_FALSE(impersonation.HasToken());
    EXPECT_EQ(impersonation.GetSession(), -1);
    EXPECT_FALSE(HasThreadToken()) << "Clear reverts";
}

std::string ModuleFile(HMODULE module) {
    wchar_t path[MAX_PATH];
    return StringUtils::WideToUtf8(std::wstring(path, GetModuleFileNameW(module, path, MAX_PATH)));
}

TEST(ModulePaths, TheOwnModuleIsTheExecutableOrTheDllInUtf8) {
    EXPECT_EQ(GetModulePath(false), ModuleFile(nullptr));
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
    probe(0, buffer, sizeof(buffer));
    EXPECT_EQ(std::string(buffer), ModuleFile(nullptr));
    FreeLibrary(module);
    DeleteFileW(copy.c_str());
}

}  // namespace
