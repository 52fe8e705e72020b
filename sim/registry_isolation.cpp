#include "sim/registry_isolation.h"

#include <atomic>

ScopedRegistryOverride::ScopedRegistryOverride(HKEY predefinedKey) : predefined(predefinedKey) {
    static std::atomic<int> serial{0};
    path = L"Software\\Fido2TestIsolation\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
           std::to_wstring(GetTickCount64()) + L"-" + std::to_wstring(++serial);
    if (RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        key = nullptr;
        return;
    }
    if (RegOverridePredefKey(predefined, key) != ERROR_SUCCESS) {
        RegCloseKey(key);
        key = nullptr;
        RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
    }
}

ScopedRegistryOverride::~ScopedRegistryOverride() {
    if (!key) return;
    RegOverridePredefKey(predefined, nullptr);
    RegCloseKey(key);
    RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
    RegDeleteKeyW(HKEY_CURRENT_USER, path.c_str());
}

bool WriteHklmValue(const std::wstring& keyPath, const std::wstring& name, DWORD type, const void* data,
                    DWORD size) {
    HKEY k = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k, nullptr) !=
        ERROR_SUCCESS) {
        return false;
    }
    LONG rc = RegSetValueExW(k, name.c_str(), 0, type, static_cast<const BYTE*>(data), size);
    RegCloseKey(k);
    return rc == ERROR_SUCCESS;
}
