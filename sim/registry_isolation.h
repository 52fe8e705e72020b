// Maps HKEY_LOCAL_MACHINE of this process onto a private key for the life of the object,
// so that a process that writes registry values (a test, the soak) never meets those of
// another process in the same prefix.
#pragma once

#include <windows.h>

#include <string>

class ScopedHklmOverride {
public:
    ScopedHklmOverride();
    ~ScopedHklmOverride();

    bool IsActive() const { return key != nullptr; }
    // Path of the private key below HKEY_CURRENT_USER.
    const std::wstring& PrivatePath() const { return path; }

    ScopedHklmOverride(const ScopedHklmOverride&) = delete;
    ScopedHklmOverride& operator=(const ScopedHklmOverride&) = delete;

private:
    std::wstring path;
    HKEY key = nullptr;
};

// Writes a value below HKEY_LOCAL_MACHINE (mapped or not), creating the key path.
bool WriteHklmValue(const std::wstring& keyPath, const std::wstring& name, DWORD type, const void* data,
                    DWORD size);
