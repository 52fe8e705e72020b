// The file writer on real files in the Wine prefix: names, the banner, rolling and the files
// it keeps, the size after a reopen, the disk-space guard, its settings, and folders that
// can't be used.
#include "logging/file_writer.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "logging/logger.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "sysutil/scoped_handle.h"
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
class Rig {
public:
    Rig(const RCPtr<FileWriter>& fileWriter, const std::string& folder, const std::string& appName = "fido2Client")
        : logger(new Logger("rig", appName, RCPtr<LogMessageManager>(new LogMessageManager))), writer(fileWriter) {
        writer->logger = logger;
        if (!folder.empty()) writer->SetSetting("folderPath", folder.c_str());
    }
    bool Start() {
        if (!writer->Init()) return false;
        writer->GetPollItem()->Disable(true);
        return true;
    }
    bool Log(const std::string& text, int32_t level = LOG_INFO) {
        RCPtr<LogMessage> message;
        logger->messageManager->NewMessage(message, level, text.c_str(), -1);
        SyMutexGuard guard(&LogMutex());
        return writer->Enqueue(message);
    }
    // One batch, as the poll thread writes it.
    void Drain() { writer->GetPollItem()->Run(true); }
    std::string Content() { return ReadWholeFile(writer->GetCurrentPath()); }

    RCPtr<Logger> logger;
    RCPtr<FileWriter> writer;
};

uint32_t SessionOfThisProcess() {
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    return session;
}

std::string Ids() {
    return std::to_string(SessionOfThisProcess()) + "-" + std::to_string(GetCurrentProcessId());
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
        const char* what;
        const char* filename;  // null: not set
        const char* appName;
        int32_t level;
        const char* rolling;
        int32_t number;
        std::string expected;  // a pattern
    };
    const std::string ids = Ids();
    const Row rows[] = {
        {"first file at INFO has no number", nullptr, "fido2Client", LOG_INFO, "4", 1,
         "orvane-fido2Client-" + ids + "__" + kDate + R"(\.log)"},
        {"first file at DEBUG has one", nullptr, "fido2Client", LOG_DEBUG, "4", 1,
         "orvane-fido2Client-" + ids + R"(\(1\)__)" + kDate + R"(\.log)"},
        {"a rolled file has one", nullptr, "fido2Client", LOG_INFO, "4", 2,
         "orvane-fido2Client-" + ids + R"(\(2\)__)" + kDate + R"(\.log)"},
        {"keeping all files gives four digits", nullptr, "fido2Client", LOG_INFO, "0", 1,
         "orvane-fido2Client-" + ids + R"(\(0001\)__)" + kDate + R"(\.log)"},
        {"four digits for a later file too", nullptr, "fido2Client", LOG_ERROR, "0", 12,
         "orvane-fido2Client-" + ids + R"(\(0012\)__)" + kDate + R"(\.log)"},
        {"the setting before the application", "named", "fido2Client", LOG_INFO, "4", 1,
         "orvane-named-" + ids + "__" + kDate + R"(\.log)"},
        {"no name at all", nullptr, "", LOG_INFO, "4", 1, "orvane-default-" + ids + "__" + kDate + R"(\.log)"},
        {"the pattern of all files of the name", nullptr, "fido2Client", LOG_DEBUG, "4", FileWriter::kPatternName,
         R"(orvane-fido2Client\*)"},
        {"the prefix up to the process", "named", "fido2Client", LOG_DEBUG, "0", FileWriter::kPrefixName,
         "orvane-named-" + ids},
    };
    for (const Row& row : rows) {
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, "", row.appName);
        rig.logger->level = row.level;
        if (row.filename) writer->SetSetting("filename", row.filename);
        writer->SetSetting("maxRollingFiles", row.rolling);
        std::string name = writer->MakeFileName(row.number);
        EXPECT_TRUE(std::regex_match(name, std::regex(row.expected))) << row.what << ": " << name;
    }
}

