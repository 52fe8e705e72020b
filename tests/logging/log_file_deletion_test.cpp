// The clean-up of a shared log folder, run step by step as the poll thread would: limits of age
// and count, files still written by a process, whose files they are, and a scan interrupted.
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

#include "logging/writer_files.h"
#include "support/log_capture.h"
#include "sysutil/string_utils.h"

namespace {

constexpr int64_t kHour = 3600;
constexpr int64_t kDay = 86400;
const char kPattern[] = "orvane-fido2Client*";
const char kFind[] = "FileWriter::FindLogFiles()";
const char kOld[] = "FileWriter::DeleteOldLogFiles()";
const char kMax[] = "FileWriter::DeleteMaxLogFiles()";
const char kDone[] = "FileWriter::ScanLogFilesDone()";

std::string Name(int pid, const char* tail = "__2026-01-01-00-00.log") {
    return "orvane-fido2Client-1-" + std::to_string(pid) + tail;
}

// A writer of the file, as the file writer is, in this or any process: append, no deny mode.
class OpenForAppend {
public:
    explicit OpenForAppend(const std::string& path)
        : file(_wfsopen(StringUtils::Utf8ToWide(path).c_str(), L"a", _SH_DENYNO)) {}
    ~OpenForAppend() {
        if (file) fclose(file);
    }
    bool IsOpen() const { return file != nullptr; }

private:
    FILE* file;
};

// 4242 stands for this process's id: its files begin with this prefix.
RCPtr<LogFileDeletion> MakeScan(const ScratchFolder& folder, int32_t days, uint32_t files, int32_t minHours) {
    RCPtr<LogFileDeletion> scan(new LogFileDeletion());
    scan->SetLocation(folder.Path().substr(0, folder.Path().size() - 1), kPattern,
                      folder.Path() + "orvane-fido2Client-1-4242");
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

// The lines of one level (of all: -1), each text without its line feed.
std::vector<CapturedLine> Lines(const LogCapture& capture, int32_t level = -1) {
    std::vector<CapturedLine> out;
    for (CapturedLine line : capture.Lines()) {
        line.text.pop_back();
        if (level == -1 || line.level == level) out.push_back(line);
    }
    return out;
}

std::string Quoted(const std::string& text) {
    return std::regex_replace(text, std::regex(R"([\\.()\[\]{}*+?^$|])"), R"(\$&)");
}

TEST(LogFileDeletion, ThirtyClosedFilesWithAnotherWriterLoseTheFiveOldestAndNeverTheWrittenFile) {
    ScratchFolder folder("deletion");
    // Far past every limit, but being written.
    ASSERT_TRUE(WriteAgedFile(folder.Path() + Name(4000), 60 * kDay));
    OpenForAppend writer(folder.Path() + Name(4000));
    ASSERT_TRUE(writer.IsOpen());
    // Ages 3 h to 32 h: all past the minimum age, none past seven days. pid 1000 is the oldest.
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(WriteAgedFile(folder.Path() + Name(1000 + i), (32 - i) * kHour));
    ASSERT_TRUE(WriteAgedFile(folder.Path() + "orvane-other-1-7.log", 90 * kDay));  // another application
    ASSERT_TRUE(WriteAgedFile(folder.Path() + "notes.txt", 90 * kDay));

    RCPtr<LogFileDeletion> scan = MakeScan(folder, 7, 25, 2);
    ScopedLogCapture capture(LOG_NEVER);
    // Listing 20 + 11 entries, old files, surplus files, finish.
    EXPECT_EQ(RunScanToEnd(*scan), 5);

    const std::string dayAge = R"( \(age 1 day \d:00:0[0-3]\))";
    auto named = [&](int pid) { return "\"" + Quoted(Name(pid)) + "\""; };
    const std::vector<std::pair<const char*, std::string>> expected = {
        {kFind, "Scanning \"" + Quoted(folder.Path() + kPattern) + "\""},
        {kFind, "Scan complete; 30 files found"},
        {kOld, "Deleting files older than 7 days"},
        {kOld, "Stopping at " + named(1000) + R"( \(age 1 day 8:00:0[0-3]\))"},
        {kMax, "Keeping 25 files, minimum age 2:00:00, 1 active session"},
        {kMax, "Deleted " + named(1000) + dayAge},
        {kMax, "Deleted " + named(1001) + dayAge},
        {kMax, "Deleted " + named(1002) + dayAge},
        {kMax, "Deleted " + named(1003) + dayAge},
        {kMax, "Deleted " + named(1004) + dayAge},
        {kDone, "Scan complete; 5 files deleted, 25 files remain, next scan in 4:00:00"},
    };
    const std::vector<CapturedLine> info = Lines(*capture, LOG_INFO);
    ASSERT_EQ(info.size(), expected.size());
    for (size_t i = 0; i < info.size(); ++i) {
        EXPECT_EQ(info[i].function, expected[i].first) << i;
        EXPECT_TRUE(std::regex_match(info[i].text, std::regex(expected[i].second))) << i << ": " << info[i].text;
    }
    EXPECT_EQ(capture->Count("Found \""), 30u);
    EXPECT_EQ(capture->Count("Skipping active log file \"" + Name(4000) + "\" (age 60 days"), 1u);
    for (int i = 0; i < 30; ++i) EXPECT_EQ(folder.Has(Name(1000 + i)), i >= 5) << Name(1000 + i);
    EXPECT_EQ(folder.Files().size(), 28u) << "the written one, the other application's and the text file stay";
}

TEST(LogFileDeletion, LimitsStampsAndWhoseFilesTheyAre) {
    struct Row {
        const char* scenario;
        int32_t days;
        uint32_t files;
        int32_t minHours;
        std::vector<std::pair<std::string, int64_t>> closed;  // name, age in seconds
        int writers;                                           // further files of this application held open here
        std::vector<std::string> survivors;                    // of the closed files
        std::vector<std::string> lines;                        // texts that must each come as often as listed
    };
    const Row rows[] = {
        {"both limits off", 0, 0, 2, {{Name(1), 40 * kDay}, {Name(2), 30 * kDay}}, 0, {Name(1), Name(2)},
         {"Deleting old log files disabled", "Deleting old log files disabled",
          "Scan complete; 0 files deleted, 2 files remain, next scan in 4:00:00"}},
        {"days off, count on", 0, 1, 2, {{Name(1), 40 * kDay}, {Name(2), 30 * kDay}, {Name(3), 5 * kHour}}, 0,
         {Name(3)},
         {"Keeping 1 file, minimum age 2:00:00, 0 active sessions",
          "Scan complete; 2 files deleted, 1 file remains, next scan in 4:00:00"}},
        {"count off, days on", 2, 0, 2, {{Name(1), 3 * kDay}, {Name(2), 1 * kDay}, {Name(3), 5 * kHour}}, 0,
         {Name(2), Name(3)}, {"Deleting files older than 2 days", "Deleting old log files disabled"}},
        {"minimum age raises a shorter day limit", 1, 25, 48, {{Name(1), 60 * kHour}, {Name(2), 30 * kHour}}, 0,
         {Name(2)}, {"Deleting files older than 2 days"}},
        {"minimum age outranks the count", 7, 1, 48,
         {{Name(1), 50 * kHour}, {Name(2), 40 * kHour}, {Name(3), 30 * kHour}}, 0, {Name(2), Name(3)},
         {"Keeping 1 file, minimum age 2 days, 0 active sessions"}},
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
    for (const Row& row : rows) {
        SCOPED_TRACE(row.scenario);
        ScratchFolder folder("limits");
        for (const auto& file : row.closed) ASSERT_TRUE(WriteAgedFile(folder.Path() + file.first, file.second));
        std::vector<std::unique_ptr<OpenForAppend>> writers;
        for (int i = 0; i < row.writers; ++i) {
            ASSERT_TRUE(WriteAgedFile(folder.Path() + Name(9000 + i), 100 * kDay));
            writers.emplace_back(new OpenForAppend(folder.Path() + Name(9000 + i)));
            ASSERT_TRUE(writers.back()->IsOpen());
        }
        RCPtr<LogFileDeletion> scan = MakeScan(folder, row.days, row.files, row.minHours);
        ScopedLogCapture capture(LOG_NEVER);
        RunScanToEnd(*scan);

        for (const auto& file : row.closed) {
            const bool kept = std::count(row.survivors.begin(), row.survivors.end(), file.first) > 0;
            EXPECT_EQ(folder.Has(file.first), kept) << file.first;
        }
        for (int i = 0; i < row.writers; ++i) EXPECT_TRUE(folder.Has(Name(9000 + i)));
        std::vector<std::string> texts;
        for (const CapturedLine& line : Lines(*capture)) texts.push_back(line.text);
        for (const std::string& text : row.lines) {
            EXPECT_EQ(std::count(texts.begin(), texts.end(), text), std::count(row.lines.begin(), row.lines.end(), text))
                << text;
        }
        writers.clear();
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
    // The listing takes three steps; then the scan is in its first deleting stage.
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(item->Run(true));
    ASSERT_EQ(scan->GetScanState(), 1);
    ASSERT_EQ(capture->Count("Scan complete; 45 files found"), 1u);
    capture->ClearLines();

    scan->SetMaxDaysKept(1);
    ASSERT_TRUE(item->Run(false));  // the event of the change
    const std::vector<CapturedLine> lines = Lines(*capture, LOG_INFO);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].function, kDone);
    EXPECT_EQ(lines[0].text, "Scan interrupted; 0 files deleted, 45 files remain, next scan in 4:00:00");
    EXPECT_EQ(lines[1].function, kFind);
    EXPECT_EQ(lines[1].text, "Scanning \"" + folder.Path() + kPattern + "\"");
    EXPECT_EQ(item->timeoutMs, LogFileDeletion::kStepMs);

    // 20 files a step: the listing goes on with 20 + 5 behind the first 20 listed above, then
    // old files 20 + 4, surplus, finish.
    EXPECT_EQ(RunScanToEnd(*scan), 6);
    EXPECT_EQ(capture->Count("Deleting files older than 1 day"), 1u);
    // Files of 24.5 h and more go; 3.5 h to 23.5 h stay.
    for (int i = 0; i < 45; ++i) EXPECT_EQ(folder.Has(Name(3000 + i)), i < 21) << Name(3000 + i);
    EXPECT_EQ(capture->Count("Scan complete; 24 files deleted, 21 files remain, next scan in 4:00:00"), 1u);
}

}  // namespace
