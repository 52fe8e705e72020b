#include "wire/request_decoders.h"

#include "logging/log.h"
#include "wire/record_release.h"

namespace webauthn {

using detail::AllocZeroed;
using detail::FieldWalk;
using detail::TextOut;

namespace {

// Options newer than our record carry fields that it has no room for, and the library would
// read them behind the block: such a record is refused rather than passed on with a version
// that it doesn't have.
bool KnownVersion(FieldWalk& w, DWORD version, DWORD newest, const char* function, const char* record) {
    if (version <= newest) return true;
    SY_LOG(LOG_ERROR, function, "Unsupported %s version %u refused, the newest known is %u\n", record,
           static_cast<unsigned>(version), static_cast<unsigned>(newest));
    return w.Step(0, __LINE__);
}

// The fields both option records open with, behind the presence word.
template <class Options>
bool DecodeOptionsHead(FieldWalk& w, const uint8_t* end, Options* r, DWORD newest, const char* function,
                       const char* record) {
    return w.Step(Decode_uint32(w.At(), end, &r->dwVersion), __LINE__) &&
           KnownVersion(w, r->dwVersion, newest, function, record) &&
           w.Step(Decode_uint32(w.At(), end, &r->dwTimeoutMilliseconds), __LINE__) &&
           w.Step(Decode_Credentials(w.At(), end, &r->CredentialList), __LINE__) &&
           w.Step(Decode_Extensions(w.At(), end, &r->Extensions), __LINE__) &&
           w.Step(Decode_uint32(w.At(), end, &r->dwAuthenticatorAttachment), __LINE__);
}

}  // namespace

uint32_t Decode_AuthenticatorMakeCredentialOptions(const uint8_t* cursor, const uint8_t* end,
                                                   WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS** out) {
    FieldWalk w(cursor, end, "Decode_AuthenticatorMakeCredentialOptions");
    uint32_t presence = 0;
    if (!w.Step(Decode_uint32(w.At(), end, &presence), __LINE__)) {
        if (out) *out = nullptr;
        return 0;
    }
    if (presence == 0) {
        if (out) *out = nullptr;
        return w.Taken();
    }
    auto* r = AllocZeroed<WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS>();
    bool ok = r != nullptr &&
              DecodeOptionsHead(w, end, r, kMakeCredentialOptionsNewest, "Decode_AuthenticatorMakeCredentialOptions()",
                                "WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS") &&
              w.Step(Decode_uint32(w.At(), end, reinterpret_cast<uint32_t*>(&r->bRequireResidentKey)), __LINE__) &&
              w.Step(Decode_uint32(w.At(), end, &r->dwUserVerificationRequirement), __LINE__) &&
              w.Step(Decode_uint32(w.At(), end, &r->dwAttestationConveyancePreference), __LINE__) &&
              w.Step(Decode_uint32(w.At(), end, &r->dwFlags), __LINE__);
    if (ok && r->dwVersion >= 2) ok = w.Step(Decode_GUID(w.At(), end, &r->pCancellationId), __LINE__);
    if (ok && r->dwVersion >= 3) ok = w.Step(Decode_CredentialList(w.At(), end, &r->pExcludeCredentialList), __LINE__);
    if (ok && r->dwVersion >= 4) {
        ok = w.Step(Decode_uint32(w.At(), end, &r->dwEnterpriseAttestation), __LINE__) &&
             w.Step(Decode_uint32(w.At(), end, &r->dwLargeBlobSupport), __LINE__) &&
             w.Step(Decode_uint32(w.At(), end, reinterpret_cast<uint32_t*>(&r->bPreferResidentKey)), __LINE__);
    }
    if (ok && r->dwVersion >= 5) {
        ok = w.Step(Decode_uint32(w.At(), end, reinterpret_cast<uint32_t*>(&r->bBrowserInPrivateMode)), __LINE__);
    }
    if (!ok) {
        if (out) *out = nullptr;
        Free_AuthenticatorMakeCredentialOptions(r);
        return 0;
    }
    if (out) {
        *out = r;
    } else {
        Free_AuthenticatorMakeCredentialOptions(r);
    }
    return w.Taken();
}

uint32_t Decode_AuthenticatorGetAssertionOptions(const uint8_t* cursor, const uint8_t* end,
                                                 WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS** out) {
    FieldWalk w(cursor, end, "Decode_AuthenticatorGetAssertionOptions");
    uint32_t presence = 0;
    if (!w.Step(Decode_uint32(w.At(), end, &presence), __LINE__)) return 0;
    if (presence == 0) {
        if (out) *out = nullptr;
        return w.Taken();
    }
    auto* r = AllocZeroed<WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS>();
    bool ok = r != nullptr &&
              DecodeOptionsHead(w, end, r, kGetAssertionOptionsNewest, "Decode_AuthenticatorGetAssertionOptions()",
                                "WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS") &&
              w.Step(Decode_uint32(w.At(), end, &r->dwUserVerificationRequirement), __LINE__) &&
              w.Step(Decode_uint32(w.At(), end, &r->dwFlags), __LINE__);
    if (ok && r->dwVersion >= 2) {
        uint32_t appIdPresence = 0;
        ok = w.Step(Decode_wstr(w.At(), end, TextOut(&r->pwszU2fAppId)), __LINE__) &&
             w.Step(Decode_uint32(w.At(), end, &appIdPresence), __LINE__);
        if (ok && appIdPresence != 0) {
            r->pbU2fAppId = AllocZeroed<BOOL>();
            ok = r->pbU2fAppId != nullptr &&
                 w.Step(Decode_uint32(w.At(), end, reinterpret_cast<uint32_t*>(r->pbU2fAppId)), __LINE__);
        }
    }
    if (ok && r->dwVersion >= 3) ok = w.Step(Decode_GUID(w.At(), end, &r->pCancellationId), __LINE__);
    if (ok && r->dwVersion >= 4) ok = w.Step(Decode_CredentialList(w.At(), end, &r->pAllowCredentialList), __LINE__);
    if (ok && r->dwVersion >= 5) {
        ok = w.Step(Decode_uint32(w.At(), end, &r->dwCredLargeBlobOperation), __LINE__) &&
             w.Step(Decode_buf_uint32Len(w.At(), end, &r->pbCredLargeBlob, &r->cbCredLargeBlob), __LINE__);
    }
    if (ok && r->dwVersion >= 6) {
        ok = w.Step(Decode_HmacSecretSaltValues(w.At(), end, &r->pHmacSecretSaltValues), __LINE__) &&
             w.Step(Decode_uint32(w.At(), end, reinterpret_cast<uint32_t*>(&r->bBrowserInPrivateMode)), __LINE__);
    }
    if (!ok) {
        Free_AuthenticatorGetAssertionOptions(r);
        return 0;
    }
    if (out) {
        *out = r;
    } else {
        Free_AuthenticatorGetAssertionOptions(r);
    }
    return w.Taken();
}

Fido2MakeCredentialRequest* Decode_AuthenticatorMakeCredentialRequest(const uint8_t* cursor, const uint8_t* end) {
    FieldWalk w(cursor, end, "Decode_AuthenticatorMakeCredentialRequest");
    WindowRect rect{};
    WEBAUTHN_RP_ENTITY_INFORMATION* rp = nullptr;
    WEBAUTHN_USER_ENTITY_INFORMATION* user = nullptr;
    WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* params = nullptr;
    WEBAUTHN_CLIENT_DATA* clientData = nullptr;
    WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* options = nullptr;
    Fido2MakeCredentialRequest* request = nullptr;
    bool ok = w.Step(Decode_WindowRect(w.At(), end, &rect), __LINE__) &&
              w.Step(Decode_RpEntityInformation(w.At(), end, &rp), __LINE__) &&
              w.Step(Decode_UserEntityInformation(w.At(), end, &user), __LINE__) &&
              w.Step(Decode_CoseCredentialParameters(w.At(), end, &params), __LINE__) &&
              w.Step(Decode_ClientData(w.At(), end, &clientData), __LINE__) &&
              w.Step(Decode_AuthenticatorMakeCredentialOptions(w.At(), end, &options), __LINE__);
    if (ok) request = AllocZeroed<Fido2MakeCredentialRequest>();
    if (!request) {
        Free_RpEntityInformation(rp);
        Free_UserEntityInformation(user);
        Free_CoseCredentialParameters(params);
        Free_ClientData(clientData);
        Free_AuthenticatorMakeCredentialOptions(options);
        return nullptr;
    }
    *request = Fido2MakeCredentialRequest{rect.left, rect.top, rect.right, rect.bottom, rp, user, params, clientData,
                                          options};
    return request;
}

Fido2GetAssertionRequest* Decode_AuthenticatorGetAssertionRequest(const uint8_t* cursor, const uint8_t* end) {
    FieldWalk w(cursor, end, "Decode_AuthenticatorGetAssertionRequest");
    WindowRect rect{};
    wchar16* rpId = nullptr;
    WEBAUTHN_CLIENT_DATA* clientData = nullptr;
    WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* options = nullptr;
    Fido2GetAssertionRequest* request = nullptr;
    bool ok = w.Step(Decode_WindowRect(w.At(), end, &rect), __LINE__) &&
              w.Step(Decode_wstr(w.At(), end, &rpId), __LINE__) &&
              w.Step(Decode_ClientData(w.At(), end, &clientData), __LINE__) &&
              w.Step(Decode_AuthenticatorGetAssertionOptions(w.At(), end, &options), __LINE__);
    if (ok) request = AllocZeroed<Fido2GetAssertionRequest>();
    if (!request) {
        FreeText(rpId);
        Free_ClientData(clientData);
        Free_AuthenticatorGetAssertionOptions(options);
        return nullptr;
    }
    *request = Fido2GetAssertionRequest{rect.left, rect.top, rect.right, rect.bottom, rpId, clientData, options};
    return request;
}

}  // namespace webauthn