TEST(FileWriterFile, NewFileHoldsTheLinesWithCrLfAndTheSameNameAgainGetsTheBanner) {
    ScratchFolder folder("banner");
    // The name holds the minute: if it turns between the two opens, the names differ and the
    // case is tried again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        RCPtr<FileWriter> first(new FileWriter());
        Rig one(first, folder.Path());
        ASSERT_TRUE(one.Start());
        EXPECT_EQ(folder.Files().size(), 1u) << "created by the start, before any line";
        one.Log("alpha\n");
        one.Log("two\nlines\n");
        one.Drain();
        EXPECT_EQ(one.Content(), "alpha\r\ntwo\r\nlines\r\n") << "no banner in a new file";
        first->Close();

        RCPtr<FileWriter> second(new FileWriter());
        Rig two(second, folder.Path());
        ASSERT_TRUE(two.Start());
        if (second->GetCurrentPath() != first->GetCurrentPath()) {
            second->Close();
            for (const std::string& name : folder.Files()) DeleteFileA((folder.Path() + name).c_str());
            continue;
        }
        two.Log("beta\n");
        two.Drain();
        EXPECT_EQ(two.Content(), "alpha\r\ntwo\r\nlines\r\n" + kBanner + "beta\r\n");
        EXPECT_EQ(folder.Files().size(), 1u);
        return;
    }
    FAIL() << "the minute turned at every attempt";
}

TEST(FileWriterFile, SizeAfterAReopenIsTheRealSizeOfTheFile) {
    ScratchFolder folder("reopen");
    for (int attempt = 0; attempt < 3; ++attempt) {
        RCPtr<FileWriter> first(new FileWriter());
        Rig one(first, folder.Path());
        first->SetSetting("maxFileSizeMB", "1");
        ASSERT_TRUE(one.Start());
        // Just under the limit: 1046 lines of 1002 bytes.
        for (int i = 0; i < 1046; ++i) one.Log(kLongLine);
        one.Drain();
        ASSERT_EQ(folder.Files().size(), 1u) << "still under the limit";
        first->Shutdown();

        RCPtr<FileWriter> second(new FileWriter());
        Rig two(second, folder.Path());
        second->SetSetting("maxFileSizeMB", "1");
        ASSERT_TRUE(two.Start());
        if (second->GetCurrentPath() != first->GetCurrentPath()) {
            second->Close();
            for (const std::string& name : folder.Files()) DeleteFileA((folder.Path() + name).c_str());
            continue;
        }
        // A batch smaller than the stream's buffer: only the file's real size passes the limit.
        for (int i = 0; i < 3; ++i) two.Log(kLongLine);
        two.Drain();
        EXPECT_EQ(second->GetFileNumber(), 2u) << "the reopened file has reached its limit and rolled";
        EXPECT_EQ(folder.Files().size(), 2u);
        return;
    }
    FAIL() << "the minute turned at every attempt";
}

TEST(FileWriterRolling, KeepsTheFirstFileAndTheNewestRolledOnes) {
    struct Row {
        const char* rolling;
        std::vector<int> kept;  // numbers of the files left after five rolls
    };
    const Row rows[] = {
        {"0", {1, 2, 3, 4, 5, 6}},
        {"1", {1, 6}},
        {nullptr, {1, 3, 4, 5, 6}},  // the default keeps four
    };
    constexpr int kLinesPerBatch = 1050;  // 1,052,100 bytes: one batch passes 1 MB
    for (const Row& row : rows) {
        const std::string what = row.rolling ? row.rolling : "default";
        ScratchFolder folder("roll");
        ScopedLogCapture capture(LOG_INFO);
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, folder.Path());
        writer->SetSetting("maxFileSizeMB", "1");
        if (row.rolling) writer->SetSetting("maxRollingFiles", row.rolling);
        ASSERT_TRUE(rig.Start()) << what;
        for (int batch = 0; batch < 5; ++batch) {
            for (int i = 0; i < kLinesPerBatch; ++i) rig.Log(kLongLine);
            rig.Drain();
            EXPECT_EQ(writer->GetFileNumber(), static_cast<uint32_t>(batch + 2)) << what << ": one roll per batch";
        }
        std::vector<int> numbers;
        size_t lines = 0;
        for (const std::string& name : folder.Files()) {
            numbers.push_back(NumberOf(name));
            std::string content = ReadWholeFile(folder.Path() + name);
            size_t count = CountLines(content);
            lines += count;
            // Every file but the present one was written by one whole batch.
            EXPECT_EQ(count, NumberOf(name) == 6 ? 0u : static_cast<size_t>(kLinesPerBatch)) << what << ": " << name;
            if (!row.rolling || std::string(row.rolling) != "0") {
                EXPECT_EQ(name.find("(0"), std::string::npos) << what << ": " << name;
            }
        }
        std::sort(numbers.begin(), numbers.end());
        EXPECT_EQ(numbers, row.kept) << what;
        EXPECT_EQ(lines, (row.kept.size() - 1) * kLinesPerBatch) << what << ": the kept files hold every line";
        EXPECT_EQ(capture->Count("Deleted \""), 6 - row.kept.size()) << what;
        for (const CapturedLine& line : capture->Lines()) {
            if (line.text.find("Deleted \"") == std::string::npos) continue;
            EXPECT_EQ(line.function, "FileWriter::RollLogFile()");
            EXPECT_EQ(line.level, LOG_INFO);
        }
        writer->Close();
    }
}

