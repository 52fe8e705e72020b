// Release of decoded request records, whole or partly decoded. Every routine accepts null.
#pragma once

#include "wire/webauthn_records.h"

namespace webauthn {

void Free_RpEntityInformation(WEBAUTHN_RP_ENTITY_INFORMATION* record);
void Free_UserEntityInformation(WEBAUTHN_USER_ENTITY_INFORMATION* record);
void Free_CoseCredentialParameters(WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* record);
void Free_ClientData(WEBAUTHN_CLIENT_DATA* record);
// A list by value inside the options: its contents go, the list is left empty.
void Free_Credentials(WEBAUTHN_CREDENTIALS* list);
void Free_Extensions(WEBAUTHN_EXTENSIONS* list);
void Free_CredentialEx(WEBAUTHN_CREDENTIAL_EX* record);
void Free_CredentialList(WEBAUTHN_CREDENTIAL_LIST* record);
void Free_HmacSecretSalt(WEBAUTHN_HMAC_SECRET_SALT* record);
void Free_HmacSecretSaltValues(WEBAUTHN_HMAC_SECRET_SALT_VALUES* record);
void Free_GUID(GUID* guid);
void Free_AuthenticatorMakeCredentialOptions(WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* record);
void Free_AuthenticatorGetAssertionOptions(WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* record);
void Free_AuthenticatorMakeCredentialRequest(Fido2MakeCredentialRequest* request);
void Free_AuthenticatorGetAssertionRequest(Fido2GetAssertionRequest* request);

// Frees a decoded text, which the records hold as a pointer to const.
void FreeText(PCWSTR text);

}  // namespace webauthn
