// The whole log system from before its start to after its end, and the plug-in's own logger,
// in a process of its own: a shutdown of everything can't be undone. The tests run in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "channel/host_interfaces.h"
#include "logging/fido2_logger.h"
#include "logging/function_trace.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"
#include "plugin/fido2_client.h"
#include "support/debug_output.h"
#include "support/registry_isolation.h"

namespace {

const std::wstring kPluginKey = L"Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";

// Every form of log call at every level, for the states in which none may reach a writer or fault.
void LogAtEveryLevelEveryWay() {
    for (int level = LOG_ALWAYS; level <= LOG_NEVER; ++level) {
        Log("Test::Every()", level, "line %d\n", level);
        LogHex("Test::Every()", level, "abc", 3);
        LogLastError("Test::Every()", level, "line\n");
        LogSocketError("Test::Every()", level, "line\n");
        LogError(5, "Test::Every()", level, "line\n");
        FunctionTrace trace(level, "Test::Every()");
        trace.SetExitText(level, "exit\n");
    }
}

// The lines of the one log file in the folder, each as "<letter> <function>: <text>" without
// its time and ids; the separator of a change of thread is left out.
std::vector<std::string> LogFileLines(const ScratchFolder& folder) {
    std::vector<std::string> lines, files = folder.Files();
    EXPECT_EQ(files.size(), 1u);
    const std::string bytes = files.size() == 1 ? ReadWholeFile(folder.Path() + files[0]) : "";
    char ids[64];  // the thread's, then the process's
    snprintf(ids, sizeof(ids), R"( <[0-9A-F]{4,}> \[%04X\] )", static_cast<unsigned>(GetCurrentProcessId()));
    const std::regex header(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})" + std::string(ids) + "(.*)\r");
    std::smatch match;
    size_t start = 0;
    for (size_t end; (end = bytes.find('\n', start)) != std::string::npos; start = end + 1) {
        const std::string one = bytes.substr(start, end - start);
        if (std::regex_match(one, match, header)) lines.push_back(match[1]);
        else EXPECT_EQ(one, std::string(39, '-') + "\r") << "neither a line nor a separator";
    }
    EXPECT_EQ(start, bytes.size()) << "the file ends in a whole line";
    return lines;
}

