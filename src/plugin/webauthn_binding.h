// The binding to the platform's webauthn.dll: loaded by name once per process when the first
// request needs it, ten functions resolved into one table, never unloaded.
#pragma once

#include <windows.h>

#include <cstdint>

#include "wire/webauthn_records.h"

namespace webauthn {

using GetApiVersionNumberFn = DWORD(WINAPI*)();
using MakeCredentialFn = HRESULT(WINAPI*)(HWND, const WEBAUTHN_RP_ENTITY_INFORMATION*,
                                          const WEBAUTHN_USER_ENTITY_INFORMATION*,
                                          const WEBAUTHN_COSE_CREDENTIAL_PARAMETERS*, const WEBAUTHN_CLIENT_DATA*,
                                          const WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS*,
                                          WEBAUTHN_CREDENTIAL_ATTESTATION**);
using GetAssertionFn = HRESULT(WINAPI*)(HWND, PCWSTR, const WEBAUTHN_CLIENT_DATA*,
                                        const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS*, WEBAUTHN_ASSERTION**);
using FreeCredentialAttestationFn = void(WINAPI*)(WEBAUTHN_CREDENTIAL_ATTESTATION*);
using FreeAssertionFn = void(WINAPI*)(WEBAUTHN_ASSERTION*);
using CancelCurrentOperationFn = HRESULT(WINAPI*)(const GUID*);

struct WebauthnEntry {
    const char* exportName;
    FARPROC function;
};

// Rows in their fixed order; all ten must resolve for the library to count as usable.
extern WebauthnEntry webauthnTable[10];
constexpr int kWebauthnTableCount = 10;

// Makes the one attempt of the process, or waits for it; returns whether the library is usable.
bool LoadWebauthn();
// Whether the one attempt succeeded; never loads.
bool WebauthnUsable();

// Typed access to the rows that are called; valid only while WebauthnUsable().
GetApiVersionNumberFn ApiVersionNumber();
MakeCredentialFn AuthenticatorMakeCredential();
GetAssertionFn AuthenticatorGetAssertion();
FreeCredentialAttestationFn FreeCredentialAttestation();
FreeAssertionFn FreeAssertion();
CancelCurrentOperationFn CancelCurrentOperation();

// Bit 0 of "FIDO2Flags": strict record versions. Read once per process.
bool GetFIDO2Flags();

}  // namespace webauthn
