// What this thread hands to the debugger output while the capture lives: OutputDebugStringA
// raises DBG_PRINTEXCEPTION_C with the length and the text, which a vectored handler sees
// before anyone else. One capture at a time.
#pragma once

#include <windows.h>

#include <mutex>
#include <string>
#include <vector>

class DebugOutputCapture {
public:
    DebugOutputCapture() {
        std::lock_guard<std::mutex> lock(Mutex());
        Texts().clear();
        Thread() = GetCurrentThreadId();
        handler = AddVectoredExceptionHandler(1, &See);
    }
    ~DebugOutputCapture() {
        if (handler) RemoveVectoredExceptionHandler(handler);
        Thread() = 0;
    }
    bool Active() const { return handler != nullptr; }
    std::vector<std::string> Seen() const {
        std::lock_guard<std::mutex> lock(Mutex());
        return Texts();
    }

    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

private:
    static std::mutex& Mutex() {
        static std::mutex mutex;
        return mutex;
    }
    static std::vector<std::string>& Texts() {
        static std::vector<std::string> texts;
        return texts;
    }
    static DWORD& Thread() {
        static DWORD thread = 0;
        return thread;
    }
    static LONG CALLBACK See(EXCEPTION_POINTERS* info) {
        const EXCEPTION_RECORD* record = info->ExceptionRecord;
        if (record->ExceptionCode == DBG_PRINTEXCEPTION_C && record->NumberParameters >= 2 &&
            GetCurrentThreadId() == Thread()) {
            std::lock_guard<std::mutex> lock(Mutex());
            Texts().emplace_back(reinterpret_cast<const char*>(record->ExceptionInformation[1]),
                                 static_cast<size_t>(record->ExceptionInformation[0]) - 1);
        }
        return EXCEPTION_CONTINUE_SEARCH;
    }

    void* handler = nullptr;
};
