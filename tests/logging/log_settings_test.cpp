#include "logging/log_settings.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "logging/logger.h"
#include "logging/recording_writer.h"
#include "support/child_process.h"
#include "support/registry_isolation.h"

namespace {

const wchar_t kKey[] = L"Software\\Orvane Test\\Log Settings";
const char kReaderPath[] = "Software\\Orvane Test\\Log Settings";
const uint32_t kBoundMs = 60000;  // a limit for waits that end on their own far sooner

// A recording writer whose settings behave as the file writer's do: the folder only while
// closed, numbers kept as text, the two limits clamped. It also records every setting it is
// asked to change.
class SettingsWriter : public RecordingWriter {
public:
    explicit SettingsWriter(int32_t writerType) : RecordingWriter(writerType) {}

    bool SetSetting(const char* name, const char* value) override {
        std::lock_guard<std::mutex> lock(settingsMutex);
        calls.push_back(std::string(name) + "=" + value);
        if (std::string(name) == "folderPath" && opens > closes) return false;
        settings[name] = value;
        return true;
    }
    bool GetSetting(const char* name, std::string* value) override {
        std::lock_guard<std::mutex> lock(settingsMutex);
        auto found = settings.find(name);
        std::string text = found == settings.end() ? Default(name) : found->second;
        const uint32_t number = static_cast<uint32_t>(strtoul(text.c_str(), nullptr, 0));
        if (std::string(name) == "maxFileSizeMB") {
            text = number == 0xFFFFFFFFu ? "15" : std::to_string(number > 1024 ? 1024 : number);
        } else if (std::string(name) == "maxRollingFiles" && number > 1000) {
            text = "1000";
        }
        *value = text;
        return true;
    }

    size_t Count(const std::string& fragment) {
        size_t n = 0;
        for (const std::string& line : Texts()) n += line.find(fragment) != std::string::npos;
        return n;
    }
    std::string LastLine() {
        std::vector<std::string> texts = Texts();
        return texts.empty() ? std::string() : texts.back();
    }
    std::vector<std::string> Calls() {
        std::lock_guard<std::mutex> lock(settingsMutex);
        return calls;
    }
    std::string Setting(const char* name) {
        std::string value;
        GetSetting(name, &value);
        return value;
    }

private:
    static std::string Default(const std::string& name) {
        static const std::map<std::string, std::string> defaults = {
            {"maxDaysKept", "7"},           {"maxNumFiles", "25"},    {"minAgeInHours", "2"},
            {"maxFileSizeMB", "4294967295"}, {"maxRollingFiles", "4"}, {"diskThresholdLowMB", "200"},
            {"diskThresholdHighMB", "500"},
        };
        auto found = defaults.find(name);
        return found == defaults.end() ? std::string() : found->second;
    }

    std::mutex settingsMutex;
    std::vector<std::string> calls;
    std::map<std::string, std::string> settings;
};

bool WaitUntil(const std::function<bool()>& condition) {
    const ULONGLONG end = GetTickCount64() + kBoundMs;
    while (!condition()) {
        if (GetTickCount64() >= end) return false;
        Sleep(10);
    }
    return true;
}

void PutDword(const wchar_t* name, DWORD value) {
    ASSERT_TRUE(WriteHklmValue(kKey, name, REG_DWORD, &value, sizeof(value)));
}
void PutText(const wchar_t* name, const std::wstring& text) {
    ASSERT_TRUE(WriteHklmValue(kKey, name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))));
}

class LogSettings : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(isolation.IsActive());
        static int serial = 0;
        logger = LoggerManager::GetInstance().CreateLogger("LogSettingsTest" + std::to_string(++serial), "settingsTest", false);
        ASSERT_TRUE(logger);
    }
    void TearDown() override {
        if (logger) logger->Shutdown();
    }
    SettingsWriter* Attach(int32_t type) {
        RCPtr<SettingsWriter> writer(new SettingsWriter(type));
        EXPECT_TRUE(logger->AttachWriter(writer));
        return writer.Get();
    }

    // The reader's watcher arms its notification in its first run on the poll thread; a change
    // before that would go unseen.
    void AddReaderArmed() {
        ASSERT_TRUE(logger->AddRegistryReader(kReaderPath, HKEY_LOCAL_MACHINE));
        auto* reader = dynamic_cast<RegSettingsReader*>(logger->readers.back().Get());
        ASSERT_NE(reader, nullptr);
        SyPollItem* watcher = reader->GetWatcher().Get();
        RCPtr<SyPollThread> poll = LoggerManager::GetInstance().GetPollThread();
        ASSERT_TRUE(WaitUntil([&] {
            SyMutexGuard guard(poll->GetLock());
            return watcher->timeoutMs == -1;
        }));
        SyMutexGuard guard(poll->GetLock());
        poll->WaitForItemToComplete(watcher);
    }

    ScopedHklmOverride isolation;
    RCPtr<Logger> logger;
};