TEST(FileWriterRolling, LimitZeroNeverRollsAndMinusOneFollowsTheLevel) {
    ScratchFolder folder("limit");
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder.Path());
    writer->SetSetting("maxFileSizeMB", "0");
    ASSERT_TRUE(rig.Start());
    for (int i = 0; i < 1100; ++i) rig.Log(kLongLine);
    rig.Drain();
    EXPECT_EQ(folder.Files().size(), 1u);
    EXPECT_EQ(writer->GetFileNumber(), 1u);

    writer->SetSetting("maxFileSizeMB", "-1");
    struct Row {
        int32_t level;
        uint32_t limit;
    };
    for (const Row& row : {Row{LOG_VERBOSE, 99}, Row{LOG_TRACE, 75}, Row{LOG_DEBUG, 50}, Row{LOG_INFO, 15},
                           Row{LOG_ALWAYS, 15}, Row{LOG_NEVER, 15}}) {
        rig.logger->level = row.level;
        EXPECT_EQ(writer->GetSizeLimitMB(), row.limit) << row.level;
    }
    writer->logger = nullptr;
    EXPECT_EQ(writer->GetSizeLimitMB(), 15u) << "no logger";
    writer->Close();
}

TEST(FileWriterSettings, ClampsRefusalsAndWhatGetSettingGives) {
    struct Row {
        const char* name;
        const char* value;
        bool accepted;
        const char* read;  // null: not looked at
    };
    const Row rows[] = {
        {"maxFileSizeMB", "1025", true, "1024"},
        {"maxFileSizeMB", "0x10", true, "16"},
        {"maxFileSizeMB", "0", true, "0"},
        {"maxFileSizeMB", "1024", true, "1024"},
        {"maxFileSizeMB", "-2", true, "1024"},
        {"maxFileSizeMB", "-1", true, "15"},
        {"maxRollingFiles", "2000", true, "1000"},
        {"maxRollingFiles", "1000", true, "1000"},
        {"maxRollingFiles", "0", true, "0"},
        {"maxDaysKept", "3", true, "3"},
        {"maxNumFiles", "0x1E", true, "30"},
        {"minAgeInHours", "48", true, "48"},
        {"diskThresholdLowMB", "150", true, "150"},
        {"diskThresholdHighMB", "220", true, "220"},
        {"", "1", false, nullptr},
        {"maxNumFiles", "", false, "30"},
        {"somethingElse", "1", true, nullptr},
    };
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, "");
    for (const Row& row : rows) {
        EXPECT_EQ(writer->SetSetting(row.name, row.value), row.accepted) << row.name << "=" << row.value;
        if (!row.read) continue;
        std::string value;
        EXPECT_TRUE(writer->GetSetting(row.name, &value)) << row.name;
        EXPECT_EQ(value, row.read) << row.name << "=" << row.value;
    }
    std::string value;
    EXPECT_FALSE(writer->GetSetting("somethingElse", &value));
}

TEST(FileWriterSettings, FolderAndNameAreFixedWhileAFileIsOpen) {
    ScratchFolder folder("fixed");
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder.Path());
    ASSERT_TRUE(writer->SetSetting("filename", "first"));
    ASSERT_TRUE(rig.Start());
    EXPECT_FALSE(writer->SetSetting("folderPath", "C:\\elsewhere\\"));
    EXPECT_FALSE(writer->SetSetting("filename", "second"));
    std::string value;
    ASSERT_TRUE(writer->GetSetting("folderPath", &value));
    EXPECT_EQ(value, folder.Path());
    ASSERT_TRUE(writer->GetSetting("filename", &value));
    EXPECT_EQ(value, folder.Files().at(0)) << "the name of the present file";
    EXPECT_EQ(value.compare(0, 13, "orvane-first-"), 0) << value;
    writer->Close();
    EXPECT_TRUE(writer->SetSetting("filename", "second")) << "closed, the name may change";
}

