// The file writer on real files in the Wine prefix: names, the banner, rolling and the files
// it keeps, the size after a reopen, the disk-space guard, and folders that can't be used.
#include "logging/file_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "logging/logger.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"
#include "support/log_capture.h"
#include "support/log_wait.h"
#include "sysutil/string_utils.h"

namespace {

constexpr uint64_t kMB = 1048576;

// The free space as the test says, so that the thresholds can be met to the byte.
class SeamFileWriter : public FileWriter {
public:
    uint64_t freeBytes = 0;

protected:
    bool QueryFreeSpace(uint64_t* bytes) override {
        *bytes = freeBytes;
        return true;
    }
};

// A file writer in service on a folder, with its poll item held back so that the test
// decides when a batch is written.
struct Rig {
    Rig(const RCPtr<FileWriter>& fileWriter, const std::string& folder, const std::string& appName = "fido2Client")
        : logger(LooseLogger(appName)), writer(fileWriter) {
        writer->logger = logger;
        if (!folder.empty()) writer->SetSetting("folderPath", folder.c_str());
    }
    bool Start() {
        if (!writer->Init()) return false;
        writer->GetPollItem()->Disable(true);
        return true;
    }
    bool Log(const std::string& text, int32_t level = LOG_INFO) { return EnqueueText(writer.Get(), text, level); }
    // One batch, as the poll thread writes it.
    void Drain() { writer->GetPollItem()->Run(true); }
    std::string Content() { return ReadWholeFile(writer->GetCurrentPath()); }

    RCPtr<Logger> logger;
    RCPtr<FileWriter> writer;
};

std::string Ids() {
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return std::to_string(session) + "-" + std::to_string(GetCurrentProcessId());
}

const std::string kDate = R"(\d{4}-\d\d-\d\d-\d\d-\d\d)";
const std::string kLongLine = std::string(1000, 'x') + "\n";  // 1002 bytes on disk
const std::string kBanner =
    "\r\n"
    "******************************************************************************\r\n"
    "************************   NEW LOG SESSION STARTING   ************************\r\n"
    "******************************************************************************\r\n"
    "\r\n";

// The number in "(n)" of a log file's name; 1 for a name without one.
int NumberOf(const std::string& name) {
    std::smatch match;
    if (std::regex_search(name, match, std::regex(R"(\((\d+)\)__)"))) return std::stoi(match[1]);
    return 1;
}

TEST(FileWriterNames, NamePartNumberPartAndDateByTheRules) {
    struct Row {
        const char* filename;  // null: not set
        const char* appName;
        int32_t level;
        const char* rolling;
        int32_t number;
        std::string expected;  // a pattern, with IDS for session and process, DATE for the minute
    };
    const Row rows[] = {
        {nullptr, "fido2Client", LOG_INFO, "4", 1, R"(orvane-fido2Client-IDS__DATE\.log)"},
        {nullptr, "fido2Client", LOG_DEBUG, "4", 1, R"(orvane-fido2Client-IDS\(1\)__DATE\.log)"},
        {nullptr, "fido2Client", LOG_INFO, "4", 2, R"(orvane-fido2Client-IDS\(2\)__DATE\.log)"},
        {nullptr, "fido2Client", LOG_INFO, "0", 1, R"(orvane-fido2Client-IDS\(0001\)__DATE\.log)"},
        {nullptr, "fido2Client", LOG_ERROR, "0", 12, R"(orvane-fido2Client-IDS\(0012\)__DATE\.log)"},
        {"named", "fido2Client", LOG_INFO, "4", 1, R"(orvane-named-IDS__DATE\.log)"},
        {nullptr, "", LOG_INFO, "4", 1, R"(orvane-default-IDS__DATE\.log)"},
        {nullptr, "fido2Client", LOG_DEBUG, "4", FileWriter::kPatternName, R"(orvane-fido2Client\*)"},
        {"named", "fido2Client", LOG_DEBUG, "0", FileWriter::kPrefixName, "orvane-named-IDS"},
    };
    for (const Row& row : rows) {
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, "", row.appName);
        rig.logger->level = row.level;
        if (row.filename) writer->SetSetting("filename", row.filename);
        writer->SetSetting("maxRollingFiles", row.rolling);
        const std::string pattern =
            std::regex_replace(std::regex_replace(row.expected, std::regex("IDS"), Ids()), std::regex("DATE"), kDate);
        const std::string name = writer->MakeFileName(row.number);
        EXPECT_TRUE(std::regex_match(name, std::regex(pattern))) << pattern << ": " << name;
    }
}

