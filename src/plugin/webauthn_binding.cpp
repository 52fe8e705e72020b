#include "plugin/webauthn_binding.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

#include "logging/log.h"
#include "plugin/operation_seams.h"
#include "registry/sy_reg_key.h"

namespace webauthn {

WebauthnEntry webauthnTable[10] = {
    {"WebAuthNGetApiVersionNumber", nullptr},
    {"WebAuthNIsUserVerifyingPlatformAuthenticatorAvailable", nullptr},
    {"WebAuthNAuthenticatorMakeCredential", nullptr},
    {"WebAuthNAuthenticatorGetAssertion", nullptr},
    {"WebAuthNFreeCredentialAttestation", nullptr},
    {"WebAuthNFreeAssertion", nullptr},
    {"WebAuthNGetCancellationId", nullptr},
    {"WebAuthNCancelCurrentOperation", nullptr},
    {"WebAuthNGetErrorName", nullptr},
    {"WebAuthNGetW3CExceptionDOMError", nullptr},
};

namespace {

std::once_flag loadOnce;
std::atomic<bool> webauthnLoadTried{false};
std::atomic<bool> webauthnUsable{false};

// The one attempt. Its outcome is final: a missing library is not looked for again.
void Attempt() {
    static const char* const kLabel = "LoadWebauthn()";
    webauthnUsable = false;
    webauthnLoadTried = true;
    HMODULE library = LoadLibraryW(L"webauthn.dll");
    if (!library) {
        SY_LOG(LOG_ERROR, kLabel, "Failed to load webauthn.dll, error=%d\n", static_cast<int>(GetLastError()));
        return;
    }
    SY_LOG(LOG_INFO, kLabel, "Load webauthn.dll successfully\n");
    ReachOperationPoint(kPointInsideFirstLoad);
    for (WebauthnEntry& row : webauthnTable) {
        row.function = GetProcAddress(library, row.exportName);
        if (!row.function) {
            SY_LOG(LOG_ERROR, kLabel, "Failed to get proc address for %s, error=%d\n", row.exportName,
                   static_cast<int>(GetLastError()));
            return;
        }
    }
    SY_LOG(LOG_INFO, kLabel, "Get function pointers for webauthn.dll successfully\n");
    webauthnUsable = true;
}

template <class Fn>
Fn Row(int index) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(webauthnTable[index].function));
}

}  // namespace

bool LoadWebauthn() {
    // Concurrent callers wait for the one attempt and all see its outcome.
    std::call_once(loadOnce, Attempt);
    return webauthnUsable;
}

bool WebauthnUsable() { return webauthnUsable; }

GetApiVersionNumberFn ApiVersionNumber() { return Row<GetApiVersionNumberFn>(0); }
MakeCredentialFn AuthenticatorMakeCredential() { return Row<MakeCredentialFn>(2); }
GetAssertionFn AuthenticatorGetAssertion() { return Row<GetAssertionFn>(3); }
FreeCredentialAttestationFn FreeCredentialAttestation() { return Row<FreeCredentialAttestationFn>(4); }
FreeAssertionFn FreeAssertion() { return Row<FreeAssertionFn>(5); }
CancelCurrentOperationFn CancelCurrentOperation() { return Row<CancelCurrentOperationFn>(7); }

bool GetFIDO2Flags() {
    static const uint32_t flags = [] {
        const std::string path = "HKLM\\Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2\\FIDO2Flags";
        const std::string text = ReadRegString(path, RegView::Reg64Bit, -1);
        // Decimal only: "0x1" reads as 0.
        const uint32_t value = text.empty() ? 0 : static_cast<uint32_t>(strtol(text.c_str(), nullptr, 10));
        SY_LOG(LOG_DEBUG, "GetFIDO2Flags::<lambda_1>::operator ()()", "FIDO2Flags=%s", text.c_str());
        return value;
    }();
    return (flags & 1) != 0;
}

}  // namespace webauthn