TEST(FileWriterScan, TheCleanUpWorksOnThisWritersFolderAndLeavesWithTheWriter) {
    ScratchFolder folder("scan");
    ScopedLogCapture capture(LOG_VERBOSE);
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder.Path());
    ASSERT_TRUE(writer->SetSetting("maxDaysKept", "3"));
    ASSERT_TRUE(writer->SetSetting("maxNumFiles", "9"));
    ASSERT_TRUE(writer->SetSetting("minAgeInHours", "5"));
    EXPECT_EQ(writer->GetScan()->GetMaxDaysKept(), 3);
    EXPECT_EQ(writer->GetScan()->GetMaxNumFiles(), 9u);
    EXPECT_EQ(writer->GetScan()->GetMinAgeInHours(), 5);
    RCPtr<SyPollThread> poll = LoggerManager::GetInstance().GetPollThread();
    SyPollItem* item = writer->GetScan()->GetItem().Get();
    EXPECT_FALSE(poll->HasItem(item));
    ASSERT_TRUE(rig.Start());
    EXPECT_TRUE(poll->HasItem(item)) << "the first file puts the clean-up on the poll thread";
    // The item may have taken a step already, since limits were set: the listing below is the
    // test's own, and a line may come twice.
    writer->GetScan()->Detach(true);
    const std::string name = folder.Files().at(0);
    while (writer->GetScan()->FindLogFiles()) {
    }
    EXPECT_GE(capture->Count("Scanning \"" + folder.Path() + "orvane-fido2Client*\""), 1u);
    EXPECT_EQ(capture->Count("Scanning \""), capture->Count("Scanning \"" + folder.Path() + "orvane-fido2Client*\""));
    EXPECT_GE(capture->Count("Skipping active log file \"" + name + "\""), 1u) << "its own file is in use";
    writer->GetScan()->Attach(poll);
    writer->Shutdown();
    EXPECT_FALSE(poll->HasItem(item)) << "the writer's shutdown takes the clean-up off";
}

// ---- the disk-space guard ----

std::string Suspension(const std::string& space) {
    return R"(\r\n\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] \*{7} Free disk space is )" +
           space + R"( - Logging suspended \*{7}\r\n)";
}

std::string Resumption(const std::string& space) {
    return R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] \*{7} Free disk space is )" +
           space + R"( - Logging resumed after \S+ \*{7}\r\n\r\n)";
}

TEST(FileWriterDiskSpace, SuspendsAtTheLowThresholdAndResumesAtTheGapOrTheHighOne) {
    struct Step {
        uint64_t freeBytes;
        bool suspended;
    };
    struct Row {
        const char* what;
        const char* low;
        const char* high;
        std::vector<Step> steps;
    };
    const Row rows[] = {
        {"low 200, high 220: resumption needs 250", "200", "220",
         {{200 * kMB + 1, false}, {200 * kMB, true}, {250 * kMB - 1, true}, {250 * kMB, false}}},
        {"low 200, high 500", "200", "500",
         {{150 * kMB, true}, {499 * kMB, true}, {500 * kMB, false}, {201 * kMB, false}, {200 * kMB, true}}},
    };
    for (const Row& row : rows) {
        ScratchFolder folder("disk");
        RCPtr<SeamFileWriter> writer(new SeamFileWriter());
        Rig rig(writer, folder.Path());
        writer->SetSetting("diskThresholdLowMB", row.low);
        writer->SetSetting("diskThresholdHighMB", row.high);
        ASSERT_TRUE(rig.Start());
        int changes = 0;
        bool was = false;
        for (const Step& step : row.steps) {
            writer->freeBytes = step.freeBytes;
            writer->CheckDiskSpace();
            EXPECT_EQ(writer->IsSuspended(), step.suspended) << row.what << " at " << step.freeBytes;
            if (step.suspended != was) ++changes;
            was = step.suspended;
        }
        std::string content = rig.Content();
        EXPECT_EQ(CountLines(content), static_cast<size_t>(2 * changes)) << "each line is two line feeds: " << content;
        EXPECT_TRUE(std::regex_search(content, std::regex(Suspension(R"(\d+\.\dMB)")))) << content;
        writer->Close();
    }
    ScratchFolder folder("diskexact");
    RCPtr<SeamFileWriter> writer(new SeamFileWriter());
    Rig rig(writer, folder.Path());
    writer->SetSetting("diskThresholdHighMB", "220");
    ASSERT_TRUE(rig.Start());
    writer->freeBytes = 200 * kMB;
    writer->CheckDiskSpace();
    writer->freeBytes = 250 * kMB;
    writer->CheckDiskSpace();
    EXPECT_TRUE(std::regex_match(rig.Content(), std::regex(Suspension("200\\.0MB") + Resumption("250\\.0MB"))))
        << rig.Content();
    writer->Close();
}

