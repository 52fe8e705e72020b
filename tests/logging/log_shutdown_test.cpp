// The whole log system from before its start to after its end, and the plug-in's own logger,
// in a process of its own: a shutdown of everything can't be undone. The tests run in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "channel/host_interfaces.h"
#include "logging/every_log_call.h"
#include "logging/fido2_logger.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"
#include "plugin/fido2_client.h"
#include "support/debug_output.h"
#include "support/registry_isolation.h"

namespace {

const std::wstring kPluginKey = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";

TEST(LogSystemLifecycle, SilentBeforeTheStartAndAfterShutdownAllWhichGoesInOrder) {
    LoggerManager& manager = LoggerManager::GetInstance();
    ASSERT_EQ(manager.GetPrimaryLogger().Get(), nullptr);
    LogAtEveryLevelEveryWay();  // nothing to reach, nothing to fault

    // A primary logger that is made but not started takes nothing either.
    RCPtr<Logger> first = manager.CreateLogger("First", "first", true);
    ASSERT_TRUE(first);
    first->level = LOG_NEVER;
    RCPtr<RecordingWriter> firstWriter(new RecordingWriter(1, true));
    ASSERT_TRUE(first->AttachWriter(firstWriter));
    EXPECT_EQ(processLogLevel, 0);
    LogAtEveryLevelEveryWay();
    EXPECT_TRUE(firstWriter->Texts().empty());

    EXPECT_FALSE(manager.CreateLogger("", "nameless", false));
    EXPECT_FALSE(manager.CreateLogger("First", "again", false)) << "the name is taken";
    RCPtr<Logger> second = manager.CreateLogger("Second", "second", false);
    RCPtr<RecordingWriter> secondWriter(new RecordingWriter(4));
    ASSERT_TRUE(second->AttachWriter(secondWriter));
    ASSERT_TRUE(first->Start() && second->Start());
    EXPECT_EQ(processLogLevel, LOG_NEVER) << "the primary's threshold once it runs";

    Log("Test::Queued()", LOG_INFO, "still queued at the end\n");
    manager.ShutdownAll();

    EXPECT_TRUE(manager.IsShuttingDown());
    EXPECT_FALSE(manager.GetPrimaryLogger() || manager.GetLogger("First") || manager.GetLogger("Second") ||
                 manager.GetMessageManager());
    EXPECT_EQ(processLogLevel, 0);
    for (const auto& writer : {firstWriter, secondWriter}) {
        auto texts = writer->Texts();
        ASSERT_GE(texts.size(), 2u);
        EXPECT_NE(texts.back().find(" A Logger Shutdown: *** LOG FILE COMPLETE ***\n"), std::string::npos);
        EXPECT_FALSE(writer->IsInitialized());
        EXPECT_EQ(writer->closes, 1);
    }
    auto firstTexts = firstWriter->Texts();
    auto queued = std::find_if(firstTexts.begin(), firstTexts.end(),
                               [](const std::string& text) { return text.find("still queued") != std::string::npos; });
    EXPECT_LT(queued - firstTexts.begin() + 1, static_cast<long>(firstTexts.size())) << "queued before the last line";

    size_t firstCount = firstWriter->Texts().size();
    size_t secondCount = secondWriter->Texts().size();
    LogAtEveryLevelEveryWay();
    first->Write("Test::Held()", LOG_ALWAYS, "through a logger that someone still holds\n");
    EXPECT_EQ(firstWriter->Texts().size(), firstCount);
    EXPECT_EQ(secondWriter->Texts().size(), secondCount);
}

// One line of a log file: the level's letter, the function name and the text behind the header.
struct FileLine {
    std::string letter;
    std::string function;
    std::string text;
};

// The lines of the one log file in the folder; a line that isn't a header line fails the test.
std::vector<FileLine> LogFileLines(const ScratchFolder& folder) {
    std::vector<FileLine> lines;
    std::vector<std::string> files = folder.Files();
    EXPECT_EQ(files.size(), 1u);
    if (files.size() != 1) return lines;
    const std::string bytes = ReadWholeFile(folder.Path() + files[0]);
    const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] ([AEWIDTVN]) (.*?): (.*)\r)");
    size_t start = 0;
    for (size_t end; (end = bytes.find('\n', start)) != std::string::npos; start = end + 1) {
        std::smatch match;
        const std::string one = bytes.substr(start, end - start);
        if (one == std::string(39, '-') + "\r") continue;  // the thread changed
        if (!std::regex_match(one, match, line)) {
            ADD_FAILURE() << "not a log line: " << one;
            continue;
        }
        lines.push_back({match[1], match[2], match[3]});
    }
    EXPECT_EQ(start, bytes.size()) << "the file ends in a whole line";
    return lines;
}

// The start-up lines by function name: the library, the program if that is another file, then
// the system, the clocks, the level, and the logger's own line.
void ExpectStartupLines(const std::vector<FileLine>& lines, const std::vector<std::string>& modules) {
    std::vector<std::string> functions = modules;
    for (const char* name : {"OS Version", "Time Zone", "Log Level", "Fido2Logger::Start()"}) functions.push_back(name);
    ASSERT_GE(lines.size(), functions.size());
    const std::string version = "(version=.+ \\(.+\\)|No version information.*)";
    for (size_t i = 0; i < functions.size(); ++i) {
        EXPECT_EQ(lines[i].letter, "A") << i;
        EXPECT_EQ(lines[i].function, functions[i]) << i;
        const std::string& text = lines[i].text;
        const std::string form = i == 0 ? version + ", buildtype=release/x64" : version;
        if (i < modules.size()) {
            EXPECT_TRUE(std::regex_match(text, std::regex(form))) << text;
        }
    }
    EXPECT_EQ(lines[functions.size() - 2].text,
              "DEBUG (read from HKLM\\Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2\\logLevel)");
    EXPECT_EQ(lines[functions.size() - 1].text, "Log level is set to DEBUG");
}

