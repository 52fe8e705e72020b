#include "sysutil/file_utils.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "support/log_capture.h"
#include "sysutil/scoped_handle.h"
#include "sysutil/string_utils.h"

using namespace FileUtils;

namespace {

// A path in the temporary folder of this process's own, with nothing there yet.
std::string TempPath(const std::string& leaf) {
    wchar_t base[MAX_PATH];
    GetTempPathW(MAX_PATH, base);
    const std::string pid = std::to_string(GetCurrentProcessId());
    std::string path = JoinPath(StringUtils::WideToUtf8(base), "fido2-files-" + pid + "-" + leaf);
    DeleteFileAt(path, nullptr);
    return path;
}

TEST(SyFileIo, WriteFlushAndSize) {
    ScopedLogCapture log;
    std::string path = TempPath("size.log");
    SyFile file(path);
    // Opening never creates the file: the log's clean-up probes files that may just have gone.
    EXPECT_FALSE(file.Open("a", false));
    EXPECT_FALSE(file.Open("w", false));
    EXPECT_FALSE(PathExists(path));
    EXPECT_EQ(log->Count("size.log file does not exist.\n"), 2u);
    EXPECT_FALSE(SyFile(GetDirName(path)).Open("a", false)) << "a folder is not a file";
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
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11) << "what the stream still buffers counts";
    EXPECT_TRUE(file.Close());
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11);

    ASSERT_TRUE(CreateEmptyFile(path, false));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11) << "without truncate the content stays";
    ASSERT_TRUE(file.Open("a", false));
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, 11) << "appending: the file's size before the first write";
    {
        ScopedHandle other(CreateFileW(StringUtils::Utf8ToWide(path).c_str(), FILE_APPEND_DATA,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
        DWORD written = 0;
        ASSERT_TRUE(WriteFile(other.Get(), "abc", 3, &written, nullptr));
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

    uint32_t error = 99;
    EXPECT_TRUE(DeleteFileAt(path, &error));
    EXPECT_EQ(error, 0u);
    EXPECT_TRUE(DeleteFileAt(path, &error)) << "a file that is already gone counts as deleted";
    EXPECT_EQ(error, static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
}

TEST(PathTexts, LeafDirAndJoin) {
    struct Row {
        const char *path, *dir, *leaf;
    } rows[] = {
        {"name", ".", "name"},        {"\\name", "\\", "name"},   {"/name", "/", "name"},
        {"C:\\name", "C:\\", "name"}, {"C:\\a\\b", "C:\\a", "b"}, {"a/b\\c", "a/b", "c"},
        {"dir\\", "dir", ""},         {"C:", ".", "C:"},          {"x:/y", "x:/", "y"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(GetDirName(row.path), row.dir) << row.path;
        EXPECT_EQ(GetLeafName(row.path), row.leaf) << row.path;
    }
    EXPECT_EQ(JoinPath("", "x"), "x");
    EXPECT_EQ(JoinPath("a\\", "x"), "a\\x");
    EXPECT_EQ(JoinPath("a/", "x"), "a/x");
    EXPECT_EQ(JoinPath("a", "x"), "a\\x");
}

}  // namespace
