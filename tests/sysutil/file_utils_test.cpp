#include "sysutil/file_utils.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "support/log_capture.h"
#include "sysutil/string_utils.h"

using namespace FileUtils;

namespace {

// A fresh folder below the temporary folder, removed with everything in it.
class TempFolder {
public:
    TempFolder() {
        static int serial = 0;
        wchar_t base[MAX_PATH];
        GetTempPathW(MAX_PATH, base);
        path = JoinPath(StringUtils::WideToUtf8(base),
                        "fido2-files-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(GetTickCount64()) + "-" +
                            std::to_string(++serial));
        CreateDirectoryW(StringUtils::Utf8ToWide(path).c_str(), nullptr);
    }
    ~TempFolder() {
        WIN32_FIND_DATAW found;
        std::wstring pattern = StringUtils::Utf8ToWide(JoinPath(path, "*"));
        HANDLE h = FindFirstFileW(pattern.c_str(), &found);
        if (h != INVALID_HANDLE_VALUE) {
            do {
                std::wstring leaf = found.cFileName;
                if (leaf != L"." && leaf != L"..") {
                    DeleteFileW(StringUtils::Utf8ToWide(JoinPath(path, StringUtils::WideToUtf8(leaf))).c_str());
                }
            } while (FindNextFileW(h, &found));
            FindClose(h);
        }
        RemoveDirectoryW(StringUtils::Utf8ToWide(path).c_str());
    }
    std::string File(const std::string& name) const { return JoinPath(path, name); }
    std::string path;
};

// A second writer of the file, as another process's log writer would be.
class OtherWriter {
public:
    explicit OtherWriter(const std::string& path)
        : handle(CreateFileW(StringUtils::Utf8ToWide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~OtherWriter() {
        if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
    }
    bool IsOpen() const { return handle != INVALID_HANDLE_VALUE; }
    HANDLE handle;
};

TEST(SyFileOpen, NeverCreatesAFile) {
    ScopedLogCapture log;
    TempFolder dir;
    SyFile missing(dir.File("missing.log"));
    EXPECT_FALSE(missing.Open("a", false));
    EXPECT_FALSE(missing.Open("w", false));
    EXPECT_FALSE(PathExists(dir.File("missing.log")));
    EXPECT_EQ(log->Count("missing.log file does not exist.\n"), 2u);

    SyFile unnamed("");
    EXPECT_FALSE(unnamed.Open("a", false));
    EXPECT_EQ(log->Count("The abolute path of the file is not set.\n"), 1u);
    int64_t size = 0;
    EXPECT_FALSE(unnamed.GetSize(&size));
}

TEST(SyFileOpen, DenyWriteKeepsOtherWritersOutAndAFailedReopenLeavesTheFileClosed) {
    TempFolder dir;
    std::string path = dir.File("shared.log");
    ASSERT_TRUE(CreateEmptyFile(path, true));
    SyFile file(path);
    {
        OtherWriter other(path);
        ASSERT_TRUE(other.IsOpen());
        EXPECT_FALSE(file.Open("a", true));
        EXPECT_FALSE(file.IsOpen());
        EXPECT_TRUE(file.Open("a", false)) << "sharing with other writers is allowed without deny write";
    }
    ASSERT_TRUE(file.Open("a", true)) << "the old stream must be gone, or deny write would fail on it";
    EXPECT_FALSE(OtherWriter(path).IsOpen()) << "a deny-write open keeps later writers out";
    ASSERT_TRUE(file.Open("a", false));
    OtherWriter other(path);
    ASSERT_TRUE(other.IsOpen());
    EXPECT_FALSE(file.Open("a", true));
    EXPECT_FALSE(file.IsOpen()) << "a failed reopen leaves the file closed, not on the old stream";
    EXPECT_FALSE(file.Write("lost"));
}

TEST(SyFileIo, WriteFlushAndSize) {
    TempFolder dir;
    std::string path = dir.File("size.log");
    SyFile file(path);
    EXPECT_FALSE(file.Write("x"));
    EXPECT_FALSE(file.Flush());
    int64_t size = -1;
    EXPECT_FALSE(file.GetSize(&size)) << "no such file yet";
    ASSERT_TRUE(CreateEmptyFile(path, false));
    ASSERT_TRUE(file.Open("a", false));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 0);
    EXPECT_TRUE(file.Write("hello"));
    EXPECT_TRUE(file.Write(" world"));
    EXPECT_TRUE(file.Flush());
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11);
    EXPECT_TRUE(file.Close());
    EXPECT_TRUE(file.Close());
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11);
    EXPECT_TRUE(file.GetSize(nullptr));

