#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

#include <sddl.h>

#include <cstdlib>
#include <cstring>

#include "logging/log.h"
#include "sysutil/scoped_handle.h"

namespace ProcessUtils {

namespace {

// A level of -1 silences the line; any other passes like a call site's.
bool Enabled(int32_t level) { return level >= 0 && processLogLevel >= level; }

}  // namespace

SessionApi SystemSessions() {
    return SessionApi{WTSQuerySessionInformationA, WTSQuerySessionInformationW, WTSFreeMemory, WTSQueryUserToken,
                      GetShellWindow};
}

SessionApi& Sessions() {
    static SessionApi api = SystemSessions();
    return api;
}

uint32_t GetSessionID(bool useThreadToken, uint32_t session) {
    if (session != kCurrentSession) return session;
    if (useThreadToken) {
        ScopedHandle token;
        if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, FALSE, token.Out())) {
            DWORD id = 0;
            DWORD length = 0;
            if (GetTokenInformation(token.Get(), TokenSessionId, &id, sizeof(id), &length)) {
                return id;
            }
            SY_LOG_LAST_ERROR(LOG_ERROR, "ProcessUtils::GetSessionID()", "GetTokenInformation(0x%p) failed",
                              token.Get());
        } else if (GetLastError() != ERROR_NO_TOKEN) {
            SY_LOG_LAST_ERROR(LOG_ERROR, "ProcessUtils::GetSessionID()", "OpenThreadToken(0x%x) failed",
                              static_cast<unsigned>(GetCurrentThreadId()));
        }
    }
    DWORD id = kCurrentSession;
    if (!ProcessIdToSessionId(GetCurrentProcessId(), &id)) {
        id = kCurrentSession;
        SY_LOG_LAST_ERROR(LOG_ERROR, "ProcessUtils::GetSessionID()", "ProcessIdToSessionId(%d) failed",
                          static_cast<int>(GetCurrentProcessId()));
    }
    return id;
}

bool QueryConnectState(uint32_t session, WTS_CONNECTSTATE_CLASS* state) {
    char* buffer = nullptr;
    DWORD size = 0;
    const SessionApi& api = Sessions();
    if (!api.querySessionInformationA(WTS_CURRENT_SERVER_HANDLE, session, WTSConnectState, &buffer, &size)) {
        return false;
    }
    if (state && buffer && size >= sizeof(WTS_CONNECTSTATE_CLASS)) {
        memcpy(state, buffer, sizeof(*state));
    }
    if (buffer) api.freeMemory(buffer);
    return true;
}

bool IsSessionValid(uint32_t session, uint32_t* resolved) {
    uint32_t id = GetSessionID(true, session);
    if (!QueryConnectState(id, nullptr)) return false;
    if (resolved) *resolved = id;
    return true;
}

std::wstring GetSessionUserName(uint32_t session) {
    uint32_t id = GetSessionID(true, session);
    wchar_t* buffer = nullptr;
    DWORD size = 0;
    const SessionApi& api = Sessions();
    if (!api.querySessionInformationW(WTS_CURRENT_SERVER_HANDLE, id, WTSUserName, &buffer, &size)) {
        return std::wstring();
    }
    std::wstring name = buffer ? buffer : L"";
    if (buffer) api.freeMemory(buffer);
    return name;
}