void ExpectLastLine(const std::vector<FileLine>& lines) {
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().letter + " " + lines.back().function + ": " + lines.back().text,
              "A Logger Shutdown: *** LOG FILE COMPLETE ***");
}

void PutText(const wchar_t* name, const std::string& value) {
    std::wstring wide(value.begin(), value.end());
    ASSERT_TRUE(WriteHklmValue(kPluginKey, name, REG_SZ, wide.c_str(), static_cast<DWORD>((wide.size() + 1) * 2)));
}

std::string ProgramPath() {
    char path[MAX_PATH];
    return std::string(path, GetModuleFileNameA(nullptr, path, MAX_PATH));
}

TEST(PluginLogger, AStartWithoutAWriterInServiceLeavesNoLogAndTheNameTakenUntilTheExit) {
    ScopedHklmOverride isolation;
    PutText(L"logDirectory", "C:\\no such folder\\for the log");
    DebugOutputCapture debugger;
    ASSERT_TRUE(debugger.Active());
    EXPECT_FALSE(TheFido2Client().OnPluginInit(0, nullptr));
    EXPECT_FALSE(TheFido2Logger().IsStarted());
    EXPECT_EQ(processLogLevel, 0);
    LogAtEveryLevelEveryWay();
    EXPECT_FALSE(TheFido2Logger().Start("fido2Client")) << "the name stays taken";
    EXPECT_EQ(debugger.Seen(), (std::vector<std::string>{"Failed to start the Corvale FIDO2 redirection Logger",
                                                          "Failed to create logger for Corvale FIDO2 redirection"}));
    EXPECT_TRUE(TheFido2Client().OnPluginExit());
    EXPECT_FALSE(LoggerManager::GetInstance().GetLogger("Fido2Logger")) << "the exit frees the name";
}

TEST(PluginLogger, StartedByThePluginsInitStoppedLastByItsExitAndSilentAfterIt) {
    ScopedHklmOverride isolation;
    ScratchFolder folder("plugin-log");
    PutText(L"logDirectory", folder.Path());
    PutText(L"logLevel", "debug");
    ASSERT_TRUE(TheFido2Client().OnPluginInit(0, nullptr));
    EXPECT_TRUE(TheFido2Logger().IsStarted());
    LoggerManager& manager = LoggerManager::GetInstance();
    RCPtr<Logger> logger = manager.GetLogger("Fido2Logger");
    ASSERT_TRUE(logger);
    EXPECT_EQ(manager.GetPrimaryLogger().Get(), logger.Get());
    EXPECT_EQ(logger->appName, "fido2Client");
    EXPECT_EQ(processLogLevel, LOG_DEBUG);
    RCPtr<LogWriter> file = logger->GetWriter(1);
    ASSERT_TRUE(file && file->IsInitialized());

    EXPECT_TRUE(TheFido2Client().OnPluginInit(0, nullptr)) << "a second start finds the log running";
    EXPECT_EQ(manager.GetLogger("Fido2Logger").Get(), logger.Get());
    EXPECT_EQ(logger->GetWriter(1).Get(), file.Get());
    EXPECT_EQ(logger->writers.size(), 1u);
    Log("Test::Plugin()", LOG_DEBUG, "while the plug-in runs\n");

    EXPECT_TRUE(TheFido2Client().OnPluginExit());
    EXPECT_FALSE(TheFido2Logger().IsStarted());
    EXPECT_FALSE(file->IsInitialized());
    std::vector<FileLine> lines = LogFileLines(folder);
    ExpectStartupLines(lines, {ProgramPath()});
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[5].function + ": " + lines[5].text, "Test::Plugin(): while the plug-in runs");
    ExpectLastLine(lines);

    const std::string before = ReadWholeFile(folder.Path() + folder.Files()[0]);
    LogAtEveryLevelEveryWay();
    logger->Write("Test::Held()", LOG_ALWAYS, "through the logger after the exit\n");
    EXPECT_EQ(ReadWholeFile(folder.Path() + folder.Files()[0]), before);
    EXPECT_EQ(processLogLevel, 0);
}

// A host that offers no table at all: the plug-in starts its log and fails the rest.
TBXBool TBXAPI NoTables(const TBXGuid*, void*) { return 0; }

TEST(PluginLogger, TheLibraryInAProgramNamesBothInItsStartupLines) {
    ScopedHklmOverride isolation;
    ScratchFolder folder("library-log");
    PutText(L"logDirectory", folder.Path());
    PutText(L"logLevel", "debug");
    std::string library = ProgramPath();
    library = library.substr(0, library.find_last_of('\\') + 1) + "fido2Client.dll";
    HMODULE module = LoadLibraryA(library.c_str());
    ASSERT_NE(module, nullptr) << library;
    auto init = reinterpret_cast<TBXPluginInitFn>(reinterpret_cast<void*>(GetProcAddress(module, "TBXService_PluginInit")));
    auto exit = reinterpret_cast<TBXPluginExitFn>(reinterpret_cast<void*>(GetProcAddress(module, "TBXService_PluginExit")));
    ASSERT_TRUE(init && exit);
    EXPECT_TRUE(init(0, &NoTables));
    EXPECT_TRUE(exit());
    FreeLibrary(module);
    std::vector<FileLine> lines = LogFileLines(folder);
    ExpectStartupLines(lines, {library, ProgramPath()});
    ExpectLastLine(lines);
}

}  // namespace