    ASSERT_TRUE(CreateEmptyFile(path, false));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11) << "without truncate the content stays";
    ASSERT_TRUE(file.Open("a", false));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11) << "appending: the file's size before the first write";
    {
        OtherWriter other(path);
        ASSERT_TRUE(other.IsOpen());
        DWORD written = 0;
        SetFilePointer(other.handle, 0, nullptr, FILE_END);
        ASSERT_TRUE(WriteFile(other.handle, "abc", 3, &written, nullptr));
    }
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 14) << "and what another writer added";
    EXPECT_TRUE(file.Write("!"));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 15);
    file.Close();
    ASSERT_TRUE(CreateEmptyFile(path, true));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 0);
}

TEST(FileFunctions, KindsOfPathFreeSpaceAndDeletion) {
    TempFolder dir;
    std::string file = dir.File("kind.log"), nothing = dir.File("nothing");
    ASSERT_TRUE(CreateEmptyFile(file, true));
    struct Row {
        std::string path;
        bool exists, isFile, isDirectory;
    } rows[] = {{file, true, true, false}, {dir.path, true, false, true}, {nothing, false, false, false}};
    for (const Row& row : rows) {
        EXPECT_EQ(PathExists(row.path), row.exists) << row.path;
        EXPECT_EQ(IsFile(row.path), row.isFile) << row.path;
        EXPECT_EQ(IsDirectory(row.path), row.isDirectory) << row.path;
    }
    uint64_t bytes = 0;
    EXPECT_TRUE(GetFreeDiskSpace(dir.path, &bytes));
    EXPECT_GT(bytes, 0u);
    EXPECT_FALSE(GetFreeDiskSpace(dir.File("no\\such\\folder"), &bytes));

    uint32_t error = 99;
    EXPECT_TRUE(DeleteFileAt(file, &error));
    EXPECT_EQ(error, 0u);
    EXPECT_TRUE(DeleteFileAt(file, &error)) << "a file that is already gone counts as deleted";
    EXPECT_EQ(error, static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(DeleteFileAt(file, nullptr));
    EXPECT_FALSE(DeleteFileAt(dir.path, &error)) << "a folder is not deleted and still exists";
    EXPECT_NE(error, 0u);
}

TEST(PathTexts, LeafDirAndJoin) {
    struct Dir {
        const char* path;
        const char* dir;
        const char* leaf;
    } dirs[] = {
        {"name", ".", "name"},          {"\\name", "\\", "name"},   {"/name", "/", "name"},
        {"C:\\name", "C:\\", "name"},   {"C:\\a\\b", "C:\\a", "b"}, {"a/b\\c", "a/b", "c"},
        {"dir\\", "dir", ""},           {"C:", ".", "C:"},          {"x:/y", "x:/", "y"},
    };
    for (const Dir& row : dirs) {
        EXPECT_EQ(GetDirName(row.path), row.dir) << row.path;
        EXPECT_EQ(GetLeafName(row.path), row.leaf) << row.path;
    }
    EXPECT_EQ(JoinPath("", "x"), "x");
    EXPECT_EQ(JoinPath("a\\", "x"), "a\\x");
    EXPECT_EQ(JoinPath("a/", "x"), "a/x");
    EXPECT_EQ(JoinPath("a", "x"), "a\\x");
}

}  // namespace
