// Counts the wire layer's live allocations for the length of a scope, so a test can prove
// that everything a decode or an operation allocated was released; one thread can be made to
// find no memory, or one allocation fail by its index (the fuzz harnesses, natively).
#pragma once

#include <atomic>
#include <cstdlib>
#include <thread>

#include "wire/pdu.h"

class CountedAllocations {
public:
    explicit CountedAllocations(long failIndex = -1) {
        live = made = 0;
        failAt = failIndex;
        refusing = std::thread::id();
        SetWireAllocator(Alloc, Release);
    }
    ~CountedAllocations() { SetWireAllocator(nullptr, nullptr); }
    static long Live() { return live; }
    static long Made() { return made; }
    // From now on every allocation of the calling thread fails.
    static void RefuseOnThisThread() { refusing = std::this_thread::get_id(); }

    CountedAllocations(const CountedAllocations&) = delete;
    CountedAllocations& operator=(const CountedAllocations&) = delete;

private:
    static void* Alloc(size_t count, size_t size) {
        if (refusing.load() == std::this_thread::get_id() || made++ == failAt) return nullptr;
        void* p = calloc(count, size);
        live += p != nullptr;
        return p;
    }
    static void Release(void* p) {
        live -= p != nullptr;
        free(p);
    }
    static inline std::atomic<long> live{0}, made{0}, failAt{-1};
    static inline std::atomic<std::thread::id> refusing{};
};
