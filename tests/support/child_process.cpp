#include "support/child_process.h"

#include <vector>

#include "sysutil/scoped_handle.h"

bool ChildProcess::Start(const std::wstring& commandLine, HANDLE output) {
    if (process) return false;
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
    CloseHandle(info.hThread);
    process = info.hProcess;
    return true;
}

bool ChildProcess::WaitForExit(DWORD boundMs, DWORD* exitCode) {
    if (!process || WaitForSingleObject(process, boundMs) != WAIT_OBJECT_0) return false;
    if (exitCode) GetExitCodeProcess(process, exitCode);
    return true;
}

ChildProcess::~ChildProcess() {
    if (!process) return;
    if (WaitForSingleObject(process, 30000) != WAIT_OBJECT_0) {
        TerminateProcess(process, 99);
        WaitForSingleObject(process, 30000);
    }
    CloseHandle(process);
}

bool RunProcess(const std::wstring& commandLine, DWORD* exitCode, DWORD boundMs) {
    ChildProcess child;
    return child.Start(commandLine) && child.WaitForExit(boundMs, exitCode);
}

bool RunProcessForOutput(const std::wstring& commandLine, std::string* output, DWORD* exitCode, DWORD boundMs) {
    // A file rather than a pipe: the child can never block on a reader that waits for its end.
    wchar_t folder[MAX_PATH + 1];
    wchar_t name[MAX_PATH + 1];
    if (!GetTempPathW(MAX_PATH, folder) || !GetTempFileNameW(folder, L"out", 0, name)) return false;
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    ScopedHandle file(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    if (!file.Valid()) return false;
    ChildProcess child;
    if (!child.Start(commandLine, file.Get()) || !child.WaitForExit(boundMs, exitCode)) return false;
    output->clear();
    SetFilePointer(file.Get(), 0, nullptr, FILE_BEGIN);
    char buffer[4096];
    DWORD got = 0;
    while (ReadFile(file.Get(), buffer, sizeof(buffer), &got, nullptr) && got > 0) output->append(buffer, got);
    return true;
}

std::wstring TestProgramFolder() {
    wchar_t path[MAX_PATH] = {};
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring full(path, n);
    size_t slash = full.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring(L".") : full.substr(0, slash);
}
