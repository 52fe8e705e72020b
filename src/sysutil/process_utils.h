// Which session this process or thread is in, who that session's user is, what this module
// is; naming threads; and working as the user of a session.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <cstdint>
#include <string>

#include "foundation/rc_object.h"
#include "sysutil/string_utils.h"

namespace ProcessUtils {

constexpr uint32_t kCurrentSession = 0xFFFFFFFFu;
constexpr uint32_t kCurrentThread = 0xFFFFFFFFu;

// An explicit session is returned as it is. Otherwise the impersonated user's session when
// useThreadToken and the thread impersonates, else the process's; 0xFFFFFFFF on failure.
uint32_t GetSessionID(bool useThreadToken, uint32_t session = kCurrentSession);
bool IsSessionValid(uint32_t session, uint32_t* resolved);
std::wstring GetSessionUserName(uint32_t session);
// The text comes in a calloc block that the caller frees with free(). logLevel -1: silent.
bool GetUserSIDForSession(uint32_t session, char** sidText, int32_t logLevel);
void SetThreadName(uint32_t threadId, const char* name);
// This module's path (the DLL when the code runs inside one) or the executable's.
std::string GetModulePath(bool ownModule);

// The session services, reached through this table so that the rules built on them can be
// driven through every branch, also where the system at hand answers only one way.
struct SessionApi {
    BOOL(WINAPI* querySessionInformationA)(HANDLE, DWORD, WTS_INFO_CLASS, LPSTR*, DWORD*);
    BOOL(WINAPI* querySessionInformationW)(HANDLE, DWORD, WTS_INFO_CLASS, LPWSTR*, DWORD*);
    void(WINAPI* freeMemory)(PVOID);
    BOOL(WINAPI* queryUserToken)(ULONG, PHANDLE);
    HWND(WINAPI* getShellWindow)();
};
SessionApi& Sessions();
// The platform's table, for restoring after a test.
SessionApi SystemSessions();

// Connection state of a session, false if it can't be had.
bool QueryConnectState(uint32_t session, WTS_CONNECTSTATE_CLASS* state);

using SetThreadDescriptionFn = HRESULT(WINAPI*)(HANDLE, PCWSTR);
// SetThreadName with the description function given (null: the system has none).
void SetThreadNameWith(SetThreadDescriptionFn setDescription, uint32_t threadId, const char* name);

}  // namespace ProcessUtils

// Lets the calling thread work as the user of a session. Belongs to one thread.
class SyImpersonateSession : public RCObject {
public:
    SyImpersonateSession() = default;
    ~SyImpersonateSession() override { Clear(); }

    bool Init(uint32_t session);
    bool Start();
    bool Stop();
    void Clear();
    // A primary token of the session's user (or of its desktop shell), owned by the caller.
    HANDLE GetUserToken(uint32_t session);

    int32_t GetSession() const { return session; }
    bool IsImpersonating() const { return impersonating; }
    bool HasToken() const { return userToken != nullptr; }

private:
    int32_t session = -1;
    HANDLE userToken = nullptr;
    bool impersonating = false;
    StringUtils::XString userName{L""};
};
