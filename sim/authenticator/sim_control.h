// The control exports of the software authenticator (webauthn.dll of sim/), by which tests
// and tools steer it in the process that loaded it.
#pragma once

#include <windows.h>

#include <cstdint>

extern "C" {

enum SimAuthMode : int32_t {
    SIMAUTH_INSTANT = 0,            // answers at once
    SIMAUTH_BLOCK_UNTIL_CANCEL = 1,  // a user who doesn't touch: returns only when cancelled
};

// Back to the defaults: instant, no failure, newest records, packed attestation, API version 4;
// blocked calls return cancelled, stored credentials, pending cancels and all counts but the
// live records are cleared; the crypto thread ends.
typedef void(WINAPI* SimAuth_ResetFn)();
typedef void(WINAPI* SimAuth_SetModeFn)(int32_t mode);
// A failure HRESULT for the next operations (0: none); withRecord also hands out a record.
typedef void(WINAPI* SimAuth_SetFailureFn)(HRESULT hr, BOOL withRecord);
// Versions of the records handed out; any value, also beyond what the plug-in knows.
typedef void(WINAPI* SimAuth_SetRecordVersionsFn)(DWORD attestation, DWORD assertion);
typedef void(WINAPI* SimAuth_SetApiVersionFn)(DWORD version);
// false: "packed" self attestation; true: "none".
typedef void(WINAPI* SimAuth_SetNoneAttestationFn)(BOOL none);
// Records handed out and not yet given back through the free functions.
typedef LONG(WINAPI* SimAuth_LiveRecordsFn)();
// Operations that entered the library, and those blocked in it right now (a caller killed
// while blocked no longer counts).
typedef LONG(WINAPI* SimAuth_CallCountFn)();
typedef LONG(WINAPI* SimAuth_BlockedCountFn)();
// Callers whose thread ended in the library without leaving the call, waiting for their user
// or for the crypto thread: killed in the library.
typedef LONG(WINAPI* SimAuth_KilledCallersFn)();
// Threads that called into the library since the last reset and are still running.
typedef LONG(WINAPI* SimAuth_RunningCallersFn)();
// Waits until at least `count` operations are blocked; false on time-out.
typedef BOOL(WINAPI* SimAuth_WaitForBlockedFn)(LONG count, DWORD timeoutMs);
// The crypto thread (its id, 0 when there is none; jobs handed to it and not yet taken back)
// and a hold that keeps its jobs queued: a caller waits there for as long as a test likes.
// A reset lets the held jobs run and ends the thread.
typedef void(WINAPI* SimAuth_CryptoStateFn)(DWORD* threadId, LONG* pendingJobs);
typedef void(WINAPI* SimAuth_HoldCryptoFn)(BOOL hold);
// Performance-counter readings of the last operation: when it entered and when it left.
typedef void(WINAPI* SimAuth_LastCallTimesFn)(LONGLONG* entered, LONGLONG* returned);
}
