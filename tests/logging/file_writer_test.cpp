// The file writer on real files in the Wine prefix: names, the banner and the size after a
// reopen, the files that rolling keeps, the clean-up's folder, the disk-space guard, and the
// rules of the default folder.
#include "logging/file_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "logging/log_folder.h"
#include "logging/writer_files.h"
#include "support/log_capture.h"
#include "support/log_wait.h"
#include "sysutil/file_utils.h"

namespace {

constexpr uint64_t kMB = 1048576;
const std::string kLongLine = std::string(1000, 'x') + "\n";  // 1002 bytes on disk

// The free space as the test says, so that the thresholds can be met to the byte.
struct SeamFileWriter : FileWriter {
    bool QueryFreeSpace(uint64_t* bytes) override {
        *bytes = freeBytes;
        return true;
    }
    uint64_t freeBytes = 1000 * kMB;
};

// A file writer on a folder, with its poll item held back so that the test decides when a
// batch is written.
struct Rig {
    explicit Rig(const ScratchFolder& folder) : logger(LooseLogger("fido2Client")), writer(new SeamFileWriter()) {
        writer->logger = logger;
        writer->SetSetting("folderPath", folder.Path().c_str());
    }
    ~Rig() { writer->Close(); }
    bool Start() {
        if (!writer->Init()) return false;
        writer->GetPollItem()->Disable(true);
        return true;
    }
    bool Log(const std::string& text, int32_t level = LOG_INFO) { return EnqueueText(writer.Get(), text, level); }
    // One batch, as the poll thread writes it.
    void Drain() { writer->GetPollItem()->Run(true); }
    std::string Content() const { return ReadWholeFile(writer->GetCurrentPath()); }

    RCPtr<Logger> logger;
    RCPtr<SeamFileWriter> writer;
};

// The name holds the minute: an attempt that sees it turn is made again.
TEST(FileWriterFile, AnExistingFileGetsTheBannerAndWhatItHeldCountsTowardsTheLimit) {
    const std::string banner = "\r\n" + std::string(78, '*') + "\r\n" + std::string(24, '*') +
                               "   NEW LOG SESSION STARTING   " + std::string(24, '*') + "\r\n" + std::string(78, '*') +
                               "\r\n\r\n";
    // The banner and one line take the file past 1 MB only with what it held before.
    const std::string before(kMB - 300, 'x'), last(150, 'x');
    for (int attempt = 0; attempt < 3; ++attempt) {
        ScratchFolder folder("banner");
        Rig rig(folder);
        rig.writer->SetSetting("maxFileSizeMB", "1");
        const std::string path = folder.Path() + rig.writer->MakeFileName(1);
        {
            std::ofstream file(path, std::ios::binary);
            ASSERT_TRUE(file.write(before.data(), before.size()));
        }
        ASSERT_TRUE(rig.Start());
        if (rig.writer->GetCurrentPath() != path) continue;
        rig.Log(last + "\n");
        rig.Drain();
        const std::string content = ReadWholeFile(path);
        EXPECT_TRUE(content == before + banner + last + "\r\n") << content.substr(before.size());
        EXPECT_EQ(rig.writer->GetFileNumber(), 2u);
        EXPECT_EQ(folder.Files().size(), 2u);
        return;
    }
    FAIL() << "the minute turned at every attempt";
}

TEST(FileWriterRolling, KeepsTheFirstFileAndTheNewestRolledOnesNumberedByTheRules) {
    // rolling null: the default, four; kept: the number parts of the names left after five batches
    const struct { const char *size, *rolling; int32_t level; std::vector<std::string> kept; } rows[] = {
        {"1", "1", LOG_INFO, {"", "(6)"}},
        {"1", nullptr, LOG_INFO, {"", "(3)", "(4)", "(5)", "(6)"}},
        {"1", "0", LOG_INFO, {"(0001)", "(0002)", "(0003)", "(0004)", "(0005)", "(0006)"}},  // all kept
        {"0", "1", LOG_DEBUG, {"(1)"}},                                                        // never rolls
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string("size ") + row.size + ", rolling " + (row.rolling ? row.rolling : "default"));
        ScratchFolder folder("roll");
        ScopedLogCapture capture(LOG_INFO);
        Rig rig(folder);
        rig.logger->level = row.level;
        rig.writer->SetSetting("maxFileSizeMB", row.size);
        if (row.rolling) rig.writer->SetSetting("maxRollingFiles", row.rolling);
        ASSERT_TRUE(rig.Start());
        // 1050 lines, 1,052,100 bytes: each batch passes 1 MB.
        for (int batch = 0; batch < 5; ++batch) {
            for (int i = 0; i < 1050; ++i) rig.Log(kLongLine);
            rig.Drain();
        }
        std::vector<std::string> parts;
        std::smatch part;
        for (const std::string& name : folder.Files()) {
            const std::regex form(R"(orvane-fido2Client-\d+-\d+(\(\d+\))?__\d{4}(-\d\d){4}\.log)");
            EXPECT_TRUE(std::regex_match(name, part, form)) << name;
            parts.push_back(part[1]);
        }
        std::sort(parts.begin(), parts.end());
        EXPECT_EQ(parts, row.kept);
        EXPECT_EQ(capture->Count("Deleted \""), *row.size == '0' ? 0 : 6 - row.kept.size());
    }
}

