#include "logging/log_file_deletion.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <share.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/log_wait.h"
#include "sysutil/string_utils.h"

namespace {

constexpr int64_t kHour = 3600;
constexpr int64_t kDay = 86400;
const char kPattern[] = "orvane-fido2Client*";

std::wstring Wide(const std::string& s) { return StringUtils::Utf8ToWide(s); }

// A private folder of log files with write stamps set to chosen ages.
class LogFolder {
public:
    LogFolder() {
        static int serial = 0;
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        path = StringUtils::WideToUtf8(temp) + "fido2-deletion-" + std::to_string(GetCurrentProcessId()) + "-" +
               std::to_string(GetTickCount64()) + "-" + std::to_string(++serial);
        CreateDirectoryW(Wide(path).c_str(), nullptr);
    }
    ~LogFolder() {
        for (const std::string& name : Names()) DeleteFileW(Wide(Path(name)).c_str());
        RemoveDirectoryW(Wide(path).c_str());
    }

    std::string Path(const std::string& name) const { return path + "\\" + name; }

    // ageSeconds may be negative (a stamp in the future).
    void Make(const std::string& name, int64_t ageSeconds) const {
        HANDLE h = CreateFileW(Wide(Path(name)).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE) << name;
        DWORD written = 0;
        WriteFile(h, "line\r\n", 6, &written, nullptr);
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        ULARGE_INTEGER t;
        t.LowPart = now.dwLowDateTime;
        t.HighPart = now.dwHighDateTime;
        t.QuadPart -= static_cast<uint64_t>(ageSeconds * 10000000LL);
        FILETIME stamp = {t.LowPart, t.HighPart};
        EXPECT_TRUE(SetFileTime(h, nullptr, nullptr, &stamp)) << name;
        CloseHandle(h);
    }
    void MakeAt(const std::string& name, const SYSTEMTIME& when) const {
        Make(name, 0);
        HANDLE h = CreateFileW(Wide(Path(name)).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        FILETIME stamp;
        SystemTimeToFileTime(&when, &stamp);
        EXPECT_TRUE(SetFileTime(h, nullptr, nullptr, &stamp));
        CloseHandle(h);
    }

    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        WIN32_FIND_DATAW data;
        HANDLE h = FindFirstFileW(Wide(path + "\\*").c_str(), &data);
        if (h == INVALID_HANDLE_VALUE) return names;
        do {
            if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(StringUtils::WideToUtf8(data.cFileName));
        } while (FindNextFileW(h, &data));
        FindClose(h);
        std::sort(names.begin(), names.end());
        return names;
    }
    bool Has(const std::string& name) const { return GetFileAttributesW(Wide(Path(name)).c_str()) != INVALID_FILE_ATTRIBUTES; }

    std::string path;
};

// This process writing a file, as the file writer does: append, no deny mode.
class OpenForAppend {
public:
    explicit OpenForAppend(const std::string& path) : file(_wfsopen(Wide(path).c_str(), L"a", _SH_DENYNO)) {}
    ~OpenForAppend() {
        if (file) fclose(file);
    }
    bool IsOpen() const { return file != nullptr; }

private:
    FILE* file;
};

// Another process keeping a file open for writing until the test ends.
class HeldByOtherProcess {
public:
    explicit HeldByOtherProcess(const std::string& path) {
        std::wstring tag = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount64());
        std::wstring readyName = L"fido2-holder-ready-" + tag;
        std::wstring releaseName = L"fido2-holder-release-" + tag;
        ready = CreateEventW(nullptr, TRUE, FALSE, readyName.c_str());
        release = CreateEventW(nullptr, TRUE, FALSE, releaseName.c_str());
        std::wstring line = L"\"" + TestProgramFolder() + L"\\file_holder.exe\" \"" + Wide(path) + L"\" " + readyName +
                            L" " + releaseName;
        holding = child.Start(line) && WaitForSingleObject(ready, 60000) == WAIT_OBJECT_0;
    }
    ~HeldByOtherProcess() {
        SetEvent(release);
        DWORD code = 0;
        child.WaitForExit(60000, &code);
        CloseHandle(ready);
        CloseHandle(release);
    }
    bool IsHolding() const { return holding; }

private:
    ChildProcess child;
    HANDLE ready = nullptr;
    HANDLE release = nullptr;
    bool holding = false;
};

