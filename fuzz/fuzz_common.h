// Shared by the harnesses: every input runs with the counting allocator of the tests, once
// more with one allocation failing, so that every allocation-failure path is reached and
// reproducible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "sim/agent_codec.h"
#include "tests/support/counted_allocations.h"
#include "wire/pdu.h"
#include "wire/record_release.h"
#include "wire/request_decoders.h"

namespace fuzz {

inline void Check(bool condition, const char* what) {
    if (condition) return;
    fprintf(stderr, "harness check failed: %s\n", what);
    abort();
}

// Runs body once with every allocation allowed, then again with the allocation that the
// input's last byte and size pick failing; both runs must leave nothing allocated behind.
template <class Body>
void WithAndWithoutFailure(const uint8_t* data, size_t size, Body body) {
    long total = 0;
    {
        CountedAllocations counted;
        body(false);
        Check(CountedAllocations::Live() == 0, "leak after a normal run");
        total = CountedAllocations::Made();
    }
    if (total == 0) return;
    CountedAllocations counted(static_cast<long>((size ? data[size - 1] : 0) ^ size) % total);
    body(true);
    Check(CountedAllocations::Live() == 0, "leak after an allocation failure");
}

// A request decoder over the input: no crash, no leak, and what it keeps re-encodes by the
// agent's encoder into a request that decodes to the same records and encodes alike again.
template <class Request>
void RequestRoundTrip(const uint8_t* data, size_t size, Request* (*decode)(const uint8_t*, const uint8_t*),
                      agent::Bytes (*encode)(const Request&),
                      bool (*same)(const Request&, const Request&, std::string*), void (*release)(Request*)) {
    WithAndWithoutFailure(data, size, [&](bool injected) {
        Request* first = decode(data, data + size);
        if (first && !injected) {
            const agent::Bytes again = encode(*first);
            Request* second = decode(again.data(), again.data() + again.size());
            Check(second != nullptr, "re-encoded request does not decode");
            Check(same(*first, *second, nullptr), "re-encoded request differs");
            Check(encode(*second) == again, "encoding is not stable");
            release(second);
        }
        release(first);
    });
}

}  // namespace fuzz