// The name holds the minute: if it turns between the two opens of one name, the names differ
// and the case is tried again.
TEST(FileWriterFile, TheSameNameAgainGetsTheBannerAndRollsByTheFilesRealSize) {
    ScratchFolder folder("banner");
    for (int attempt = 0; attempt < 3; ++attempt) {
        RCPtr<FileWriter> first(new FileWriter());
        Rig one(first, folder.Path());
        first->SetSetting("maxFileSizeMB", "1");
        ASSERT_TRUE(one.Start());
        EXPECT_EQ(folder.Files().size(), 1u) << "created by the start, before any line";
        EXPECT_FALSE(first->SetSetting("folderPath", "C:\\elsewhere\\")) << "fixed while open";
        EXPECT_FALSE(first->SetSetting("filename", "other"));
        std::string name;
        ASSERT_TRUE(first->GetSetting("filename", &name));
        EXPECT_EQ(name, folder.Files().at(0)) << "the name of the present file";
        // Just under the limit: 7 + 1045 lines of 1002 bytes.
        one.Log("two\nlines\n");
        for (int i = 0; i < 1045; ++i) one.Log(kLongLine);
        one.Drain();
        std::string lines = "two\r\nlines\r\n";
        for (int i = 0; i < 1045; ++i) lines += std::string(1000, 'x') + "\r\n";
        EXPECT_TRUE(one.Content() == lines) << "no banner in a new file, " << one.Content().size() << " bytes";
        first->Close();

        RCPtr<FileWriter> second(new FileWriter());
        Rig two(second, folder.Path());
        second->SetSetting("maxFileSizeMB", "1");
        ASSERT_TRUE(two.Start());
        if (second->GetCurrentPath() != first->GetCurrentPath()) {
            second->Close();
            for (const std::string& file : folder.Files()) DeleteFileA((folder.Path() + file).c_str());
            continue;
        }
        // A batch smaller than the stream's buffer: only the file's real size passes the limit.
        two.Log("beta\n");
        for (int i = 0; i < 2; ++i) two.Log(kLongLine);
        two.Drain();
        const std::string longLine = std::string(1000, 'x') + "\r\n";
        const std::string reopened = ReadWholeFile(first->GetCurrentPath());
        EXPECT_TRUE(reopened == lines + kBanner + "beta\r\n" + longLine + longLine)
            << reopened.substr(std::min(reopened.size(), lines.size()));
        EXPECT_EQ(second->GetFileNumber(), 2u) << "the reopened file has reached its limit and rolled";
        EXPECT_EQ(folder.Files().size(), 2u);
        second->Close();
        return;
    }
    FAIL() << "the minute turned at every attempt";
}

TEST(FileWriterRolling, KeepsTheFirstFileAndTheNewestRolledOnes) {
    struct Row {
        const char* size;
        const char* rolling;  // null: the default, four
        std::vector<int> kept;  // numbers of the files left after five batches
    };
    const Row rows[] = {
        {"0x1", "0", {1, 2, 3, 4, 5, 6}},  // numbers by base detection
        {"1", "1", {1, 6}},
        {"1", nullptr, {1, 3, 4, 5, 6}},
        {"0", nullptr, {1}},  // never rolls
    };
    constexpr int kLinesPerBatch = 1050;  // 1,052,100 bytes: one batch passes 1 MB
    for (const Row& row : rows) {
        const std::string what = std::string("size ") + row.size + ", rolling " + (row.rolling ? row.rolling : "default");
        SCOPED_TRACE(what);
        const bool rolls = std::string(row.size) != "0";
        ScratchFolder folder("roll");
        ScopedLogCapture capture(LOG_INFO);
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, folder.Path());
        writer->SetSetting("maxFileSizeMB", row.size);
        if (row.rolling) writer->SetSetting("maxRollingFiles", row.rolling);
        ASSERT_TRUE(rig.Start());
        for (int batch = 0; batch < 5; ++batch) {
            for (int i = 0; i < kLinesPerBatch; ++i) rig.Log(kLongLine);
            rig.Drain();
            EXPECT_EQ(writer->GetFileNumber(), rolls ? static_cast<uint32_t>(batch + 2) : 1u);
        }
        std::vector<int> numbers;
        for (const std::string& name : folder.Files()) {
            const int number = NumberOf(name);
            numbers.push_back(number);
            // Every rolled-away file holds one whole batch; the present one what came after.
            const size_t expected = !rolls ? 5 * kLinesPerBatch : number == 6 ? 0 : kLinesPerBatch;
            EXPECT_EQ(CountLines(ReadWholeFile(folder.Path() + name)), expected) << name;
            EXPECT_EQ(name.find("(0") != std::string::npos, row.rolling && std::string(row.rolling) == "0") << name;
        }
        std::sort(numbers.begin(), numbers.end());
        EXPECT_EQ(numbers, row.kept);
        EXPECT_EQ(capture->Count("Deleted \""), rolls ? 6 - row.kept.size() : 0u);
        for (const CapturedLine& line : capture->Lines()) {
            EXPECT_TRUE(line.text.find("Deleted \"") == std::string::npos || line.function == "FileWriter::RollLogFile()");
        }
        writer->SetSetting("maxFileSizeMB", "-1");
        rig.logger->level = LOG_VERBOSE;
        EXPECT_EQ(writer->GetSizeLimitMB(), 99u) << "-1 follows the level, looked up each time";
        writer->Close();
    }
}

