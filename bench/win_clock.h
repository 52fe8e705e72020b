// The clock of the Windows benchmarks: the performance counter, read as it is, and its rate.
#pragma once

#include <windows.h>

#include <cstdint>

namespace bench {

inline int64_t Now() {
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart;
}

inline double TicksPerMicrosecond() {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<double>(f.QuadPart) / 1e6;
}

}  // namespace bench
