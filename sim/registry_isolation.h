// Maps one predefined key of this process (HKEY_LOCAL_MACHINE, HKEY_USERS) onto a private key
// for the life of the object, so that a process that writes registry values (a test, the
// soak) never meets those of another process in the same prefix, nor the prefix's own.
#pragma once

#include <windows.h>

#include <string>

class ScopedRegistryOverride {
public:
    explicit ScopedRegistryOverride(HKEY predefinedKey);
    ~ScopedRegistryOverride();

    bool IsActive() const { return key != nullptr; }
    // Path of the private key below HKEY_CURRENT_USER.
    const std::wstring& PrivatePath() const { return path; }

    ScopedRegistryOverride(const ScopedRegistryOverride&) = delete;
    ScopedRegistryOverride& operator=(const ScopedRegistryOverride&) = delete;

private:
    HKEY predefined;
    std::wstring path;
    HKEY key = nullptr;
};

class ScopedHklmOverride : public ScopedRegistryOverride {
public:
    ScopedHklmOverride() : ScopedRegistryOverride(HKEY_LOCAL_MACHINE) {}
};

// Writes a value below HKEY_LOCAL_MACHINE (mapped or not), creating the key path.
bool WriteHklmValue(const std::wstring& keyPath, const std::wstring& name, DWORD type, const void* data,
                    DWORD size);
