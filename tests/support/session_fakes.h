// Steers the session services that sessions, impersonation and registry sessions rest on,
// for one test; the system's own table comes back afterwards.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <atomic>
#include <cstring>

#include "sysutil/process_utils.h"

class ScopedSessionFake {
public:
    ScopedSessionFake() {
        connectStateOk = userTokenOk = true;
        connectState = WTSActive;
        shellWindow = nullptr;
        userTokenCalls = connectStateCalls = 0;
        ProcessUtils::Sessions() = ProcessUtils::SessionApi{QueryA, QueryW, Free, UserToken, Shell};
    }
    ~ScopedSessionFake() { ProcessUtils::Sessions() = ProcessUtils::SystemSessions(); }

    // What the fake answers. connectStateOk false makes the state query fail.
    static inline bool connectStateOk = true, userTokenOk = true;
    static inline WTS_CONNECTSTATE_CLASS connectState = WTSActive;
    static inline HWND shellWindow = nullptr;
    static inline std::atomic<int> userTokenCalls{0}, connectStateCalls{0};

private:
    static BOOL WINAPI QueryA(HANDLE, DWORD, WTS_INFO_CLASS info, LPSTR* buffer, DWORD* size) {
        if (info != WTSConnectState) return FALSE;
        ++connectStateCalls;
        if (!connectStateOk) {
            SetLastError(ERROR_FILE_NOT_FOUND);
            return FALSE;
        }
        auto* state = static_cast<WTS_CONNECTSTATE_CLASS*>(LocalAlloc(LPTR, sizeof(WTS_CONNECTSTATE_CLASS)));
        *state = connectState;
        *buffer = reinterpret_cast<LPSTR>(state);
        *size = sizeof(*state);
        return TRUE;
    }
    static BOOL WINAPI QueryW(HANDLE, DWORD, WTS_INFO_CLASS info, LPWSTR* buffer, DWORD* size) {
        if (info != WTSUserName) return FALSE;
        static const wchar_t kName[] = L"alice";
        *buffer = static_cast<wchar_t*>(LocalAlloc(LPTR, sizeof(kName)));
        memcpy(*buffer, kName, sizeof(kName));
        *size = sizeof(kName);
        return TRUE;
    }
    static void WINAPI Free(PVOID block) { LocalFree(block); }
    static BOOL WINAPI UserToken(ULONG, PHANDLE token) {
        ++userTokenCalls;
        if (!userTokenOk) {
            SetLastError(ERROR_PRIVILEGE_NOT_HELD);
            return FALSE;
        }
        return OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token);
    }
    static HWND WINAPI Shell() { return shellWindow; }
};
