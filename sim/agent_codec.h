// The agent's side of the wire: the remote session's agent flattens the WebAuthn records of a
// browser call into a request PDU. Written from the wire tables, independently of the plug-in's
// decoders, so that each checks the other. Portable: builds natively for fuzzing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wire/webauthn_records.h"

namespace agent {

using Bytes = std::vector<uint8_t>;

// Appends wire primitives: little-endian words, padded byte strings and counted wide texts.
class WireWriter {
public:
    void U32(uint32_t value);
    void Buf(const void* data, uint32_t length);
    void Wstr(const wchar16* text);  // null: count 0; else units with the terminator
    void Guid(const webauthn::GUID* guid) { Buf(guid, guid ? 16 : 0); }
    Bytes bytes;
};

// The data of command 3 and 4. Options are written as far as their dwVersion asks, up to the
// newest version that the records have room for.
Bytes EncodeMakeCredentialData(const webauthn::Fido2MakeCredentialRequest& request);
Bytes EncodeGetAssertionData(const webauthn::Fido2GetAssertionRequest& request);
Bytes EncodeMakeCredentialOptions(const webauthn::WEBAUTHN_AUTHENTICATOR_MAKE_CREDENTIAL_OPTIONS* options);
Bytes EncodeGetAssertionOptions(const webauthn::WEBAUTHN_AUTHENTICATOR_GET_ASSERTION_OPTIONS* options);
// The data of command 5: the GUID as a buf of 16 bytes, or of 0 for none.
Bytes EncodeCancelData(const webauthn::GUID* guid);

// A request PDU: the 12-byte header, then the data.
Bytes RequestPdu(uint32_t requestId, uint32_t command, const Bytes& data);

// Field-by-field equality of decoded requests, down to every string and byte. `why` names
// the first field that differs.
bool SameMakeCredentialRequest(const webauthn::Fido2MakeCredentialRequest& a,
                               const webauthn::Fido2MakeCredentialRequest& b, std::string* why = nullptr);
bool SameGetAssertionRequest(const webauthn::Fido2GetAssertionRequest& a, const webauthn::Fido2GetAssertionRequest& b,
                             std::string* why = nullptr);

}  // namespace agent
