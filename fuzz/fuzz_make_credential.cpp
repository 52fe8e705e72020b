// Decoder of the make-credential request, by the round trip of fuzz_common.h.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::RequestRoundTrip(data, size, webauthn::Decode_AuthenticatorMakeCredentialRequest,
                           agent::EncodeMakeCredentialData, agent::SameMakeCredentialRequest,
                           webauthn::Free_AuthenticatorMakeCredentialRequest);
    return 0;
}
