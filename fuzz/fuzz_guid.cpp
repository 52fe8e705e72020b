// The GUID of command 5: lengths other than 0 and 16 fail, and what is kept re-encodes
// to the bytes it came from.
#include <cstring>

#include "fuzz_common.h"
#include "sim/agent_codec.h"
#include "wire/record_decoders.h"
#include "wire/record_release.h"

using namespace webauthn;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::WithAndWithoutFailure(data, size, [&](bool injected) {
        GUID* guid = nullptr;
        uint32_t taken = Decode_GUID(data, data + size, &guid);
        if (taken == 0) {
            fuzz::Check(guid == nullptr, "failed decode left a GUID");
            return;
        }
        const uint32_t length = ReadLe32(data);
        fuzz::Check(length == 0 || length == 16, "accepted a GUID of another length");
        fuzz::Check((guid != nullptr) == (length == 16), "GUID presence does not follow its length");
        if (!injected) {
            agent::Bytes again = agent::EncodeCancelData(guid);
            fuzz::Check(again.size() == taken, "GUID size differs");
            fuzz::Check(memcmp(again.data(), data, 4 + (guid ? 16 : 0)) == 0, "GUID bytes differ");
        }
        Free_GUID(guid);
    });
    return 0;
}