// The start-up lines: the library, the program if that is another file, the system, the
// clock that the lines don't use, the level, then the logger's own line; the last line.
void ExpectStartAndEnd(const std::vector<std::string>& lines, const std::vector<std::string>& modules) {
    std::vector<std::string> forms;
    for (const std::string& module : modules) {
        forms.push_back("A " + std::regex_replace(module, std::regex(R"([\\.()])"), R"(\$&)") +
                        R"(: (version=.+ \(.+\)|No version information.*))" +
                        (forms.empty() ? ", buildtype=release/x64" : ""));
    }
    forms.push_back(R"(A OS Version: \S.*, 64-bit, sessionId=\d+)");
    forms.push_back(R"(A Time Zone: .*, UTC time is \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
    forms.push_back(R"(A Log Level: DEBUG \(read from HKLM\\Software\\Orvane, Inc\.\\Orvane TBXService\\Plugins\\fido2\\logLevel\))");
    forms.push_back(R"(A Fido2Logger::Start\(\): Log level is set to DEBUG)");
    ASSERT_GT(lines.size(), forms.size());
    for (size_t i = 0; i < forms.size(); ++i) EXPECT_TRUE(std::regex_match(lines[i], std::regex(forms[i]))) << lines[i];
    EXPECT_EQ(lines.back(), "A Logger Shutdown: *** LOG FILE COMPLETE ***");
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
    LoggerManager& manager = LoggerManager::GetInstance();
    ASSERT_FALSE(manager.GetPrimaryLogger());
    LogAtEveryLevelEveryWay();  // nothing to reach, nothing to fault
    ScopedHklmOverride isolation;
    PutText(L"logDirectory", "C:\\no such folder\\for the log");
    DebugOutputCapture debugger;
    EXPECT_FALSE(TheFido2Client().OnPluginInit(0, nullptr));
    EXPECT_FALSE(TheFido2Logger().IsStarted());
    // The logger is the primary one now, but not started: it takes nothing.
    RCPtr<Logger> failed = manager.GetPrimaryLogger();
    RCPtr<RecordingWriter> writer(new RecordingWriter(4));
    ASSERT_TRUE(failed && failed->AttachWriter(writer) && writer->Init());
    EXPECT_EQ(processLogLevel, 0);
    LogAtEveryLevelEveryWay();
    EXPECT_TRUE(writer->Texts().empty());
    EXPECT_FALSE(TheFido2Logger().Start("fido2Client")) << "the name stays taken";
    EXPECT_EQ(debugger.Seen(), (std::vector<std::string>{"Failed to start the Corvale FIDO2 redirection Logger",
                                                          "Failed to create logger for Corvale FIDO2 redirection"}));
    EXPECT_TRUE(TheFido2Client().OnPluginExit());
    EXPECT_FALSE(manager.GetLogger("Fido2Logger")) << "the exit frees the name";
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
    EXPECT_EQ(processLogLevel, LOG_DEBUG);
    RCPtr<LogWriter> file = logger->GetWriter(1);
    ASSERT_TRUE(file && file->IsInitialized());
    // Another logger beside it goes down with the plug-in's exit too.
    RCPtr<Logger> other = manager.CreateLogger("Other", "other", false);
    RCPtr<RecordingWriter> otherWriter(new RecordingWriter(4));
    ASSERT_TRUE(other->AttachWriter(otherWriter) && other->Start());

    EXPECT_TRUE(TheFido2Client().OnPluginInit(0, nullptr)) << "a second start finds the log running";
    EXPECT_EQ(manager.GetLogger("Fido2Logger").Get(), logger.Get());
    EXPECT_EQ(logger->writers.size(), 1u);
    EXPECT_EQ(logger->GetWriter(1).Get(), file.Get());
    std::thread([] { Log("Test::Other()", LOG_DEBUG, "from another thread\n"); }).join();
    Log("Test::Plugin()", LOG_DEBUG, "while the plug-in runs\n");

    EXPECT_TRUE(TheFido2Client().OnPluginExit());
    EXPECT_FALSE(TheFido2Logger().IsStarted());
    EXPECT_FALSE(file->IsInitialized());
    EXPECT_FALSE(otherWriter->IsInitialized());
    EXPECT_FALSE(manager.GetPrimaryLogger());
    EXPECT_FALSE(manager.GetLogger("Other"));
    EXPECT_FALSE(manager.GetMessageManager());
    EXPECT_TRUE(manager.IsShuttingDown());
    EXPECT_NE(otherWriter->Texts().back().find(" A Logger Shutdown: *** LOG FILE COMPLETE ***\n"), std::string::npos);
    std::vector<std::string> lines = LogFileLines(folder);
    ExpectStartAndEnd(lines, {ProgramPath()});
    EXPECT_NE(std::find(lines.begin(), lines.end() - 1, "D Test::Plugin(): while the plug-in runs"), lines.end() - 1)
        << "queued, and written before the last line";

    const std::string before = ReadWholeFile(folder.Path() + folder.Files()[0]);
    // A change of thread, and the change back, each get a separator line.
    const std::regex switched(R"(\n-{39}\r\n[^\n]* D Test::Other\(\): from another thread\r\n-{39}\r\n)");
    EXPECT_TRUE(std::regex_search(before, switched));
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
    std::unique_ptr<HINSTANCE__, decltype(&FreeLibrary)> module(LoadLibraryA(library.c_str()), &FreeLibrary);
    ASSERT_TRUE(module) << library;
    auto export_ = [&](const char* name) { return reinterpret_cast<void*>(GetProcAddress(module.get(), name)); };
    auto init = reinterpret_cast<TBXPluginInitFn>(export_("TBXService_PluginInit"));
    auto exit = reinterpret_cast<TBXPluginExitFn>(export_("TBXService_PluginExit"));
    ASSERT_TRUE(init && exit);
    EXPECT_TRUE(init(0, &NoTables));
    EXPECT_TRUE(exit());
    module.reset();
    ExpectStartAndEnd(LogFileLines(folder), {library, ProgramPath()});
}

}  // namespace
