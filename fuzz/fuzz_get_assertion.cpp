// Decoder of the get-assertion request: no crash, no leak, and what it keeps re-encodes by
// the agent's encoder into a request that decodes to the same records.
#include "fuzz_common.h"
#include "sim/agent_codec.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

using namespace webauthn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::WithAndWithoutFailure(data, size, [&](bool injected) {
        Fido2GetAssertionRequest* first = Decode_AuthenticatorGetAssertionRequest(data, data + size);
        if (!first) return;
        if (!injected) {
            agent::Bytes again = agent::EncodeGetAssertionData(*first);
            Fido2GetAssertionRequest* second =
                Decode_AuthenticatorGetAssertionRequest(again.data(), again.data() + again.size());
            fuzz::Check(second != nullptr, "re-encoded request does not decode");
            fuzz::Check(agent::SameGetAssertionRequest(*first, *second), "re-encoded request differs");
            fuzz::Check(agent::EncodeGetAssertionData(*second) == again, "encoding is not stable");
            Free_AuthenticatorGetAssertionRequest(second);
        }
        Free_AuthenticatorGetAssertionRequest(first);
    });
    return 0;
}
