#include "logging/log_folder.h"

#include <shlobj.h>

#include <cwctype>
#include <memory>

#include "sysutil/file_utils.h"
#include "sysutil/scoped_handle.h"
#include "sysutil/string_utils.h"

namespace LogFolder {

namespace {

// FOLDERID_ProgramData, written out so that no GUID library is needed for one constant.
const GUID kProgramDataFolder = {0x62AB5D82, 0xFDC1, 0x4DC3, {0xA9, 0xDD, 0x07, 0x0D, 0x1D, 0x49, 0x5D, 0x97}};

constexpr DWORD kTempPathCapacity = 1024;
constexpr DWORD kUserNameCapacity = 256;
// A TOKEN_USER with the longest SID the service accounts can have, and then some.
constexpr DWORD kTokenUserBytes = 84;

using SidOwner = std::unique_ptr<void, PVOID(WINAPI*)(PSID)>;

bool EndsWithNoCase(const std::wstring& text, const std::wstring& suffix) {
    if (text.size() < suffix.size()) return false;
    size_t offset = text.size() - suffix.size();
    for (size_t i = 0; i < suffix.size(); ++i) {
        if (std::towlower(text[offset + i]) != std::towlower(suffix[i])) return false;
    }
    return true;
}

bool ProcessRunsAsServiceAccount() {
    ScopedHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.Out())) return false;
    // DWORD-aligned storage: the SID inside is read in place.
    DWORD storage[(kTokenUserBytes + sizeof(DWORD) - 1) / sizeof(DWORD)];
    DWORD needed = 0;
    if (!GetTokenInformation(token.Get(), TokenUser, storage, kTokenUserBytes, &needed)) return false;
    return IsServiceAccount(reinterpret_cast<TOKEN_USER*>(storage)->User.Sid);
}

std::string UserFolder() {
    wchar_t temp[kTempPathCapacity + 1];
    DWORD length = GetTempPathW(kTempPathCapacity, temp);
    if (length == 0 || length > kTempPathCapacity) return std::string();
    wchar_t name[kUserNameCapacity];
    DWORD nameLength = GetEnvironmentVariableW(L"USERNAME", name, kUserNameCapacity);
    std::wstring user = (nameLength == 0 || nameLength >= kUserNameCapacity) ? std::wstring(L"default") : name;
    bool useSystem = false;
    std::wstring folder = UserFolderFor(std::wstring(temp, length), user, &useSystem);
    if (useSystem) return SystemFolder();
    if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) return std::string();
    return StringUtils::WideToUtf8(folder);
}

}  // namespace

bool IsServiceAccount(PSID user) {
    if (!user) return false;
    SID_IDENTIFIER_AUTHORITY ntAuthority = SECURITY_NT_AUTHORITY;
    const DWORD accounts[] = {SECURITY_NETWORK_SERVICE_RID, SECURITY_LOCAL_SERVICE_RID, SECURITY_LOCAL_SYSTEM_RID};
    for (DWORD rid : accounts) {
        PSID raw = nullptr;
        if (!AllocateAndInitializeSid(&ntAuthority, 1, rid, 0, 0, 0, 0, 0, 0, 0, &raw)) continue;
        SidOwner account(raw, FreeSid);
        if (EqualSid(user, account.get())) return true;
    }
    return false;
}

std::string SystemFolder() {
    PWSTR raw = nullptr;
    HRESULT hr = SHGetKnownFolderPath(kProgramDataFolder, 0, nullptr, &raw);
    std::unique_ptr<wchar_t, void(WINAPI*)(LPVOID)> path(raw, CoTaskMemFree);
    if (FAILED(hr) || !path) return std::string();
    std::string folder = StringUtils::WideToUtf8(path.get()) + "\\Orvane\\KDX\\logs\\";
    // Made by the installer; a service never creates it.
    return FileUtils::IsDirectory(folder) ? folder : std::string();
}

std::wstring UserFolderFor(const std::wstring& tempPath, const std::wstring& userName, bool* useSystem) {
    if (useSystem) *useSystem = false;
    if (EndsWithNoCase(tempPath, L"Windows\\Temp\\")) {
        if (useSystem) *useSystem = true;
        return std::wstring();
    }
    std::wstring base = tempPath;
    // Terminal sessions get a temp folder named by the session's number inside the user's
    // own: the log of all sessions goes beside it.
    size_t end = base.size();
    if (end > 0 && (base[end - 1] == L'\\' || base[end - 1] == L'/')) --end;
    size_t start = base.find_last_of(L"\\/", end == 0 ? 0 : end - 1);
    start = (start == std::wstring::npos) ? 0 : start + 1;
    bool digitsOnly = end > start;
    for (size_t i = start; i < end && digitsOnly; ++i) digitsOnly = base[i] >= L'0' && base[i] <= L'9';
    if (digitsOnly) base.erase(start);
    return base + L"orvane-" + userName + L"\\";
}

std::string SettleDefault() { return ProcessRunsAsServiceAccount() ? SystemFolder() : UserFolder(); }

}  // namespace LogFolder
