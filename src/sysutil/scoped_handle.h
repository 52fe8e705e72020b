// Owns a kernel handle (file, token, process, thread) and closes it on every way out.
#pragma once

#include <windows.h>

class ScopedHandle {
public:
    explicit ScopedHandle(HANDLE h = nullptr) : handle(h) {}
    ~ScopedHandle() {
        if (Valid()) CloseHandle(handle);
    }
    bool Valid() const { return handle && handle != INVALID_HANDLE_VALUE; }
    HANDLE* Out() { return &handle; }
    HANDLE Get() const { return handle; }
    // Hands the handle over to the caller, who closes it.
    HANDLE Release() {
        HANDLE h = handle;
        handle = nullptr;
        return h;
    }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;

private:
    HANDLE handle;
};