TEST(FileWriterDiskSpace, LoweringTheLowThresholdDuringASuspensionResumesAtTheNextCheck) {
    struct Row {
        const char* what;
        const char* newLow;
        uint64_t freeBytes;
        bool suspendedAfter;
    };
    const Row rows[] = {
        {"lowered below the free space", "100", 150 * kMB, false},
        {"lowered exactly to the free space", "150", 150 * kMB, false},
        {"lowered, still above the free space", "160", 150 * kMB, true},
        {"raised", "300", 150 * kMB, true},
        {"the same value again", "200", 150 * kMB, true},
    };
    for (const Row& row : rows) {
        ScratchFolder folder("lowered");
        RCPtr<SeamFileWriter> writer(new SeamFileWriter());
        Rig rig(writer, folder.Path());
        ASSERT_TRUE(rig.Start());
        writer->freeBytes = row.freeBytes;
        writer->CheckDiskSpace();
        ASSERT_TRUE(writer->IsSuspended()) << row.what;
        writer->SetSetting("diskThresholdLowMB", row.newLow);
        writer->CheckDiskSpace();
        EXPECT_EQ(writer->IsSuspended(), row.suspendedAfter) << row.what;
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
    EXPECT_TRUE(std::regex_match(rig.Content(), std::regex("before\\r\\n" + Suspension("100\\.0MB") +
                                                           "always\\r\\nerror\\r\\n" + Resumption("600\\.0MB") +
                                                           "after\\r\\n")))
        << rig.Content();
    writer->Close();
}

TEST(FileWriterDiskSpace, RealFreeSpaceSuspendsUnderAHighLowThresholdAndLoweringItResumes) {
    ScratchFolder folder("realdisk");
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder.Path());
    ASSERT_TRUE(rig.Start());
    ULARGE_INTEGER available;
    ASSERT_TRUE(GetDiskFreeSpaceExA(folder.Path().c_str(), &available, nullptr, nullptr));
    // A low threshold far above what is free, in case the disk frees up meanwhile.
    const std::string low = std::to_string(available.QuadPart / kMB + 100000);
    writer->SetSetting("diskThresholdLowMB", low.c_str());
    rig.Log("one\n");
    rig.Drain();
    EXPECT_TRUE(writer->IsSuspended());
    EXPECT_FALSE(rig.Log("held back\n", LOG_WARN));
    writer->SetSetting("diskThresholdLowMB", "1");
    rig.Log("two\n", LOG_ERROR);
    rig.Drain();
    EXPECT_FALSE(writer->IsSuspended());
    const std::string space = R"(\d+\.\d[KMGTP]B)";
    EXPECT_TRUE(std::regex_match(rig.Content(),
                                 std::regex("one\\r\\n" + Suspension(space) + "two\\r\\n" + Resumption(space))))
        << rig.Content();
    writer->Close();
}

// ---- folders ----

