// Separate real processes for tests: a command run to its end, and a program of the build
// that keeps running until the test lets it go.
#pragma once

#include <windows.h>

#include <string>

// Runs the command line (a program of the system folder or a full path) and waits for it.
// False if it couldn't start or didn't end within the bound; exitCode gets its status.
bool RunProcess(const std::wstring& commandLine, DWORD* exitCode, DWORD boundMs = 120000);

// The same, with the standard output of the command in output.
bool RunProcessForOutput(const std::wstring& commandLine, std::string* output, DWORD* exitCode,
                         DWORD boundMs = 120000);

// The folder of the running test program, where the build puts its helper programs.
std::wstring TestProgramFolder();

// A child process owned by the test; the destructor waits for it and ends it if it hangs.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    // With an output handle, the child inherits it as its standard output.
    bool Start(const std::wstring& commandLine, HANDLE output = nullptr);
    // Waits for the end of the process; false if it is still running after the bound.
    bool WaitForExit(DWORD boundMs, DWORD* exitCode);
    bool IsStarted() const { return process != nullptr; }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

private:
    HANDLE process = nullptr;
};
