// What this thread hands to the debugger output while the capture lives: OutputDebugStringA
// raises DBG_PRINTEXCEPTION_C with the length and the text, which a vectored handler sees
// before anyone else. One capture at a time.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

class DebugOutputCapture {
public:
    DebugOutputCapture() {
        std::lock_guard<std::mutex> lock(mutex);
        texts.clear();
        thread = GetCurrentThreadId();
        handler = AddVectoredExceptionHandler(1, &See);
    }
    ~DebugOutputCapture() {
        if (handler) RemoveVectoredExceptionHandler(handler);
        thread = 0;
    }
    std::vector<std::string> Seen() const {
        std::lock_guard<std::mutex> lock(mutex);
        return texts;
    }

    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

private:
    static LONG CALLBACK See(EXCEPTION_POINTERS* info) {
        const EXCEPTION_RECORD* record = info->ExceptionRecord;
        if (record->ExceptionCode == DBG_PRINTEXCEPTION_C && record->NumberParameters >= 2 &&
            GetCurrentThreadId() == thread) {
            std::lock_guard<std::mutex> lock(mutex);
            texts.emplace_back(reinterpret_cast<const char*>(record->ExceptionInformation[1]),
                               static_cast<size_t>(record->ExceptionInformation[0]) - 1);
        }
        return EXCEPTION_CONTINUE_SEARCH;
    }

    void* handler = nullptr;
    static inline std::mutex mutex;
    static inline std::vector<std::string> texts;
    static inline std::atomic<DWORD> thread{0};
};