bool GetUserSIDForSession(uint32_t session, char** sidText, int32_t logLevel) {
    static const char* const kLabel = "ProcessUtils::GetUserSIDForSession()";
    if (sidText) *sidText = nullptr;
    int id = static_cast<int>(GetSessionID(true, session));

    ScopedHandle token;
    if (!Sessions().queryUserToken(static_cast<ULONG>(id), token.Out())) {
        if (Enabled(logLevel)) LogLastError(kLabel, logLevel, "Unable to get user token of session (id: %d)", id);
        return false;
    }

    DWORD size = 0;
    if (GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &size)) {
        SY_LOG(LOG_ERROR, kLabel, "Unexpected success of GetTokenInformation call");
        return false;
    }
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        if (Enabled(logLevel)) {
            LogLastError(kLabel, logLevel,
                         "GetTokenInformation failed to report insufficient buffer to get user token size for session "
                         "(id: %d)",
                         id);
        }
        return false;
    }

    struct HeapBlock {
        void* block;
        ~HeapBlock() {
            if (block) HeapFree(GetProcessHeap(), 0, block);
        }
    } info{HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size)};
    if (!info.block) {
        SY_LOG(LOG_ERROR, kLabel, "HeapAlloc (%d bytes) failed", static_cast<int>(size));
        return false;
    }
    if (!GetTokenInformation(token.Get(), TokenUser, info.block, size, &size)) {
        if (Enabled(logLevel)) {
            LogLastError(kLabel, logLevel, "Failed to retrieve information about user token for session (id: %d)",
                         id);
        }
        return false;
    }
    PSID sid = static_cast<TOKEN_USER*>(info.block)->User.Sid;
    if (!IsValidSid(sid)) {
        if (Enabled(logLevel)) {
            LogLastError(kLabel, logLevel, "SID retrieved from user token for session (id: %d) is invalid", id);
        }
        return false;
    }
    struct LocalText {
        char* text = nullptr;
        ~LocalText() {
            if (text) LocalFree(text);
        }
    } converted;
    if (!ConvertSidToStringSidA(sid, &converted.text)) {
        if (Enabled(logLevel)) {
            LogLastError(kLabel, logLevel,
                         "ConvertSidToStringSid failed for SID retrieved from user token for session (id: %d)", id);
        }
        return false;
    }
    size_t length = strlen(converted.text);
    char* copy = static_cast<char*>(calloc(length + 1, 1));
    if (!copy) {
        if (Enabled(logLevel)) {
            Log(kLabel, logLevel, "Buffer allocation to store SID failed for session (id: %d), error number: %d", id,
                ENOMEM);
        }
        return false;
    }
    memcpy(copy, converted.text, length);
    if (sidText) {
        *sidText = copy;
    } else {
        free(copy);
    }
    return true;
}

namespace {

constexpr DWORD kNameThreadException = 0x406D1388;

// Lets the naming exception pass when no debugger took it: the continuation handler runs
// only after a debugger had its first chance.
LONG CALLBACK SwallowNameException(EXCEPTION_POINTERS* info) {
    if (info->ExceptionRecord->ExceptionCode == kNameThreadException) return EXCEPTION_CONTINUE_EXECUTION;
    return EXCEPTION_CONTINUE_SEARCH;
}

#pragma pack(push, 8)
struct ThreadNameInfo {
    DWORD type;        // 0x1000
    LPCSTR name;
    DWORD threadId;
    DWORD flags;
};
#pragma pack(pop)

void TellDebugger(uint32_t threadId, const char* name) {
    ThreadNameInfo info{0x1000, name, threadId == kCurrentThread ? GetCurrentThreadId() : threadId, 0};
    PVOID handler = AddVectoredExceptionHandler(0, SwallowNameException);
    RaiseException(kNameThreadException, 0, sizeof(info) / sizeof(ULONG_PTR),
                   reinterpret_cast<const ULONG_PTR*>(&info));
    if (handler) RemoveVectoredExceptionHandler(handler);
}

SetThreadDescriptionFn LookUpSetThreadDescription() {
    static INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    static SetThreadDescriptionFn function = nullptr;
    BOOL pending = FALSE;
    if (InitOnceBeginInitialize(&once, 0, &pending, nullptr) && pending) {
        HMODULE kernel = GetModuleHandleA("Kernel32.dll");
        function = kernel ? reinterpret_cast<SetThreadDescriptionFn>(
                                reinterpret_cast<void*>(GetProcAddress(kernel, "SetThreadDescription")))
                          : nullptr;
        SY_LOG(LOG_INFO, "ProcessUtils::SetThreadName()", "SetThreadDescription() is%s supported",
               function ? "" : " not");
        InitOnceComplete(&once, 0, nullptr);
    }
    return function;
}

}  // namespace

