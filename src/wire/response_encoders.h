// Encoders of the answers to commands 3 and 4: the HRESULT, a presence word and the library's
// result record. One walk of the fields serves both the size pass and the encoder, so the two
// can't disagree. A record newer than these encoders goes out as the newest version known,
// unless the strict-versions policy says to fail.
#pragma once

#include "wire/webauthn_records.h"

namespace webauthn {

constexpr DWORD kAttestationNewest = 4;
constexpr DWORD kAssertionNewest = 3;
constexpr DWORD kCommonAttestationNewest = 1;
constexpr DWORD kCredentialNewest = 1;

// Asked only when a record newer than the encoders is met; true makes that encoding fail.
using StrictVersionsFn = bool (*)();
void SetStrictVersionsPolicy(StrictVersionsFn policy);

uint32_t Encode_AuthenticatorMakeCredentialResponse(uint8_t* cursor, const uint8_t* end, uint32_t hr,
                                                    const WEBAUTHN_CREDENTIAL_ATTESTATION* attestation);
uint32_t Encode_AuthenticatorGetAssertionResponse(uint8_t* cursor, const uint8_t* end, uint32_t hr,
                                                  const WEBAUTHN_ASSERTION* assertion);
// The records inside an answer; with a null cursor each measures what it would write, which is
// how the size pass and the answers' own encoders reach them.
uint32_t Encode_Assertion(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_ASSERTION* assertion);
uint32_t Encode_CommonAttestation(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_COMMON_ATTESTATION* common);
uint32_t Encode_Credential(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_CREDENTIAL* credential);
uint32_t Encode_Extensions(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_EXTENSIONS* extensions);
uint32_t Encode_HmacSecretSalt(uint8_t* cursor, const uint8_t* end, const WEBAUTHN_HMAC_SECRET_SALT* salt);

// The data size of an answer: 4 for hr plus the measured record. The two answer encoders above
// need a real cursor.
uint32_t Size_AuthenticatorMakeCredentialResponse(const WEBAUTHN_CREDENTIAL_ATTESTATION* attestation);
uint32_t Size_AuthenticatorGetAssertionResponse(const WEBAUTHN_ASSERTION* assertion);

}  // namespace webauthn