TEST(FileWriterScan, TheCleanUpListsThisWritersFolderFromTheFirstFileAndLeavesWithTheWriter) {
    ScratchFolder folder("scan");
    ScopedLogCapture capture(LOG_VERBOSE, true);  // the scan speaks on the log's poll thread
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder.Path());
    ASSERT_TRUE(writer->SetSetting("maxNumFiles", "9"));
    EXPECT_EQ(writer->GetScan()->GetMaxNumFiles(), 9u);
    RCPtr<SyPollThread> poll = LoggerManager::GetInstance().GetPollThread();
    SyPollItem* item = writer->GetScan()->GetItem().Get();
    EXPECT_FALSE(poll->HasItem(item));
    ASSERT_TRUE(rig.Start());
    EXPECT_TRUE(poll->HasItem(item));
    // The limit set the event, so the first scan starts at once, in this writer's folder.
    EXPECT_TRUE(WaitForLog(*capture, "Skipping active log file \"" + folder.Files().at(0) + "\"", 60000));
    EXPECT_EQ(capture->Count("Scanning \""), capture->Count("Scanning \"" + folder.Path() + "orvane-fido2Client*\""));
    writer->Shutdown();
    EXPECT_FALSE(poll->HasItem(item));
}

TEST(FileWriterDiskSpace, SuspendsAtTheLowThresholdAndResumesAtTheGapTheHighOneOrALoweredLowOne) {
    struct Step {
        uint64_t freeMB;
        bool suspended;
        const char* newLow = nullptr;  // set before this step's check, if not null
    };
    struct Row {
        const char* what;
        const char* high;
        std::vector<Step> steps;  // the low threshold starts at 200
    };
    const Row rows[] = {
        {"high 220: resumption needs 250", "220", {{201, false}, {200, true}, {249, true}, {250, false}}},
        {"high 500", "500", {{150, true}, {499, true}, {500, false}, {201, false}, {200, true}}},
        {"low lowered below the free space", "500", {{150, true}, {150, false, "100"}}},
        {"low lowered exactly to the free space", "500", {{150, true}, {150, false, "150"}}},
        {"low lowered, still above the free space", "500", {{150, true}, {150, true, "160"}}},
        {"low raised", "500", {{150, true}, {150, true, "300"}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScratchFolder folder("disk");
        RCPtr<SeamFileWriter> writer(new SeamFileWriter());
        Rig rig(writer, folder.Path());
        writer->SetSetting("diskThresholdHighMB", row.high);
        ASSERT_TRUE(rig.Start());
        int changes = 0;
        bool was = false;
        for (const Step& step : row.steps) {
            if (step.newLow) writer->SetSetting("diskThresholdLowMB", step.newLow);
            writer->freeBytes = step.freeMB * kMB;
            writer->CheckDiskSpace();
            EXPECT_EQ(writer->IsSuspended(), step.suspended) << step.freeMB << " MB";
            changes += step.suspended != was;
            was = step.suspended;
        }
        EXPECT_EQ(CountLines(rig.Content()), static_cast<size_t>(2 * changes)) << "two line feeds each";
        writer->Close();
    }
}

TEST(FileWriterDiskSpace, WhileSuspendedOnlyAlwaysAndErrorLinesAreWrittenAndTheDropCountIsLost) {
    ScratchFolder folder("filter");
    RCPtr<SeamFileWriter> writer(new SeamFileWriter());
    Rig rig(writer, folder.Path());
    writer->freeBytes = 1000 * kMB;
    ASSERT_TRUE(rig.Start());
    EXPECT_TRUE(rig.Log("before\n", LOG_VERBOSE));
    writer->freeBytes = 100 * kMB;
    rig.Drain();  // writes "before", then the check suspends
    ASSERT_TRUE(writer->IsSuspended());
    EXPECT_TRUE(rig.Log("always\n", LOG_ALWAYS));
    EXPECT_TRUE(rig.Log("error\n", LOG_ERROR));
    EXPECT_FALSE(rig.Log("warn\n", LOG_WARN));
    EXPECT_FALSE(rig.Log("info\n", LOG_INFO));
    rig.Drain();
    writer->freeBytes = 600 * kMB;
    writer->CheckDiskSpace();
    EXPECT_TRUE(rig.Log("after\n", LOG_INFO));
    rig.Drain();
    // Both lines run from the ids straight into the text, past the level and the function.
    const std::string head = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] \*{7} Free disk space is )";
    EXPECT_TRUE(std::regex_match(
        rig.Content(), std::regex("before\r\n\r\n" + head + R"(100\.0MB - Logging suspended \*{7}\r\nalways\r\nerror\r\n)" +
                                  head + R"(600\.0MB - Logging resumed after \S+ \*{7}\r\n\r\nafter\r\n)")))
        << rig.Content();
    writer->Close();
}

