// Decoders of the data of commands 3 (make credential) and 4 (get assertion), into the
// records that go to the library unchanged.
#pragma once

#include "wire/record_decoders.h"

namespace webauthn {

// The data starts at cursor and ends at end (cursor + dataLen). Null on failure.
Fido2MakeCredentialRequest* Decode_AuthenticatorMakeCredentialRequest(const uint8_t* cursor, const uint8_t* end);
Fido2GetAssertionRequest* Decode_AuthenticatorGetAssertionRequest(const uint8_t* cursor, const uint8_t* end);

uint32_t Decode_AuthenticatorMakeCredentialOptions(const uint8_t* cursor, const uint8_t* end,
                                                   WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS** out);
uint32_t Decode_AuthenticatorGetAssertionOptions(const uint8_t* cursor, const uint8_t* end,
                                                 WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS** out);

}  // namespace webauthn