void SetThreadNameWith(SetThreadDescriptionFn setDescription, uint32_t threadId, const char* name) {
    static const char* const kLabel = "ProcessUtils::SetThreadName()";
    if (!name) name = "";
    if (setDescription) {
        // The pseudo handle of the current thread needs no closing.
        ScopedHandle opened(threadId == kCurrentThread ? nullptr
                                                       : OpenThread(THREAD_SET_LIMITED_INFORMATION, FALSE, threadId));
        HANDLE thread = threadId == kCurrentThread ? GetCurrentThread() : opened.Get();
        if (!thread) {
            SY_LOG_LAST_ERROR(LOG_DEBUG, kLabel, "OpenThread(0x%04X) failed", static_cast<unsigned>(threadId));
        } else {
            StringUtils::XString wide(name);
            HRESULT hr = setDescription(thread, wide.GetWide() ? wide.GetWide() : L"");
            if (SUCCEEDED(hr)) {
                SY_LOG(LOG_VERBOSE, kLabel, "SetThreadDescription(0x%04X, \"%s\") [OK]", static_cast<unsigned>(threadId),
                       name);
                return;
            }
            SY_LOG(LOG_DEBUG, kLabel, "SetThreadDescription(0x%04X, \"%s\") failed (err=0x%x)",
                   static_cast<unsigned>(threadId), name, static_cast<unsigned>(hr));
        }
    }
    TellDebugger(threadId, name);
}

void SetThreadName(uint32_t threadId, const char* name) {
    SetThreadNameWith(LookUpSetThreadDescription(), threadId, name);
}

std::string GetModulePath(bool ownModule) {
    HMODULE module = nullptr;
    if (ownModule) {
        if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                reinterpret_cast<LPCSTR>(&GetModulePath), &module)) {
            return std::string();
        }
    }
    // Asked in wide form: the narrow one would be in the ANSI code page, not UTF-8.
    wchar_t buffer[MAX_PATH];
    DWORD n = GetModuleFileNameW(module, buffer, MAX_PATH);
    if (n == 0 || (n == MAX_PATH && GetLastError() == ERROR_INSUFFICIENT_BUFFER)) return std::string();
    return StringUtils::WideToUtf8(std::wstring(buffer, n));
}

}  // namespace ProcessUtils

// --- SyImpersonateSession ---

using ProcessUtils::GetSessionID;

HANDLE SyImpersonateSession::GetUserToken(uint32_t sessionId) {
    static const char* const kLabel = "SyImpersonateSession::GetUserToken()";
    const int id = static_cast<int>(sessionId);
    if (sessionId == 0) {
        SY_LOG(LOG_WARN, kLabel, "SessionID(%d) - Impersonating session 0 not allowed", id);
        return nullptr;
    }
    WTS_CONNECTSTATE_CLASS state = WTSDown;
    if (!ProcessUtils::QueryConnectState(GetSessionID(true, sessionId), &state) ||
        (state != WTSActive && state != WTSDisconnected)) {
        SY_LOG(LOG_WARN, kLabel, "SessionID(%d) - Nobody is logged on", id);
        return nullptr;
    }

    ScopedHandle token;
    if (!ProcessUtils::Sessions().queryUserToken(sessionId, token.Out())) {
        SY_LOG_LAST_ERROR(LOG_ERROR, kLabel, "SessionID(%d) - WTSQueryUserToken() failed", id);
        *token.Out() = nullptr;
        // A process that runs in that very session can stand in with its desktop shell's token.
        if (GetSessionID(true, ProcessUtils::kCurrentSession) != sessionId) return nullptr;
        HWND shell = ProcessUtils::Sessions().getShellWindow();
        if (!shell) {
            SY_LOG(LOG_ERROR, kLabel, "SessionID(%d) - GetShellWindow() failed", id);
            return nullptr;
        }
        DWORD pid = 0;
        if (GetWindowThreadProcessId(shell, &pid) == 0 || pid == 0) {
            SY_LOG_LAST_ERROR(LOG_ERROR, kLabel, "SessionID(%d) - GetWindowThreadProcessId(0x%p) failed", id,
                              static_cast<void*>(shell));
            return nullptr;
        }
        ScopedHandle process(OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, pid));
        if (!process.Valid()) {
            SY_LOG_LAST_ERROR(LOG_ERROR, kLabel, "SessionID(%d) - OpenProcess(0x%x) failed", id,
                              static_cast<unsigned>(pid));
            return nullptr;
        }
        if (!OpenProcessToken(process.Get(), TOKEN_DUPLICATE, token.Out())) {
            SY_LOG_LAST_ERROR(LOG_ERROR, kLabel, "SessionID(%d) - OpenProcessToken(0x%x,0x%p) failed", id,
                              static_cast<unsigned>(pid), process.Get());
            return nullptr;
        }
    }

    HANDLE duplicate = nullptr;
    BOOL ok = DuplicateTokenEx(token.Get(), 0x8F, nullptr, SecurityImpersonation, TokenPrimary, &duplicate);
    if (ok) {
        SY_LOG(LOG_VERBOSE, kLabel, "SessionID(%d) - user token 0x%p [OK]", id, duplicate);
    } else {
        SY_LOG_LAST_ERROR(LOG_ERROR, kLabel, "SessionID(%d) - DuplicateTokenEx(0x%p) failed", id, token.Get());
        duplicate = nullptr;
    }
    return duplicate;
}

