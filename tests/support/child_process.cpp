#include "support/child_process.h"

#include <vector>

#include "sysutil/scoped_handle.h"

namespace {

// With an output handle, the child inherits it as its standard output.
bool Run(const std::wstring& commandLine, HANDLE output, DWORD* exitCode, DWORD boundMs) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    if (output) {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = output;
        startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    }
    PROCESS_INFORMATION info = {};
    std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
    line.push_back(L'\0');
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, output != nullptr, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &info)) {
        return false;
    }
    ScopedHandle thread(info.hThread), process(info.hProcess);
    if (WaitForSingleObject(process.Get(), boundMs) != WAIT_OBJECT_0) {
        TerminateProcess(process.Get(), 99);
        WaitForSingleObject(process.Get(), 30000);
        return false;
    }
    if (exitCode) GetExitCodeProcess(process.Get(), exitCode);
    return true;
}

}  // namespace

bool RunProcess(const std::wstring& commandLine, DWORD* exitCode, DWORD boundMs) {
    return Run(commandLine, nullptr, exitCode, boundMs);
}

bool RunProcessForOutput(const std::wstring& commandLine, std::string* output, DWORD* exitCode, DWORD boundMs) {
    // A file rather than a pipe: the child can never block on a reader that waits for its end.
    wchar_t folder[MAX_PATH + 1];
    wchar_t name[MAX_PATH + 1];
    if (!GetTempPathW(MAX_PATH, folder) || !GetTempFileNameW(folder, L"out", 0, name)) return false;
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    ScopedHandle file(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    if (!file.Valid() || !Run(commandLine, file.Get(), exitCode, boundMs)) return false;
    output->clear();
    SetFilePointer(file.Get(), 0, nullptr, FILE_BEGIN);
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(file.Get(), buffer, sizeof(buffer), &got, nullptr) && got > 0) output->append(buffer, got);
    return true;
}

std::wstring TestProgramFolder() {
    wchar_t path[MAX_PATH] = {};
    std::wstring full(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    size_t slash = full.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring(L".") : full.substr(0, slash);
}
