// The frame check of a received blob and the copy of an accepted request.
#include <cstring>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint32_t length = size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
    RequestHeader header{};
    uint64_t total = 0;
    FrameCheck result = CheckRequestFrame(size ? data : nullptr, length, &header, &total);
    if (length < kRequestHeaderSize) {
        fuzz::Check(result == FrameCheck::TooShort, "short blob accepted");
        return 0;
    }
    fuzz::Check(total == static_cast<uint64_t>(header.dataLen) + 12, "total wraps");
    fuzz::Check((result == FrameCheck::Ok) == (total <= length), "frame verdict wrong");
    if (result != FrameCheck::Ok) return 0;
    fuzz::WithAndWithoutFailure(data, size, [&](bool) {
        uint8_t* copy = DuplicateRequestPdu(data);
        fuzz::Check(!copy || memcmp(copy, data, static_cast<size_t>(total)) == 0, "copy differs");
        FreePdu(copy);
    });
    return 0;
}