std::string Name(int pid, const char* tail = "__2026-01-01-00-00.log") {
    return "orvane-fido2Client-1-" + std::to_string(pid) + tail;
}

// This process's files begin with this prefix; 4242 stands for its id.
std::string OwnPrefix(const LogFolder& folder) { return folder.Path("orvane-fido2Client-1-4242"); }

RCPtr<LogFileDeletion> MakeScan(const LogFolder& folder, int32_t days, uint32_t files, int32_t minHours) {
    RCPtr<LogFileDeletion> scan(new LogFileDeletion());
    scan->SetLocation(folder.path, kPattern, OwnPrefix(folder));
    scan->SetMaxDaysKept(days);
    scan->SetMaxNumFiles(files);
    scan->SetMinAgeInHours(minHours);
    return scan;
}

// Runs the item as the poll thread would on its time-outs, to the end of one scan, which sets
// the pause until the next scan.
int RunScanToEnd(LogFileDeletion& scan) {
    for (int steps = 1; steps <= 200; ++steps) {
        EXPECT_TRUE(scan.GetItem()->Run(true));
        if (scan.GetItem()->timeoutMs == LogFileDeletion::kScanIntervalMs) return steps;
        EXPECT_EQ(scan.GetItem()->timeoutMs, LogFileDeletion::kStepMs);
    }
    ADD_FAILURE() << "scan didn't end";
    return -1;
}

std::vector<CapturedLine> LinesAt(const LogCapture& capture, int32_t level) {
    std::vector<CapturedLine> out;
    for (const CapturedLine& line : capture.Lines()) {
        if (line.level != level) continue;
        out.push_back(line);
        // Compared without the line feed that a writer may add.
        if (!out.back().text.empty() && out.back().text.back() == '\n') out.back().text.pop_back();
    }
    return out;
}

struct ExpectedLine {
    const char* function;
    std::string pattern;  // a regular expression over the whole text
};

void ExpectLines(const std::vector<CapturedLine>& lines, const std::vector<ExpectedLine>& expected) {
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].function, expected[i].function) << i;
        EXPECT_TRUE(std::regex_match(lines[i].text, std::regex(expected[i].pattern)))
            << i << ": " << lines[i].text << "\n  !~ " << expected[i].pattern;
    }
}

