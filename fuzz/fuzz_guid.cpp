// The GUID of command 5: lengths other than 0 and 16 fail, and what is kept re-encodes to the
// bytes it came from.
#include <cstring>

#include "fuzz_common.h"
#include "wire/record_decoders.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::WithAndWithoutFailure(data, size, [&](bool injected) {
        webauthn::GUID* guid = nullptr;
        const uint32_t taken = webauthn::Decode_GUID(data, data + size, &guid);
        const uint32_t length = taken ? ReadLe32(data) : 0;
        fuzz::Check(taken || !guid, "failed decode left a GUID");
        fuzz::Check(!taken || length == 0 || length == 16, "accepted a GUID of another length");
        fuzz::Check((guid != nullptr) == (taken && length == 16), "GUID presence does not follow its length");
        if (taken && !injected) {
            const agent::Bytes again = agent::EncodeCancelData(guid);
            fuzz::Check(again.size() == taken && memcmp(again.data(), data, 4 + (guid ? 16 : 0)) == 0, "GUID differs");
        }
        webauthn::Free_GUID(guid);
    });
    return 0;
}
