// The figures of this process that a soak watches for leaks.
#pragma once

#include <cstdint>

namespace sim {

struct ProcessResources {
    uint64_t privateBytes = 0;
    uint32_t handles = 0;
    uint32_t threads = 0;
};

// Private committed memory (PrivateUsage, or PagefileUsage where the platform leaves the
// former 0: Windows defines both as the commit charge), open handles (GetProcessHandleCount,
// or a probe of the handle table where the platform reports none: every process holds some),
// and this process's threads in a Toolhelp snapshot.
ProcessResources SampleProcessResources();

}  // namespace sim
