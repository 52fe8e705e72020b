// Counts the wire layer's live allocations for the length of a scope, so a test can prove
// that everything a decode or an operation allocated was released.
#pragma once

#include <atomic>
#include <cstdlib>

#include "wire/pdu.h"

class CountedAllocations {
public:
    CountedAllocations() {
        live = 0;
        SetWireAllocator(Alloc, Release);
    }
    ~CountedAllocations() { SetWireAllocator(nullptr, nullptr); }
    static long Live() { return live; }

    CountedAllocations(const CountedAllocations&) = delete;
    CountedAllocations& operator=(const CountedAllocations&) = delete;

private:
    static void* Alloc(size_t count, size_t size) {
        void* p = calloc(count, size);
        if (p) ++live;
        return p;
    }
    static void Release(void* p) {
        if (p) --live;
        free(p);
    }
    static inline std::atomic<long> live{0};
};