TEST(FileWriterScan, TheCleanUpListsThisWritersFolderFromTheFirstFileAndLeavesWithTheWriter) {
    ScratchFolder folder("scan");
    ScopedLogCapture capture(LOG_VERBOSE, true);  // the scan speaks on the log's poll thread
    Rig rig(folder);
    ASSERT_TRUE(rig.writer->SetSetting("maxNumFiles", "9"));
    RCPtr<SyPollThread> poll = LoggerManager::GetInstance().GetPollThread();
    SyPollItem* item = rig.writer->GetScan()->GetItem().Get();
    EXPECT_FALSE(poll->HasItem(item));
    ASSERT_TRUE(rig.Start());
    EXPECT_TRUE(poll->HasItem(item));
    // The limit set the event, so the first scan starts at once, in this writer's folder.
    EXPECT_TRUE(WaitForLog(*capture, "Skipping active log file \"" + folder.Files().at(0) + "\"", 60000));
    EXPECT_EQ(capture->Count("Scanning \""), capture->Count("Scanning \"" + folder.Path() + "orvane-fido2Client*\""));
    rig.writer->Shutdown();
    EXPECT_FALSE(poll->HasItem(item));
}

TEST(FileWriterDiskSpace, SuspendsAtTheLowThresholdResumesAtTheGapTheHighOneOrALoweredLowOneAndFiltersMeanwhile) {
    // One writer through all steps; the low threshold starts at 200. A setting named in a step is
    // changed before its check.
    const struct { const char *setting, *value; uint64_t freeMB; bool suspended; } steps[] = {
        {"diskThresholdHighMB", "220", 201, false}, {nullptr, nullptr, 200, true},  // resumption needs 250
        {nullptr, nullptr, 249, true},              {nullptr, nullptr, 250, false},
        {"diskThresholdHighMB", "500", 150, true},  {nullptr, nullptr, 499, true},
        {nullptr, nullptr, 500, false},             {nullptr, nullptr, 201, false},
        {nullptr, nullptr, 200, true},              {"diskThresholdLowMB", "300", 310, true},  // raised
        {"diskThresholdLowMB", "160", 150, true},   {"diskThresholdLowMB", "150", 150, false},  // lowered to the free space
        {nullptr, nullptr, 150, true},              {"diskThresholdLowMB", "100", 150, false},
    };
    ScratchFolder folder("disk");
    Rig rig(folder);
    ASSERT_TRUE(rig.Start());
    size_t changes = 0;
    bool was = false;
    for (const auto& step : steps) {
        if (step.setting) rig.writer->SetSetting(step.setting, step.value);
        rig.writer->freeBytes = step.freeMB * kMB;
        rig.writer->CheckDiskSpace();
        EXPECT_EQ(rig.writer->IsSuspended(), step.suspended) << &step - steps;
        changes += step.suspended != was;
        was = step.suspended;
    }
    const std::string stepLines = rig.Content();
    EXPECT_EQ(static_cast<size_t>(std::count(stepLines.begin(), stepLines.end(), '\n')), 2 * changes) << "two line feeds each";

    // While suspended only ALWAYS and ERROR lines are taken, and the others are not counted.
    EXPECT_TRUE(rig.Log("before\n", LOG_VERBOSE));
    rig.writer->freeBytes = 100 * kMB;
    rig.Drain();  // writes "before", then the check suspends
    ASSERT_TRUE(rig.writer->IsSuspended());
    for (int32_t level : {LOG_ALWAYS, LOG_ERROR, LOG_WARN, LOG_INFO}) {
        EXPECT_EQ(rig.Log(LogLevelName(level) + std::string("\n"), level), level < LOG_WARN) << level;
    }
    rig.Drain();
    rig.writer->freeBytes = 600 * kMB;
    rig.writer->CheckDiskSpace();
    EXPECT_TRUE(rig.Log("after\n", LOG_INFO));
    rig.Drain();
    // Both lines run from the ids straight into the text, past the level and the function.
    const std::string head = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] \*{7} Free disk space is )";
    const std::string content = rig.Content().substr(stepLines.size());
    EXPECT_TRUE(std::regex_match(content, std::regex("before\r\n\r\n" + head + R"(100\.0MB - Logging suspended \*{7}\r\nALWAYS\r\nERROR\r\n)" +
                                                     head + R"(600\.0MB - Logging resumed after \S+ \*{7}\r\n\r\nafter\r\n)")))
        << content;
}

// Where the default folder of a user goes, and when the program-data folder is used instead.
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

// The installer makes the program-data folder; the log only uses it when it is there.
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
