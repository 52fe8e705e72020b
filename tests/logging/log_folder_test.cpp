// The rules of the default log folder: where a user's folder goes, and when the program-data
// folder is used.
#include "logging/log_folder.h"

#include <gtest/gtest.h>

#include <string>

#include "sysutil/file_utils.h"

namespace {

TEST(LogFolderUser, SessionDigitsCutAndTheSystemTempMeansTheProgramDataFolder) {
    const struct { const wchar_t *temp, *user; bool system; const wchar_t* folder; } rows[] = {
        {L"C:\\Users\\ann\\AppData\\Local\\Temp\\", L"ann", false, L"C:\\Users\\ann\\AppData\\Local\\Temp\\orvane-ann\\"},
        {L"C:\\Users\\ann\\AppData\\Local\\Temp\\417\\", L"ann", false, L"C:\\Users\\ann\\AppData\\Local\\Temp\\orvane-ann\\"},
        {L"C:\\Temp\\2a\\", L"ann", false, L"C:\\Temp\\2a\\orvane-ann\\"},
        {L"C:\\WINDOWS\\TEMP\\", L"x", true, L""},
        {L"C:\\windows\\temp\\3\\", L"x", false, L"C:\\windows\\temp\\orvane-x\\"},
        {L"C:\\MyWindows\\Temp\\", L"x", true, L""},
    };
    for (const auto& row : rows) {
        bool system = !row.system;
        EXPECT_EQ(LogFolder::UserFolderFor(row.temp, row.user, &system), row.folder) << row.temp;
        EXPECT_EQ(system, row.system) << row.temp;
    }
}

TEST(LogFolderSystem, ProgramDataFolderOnlyWhenItExists) {
    char programData[MAX_PATH] = {};
    ASSERT_GT(GetEnvironmentVariableA("ProgramData", programData, MAX_PATH), 0u);
    const std::string base = std::string(programData) + "\\Orvane", logs = base + "\\KDX\\logs\\";
    const bool existed = FileUtils::IsDirectory(logs);
    EXPECT_TRUE(existed || LogFolder::SystemFolder().empty()) << "never created";
    for (const std::string& folder : {base, base + "\\KDX", logs}) CreateDirectoryA(folder.c_str(), nullptr);
    EXPECT_EQ(LogFolder::SystemFolder(), logs);
    if (existed) return;
    for (const std::string& folder : {logs, base + "\\KDX", base}) RemoveDirectoryA(folder.c_str());
}

}  // namespace