std::string Quoted(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (std::string("\\.()[]{}*+?^$|").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

const char kFind[] = "FileWriter::FindLogFiles()";
const char kOld[] = "FileWriter::DeleteOldLogFiles()";
const char kMax[] = "FileWriter::DeleteMaxLogFiles()";
const char kDone[] = "FileWriter::ScanLogFilesDone()";

TEST(LogFileDeletion, ThirtyClosedFilesWithOneWriterLoseTheFiveOldest) {
    LogFolder folder;
    // Ages 3 h to 32 h: all past the minimum age, none past seven days. pid 1000 is the oldest.
    for (int i = 0; i < 30; ++i) folder.Make(Name(1000 + i), (32 - i) * kHour);
    folder.Make(Name(4242), 60 * kDay);  // this process's file, open for writing
    OpenForAppend own(folder.Path(Name(4242)));
    ASSERT_TRUE(own.IsOpen());
    folder.Make("orvane-other-1-7.log", 90 * kDay);  // another application
    folder.Make("notes.txt", 90 * kDay);

    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 25, 2);
    ScopedLogCapture capture(LOG_NEVER);
    // Listing 20 + 11 entries, old files, surplus files, finish.
    EXPECT_EQ(RunScanToEnd(*scan), 5);

    const std::string dayAge = R"( \(age 1 day \d:00:0[0-3]\))";
    auto named = [&](int pid) { return "\"" + Quoted(Name(pid)) + "\""; };
    ExpectLines(LinesAt(*capture, LOG_INFO),
                {
                    {kFind, "Scanning \"" + Quoted(folder.Path(kPattern)) + "\""},
                    {kFind, "Scan complete; 30 files found"},
                    {kOld, "Deleting files older than 7 days"},
                    {kOld, "Stopping at " + named(1000) + " \\(age 1 day 8:00:0[0-3]\\)"},
                    {kMax, "Keeping 25 files, minimum age 2:00:00, 1 active session"},
                    {kMax, "Deleted " + named(1000) + dayAge},
                    {kMax, "Deleted " + named(1001) + dayAge},
                    {kMax, "Deleted " + named(1002) + dayAge},
                    {kMax, "Deleted " + named(1003) + dayAge},
                    {kMax, "Deleted " + named(1004) + dayAge},
                    {kDone, "Scan complete; 5 files deleted, 25 files remain, next scan in 4:00:00"},
                });
    EXPECT_EQ(capture->Count("Found \""), 30u);
    EXPECT_EQ(capture->Count("Skipping active log file \"" + Name(4242) + "\" (age 60 days)"), 1u);

    for (int i = 0; i < 30; ++i) EXPECT_EQ(folder.Has(Name(1000 + i)), i >= 5) << Name(1000 + i);
    EXPECT_TRUE(folder.Has(Name(4242)));
    EXPECT_TRUE(folder.Has("orvane-other-1-7.log"));
    EXPECT_TRUE(folder.Has("notes.txt"));
}

TEST(LogFileDeletion, AFileThatAnotherProcessWritesIsNeverDeleted) {
    LogFolder folder;
    folder.Make(Name(2000), 30 * kDay);
    folder.Make(Name(2001), 30 * kDay);
    folder.Make(Name(2002), 20 * kDay);
    HeldByOtherProcess holder(folder.Path(Name(2000)));
    ASSERT_TRUE(holder.IsHolding());

    // Both limits would take every one of these files.
    RCPtr<LogFileDeletion> scan = MakeScan(folder, 1, 1, 0);
    ScopedLogCapture capture(LOG_NEVER);
    RunScanToEnd(*scan);

    EXPECT_TRUE(folder.Has(Name(2000)));
    EXPECT_FALSE(folder.Has(Name(2001)));
    EXPECT_FALSE(folder.Has(Name(2002)));
    EXPECT_EQ(capture->Count("Skipping active log file \"" + Name(2000) + "\" (age 30 days)"), 1u);
    EXPECT_EQ(capture->Count("Deleted \"" + Name(2000)), 0u);
    EXPECT_EQ(capture->Count("Scan complete; 2 files found"), 1u);
}

struct LimitRow {
    const char* scenario;
    int32_t days;
    uint32_t files;
    int32_t minHours;
    std::vector<std::pair<int, int64_t>> closed;  // pid, age in seconds
    int writers;                                   // further files of this application held open here
    std::vector<int> survivors;                    // pids of closed files left
    std::vector<std::string> infoLines;            // texts that must appear among the INFO lines
};

TEST(LogFileDeletion, AgeAndCountLimits) {
    const LimitRow rows[] = {
        {"both limits off",
         0, 0, 2,
         {{1, 40 * kDay}, {2, 30 * kDay}},
         0,
         {1, 2},
         {"Deleting old log files disabled", "Deleting old log files disabled",
          "Scan complete; 0 files deleted, 2 files remain, next scan in 4:00:00"}},
        {"days off, count on",
         0, 1, 2,
         {{1, 40 * kDay}, {2, 30 * kDay}, {3, 5 * kHour}},
         0,
         {3},
         {"Keeping 1 file, minimum age 2:00:00, 0 active sessions",
          "Scan complete; 2 files deleted, 1 file remains, next scan in 4:00:00"}},
        {"count off, days on",
         2, 0, 2,
         {{1, 3 * kDay}, {2, 1 * kDay}, {3, 5 * kHour}},
         0,
         {2, 3},
         {"Deleting files older than 2 days", "Deleting old log files disabled"}},
        {"minimum age raises a shorter day limit",
         1, 25, 48,
         {{1, 60 * kHour}, {2, 30 * kHour}},
         0,
         {2},
         {"Deleting files older than 2 days"}},
        {"minimum age outranks the count",
         7, 1, 48,
         {{1, 50 * kHour}, {2, 40 * kHour}, {3, 30 * kHour}},
         0,
         {2, 3},
         {"Keeping 1 file, minimum age 2 days, 0 active sessions"}},
        {"three writers triple the count",
         7, 2, 2,
         {{1, 90 * kHour}, {2, 80 * kHour}, {3, 70 * kHour}, {4, 60 * kHour},
          {5, 50 * kHour}, {6, 40 * kHour}, {7, 30 * kHour}, {8, 20 * kHour}},
         3,
         {3, 4, 5, 6, 7, 8},
         {"Keeping 6 files, minimum age 2:00:00, 3 active sessions"}},
        {"one writer keeps the plain count",
         7, 2, 2,
         {{1, 90 * kHour}, {2, 80 * kHour}, {3, 70 * kHour}},
         1,
         {2, 3},
         {"Keeping 2 files, minimum age 2:00:00, 1 active session"}},
    };
    for (const LimitRow& row : rows) {
        SCOPED_TRACE(row.scenario);
        LogFolder folder;
        for (const auto& file : row.closed) folder.Make(Name(file.first), file.second);
        std::vector<std::unique_ptr<OpenForAppend>> writers;
        for (int i = 0; i < row.writers; ++i) {
            folder.Make(Name(9000 + i), 100 * kDay);
            writers.emplace_back(new OpenForAppend(folder.Path(Name(9000 + i))));
            ASSERT_TRUE(writers.back()->IsOpen());
        }
        RCPtr<LogFileDeletion> scan = MakeScan(folder, row.days, row.files, row.minHours);
        ScopedLogCapture capture(LOG_NEVER);
        RunScanToEnd(*scan);

        for (const auto& file : row.closed) {
            bool kept = std::count(row.survivors.begin(), row.survivors.end(), file.first) > 0;
            EXPECT_EQ(folder.Has(Name(file.first)), kept) << Name(file.first);
        }
        for (int i = 0; i < row.writers; ++i) EXPECT_TRUE(folder.Has(Name(9000 + i)));
        std::vector<std::string> info;
        for (const CapturedLine& line : LinesAt(*capture, LOG_INFO)) info.push_back(line.text);
        for (const std::string& text : row.infoLines) {
            EXPECT_EQ(std::count(info.begin(), info.end(), text), std::count(row.infoLines.begin(), row.infoLines.end(), text))
                << text;
        }
    }
}

TEST(LogFileDeletion, StampsInTheFutureOrFarPastCountAsJustWritten) {
    LogFolder folder;
    folder.Make(Name(1), 10 * kHour);
    folder.Make(Name(2), -3 * kDay);  // in the future
    SYSTEMTIME ancient = {1980, 1, 2, 1, 0, 0, 0, 0};
    folder.MakeAt(Name(3), ancient);  // about 46 years ago, beyond 10,000 days

    RCPtr<LogFileDeletion> scan = MakeScan(folder, 1, 1, 2);
    ScopedLogCapture capture(LOG_NEVER);
    RunScanToEnd(*scan);

    EXPECT_FALSE(folder.Has(Name(1)));
    EXPECT_TRUE(folder.Has(Name(2)));
    EXPECT_TRUE(folder.Has(Name(3)));
    EXPECT_EQ(capture->Count("Found \"" + Name(2) + "\" (age 0s)"), 1u);
    EXPECT_EQ(capture->Count("Found \"" + Name(3) + "\" (age 0s)"), 1u);
    // At the 10 h file in the age stage, then at the first file of age 0 in the count stage.
    EXPECT_EQ(capture->Count("Stopping at \""), 2u);
}

TEST(LogFileDeletion, ThisProcessesClosedFilesAreLeftToRolling) {
    LogFolder folder;
    folder.Make("orvane-fido2Client-1-4242(2)__2026-01-01-00-00.log", 30 * kDay);  // an earlier roll
    folder.Make(Name(42421), 30 * kDay);  // another id that begins with this one's digits
    folder.Make(Name(4243), 30 * kDay);
    folder.Make("orvane-fido2ClientHelper-1-5.log", 30 * kDay);  // listed by the pattern too

    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 25, 2);
    ScopedLogCapture capture(LOG_NEVER);
    RunScanToEnd(*scan);

    EXPECT_TRUE(folder.Has("orvane-fido2Client-1-4242(2)__2026-01-01-00-00.log"));
    EXPECT_TRUE(folder.Has(Name(42421)));
    EXPECT_FALSE(folder.Has(Name(4243)));
    EXPECT_FALSE(folder.Has("orvane-fido2ClientHelper-1-5.log"));
    EXPECT_EQ(capture->Count("Skipping current process \""), 2u);
    EXPECT_EQ(capture->Count("Scan complete; 2 files deleted, 0 files remain, next scan in 4:00:00"), 1u);
}

