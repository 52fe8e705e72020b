// Waiting for what code on another thread does, with a bound that only a fault reaches.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "support/log_capture.h"

// True once the condition holds; false if it hasn't within boundMs.
inline bool WaitUntil(const std::function<bool()>& condition, uint32_t boundMs) {
    const ULONGLONG end = GetTickCount64() + boundMs;
    while (!condition()) {
        if (GetTickCount64() >= end) return false;
        Sleep(10);
    }
    return true;
}

// True once count captured lines contain the fragment (and come from the function, if one is
// named); false if they haven't come within boundMs.
inline bool WaitForLog(const LogCapture& capture, const std::string& fragment, uint32_t boundMs, size_t count = 1,
                       const std::string& function = "") {
    return WaitUntil([&] {
        size_t n = 0;
        for (const CapturedLine& line : capture.Lines()) {
            n += line.text.find(fragment) != std::string::npos && (function.empty() || line.function == function);
        }
        return n >= count;
    }, boundMs);
}
