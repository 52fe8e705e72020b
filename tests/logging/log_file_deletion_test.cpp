// The clean-up of a shared log folder, run step by step as the poll thread would: limits of age
// and count, files still written by a process, whose files they are, and a scan interrupted.
#include "logging/log_file_deletion.h"

#include <gtest/gtest.h>

#include <share.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "logging/writer_files.h"
#include "support/log_capture.h"
#include "sysutil/file_utils.h"
#include "sysutil/string_utils.h"

namespace {

constexpr int64_t kHour = 3600;
constexpr int64_t kDay = 86400;
const char kPattern[] = "orvane-fido2Client*";

std::string Name(int pid, const char* tail = "__2026-01-01-00-00.log") {
    return "orvane-fido2Client-1-" + std::to_string(pid) + tail;
}

// 4242 stands for this process's id: its files begin with this prefix.
RCPtr<LogFileDeletion> MakeScan(const ScratchFolder& folder, int32_t days, int32_t files, int32_t minHours) {
    RCPtr<LogFileDeletion> scan(new LogFileDeletion());
    scan->SetLocation(folder.Path().substr(0, folder.Path().size() - 1), kPattern,
                      folder.Path() + "orvane-fido2Client-1-4242");
    scan->SetMaxDaysKept(days);
    scan->SetMaxNumFiles(static_cast<uint32_t>(files));
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

TEST(LogFileDeletion, LimitsStampsAndWhoseFilesTheyAre) {
    const std::string aged = "__2026-01-01-00-00.log\" (age ";
    // closed: name and age in seconds; writers: files of this application held open, 100 days old;
    // survivors: of the closed files; lines: fragments that must each come as often as listed.
    const struct {
        const char* scenario;
        int32_t days, files, minHours;
        std::vector<std::pair<std::string, int64_t>> closed;
        int writers;
        std::vector<std::string> survivors, lines;
    } rows[] = {
        {"both limits off", 0, 0, 2, {{Name(1), 40 * kDay}, {Name(2), 30 * kDay}}, 0, {Name(1), Name(2)},
         {"Scan complete; 2 files found", "Deleting old log files disabled", "Deleting old log files disabled",
          "Scan complete; 0 files deleted, 2 files remain, next scan in 4:00:00"}},
        {"days off, count on: the oldest go", 0, 1, 2,
         {{Name(1), 40 * kDay}, {Name(2), 30 * kDay}, {Name(3), 5 * kHour}}, 0, {Name(3)},
         {"Keeping 1 file, minimum age 2:00:00, 0 active sessions", "Deleted \"" + Name(1, aged.c_str()) + "40 days",
          "Deleted \"" + Name(2, aged.c_str()) + "30 days",
          "Scan complete; 2 files deleted, 1 file remains, next scan in 4:00:00"}},
        {"count off, days on", 2, 0, 2, {{Name(1), 3 * kDay}, {Name(2), 1 * kDay}, {Name(3), 5 * kHour}}, 0,
         {Name(2), Name(3)},
         {"Deleting files older than 2 days", "Deleting old log files disabled",
          "Stopping at \"" + Name(2, aged.c_str()) + "1 day)"}},
        {"minimum age raises a shorter day limit", 1, 25, 48, {{Name(1), 60 * kHour}, {Name(2), 30 * kHour}}, 0,
         {Name(2)}, {"Deleting files older than 2 days"}},
        {"minimum age outranks the count, a written file is never touched", 7, 1, 48,
         {{Name(1), 50 * kHour}, {Name(2), 40 * kHour}, {Name(3), 30 * kHour}}, 1, {Name(2), Name(3)},
         {"Keeping 1 file, minimum age 2 days, 1 active session", "Skipping active log file \"" + Name(9000, aged.c_str())}},
        {"three writers triple the count", 7, 2, 2,
         {{Name(1), 90 * kHour}, {Name(2), 80 * kHour}, {Name(3), 70 * kHour}, {Name(4), 60 * kHour},
          {Name(5), 50 * kHour}, {Name(6), 40 * kHour}, {Name(7), 30 * kHour}, {Name(8), 20 * kHour}},
         3, {Name(3), Name(4), Name(5), Name(6), Name(7), Name(8)},
         {"Keeping 6 files, minimum age 2:00:00, 3 active sessions"}},
        {"stamps in the future or beyond 10,000 days count as just written", 1, 1, 2,
         {{Name(1), 10 * kHour}, {Name(2), -3 * kDay}, {Name(3), 11000 * kDay}}, 0, {Name(2), Name(3)},
         {"Found \"" + Name(2) + "\" (age 0s)", "Found \"" + Name(3) + "\" (age 0s)"}},
        {"this process's closed files are left to rolling, other names of the pattern are not", 7, 25, 2,
         {{Name(4242, "(2)__2026-01-01-00-00.log"), 30 * kDay},  // an earlier roll
          {Name(42421), 30 * kDay},                               // an id that begins with this one's digits
          {Name(4243), 30 * kDay},
          {"orvane-fido2ClientHelper-1-5.log", 30 * kDay}},
         0, {Name(4242, "(2)__2026-01-01-00-00.log"), Name(42421)},
         {"Scan complete; 2 files deleted, 0 files remain, next scan in 4:00:00"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.scenario);
        ScratchFolder folder("limits");
        for (const auto& file : row.closed) ASSERT_TRUE(WriteAgedFile(folder.Path() + file.first, file.second));
        // Written as the file writer writes, in this or any process: append, no deny mode.
        std::vector<std::unique_ptr<FILE, int (*)(FILE*)>> writers;
        for (int i = 0; i < row.writers; ++i) {
            ASSERT_TRUE(WriteAgedFile(folder.Path() + Name(9000 + i), 100 * kDay));
            writers.emplace_back(_wfsopen(StringUtils::Utf8ToWide(folder.Path() + Name(9000 + i)).c_str(), L"a", _SH_DENYNO), fclose);
            ASSERT_TRUE(writers.back());
        }
        RCPtr<LogFileDeletion> scan = MakeScan(folder, row.days, row.files, row.minHours);
        ScopedLogCapture capture(LOG_NEVER);
        RunScanToEnd(*scan);

        for (const auto& file : row.closed) {
            const bool kept = std::count(row.survivors.begin(), row.survivors.end(), file.first) > 0;
            EXPECT_EQ(FileUtils::PathExists(folder.Path() + file.first), kept) << file.first;
        }
        for (int i = 0; i < row.writers; ++i) EXPECT_TRUE(FileUtils::PathExists(folder.Path() + Name(9000 + i)));
        for (const std::string& text : row.lines) {
            EXPECT_EQ(capture->Count(text), static_cast<size_t>(std::count(row.lines.begin(), row.lines.end(), text)))
                << text;
        }
    }
}

TEST(LogFileDeletion, ALimitChangedDuringAScanInterruptsItAndStartsAnew) {
    ScratchFolder folder("interrupt");
    // 3.5 h to 47.5 h, half an hour away from any limit.
    for (int i = 0; i < 45; ++i) ASSERT_TRUE(WriteAgedFile(folder.Path() + Name(3000 + i), (3 + i) * kHour + kHour / 2));
    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 100, 2);
    RCPtr<PollDeleteLogFiles> item = scan->GetItem();
    ScopedLogCapture capture(LOG_INFO);

    // The event outside a scan only starts one.
    ASSERT_TRUE(item->Run(false));
    EXPECT_EQ(capture->Count("Scan interrupted"), 0u);
    // The listing takes three steps, 20 files a step; then the scan is in its first deleting stage.
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(item->Run(true));
    ASSERT_EQ(scan->GetScanState(), 1);
    ASSERT_EQ(capture->Count("Scan complete; 45 files found"), 1u);
    capture->ClearLines();

    scan->SetMaxDaysKept(1);
    ASSERT_TRUE(item->Run(false));  // the event of the change
    std::vector<std::string> texts;
    for (const CapturedLine& line : capture->Lines()) texts.push_back(line.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"Scan interrupted; 0 files deleted, 45 files remain, next scan in 4:00:00\n",
                                               "Scanning \"" + folder.Path() + kPattern + "\"\n"}));
    EXPECT_EQ(item->timeoutMs, LogFileDeletion::kStepMs);

    // The listing goes on with 20 + 5 behind the first 20 listed above, then old files 20 + 4,
    // surplus, finish.
    EXPECT_EQ(RunScanToEnd(*scan), 6);
    EXPECT_EQ(capture->Count("Deleting files older than 1 day"), 1u);
    // Files of 24.5 h and more go; 3.5 h to 23.5 h stay.
    for (int i = 0; i < 45; ++i) EXPECT_EQ(FileUtils::PathExists(folder.Path() + Name(3000 + i)), i < 21) << Name(3000 + i);
    EXPECT_EQ(capture->Count("Scan complete; 24 files deleted, 21 files remain, next scan in 4:00:00"), 1u);
}

}  // namespace