TEST(FileWriterFolder, AFolderThatCantBeUsedLeavesTheWriterOutOfServiceAndTheOthersGoOn) {
    ScratchFolder folder("bad");
    const std::string blocker = folder.Path() + "a-file";
    ASSERT_TRUE(FileUtils::CreateEmptyFile(blocker, false));
    struct Row {
        const char* what;
        std::string path;
    };
    const Row rows[] = {
        {"missing folder", folder.Path() + "missing\\"},
        {"a file in place of the folder", blocker + "\\"},
    };
    for (const Row& row : rows) {
        RCPtr<Logger> logger(new Logger("bad", "fido2Client", RCPtr<LogMessageManager>(new LogMessageManager)));
        RCPtr<LogWriter> file = logger->AddWriter(FileWriter::kType);
        ASSERT_TRUE(file);
        ASSERT_TRUE(file->SetSetting("folderPath", row.path.c_str()));
        RCPtr<RecordingWriter> other(new RecordingWriter(4));
        ASSERT_TRUE(logger->AttachWriter(other));
        ASSERT_TRUE(logger->Start()) << row.what;
        EXPECT_FALSE(file->IsInitialized()) << row.what;
        other->Clear();
        logger->Write("Test::Bad()", LOG_INFO, "still logged\n");
        ASSERT_EQ(other->Texts().size(), 1u) << row.what;
        EXPECT_NE(other->Texts()[0].find("still logged"), std::string::npos);
        logger->Shutdown();
        EXPECT_EQ(folder.Files(), std::vector<std::string>{"a-file"}) << row.what;
        EXPECT_FALSE(FileUtils::PathExists(folder.Path() + "missing")) << row.what;
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
    {
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, "");
        ASSERT_TRUE(rig.Start());
        EXPECT_EQ(writer->GetFolderPath(), expected);
        EXPECT_TRUE(FileUtils::IsDirectory(expected));
        EXPECT_TRUE(FileUtils::IsFile(writer->GetCurrentPath()));
        EXPECT_EQ(writer->GetCurrentPath().compare(0, expected.size(), expected), 0);
        rig.Log("here\n");
        rig.Drain();
        EXPECT_EQ(rig.Content(), "here\r\n");
        std::string path = writer->GetCurrentPath();
        writer->Close();
        DeleteFileA(path.c_str());
    }
    {
        // The folder is there now; a second writer uses it as it is.
        RCPtr<FileWriter> writer(new FileWriter());
        Rig rig(writer, "", "second");
        ASSERT_TRUE(rig.Start());
        EXPECT_EQ(writer->GetFolderPath(), expected);
        std::string path = writer->GetCurrentPath();
        writer->Close();
        DeleteFileA(path.c_str());
    }
    RemoveDirectoryA(expected.c_str());
    if (hadUser) SetEnvironmentVariableW(L"USERNAME", saved);
}

// ---- two processes ----

constexpr char kChildFolder[] = "WRITERS_CHILD_FOLDER";

TEST(FileWriterChild, WritesOneLineIntoTheFolderGiven) {
    char folder[MAX_PATH] = {};
    if (GetEnvironmentVariableA(kChildFolder, folder, sizeof(folder)) == 0) GTEST_SKIP() << "run by the parent";
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder);
    ASSERT_TRUE(rig.Start());
    rig.Log("child\n");
    rig.Drain();
    writer->Close();
}

TEST(FileWriterProcesses, TwoProcessesOfTheSameNameInTheSameMinuteGetTwoFiles) {
    ScratchFolder folder("procs");
    RCPtr<FileWriter> writer(new FileWriter());
    Rig rig(writer, folder.Path());
    ASSERT_TRUE(rig.Start());
    rig.Log("parent\n");
    rig.Drain();

    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    SetEnvironmentVariableA(kChildFolder, folder.Path().c_str());
    ChildProcess child;
    const bool started = child.Start(L"\"" + std::wstring(exe) + L"\" --gtest_filter=FileWriterChild.*");
    SetEnvironmentVariableA(kChildFolder, nullptr);
    ASSERT_TRUE(started);
    DWORD exitCode = 1;
    ASSERT_TRUE(child.WaitForExit(120000, &exitCode));
    EXPECT_EQ(exitCode, 0u);

    const std::string session = std::to_string(SessionOfThisProcess());
    const std::vector<std::string> files = folder.Files();
    ASSERT_EQ(files.size(), 2u);
    int found = 0;
    for (const std::string& name : files) {
        const bool mine = name.find("-" + session + "-" + std::to_string(GetCurrentProcessId()) + "__") != std::string::npos;
        EXPECT_TRUE(std::regex_search(name, std::regex("-" + session + R"(-\d+__)"))) << name;
        EXPECT_EQ(ReadWholeFile(folder.Path() + name), mine ? "parent\r\n" : "child\r\n") << "no banner: " << name;
        found += mine ? 1 : 2;
    }
    EXPECT_EQ(found, 3) << "one file of each process";
    writer->Close();
}

}  // namespace
