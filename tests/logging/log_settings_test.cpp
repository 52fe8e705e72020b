// The log settings as the plug-in lives with them: a separate reg.exe process changes the
// key of a running logger, and the real file writer's file shows what each change did.
#include "logging/log_settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "logging/file_writer.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"
#include "support/child_process.h"
#include "support/log_wait.h"
#include "support/registry_isolation.h"
#include "sysutil/string_utils.h"

namespace {

const wchar_t kKey[] = L"Software\\Orvane Test\\Log Settings";
// The bound is for a fault: the waits end on their own far sooner.
bool Eventually(const std::function<bool()>& condition) { return WaitUntil(condition, 60000); }

size_t Occurrences(const std::string& all, const std::string& text) {
    size_t n = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
    return n;
}

// Lines of a .reg file.
std::wstring Sz(const wchar_t* name, const std::wstring& text) {
    std::wstring escaped;
    for (wchar_t c : text) escaped += (c == L'\\' || c == L'"') ? std::wstring{L'\\', c} : std::wstring{c};
    return std::wstring(L"\"") + name + L"\"=\"" + escaped + L"\"\r\n";
}
std::wstring Dword(const wchar_t* name, DWORD value) {
    wchar_t text[16];
    swprintf(text, 16, L"%08x", static_cast<unsigned>(value));
    return std::wstring(L"\"") + name + L"\"=dword:" + text + L"\r\n";
}

std::string Setting(LogWriter* writer, const char* name) {
    std::string value;
    writer->GetSetting(name, &value);
    return value;
}

// The reader's watcher arms its notification in its first run on the poll thread; a change
// before that would go unseen.
void AddReaderArmed(Logger& logger) {
    ASSERT_TRUE(logger.AddRegistryReader(StringUtils::WideToUtf8(kKey), HKEY_LOCAL_MACHINE));
    auto* reader = dynamic_cast<RegSettingsReader*>(logger.readers.back().Get());
    ASSERT_NE(reader, nullptr);
    SyPollItem* watcher = reader->GetWatcher().Get();
    RCPtr<SyPollThread> poll = LoggerManager::GetInstance().GetPollThread();
    ASSERT_TRUE(Eventually([&] {
        SyMutexGuard guard(poll->GetLock());
        return watcher->timeoutMs == -1;
    }));
    SyMutexGuard guard(poll->GetLock());
    poll->WaitForItemToComplete(watcher);
}

// A separate reg.exe imports the values, in UTF-16 as it reads non-ASCII names, into the private
// key that HKLM is mapped onto in this process.
void Import(const ScopedHklmOverride& isolation, const std::string& folder, const std::wstring& values) {
    const std::wstring text = L"\xFEFFWindows Registry Editor Version 5.00\r\n\r\n[HKEY_CURRENT_USER\\" +
                              isolation.PrivatePath() + L"\\" + kKey + L"]\r\n" + values;
    const std::string file = folder + "settings.reg";
    FILE* out = _wfopen(StringUtils::Utf8ToWide(file).c_str(), L"wb");
    ASSERT_NE(out, nullptr);
    fwrite(text.data(), sizeof(wchar_t), text.size(), out);
    fclose(out);
    DWORD code = 1;
    ASSERT_TRUE(RunProcess(L"reg.exe import \"" + StringUtils::Utf8ToWide(file) + L"\"", &code));
    ASSERT_EQ(code, 0u) << StringUtils::WideToUtf8(values);
}

TEST(LogSettings, ChangesByAnotherProcessShowInTheRealFile) {
    ScopedHklmOverride isolation;
    RCPtr<Logger> logger = LoggerManager::GetInstance().CreateLogger("LogSettingsTest", "e2eTest", false);
    ASSERT_TRUE(isolation.IsActive() && logger);
    ScratchFolder scratch("settings");
    const std::string journal = scratch.Path() + "journal-\xC3\xA9t\xC3\xA9-\xE6\x97\xA5\xE6\x9C\xAC\\";
    ASSERT_TRUE(CreateDirectoryW(StringUtils::Utf8ToWide(journal).c_str(), nullptr));

    Import(isolation, scratch.Path(), Sz(L"logDirectory", StringUtils::Utf8ToWide(journal)) + Sz(L"logLevel", L"never") +
                               Dword(L"logEnabled", 0) + Dword(L"logToSyslog", 1) + Sz(L"logRemoteAddress", L"127.0.0.1") +
                               Dword(L"logRemotePort", 70000) + Dword(L"logMaxDaysKept", 3));
    RCPtr<LogWriter> fileWriter = logger->AddWriter(FileWriter::kType);
    ASSERT_TRUE(fileWriter);
    auto* file = static_cast<FileWriter*>(fileWriter.Get());
    RCPtr<RecordingWriter> debug(new RecordingWriter(0));  // stands in for the debugger
    RCPtr<RecordingWriter> observer(new RecordingWriter(4));  // sees the lines the file doesn't
    ASSERT_TRUE(logger->AttachWriter(debug) && logger->AttachWriter(observer));
    AddReaderArmed(*logger);
    ASSERT_TRUE(logger->Start());

    auto content = [&] { return ReadWholeFile(file->GetCurrentPath()); };
    auto inFile = [&](const std::string& text) { return Occurrences(content(), text); };

    // The first pass: folder, address and port set without a word; "never" leaves INFO at the start.
    EXPECT_EQ(logger->level, LOG_INFO);
    const std::string path = file->GetCurrentPath();
    ASSERT_EQ(path.rfind(journal, 0), 0u) << path;
    const std::string name = R"(orvane-e2eTest-\d+-)" + std::to_string(GetCurrentProcessId()) + R"(__\d{4}(-\d\d){4}\.log)";
    EXPECT_TRUE(std::regex_match(path.substr(journal.size()), std::regex(name))) << path;
    EXPECT_EQ(scratch.Files(), std::vector<std::string>{"settings.reg"});
    EXPECT_TRUE(content().empty()) << "made, but switched off";
    RCPtr<LogWriter> socket = logger->writers.at(3);
    EXPECT_EQ(Setting(socket.Get(), "remoteAddress"), "127.0.0.1");
    EXPECT_EQ(Setting(socket.Get(), "remotePort"), "4464");
    EXPECT_EQ(Setting(file, "maxDaysKept"), "3");
    for (const std::string& text : observer->Texts()) EXPECT_EQ(text.find("changed to"), std::string::npos) << text;

    // Switched on while running: the file's first line is the writer's line about itself.
    Import(isolation, scratch.Path(), Dword(L"logEnabled", 1));
    ASSERT_TRUE(Eventually([&] { return inFile("FILE - logEnabled changed to TRUE") == 1; })) << content();
    const std::string on = " A RegistryReader: FILE - logEnabled changed to TRUE\r\n";
    EXPECT_EQ(content().find(on) + on.size(), content().find("\r\n") + 2) << "the first line: " << content();
    EXPECT_EQ(logger->level, LOG_NEVER) << "a name of no level opens the log to all once running";

    // The whole table at once; folder and port are fixed once running, the two clamped values
    // are logged as read.
    Import(isolation, scratch.Path(), Sz(L"logLevel", L"DeBuG") + Dword(L"useLocalTime", 0) + Dword(L"enableBuffering", 0) +
                               Dword(L"logMaxDaysKept", 4) + Dword(L"logMaxFileSizeMB", 5000) +
                               Dword(L"logMaxRollingFiles", 2000) + Sz(L"logDirectory", L"C:\\elsewhere") +
                               Dword(L"logRemotePort", 1514) + Dword(L"logToSyslog", 0) + Dword(L"logToDebugView", 0));
    const struct { const char* line; std::function<bool()> effect; } rows[] = {
        {"logLevel changed to DEBUG", [&] { return logger->level == LOG_DEBUG; }},
        {"useLocalTime changed to FALSE", [&] { return !logger->useLocalTime; }},
        {"enableBuffering changed to FALSE", [&] { return !file->IsBuffered() && !socket->IsBuffered(); }},
        {"FILE - logMaxDaysKept changed to 4", [&] { return Setting(file, "maxDaysKept") == "4"; }},
        {"FILE - logMaxFileSizeMB changed to 5000", [&] { return Setting(file, "maxFileSizeMB") == "1024"; }},
        {"FILE - logMaxRollingFiles changed to 2000", [&] { return Setting(file, "maxRollingFiles") == "1000"; }},
        {"SOCKET - logToSyslog changed to FALSE", [&] { return !socket->IsEnabled(); }},
        {"DEBUG - logToDebugView changed to FALSE",
         [&] {
             const std::vector<std::string> texts = debug->Texts();
             return !debug->IsEnabled() && !texts.empty() && Occurrences(texts.back(), "logToDebugView changed to FALSE");
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        ASSERT_TRUE(Eventually([&] { return inFile(std::string("RegistryReader: ") + row.line) >= 1; })) << content();
        // A writer that goes off is switched off just after its line.
        EXPECT_TRUE(Eventually(row.effect));
    }
    EXPECT_EQ(file->GetFolderPath(), journal);
    EXPECT_EQ(Setting(socket.Get(), "remotePort"), "4464");
    logger->Write("Test::Live()", LOG_DEBUG, "debug after the change\n");
    EXPECT_TRUE(Eventually([&] { return inFile(" D Test::Live(): debug after the change\r\n") == 1; })) << content();

    // The key deleted: level, time and buffering fall back, the rest keeps its last value, and
    // the lines of the old level stop.
    DWORD code = 1;
    ASSERT_TRUE(RunProcess(L"reg.exe delete \"HKCU\\" + isolation.PrivatePath() + L"\\" + kKey + L"\" /f", &code));
    ASSERT_EQ(code, 0u);
    // Buffering is the last of the three.
    ASSERT_TRUE(Eventually([&] { return file->IsBuffered(); }));
    ASSERT_TRUE(Eventually([&] { return inFile("RegistryReader: enableBuffering changed to TRUE") >= 1; })) << content();
    EXPECT_EQ(inFile("RegistryReader: logLevel changed to INFO"), 1u);
    EXPECT_EQ(inFile("RegistryReader: useLocalTime changed to TRUE"), 1u);
    EXPECT_TRUE(logger->useLocalTime);
    EXPECT_EQ(Setting(file, "maxDaysKept"), "4");
    logger->Write("Test::Live()", LOG_DEBUG, "debug held back\n");
    logger->Write("Test::Live()", LOG_INFO, "info still there\n");
    ASSERT_TRUE(Eventually([&] { return inFile("info still there") == 1; })) << content();
    EXPECT_EQ(inFile("debug held back"), 0u);

    // Switched off while running: the line about it is the file's last. The clamped value
    // differs from the registry's again, so it is logged again, after the switch.
    Import(isolation, scratch.Path(), Dword(L"logEnabled", 0) + Dword(L"logMaxFileSizeMB", 5000));
    auto observed = [&](const std::string& text) {
        std::string all;
        for (const std::string& line : observer->Texts()) all += line;
        return Occurrences(all, text);
    };
    ASSERT_TRUE(Eventually([&] { return observed("FILE - logMaxFileSizeMB changed to 5000") == 2; }));
    logger->Write("Test::Live()", LOG_INFO, "info after the switch\n");
    const std::string off = "RegistryReader: FILE - logEnabled changed to FALSE\r\n";
    ASSERT_TRUE(Eventually([&] { return inFile(off) == 1; })) << content();
    ASSERT_TRUE(Eventually([&] { return observed("info after the switch") == 1; }));
    // All is written by the end: after the line about the switch only the logger's last line.
    logger->Shutdown();
    logger = nullptr;
    const std::string all = ReadWholeFile(path);
    EXPECT_TRUE(std::regex_match(all.substr(std::min(all.size(), all.rfind(off) + off.size())),
                                 std::regex(R"([^\r\n]* A Logger Shutdown: \*\*\* LOG FILE COMPLETE \*\*\*\r\n)")))
        << all;
}

}  // namespace