TEST(LogFileDeletion, AnEmptyFolderSaysSo) {
    LogFolder folder;
    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 25, 2);
    ScopedLogCapture capture(LOG_INFO);
    RunScanToEnd(*scan);
    EXPECT_EQ(capture->Count("Scan complete; 0 files found"), 1u);
    EXPECT_EQ(capture->Count("Scan complete; no log files found, next scan in 4:00:00"), 1u);
}

TEST(LogFileDeletion, ALimitChangedDuringAScanInterruptsItAndStartsAnew) {
    LogFolder folder;
    // 3.5 h to 47.5 h, half an hour away from any limit.
    for (int i = 0; i < 45; ++i) folder.Make(Name(3000 + i), (3 + i) * kHour + kHour / 2);
    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 100, 2);
    RCPtr<PollDeleteLogFiles> item = scan->GetItem();
    ScopedLogCapture capture(LOG_INFO);

    // The listing takes three steps; then the scan is in its first deleting stage.
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(item->Run(true));
    ASSERT_EQ(scan->GetScanState(), 1);
    ASSERT_EQ(capture->Count("Scan complete; 45 files found"), 1u);
    capture->ClearLines();

    scan->SetMaxDaysKept(1);
    ASSERT_TRUE(item->Run(false));  // the event of the change
    std::vector<CapturedLine> lines = LinesAt(*capture, LOG_INFO);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].function, kDone);
    EXPECT_EQ(lines[0].text, "Scan interrupted; 0 files deleted, 45 files remain, next scan in 4:00:00");
    EXPECT_EQ(lines[1].function, kFind);
    EXPECT_EQ(lines[1].text, "Scanning \"" + folder.Path(kPattern) + "\"");
    EXPECT_EQ(scan->GetScanState(), 0);
    EXPECT_EQ(item->timeoutMs, LogFileDeletion::kStepMs);

    // 20 files a step: the listing goes on with 20 + 5 behind the first 20 listed above, then
    // old files 20 + 4, surplus, finish.
    EXPECT_EQ(RunScanToEnd(*scan), 6);
    EXPECT_EQ(capture->Count("Scan complete; 45 files found"), 1u);
    EXPECT_EQ(capture->Count("Deleting files older than 1 day"), 1u);
    // Files of 24.5 h and more go; 3.5 h to 23.5 h stay.
    for (int i = 0; i < 45; ++i) EXPECT_EQ(folder.Has(Name(3000 + i)), i < 21) << Name(3000 + i);
    EXPECT_EQ(capture->Count("Scan complete; 24 files deleted, 21 files remain, next scan in 4:00:00"), 1u);
    EXPECT_EQ(item->timeoutMs, LogFileDeletion::kScanIntervalMs);
}

