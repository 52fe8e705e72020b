// Decoder of the get-assertion request, by the round trip of fuzz_common.h.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::RequestRoundTrip(data, size, webauthn::Decode_AuthenticatorGetAssertionRequest,
                           agent::EncodeGetAssertionData, agent::SameGetAssertionRequest,
                           webauthn::Free_AuthenticatorGetAssertionRequest);
    return 0;
}
