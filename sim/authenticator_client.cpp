#include "sim/authenticator_client.h"

namespace sim {

std::wstring BesideProgram(const std::wstring& leaf) {
    wchar_t self[MAX_PATH];
    DWORD n = GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self, n);
    return path.substr(0, path.find_last_of(L"\\/") + 1) + leaf;
}

bool UseAuthenticatorFolder(const std::wstring& folder) {
    const std::wstring path = BesideProgram(folder);
    if (GetFileAttributesW((path + L"\\webauthn.dll").c_str()) == INVALID_FILE_ATTRIBUTES) return false;
    return SetDllDirectoryW(path.c_str()) != FALSE;
}

SoftwareAuthenticator::SoftwareAuthenticator(const std::wstring& folder) {
    if (UseAuthenticatorFolder(folder)) module = LoadLibraryW(L"webauthn.dll");
}

}  // namespace sim
