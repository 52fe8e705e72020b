// Steers the session services that sessions, impersonation and registry sessions rest on,
// for one test; the system's own table comes back afterwards.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <atomic>

#include "sysutil/process_utils.h"

class ScopedSessionFake {
public:
    ScopedSessionFake();
    ~ScopedSessionFake();

    // What the fake answers. connectStateOk false makes the state query fail.
    static bool connectStateOk;
    static WTS_CONNECTSTATE_CLASS connectState;
    static bool userTokenOk;
    static HWND shellWindow;
    static std::atomic<int> userTokenCalls;
    static std::atomic<int> connectStateCalls;
};
