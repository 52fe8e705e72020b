// Where the log goes when no folder is configured: service accounts write to the machine's
// program-data folder, everybody else to a folder of their own beside the temp folder.
#pragma once

#include <windows.h>

#include <string>

namespace LogFolder {

// The folder settled for this process, with a trailing backslash; empty when there is none
// (the program-data folder is missing, or the user's folder can't be made).
std::string SettleDefault();

// NETWORK SERVICE, LOCAL SERVICE or SYSTEM.
bool IsServiceAccount(PSID user);

// "...\Orvane\KDX\logs\" below the program-data folder if that folder exists, else empty.
std::string SystemFolder();

// The user's folder for a temp path as GetTempPathW gives it: the per-session digits cut,
// then "orvane-" and the user name. Empty with *useSystem set when the temp folder is the
// system's own, so that the program-data folder is meant.
std::wstring UserFolderFor(const std::wstring& tempPath, const std::wstring& userName, bool* useSystem);

}  // namespace LogFolder
