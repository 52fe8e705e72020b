// Waiting for lines that code on another thread logs, with a bound that only a fault reaches.
#pragma once

#include <windows.h>

#include <string>

#include "support/log_capture.h"

// True once count captured lines contain the fragment (and come from the function, if one is
// named); false if they haven't come within boundMs.
inline bool WaitForLog(const LogCapture& capture, const std::string& fragment, uint32_t boundMs, size_t count = 1,
                       const std::string& function = "") {
    const ULONGLONG end = GetTickCount64() + boundMs;
    for (;;) {
        size_t n = 0;
        for (const CapturedLine& line : capture.Lines()) {
            if (line.text.find(fragment) != std::string::npos && (function.empty() || line.function == function)) ++n;
        }
        if (n >= count) return true;
        if (GetTickCount64() >= end) return false;
        Sleep(10);
    }
}
