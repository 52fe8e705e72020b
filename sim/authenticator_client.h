// The software authenticator as tests and tools reach it: found the way the plug-in finds
// webauthn.dll (by name, from a folder beside the program), with its control exports.
#pragma once

#include <windows.h>

#include <string>

#include "sim/authenticator/sim_control.h"

namespace sim {

// A path beside the running program.
std::wstring BesideProgram(const std::wstring& leaf);
// Makes a folder beside the program the DLL directory when it holds a webauthn.dll.
bool UseAuthenticatorFolder(const std::wstring& folder);

class SoftwareAuthenticator {
public:
    // Makes the folder the DLL directory and loads webauthn.dll from it, so that the plug-in's
    // own LoadLibraryW("webauthn.dll") finds this very module.
    explicit SoftwareAuthenticator(const std::wstring& folder = L"sim-authenticator");

    bool Loaded() const { return module != nullptr; }
    template <class Fn>
    Fn Get(const char* name) const {
        return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    }

    void Reset() const { Get<SimAuth_ResetFn>("SimAuth_Reset")(); }
    void Mode(int32_t mode) const { Get<SimAuth_SetModeFn>("SimAuth_SetMode")(mode); }
    bool WaitBlocked(LONG count, DWORD timeoutMs = 5000) const {
        return Get<SimAuth_WaitForBlockedFn>("SimAuth_WaitForBlocked")(count, timeoutMs) != FALSE;
    }
    LONG Blocked() const { return Get<SimAuth_BlockedCountFn>("SimAuth_BlockedCount")(); }
    LONG LiveRecords() const { return Get<SimAuth_LiveRecordsFn>("SimAuth_LiveRecords")(); }
    LONG Calls() const { return Get<SimAuth_CallCountFn>("SimAuth_CallCount")(); }
    LONG Killed() const { return Get<SimAuth_KilledCallersFn>("SimAuth_KilledCallers")(); }
    LONG RunningCallers() const { return Get<SimAuth_RunningCallersFn>("SimAuth_RunningCallers")(); }
    void HoldCrypto(bool hold) const { Get<SimAuth_HoldCryptoFn>("SimAuth_HoldCrypto")(hold); }
    DWORD CryptoThread() const { return CryptoState(nullptr); }
    LONG CryptoJobs() const {
        LONG jobs = 0;
        CryptoState(&jobs);
        return jobs;
    }

private:
    DWORD CryptoState(LONG* jobs) const {
        DWORD id = 0;
        Get<SimAuth_CryptoStateFn>("SimAuth_CryptoState")(&id, jobs);
        return id;
    }

    HMODULE module = nullptr;
};

}  // namespace sim
