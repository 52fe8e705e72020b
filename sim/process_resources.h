// The figures of this process that a soak watches for leaks.
#pragma once

#include <cstdint>

namespace sim {

struct ProcessResources {
    uint64_t privateBytes = 0;
    uint32_t handles = 0;
    uint32_t threads = 0;
    // Bytes in live blocks of all the process's heaps: unlike committed memory, it moves by
    // the bytes of every allocation kept, not by pages or arenas.
    uint64_t heapBytes = 0;
};

// Private committed memory (PrivateUsage, or PagefileUsage where the platform leaves the
// former 0: Windows defines both as the commit charge), open handles (GetProcessHandleCount,
// or a probe of the handle table where the platform reports none: every process holds some),
// this process's threads in a Toolhelp snapshot, and the heap walk's live bytes.
ProcessResources SampleProcessResources();
// The first figure alone, cheap enough to sample many times a second.
uint64_t PrivateBytes();

}  // namespace sim