bool SyImpersonateSession::Init(uint32_t requested) {
    static const char* const kLabel = "SyImpersonateSession::Init()";
    uint32_t resolved = GetSessionID(true, requested);
    if (!ProcessUtils::QueryConnectState(resolved, nullptr)) {
        SY_LOG(LOG_ERROR, kLabel, "Invalid session ID %d", static_cast<int>(requested));
        return false;
    }
    if (userToken) {
        if (static_cast<uint32_t>(session) == resolved) {
            SY_LOG(LOG_WARN, kLabel, "Already impersonating session %d", session);
            return true;
        }
        if (impersonating) {
            SY_LOG(LOG_ERROR, kLabel, "Attempt to impersonate session %d ignored, already impersonating session %d",
                   static_cast<int>(resolved), session);
            return false;
        }
        Clear();
    }
    HANDLE token = GetUserToken(resolved);
    if (!token) {
        SY_LOG(LOG_ERROR, kLabel, "Failed to get user token for session %d", static_cast<int>(resolved));
        return false;
    }
    userToken = token;
    session = static_cast<int32_t>(resolved);
    userName.CopyWide(ProcessUtils::GetSessionUserName(resolved).c_str());
    return true;
}

bool SyImpersonateSession::Start() {
    if (impersonating) return true;
    if (!userToken) {
        SY_LOG(LOG_WARN, "SyImpersonateSession::Start()", "Not initialized on session %d", session);
        return false;
    }
    if (!ImpersonateLoggedOnUser(userToken)) {
        SY_LOG_LAST_ERROR(LOG_WARN, "SyImpersonateSession::Start()", "SessionID(%d) - ImpersonateLoggedOnUser() failed",
                          session);
        return false;
    }
    SY_LOG(LOG_DEBUG, "SyImpersonateSession::Start()", "Impersonating %ls on session %d started", userName.GetWide(),
           session);
    impersonating = true;
    return true;
}

bool SyImpersonateSession::Stop() {
    if (!impersonating) return true;
    if (!RevertToSelf()) {
        SY_LOG_LAST_ERROR(LOG_WARN, "SyImpersonateSession::Stop()", "SessionID(%d) - RevertToSelf() failed", session);
        return false;
    }
    SY_LOG(LOG_DEBUG, "SyImpersonateSession::Stop()", "Impersonating %ls on session %d stopped", userName.GetWide(),
           session);
    impersonating = false;
    return true;
}

void SyImpersonateSession::Clear() {
    if (impersonating && !RevertToSelf()) {
        SY_LOG_LAST_ERROR(LOG_WARN, "SyImpersonateSession::Stop()", "SessionID(%d) - RevertToSelf() failed", session);
    }
    impersonating = false;
    if (userToken) CloseHandle(userToken);
    userToken = nullptr;
    session = -1;
    userName.SetWide(L"", false);
}
