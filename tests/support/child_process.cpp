#include "support/child_process.h"

#include <vector>

bool ChildProcess::Start(const std::wstring& commandLine) {
    if (process) return false;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
    line.push_back(L'\0');
    if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                        &info)) {
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

std::wstring TestProgramFolder() {
    wchar_t path[MAX_PATH] = {};
    DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring full(path, n);
    size_t slash = full.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring(L".") : full.substr(0, slash);
}
