#include "wire/record_release.h"

namespace webauthn {

void FreeText(PCWSTR text) { WireFree(const_cast<wchar16*>(text)); }

void Free_RpEntityInformation(WEBAUTHN_RP_ENTITY_INFORMATION* record) {
    if (!record) return;
    FreeText(record->pwszId);
    FreeText(record->pwszName);
    FreeText(record->pwszIcon);
    WireFree(record);
}

void Free_UserEntityInformation(WEBAUTHN_USER_ENTITY_INFORMATION* record) {
    if (!record) return;
    WireFree(record->pbId);
    FreeText(record->pwszName);
    FreeText(record->pwszIcon);
    FreeText(record->pwszDisplayName);
    WireFree(record);
}

void Free_CoseCredentialParameters(WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* record) {
    if (!record) return;
    if (record->pCredentialParameters) {
        for (DWORD i = 0; i < record->cCredentialParameters; ++i) {
            FreeText(record->pCredentialParameters[i].pwszCredentialType);
        }
        WireFree(record->pCredentialParameters);
    }
    WireFree(record);
}

void Free_ClientData(WEBAUTHN_CLIENT_DATA* record) {
    if (!record) return;
    WireFree(record->pbClientDataJSON);
    FreeText(record->pwszHashAlgId);
    WireFree(record);
}

void Free_Credentials(WEBAUTHN_CREDENTIALS* list) {
    if (!list) return;
    if (list->pCredentials) {
        for (DWORD i = 0; i < list->cCredentials; ++i) {
            WireFree(list->pCredentials[i].pbId);
            FreeText(list->pCredentials[i].pwszCredentialType);
        }
        WireFree(list->pCredentials);
    }
    list->pCredentials = nullptr;
    list->cCredentials = 0;
}

void Free_Extensions(WEBAUTHN_EXTENSIONS* list) {
    if (!list) return;
    if (list->pExtensions) {
        for (DWORD i = 0; i < list->cExtensions; ++i) {
            FreeText(list->pExtensions[i].pwszExtensionIdentifier);
            WireFree(list->pExtensions[i].pvExtension);
        }
        WireFree(list->pExtensions);
    }
    list->pExtensions = nullptr;
    list->cExtensions = 0;
}

void Free_CredentialEx(WEBAUTHN_CREDENTIAL_EX* record) {
    if (!record) return;
    WireFree(record->pbId);
    FreeText(record->pwszCredentialType);
    WireFree(record);
}

void Free_CredentialList(WEBAUTHN_CREDENTIAL_LIST* record) {
    if (!record) return;
    if (record->ppCredentials) {
        for (DWORD i = 0; i < record->cCredentials; ++i) Free_CredentialEx(record->ppCredentials[i]);
        WireFree(record->ppCredentials);
    }
    WireFree(record);
}

void Free_HmacSecretSalt(WEBAUTHN_HMAC_SECRET_SALT* record) {
    if (!record) return;
    WireFree(record->pbFirst);
    WireFree(record->pbSecond);
    WireFree(record);
}

void Free_HmacSecretSaltValues(WEBAUTHN_HMAC_SECRET_SALT_VALUES* record) {
    if (!record) return;
    Free_HmacSecretSalt(record->pGlobalHmacSalt);
    if (record->pCredWithHmacSecretSaltList) {
        for (DWORD i = 0; i < record->cCredWithHmacSecretSaltList; ++i) {
            WireFree(record->pCredWithHmacSecretSaltList[i].pbCredID);
            Free_HmacSecretSalt(record->pCredWithHmacSecretSaltList[i].pHmacSecretSalt);
        }
        WireFree(record->pCredWithHmacSecretSaltList);
    }
    WireFree(record);
}

void Free_GUID(GUID* guid) { WireFree(guid); }

// The version gates are those of the decoder, so a record that failed half way is freed
// correctly: what lies behind the failure is still zero.
void Free_AuthenticatorMakeCredentialOptions(WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* record) {
    if (!record) return;
    Free_Credentials(&record->CredentialList);
    Free_Extensions(&record->Extensions);
    if (record->dwVersion >= 2) Free_GUID(record->pCancellationId);
    if (record->dwVersion >= 3) Free_CredentialList(record->pExcludeCredentialList);
    WireFree(record);
}

void Free_AuthenticatorGetAssertionOptions(WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* record) {
    if (!record) return;
    Free_Credentials(&record->CredentialList);
    Free_Extensions(&record->Extensions);
    if (record->dwVersion >= 2) {
        FreeText(record->pwszU2fAppId);
        WireFree(record->pbU2fAppId);
    }
    if (record->dwVersion >= 3) Free_GUID(record->pCancellationId);
    if (record->dwVersion >= 4) Free_CredentialList(record->pAllowCredentialList);
    if (record->dwVersion >= 5) WireFree(record->pbCredLargeBlob);
    if (record->dwVersion >= 6) Free_HmacSecretSaltValues(record->pHmacSecretSaltValues);
    WireFree(record);
}

void Free_AuthenticatorMakeCredentialRequest(Fido2MakeCredentialRequest* request) {
    if (!request) return;
    Free_RpEntityInformation(request->pRpInformation);
    Free_UserEntityInformation(request->pUserInformation);
    Free_CoseCredentialParameters(request->pPubKeyCredParams);
    Free_ClientData(request->pClientData);
    Free_AuthenticatorMakeCredentialOptions(request->pMakeCredentialOptions);
    WireFree(request);
}

void Free_AuthenticatorGetAssertionRequest(Fido2GetAssertionRequest* request) {
    if (!request) return;
    FreeText(request->pwszRpId);
    Free_ClientData(request->pClientData);
    Free_AuthenticatorGetAssertionOptions(request->pGetAssertionOptions);
    WireFree(request);
}

}  // namespace webauthn
