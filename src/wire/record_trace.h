// Field-by-field dumps of the WebAuthn records that pass through the plug-in: fields at
// TRACE, byte fields as hex dumps at VERBOSE. Callers invoke them only from DEBUG on.
#pragma once

#include "wire/webauthn_records.h"

namespace webauthn {

void Log_RpEntityInformation(const WEBAUTHN_RP_ENTITY_INFORMATION* record);
void Log_UserEntityInformation(const WEBAUTHN_USER_ENTITY_INFORMATION* record);
void Log_CoseCredentialParameters(const WEBAUTHN_COSE_CREDENTIAL_PARAMETERS* record);
void Log_ClientData(const WEBAUTHN_CLIENT_DATA* record);
void Log_Credential(const WEBAUTHN_CREDENTIAL* credential);
void Log_Credentials(DWORD count, const WEBAUTHN_CREDENTIAL* credentials);
void Log_CredentialList(const WEBAUTHN_CREDENTIAL_LIST* list);
void Log_Extensions(const WEBAUTHN_EXTENSIONS* list);
void Log_HmacSecretSalt(const WEBAUTHN_HMAC_SECRET_SALT* salt);
void Log_HmacSecretSaltValues(const WEBAUTHN_HMAC_SECRET_SALT_VALUES* values);
void Log_AuthenticatorMakeCredentialOptions(const WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* options);
void Log_AuthenticatorGetAssertionOptions(const WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* options);
void Log_CredentialAttestation(const WEBAUTHN_CREDENTIAL_ATTESTATION* attestation);
void Log_Assertion(const WEBAUTHN_ASSERTION* assertion);
// One wide-string field at TRACE, "name=text", under the caller's function name.
void Log_TextField(const char* function, const char* name, PCWSTR text);

}  // namespace webauthn