TEST(LogFileDeletion, AChangeOutsideAScanDoesNotInterrupt) {
    LogFolder folder;
    folder.Make(Name(1), 3 * kDay);
    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 25, 2);
    ScopedLogCapture capture(LOG_INFO);
    ASSERT_TRUE(scan->GetItem()->Run(false));
    EXPECT_EQ(capture->Count("Scan interrupted"), 0u);
    EXPECT_EQ(capture->Count("Scan complete; 1 file found"), 1u);
}

TEST(LogFileDeletion, OnAPollThreadALimitSetBeforehandStartsTheFirstScanAtOnce) {
    LogFolder folder;
    folder.Make(Name(1), 30 * kDay);
    folder.Make(Name(2), 1 * kHour);
    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 25, 2);
    RCPtr<SyPollThread> poll(new SyPollThread("DeletionTest"));
    poll->StartScheduler();
    ScopedLogCapture capture(LOG_INFO);
    ASSERT_TRUE(scan->Attach(poll));
    ASSERT_TRUE(scan->Attach(poll));  // a second attach changes nothing

    // Without the event the first scan would wait a minute; this wait gives up well before.
    EXPECT_TRUE(WaitForLog(*capture, "Scan complete; 1 file deleted", 30000));
    EXPECT_EQ(capture->Count("Scan complete; 1 file deleted, 1 file remains, next scan in 4:00:00"), 1u);
    EXPECT_FALSE(folder.Has(Name(1)));
    EXPECT_TRUE(folder.Has(Name(2)));

    scan->Detach(true);
    EXPECT_FALSE(poll->HasItem(scan->GetItem().Get()));
    poll->StopScheduler();
}

}  // namespace
