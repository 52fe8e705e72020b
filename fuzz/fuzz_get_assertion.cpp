// Decoder of the get-assertion request, by the round trip of fuzz_common.h.
#include "fuzz_common.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

using namespace webauthn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::RequestRoundTrip(data, size, Decode_AuthenticatorGetAssertionRequest, agent::EncodeGetAssertionData,
                           agent::SameGetAssertionRequest, Free_AuthenticatorGetAssertionRequest);
    return 0;
}