TEST(FileWriterFolder, AFolderThatCantBeUsedLeavesTheWriterOutOfServiceAndTheOthersGoOn) {
    ScratchFolder folder("bad");
    const std::string blocker = folder.Path() + "a-file";
    ASSERT_TRUE(FileUtils::CreateEmptyFile(blocker, false));
    for (const std::string& path : {folder.Path() + "missing\\", blocker + "\\"}) {
        SCOPED_TRACE(path);
        RCPtr<Logger> logger = LooseLogger("fido2Client");
        RCPtr<LogWriter> file = logger->AddWriter(FileWriter::kType);
        ASSERT_TRUE(file && file->SetSetting("folderPath", path.c_str()));
        RCPtr<RecordingWriter> other(new RecordingWriter(4));
        ASSERT_TRUE(logger->AttachWriter(other));
        ASSERT_TRUE(logger->Start());
        EXPECT_FALSE(file->IsInitialized());
        other->Clear();
        logger->Write("Test::Bad()", LOG_INFO, "still logged\n");
        ASSERT_EQ(other->Texts().size(), 1u);
        EXPECT_NE(other->Texts()[0].find("still logged"), std::string::npos);
        logger->Shutdown();
        EXPECT_EQ(folder.Files(), std::vector<std::string>{"a-file"});
        EXPECT_FALSE(FileUtils::PathExists(folder.Path() + "missing"));
    }
}

TEST(FileWriterFolder, WithNoFolderSetTheUsersFolderBesideTheTempFolderIsMade) {
    const std::string user = "writers-user-" + std::to_string(GetCurrentProcessId());
    wchar_t saved[256] = {};
    const bool hadUser = GetEnvironmentVariableW(L"USERNAME", saved, 256) > 0;
    SetEnvironmentVariableA("USERNAME", user.c_str());
    wchar_t temp[MAX_PATH + 1];
    GetTempPathW(MAX_PATH, temp);
    const std::string expected = StringUtils::WideToUtf8(temp) + "orvane-" + user + "\\";
    ASSERT_FALSE(FileUtils::PathExists(expected));
    // The second writer finds the folder there and uses it as it is.
    for (const char* app : {"fido2Client", "second"}) {
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, "", app);
        ASSERT_TRUE(rig.Start()) << app;
        EXPECT_EQ(writer->GetFolderPath(), expected);
        EXPECT_EQ(writer->GetCurrentPath().compare(0, expected.size(), expected), 0);
        rig.Log("here\n");
        rig.Drain();
        EXPECT_EQ(rig.Content(), "here\r\n");
        const std::string path = writer->GetCurrentPath();
        writer->Close();
        DeleteFileA(path.c_str());
    }
    RemoveDirectoryA(expected.c_str());
    if (hadUser) SetEnvironmentVariableW(L"USERNAME", saved);
}

}  // namespace
