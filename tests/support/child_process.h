// Separate real processes for tests, each run to its end.
#pragma once

#include <windows.h>

#include <string>

// Runs the command line (a program of the system folder or a full path) to its end. False if it
// couldn't start or didn't end within the bound (it is ended then); exitCode gets its status.
bool RunProcess(const std::wstring& commandLine, DWORD* exitCode, DWORD boundMs = 120000);

// The same, with the standard output of the command in output.
bool RunProcessForOutput(const std::wstring& commandLine, std::string* output, DWORD* exitCode,
                         DWORD boundMs = 120000);

// The folder of the running test program, where the build puts its helper programs.
std::wstring TestProgramFolder();