TEST_F(LogSettings, EverySettingChangedWhileRunningTakesEffectAndIsLogged) {
    // The key has to exist before the start for this walk; its absence is another test.
    PutText(L"logLevel", L"info");
    SettingsWriter* file = Attach(1);
    SettingsWriter* socket = Attach(3);
    SettingsWriter* debug = Attach(0);
    SettingsWriter* out = Attach(4);
    SettingsWriter* err = Attach(5);
    AddReaderArmed();
    ASSERT_TRUE(logger->Start());

    struct Row {
        const char* scenario;
        std::function<void()> change;
        SettingsWriter* writer;       // where the line must arrive
        const char* line;
        std::function<bool()> effect;  // true once the change is in force
    };
    const Row rows[] = {
        {"level in any case", [] { PutText(L"logLevel", L"DeBuG"); }, file, "RegistryReader: logLevel changed to DEBUG",
         [&] { return logger->level == LOG_DEBUG; }},
        {"UTC in the lines", [] { PutDword(L"useLocalTime", 0); }, file, "RegistryReader: useLocalTime changed to FALSE",
         [&] { return !logger->useLocalTime; }},
        {"buffering off", [] { PutDword(L"enableBuffering", 0); }, out, "RegistryReader: enableBuffering changed to FALSE",
         [&] { return !file->IsBuffered() && !out->IsBuffered(); }},
        {"days kept", [] { PutDword(L"logMaxDaysKept", 3); }, file, "RegistryReader: FILE - logMaxDaysKept changed to 3",
         [&] { return file->Setting("maxDaysKept") == "3"; }},
        {"files kept", [] { PutDword(L"logMaxNumFiles", 9); }, file, "RegistryReader: FILE - logMaxNumFiles changed to 9",
         [&] { return file->Setting("maxNumFiles") == "9"; }},
        {"minimum age", [] { PutDword(L"logMinAgeInHours", 5); }, file, "RegistryReader: FILE - logMinAgeInHours changed to 5",
         [&] { return file->Setting("minAgeInHours") == "5"; }},
        {"size beyond the clamp", [] { PutDword(L"logMaxFileSizeMB", 5000); }, file,
         "RegistryReader: FILE - logMaxFileSizeMB changed to 5000", [&] { return file->Setting("maxFileSizeMB") == "1024"; }},
        {"rolled files beyond the clamp", [] { PutDword(L"logMaxRollingFiles", 2000); }, file,
         "RegistryReader: FILE - logMaxRollingFiles changed to 2000", [&] { return file->Setting("maxRollingFiles") == "1000"; }},
        {"low disk mark", [] { PutDword(L"logDiskThresholdLowMB", 100); }, file,
         "RegistryReader: FILE - logDiskThresholdLowMB changed to 100", [&] { return file->Setting("diskThresholdLowMB") == "100"; }},
        {"high disk mark", [] { PutDword(L"logDiskThresholdHighMB", 300); }, file,
         "RegistryReader: FILE - logDiskThresholdHighMB changed to 300",
         [&] { return file->Setting("diskThresholdHighMB") == "300"; }},
        {"syslog off", [] { PutDword(L"logToSyslog", 0); }, socket, "RegistryReader: SOCKET - logToSyslog changed to FALSE",
         [&] { return !socket->IsEnabled(); }},
        {"debugger off", [] { PutDword(L"logToDebugView", 0); }, debug, "RegistryReader: DEBUG - logToDebugView changed to FALSE",
         [&] { return !debug->IsEnabled(); }},
        {"stdout off", [] { PutDword(L"logToStdout", 0); }, out, "RegistryReader: STDOUT - logToStdout changed to FALSE",
         [&] { return !out->IsEnabled(); }},
        {"stderr off", [] { PutText(L"logToStderr", L"no"); }, err, "RegistryReader: STDERR - logToStderr changed to FALSE",
         [&] { return !err->IsEnabled(); }},
        {"syslog on again", [] { PutText(L"logToSyslog", L"yes"); }, socket, "RegistryReader: SOCKET - logToSyslog changed to TRUE",
         [&] { return socket->IsEnabled(); }},
        {"file off", [] { PutDword(L"logEnabled", 0); }, file, "RegistryReader: FILE - logEnabled changed to FALSE",
         [&] { return !file->IsEnabled(); }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.scenario);
        const size_t before = row.writer->Count(row.line);
        row.change();
        ASSERT_TRUE(WaitUntil([&] { return row.writer->Count(row.line) > before; })) << row.line;
        // A writer that goes off is switched off just after its line.
        EXPECT_TRUE(WaitUntil(row.effect));
    }
    // The writer that goes off writes the line about it, and then nothing more.
    EXPECT_NE(file->LastLine().find("FILE - logEnabled changed to FALSE"), std::string::npos);
    // A clamped value differs from what the registry says, so each pass sets and logs it again.
    EXPECT_GE(file->Count("FILE - logMaxFileSizeMB changed to 5000"), 2u);
}

