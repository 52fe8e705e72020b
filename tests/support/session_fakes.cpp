#include "support/session_fakes.h"

#include <cstring>

bool ScopedSessionFake::connectStateOk = true;
WTS_CONNECTSTATE_CLASS ScopedSessionFake::connectState = WTSActive;
bool ScopedSessionFake::userTokenOk = true;
HWND ScopedSessionFake::shellWindow = nullptr;
std::atomic<int> ScopedSessionFake::userTokenCalls{0};
std::atomic<int> ScopedSessionFake::connectStateCalls{0};

namespace {

BOOL WINAPI FakeQueryA(HANDLE, DWORD, WTS_INFO_CLASS info, LPSTR* buffer, DWORD* size) {
    if (info != WTSConnectState) return FALSE;
    ++ScopedSessionFake::connectStateCalls;
    if (!ScopedSessionFake::connectStateOk) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    auto* state = static_cast<WTS_CONNECTSTATE_CLASS*>(LocalAlloc(LPTR, sizeof(WTS_CONNECTSTATE_CLASS)));
    *state = ScopedSessionFake::connectState;
    *buffer = reinterpret_cast<LPSTR>(state);
    *size = sizeof(*state);
    return TRUE;
}

BOOL WINAPI FakeQueryW(HANDLE, DWORD, WTS_INFO_CLASS info, LPWSTR* buffer, DWORD* size) {
    if (info != WTSUserName) return FALSE;
    static const wchar_t kName[] = L"alice";
    auto* text = static_cast<wchar_t*>(LocalAlloc(LPTR, sizeof(kName)));
    memcpy(text, kName, sizeof(kName));
    *buffer = text;
    *size = sizeof(kName);
    return TRUE;
}

void WINAPI FakeFree(PVOID block) { LocalFree(block); }

BOOL WINAPI FakeUserToken(ULONG, PHANDLE token) {
    ++ScopedSessionFake::userTokenCalls;
    if (!ScopedSessionFake::userTokenOk) {
        SetLastError(ERROR_PRIVILEGE_NOT_HELD);
        return FALSE;
    }
    return OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token);
}

HWND WINAPI FakeShell() { return ScopedSessionFake::shellWindow; }

}  // namespace

ScopedSessionFake::ScopedSessionFake() {
    connectStateOk = true;
    connectState = WTSActive;
    userTokenOk = true;
    shellWindow = nullptr;
    userTokenCalls = 0;
    connectStateCalls = 0;
    ProcessUtils::Sessions() = ProcessUtils::SessionApi{FakeQueryA, FakeQueryW, FakeFree, FakeUserToken, FakeShell};
}

ScopedSessionFake::~ScopedSessionFake() { ProcessUtils::Sessions() = ProcessUtils::SystemSessions(); }