TEST_F(LogSettings, TheFirstPassSetsUpWritersWithoutAWord) {
    PutText(L"logLevel", L"never");  // at the start this leaves INFO
    PutText(L"logDirectory", L"C:\\logs\\caf\u00e9");  // UTF-8 inside the program
    PutText(L"logRemoteAddress", L"syslog.example");
    PutDword(L"logRemotePort", 70000);
    PutDword(L"logMaxDaysKept", 3);
    PutDword(L"logToStdout", 0);
    SettingsWriter* file = Attach(1);
    SettingsWriter* socket = Attach(3);
    SettingsWriter* out = Attach(4);
    AddReaderArmed();
    ASSERT_TRUE(logger->Start());

    EXPECT_EQ(logger->level, LOG_INFO);
    EXPECT_EQ(logger->levelSource, "HKLM\\Software\\Orvane Test\\Log Settings\\logLevel");
    EXPECT_EQ(file->Calls(), (std::vector<std::string>{"folderPath=C:\\logs\\caf\xC3\xA9", "maxDaysKept=3"}));
    EXPECT_EQ(socket->Calls(), (std::vector<std::string>{"remoteAddress=syslog.example", "remotePort=70000"}));
    EXPECT_FALSE(out->IsEnabled());
    EXPECT_EQ(file->Count("changed to"), 0u);

    // Folder, address and port are read before the start only; a later pass leaves them alone,
    // and "never" now opens the log to every level.
    PutText(L"logDirectory", L"C:\\elsewhere");
    PutDword(L"logRemotePort", 1514);
    PutDword(L"logMaxDaysKept", 4);
    ASSERT_TRUE(WaitUntil([&] { return file->Count("FILE - logMaxDaysKept changed to 4") == 1; }));
    EXPECT_EQ(file->Calls().size(), 3u);
    EXPECT_EQ(socket->Calls().size(), 2u);
    EXPECT_EQ(logger->level, LOG_NEVER);
    EXPECT_EQ(file->Count("logLevel changed to NEVER"), 1u);
}

TEST_F(LogSettings, ADeletedKeyRevertsTheThreeSettingsWithDefaults) {
    PutText(L"logLevel", L"error");
    PutDword(L"useLocalTime", 0);
    PutDword(L"enableBuffering", 0);
    PutDword(L"logMaxDaysKept", 3);
    SettingsWriter* file = Attach(1);
    AddReaderArmed();
    ASSERT_TRUE(logger->Start());
    ASSERT_EQ(logger->level, LOG_ERROR);
    ASSERT_FALSE(logger->useLocalTime);

    // Another process deletes the key under the running logger.
    DWORD code = 1;
    ASSERT_TRUE(RunProcess(L"reg.exe delete \"HKCU\\" + isolation.PrivatePath() + L"\\" + kKey + L"\" /f", &code));
    ASSERT_EQ(code, 0u);
    ASSERT_TRUE(WaitUntil([&] { return file->Count("RegistryReader: logLevel changed to INFO") == 1; }));
    ASSERT_TRUE(WaitUntil([&] { return file->Count("RegistryReader: enableBuffering changed to TRUE") == 1; }));
    EXPECT_EQ(file->Count("RegistryReader: useLocalTime changed to TRUE"), 1u);
    EXPECT_EQ(logger->level, LOG_INFO);
    EXPECT_TRUE(logger->useLocalTime);
    EXPECT_TRUE(file->IsBuffered());
    // A setting without a default keeps its last value.
    EXPECT_EQ(file->Setting("maxDaysKept"), "3");
}

TEST_F(LogSettings, AMissingKeyReadsAsAbsentAndTheLogStillStarts) {
    SettingsWriter* file = Attach(1);
    ASSERT_TRUE(logger->AddRegistryReader("Software\\Orvane Test\\Nobody Wrote This", HKEY_LOCAL_MACHINE));
    ASSERT_TRUE(logger->Start());
    EXPECT_EQ(logger->level, LOG_INFO);
    EXPECT_TRUE(logger->useLocalTime);
    EXPECT_TRUE(file->IsEnabled());
    EXPECT_TRUE(file->Calls().empty());
    EXPECT_EQ(file->Count("changed to"), 0u);
    EXPECT_EQ(file->Count("Log Level: INFO (read from HKLM\\Software\\Orvane Test\\Nobody Wrote This\\logLevel)"), 1u);
}

}  // namespace
