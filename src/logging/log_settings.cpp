#include "logging/log_settings.h"

#include <cstdlib>
#include <cstring>

#include "logging/logger.h"
#include "sysutil/file_utils.h"
#include "sysutil/string_utils.h"

namespace {

const char* OnOff(bool value) { return value ? "TRUE" : "FALSE"; }

// A writer that a setting switches on and off, and the line that tells of the change.
struct WriterSwitch {
    const char* key;
    int32_t type;
    const char* line;
};

const WriterSwitch kFileSwitch = {"logEnabled", 1, "FILE - %s changed to %s"};
const WriterSwitch kOptionalSwitches[] = {
    {"logToSyslog", 3, "SOCKET - %s changed to %s"},
    {"logToDebugView", 0, "DEBUG - %s changed to %s"},
    {"logToStdout", 4, "STDOUT - %s changed to %s"},
    {"logToStderr", 5, "STDERR - %s changed to %s"},
};
constexpr int32_t kSocketWriterType = 3;

// The numeric settings of the file writer, in the order they are applied: registry name, writer name.
const char* const kFileNumbers[][2] = {
    {"logMaxDaysKept", "maxDaysKept"},
    {"logMaxNumFiles", "maxNumFiles"},
    {"logMinAgeInHours", "minAgeInHours"},
    {"logMaxFileSizeMB", "maxFileSizeMB"},
    {"logMaxRollingFiles", "maxRollingFiles"},
    {"logDiskThresholdLowMB", "diskThresholdLowMB"},
    {"logDiskThresholdHighMB", "diskThresholdHighMB"},
};

const char kTracePolicy[] = "HKLM\\Software\\Policies\\Orvane, Inc.\\Orvane KDX\\TraceEnabled";
const char kTraceSetting[] = "HKLM\\Software\\Orvane, Inc.\\Orvane KDX\\TraceEnabled";

RCPtr<LogWriter> WriterOf(Logger& logger, int32_t type) {
    auto found = logger.writers.find(type);
    return found == logger.writers.end() ? nullptr : found->second;
}

void ApplyLevel(Logger& logger, SettingsReader& reader) {
    logger.levelSource = reader.GetLocation("logLevel");
    int32_t candidate = LOG_INFO;
    bool absent = true;
    std::string text;
    if (reader.GetString("logLevel", &text)) {
        // A text that names no level, and "never", count as absent but let everything through.
        candidate = static_cast<int32_t>(StringUtils::ParseLogLevel(text.c_str(), LOG_NEVER));
        absent = candidate == LOG_NEVER;
    } else if (logger.traceEnabledFallback && reader.IsReady() == 0) {
        std::string trace = ReadRegString(kTracePolicy);
        if (trace.empty()) trace = ReadRegString(kTraceSetting);
        if (_stricmp(trace.c_str(), "true") == 0) {
            candidate = LOG_DEBUG;
            absent = false;
        }
    }
    // At the start an absent level leaves the default; later it falls back to INFO.
    if ((absent && !logger.started) || candidate == logger.level) return;
    logger.level = candidate;
    if (logger.started && LoggerManager::GetInstance().PrimaryWhileLocked() == &logger) processLogLevel = candidate;
    logger.Write(reader.GetName(), LOG_ALWAYS, "%s changed to %s", "logLevel", LogLevelName(candidate));
}

void ApplyCommon(Logger& logger, SettingsReader& reader) {
    ApplyLevel(logger, reader);

    bool localTime = true;
    bool found = reader.GetBool("useLocalTime", &localTime);
    if (!found) localTime = true;
    if ((found || logger.started) && localTime != logger.useLocalTime) {
        logger.useLocalTime = localTime;
        logger.Write(reader.GetName(), LOG_ALWAYS, "%s changed to %s", "useLocalTime", OnOff(localTime));
    }

    bool buffering = true;
    found = reader.GetBool("enableBuffering", &buffering);
    if (!found) buffering = true;
    if (found || logger.started) {
        for (auto& entry : logger.writers) {
            if (entry.second->IsBuffered() == buffering) continue;
            entry.second->SetBuffered(buffering);
            logger.Write(reader.GetName(), LOG_ALWAYS, "%s changed to %s", "enableBuffering", OnOff(buffering));
        }
    }
}

// Switches the writer on or off, creating it while that is still allowed; gives the writer, if any.
RCPtr<LogWriter> ApplySwitch(Logger& logger, SettingsReader& reader, const WriterSwitch& step) {
    RCPtr<LogWriter> writer = WriterOf(logger, step.type);
    if (!writer && !logger.creatingWriters) return nullptr;
    bool on = false;
    if (!reader.GetBool(step.key, &on)) return writer;
    if (on && !writer) writer = logger.AddWriter(step.type);
    if (writer && writer->IsEnabled() != on) {
        // Switched on before the line and off after it, so the writer itself tells of the change.
        if (on) writer->SetEnabled(true);
        if (logger.started) logger.Write(reader.GetName(), LOG_ALWAYS, step.line, step.key, OnOff(on));
        if (!on) writer->SetEnabled(false);
    }
    return writer;
}

void ApplyFileSettings(Logger& logger, SettingsReader& reader, LogWriter& writer) {
    std::string folder;
    if (!logger.started && reader.GetString("logDirectory", &folder)) writer.SetSetting("folderPath", folder.c_str());
    for (const auto& number : kFileNumbers) {
        int32_t value = 0;
        if (!reader.GetInt(number[0], &value)) continue;
        std::string present;
        writer.GetSetting(number[1], &present);
        if (strtoul(present.c_str(), nullptr, 0) == static_cast<unsigned long>(static_cast<uint32_t>(value))) continue;
        const std::string text = StringUtils::FormatString("%u", static_cast<uint32_t>(value));
        writer.SetSetting(number[1], text.c_str());
        // The value read, before any clamp of the writer.
        if (logger.started) {
            logger.Write(reader.GetName(), LOG_ALWAYS, "FILE - %s changed to %u", number[0], static_cast<uint32_t>(value));
        }
    }
}

void ApplySocketSettings(Logger& logger, SettingsReader& reader, LogWriter& writer) {
    if (logger.started) return;
    std::string address;
    if (reader.GetString("logRemoteAddress", &address)) writer.SetSetting("remoteAddress", address.c_str());
    int32_t port = 0;
    if (reader.GetInt("logRemotePort", &port)) {
        writer.SetSetting("remotePort", StringUtils::FormatString("%u", static_cast<uint32_t>(port)).c_str());
    }
}

}  // namespace

void ApplyLogSettings(Logger& logger, SettingsReader& reader) {
    ApplyCommon(logger, reader);
    if (RCPtr<LogWriter> file = ApplySwitch(logger, reader, kFileSwitch)) ApplyFileSettings(logger, reader, *file);
    for (const WriterSwitch& step : kOptionalSwitches) {
        RCPtr<LogWriter> writer = ApplySwitch(logger, reader, step);
        if (writer && step.type == kSocketWriterType) ApplySocketSettings(logger, reader, *writer);
    }
}

int32_t LogSettingWriterType(const char* key) {
    if (!key) return -1;
    if (strcmp(key, kFileSwitch.key) == 0) return kFileSwitch.type;
    for (const WriterSwitch& step : kOptionalSwitches) {
        if (strcmp(key, step.key) == 0) return step.type;
    }
    return -1;
}

const char* LogSettingFileWriterName(const char* key) {
    if (!key) return nullptr;
    for (const auto& number : kFileNumbers) {
        if (strcmp(key, number[0]) == 0) return number[1];
    }
    return nullptr;
}

// --- LogRegKeyWatcher ---

LogRegKeyWatcher::LogRegKeyWatcher(const std::string& keyPath, RegSettingsReader* owner)
    : SyRegKeyWatcher(keyPath, RegView::Reg64Bit, false), reader(owner) {}

bool LogRegKeyWatcher::OnKeyChanged() {
    // Every setting is read again, whichever one changed.
    SyMutexGuard guard(&LogMutex());
    if (reader && reader->GetLogger()) reader->GetLogger()->ApplySettings(reader);
    return true;
}

// --- RegSettingsReader ---

RegSettingsReader::RegSettingsReader(Logger* owner, const std::string& keyPath)
    : logger(owner), watcher(new LogRegKeyWatcher(keyPath, this)) {
    watcher->Start(LoggerManager::GetInstance().GetPollThread());
}

RegSettingsReader::~RegSettingsReader() {
    // A watcher that ended by itself (no key or ancestor could be opened) has nothing to stop.
    if (watcher->GetPollThread()) watcher->Stop();
    SyMutexGuard guard(&LogMutex());
    watcher->reader = nullptr;
}

RCPtr<SyRegValue> RegSettingsReader::Read(const char* setting) {
    if (!setting) return nullptr;
    RCPtr<SyRegValue> value = watcher->GetValue(setting, true);
    return value->HasData() ? value : nullptr;
}

bool RegSettingsReader::GetString(const char* setting, std::string* value) {
    RCPtr<SyRegValue> found = Read(setting);
    if (!found) return false;
    if (value) *value = found->GetString(std::string());
    return true;
}

bool RegSettingsReader::GetInt(const char* setting, int32_t* value) {
    if (!value) return false;
    RCPtr<SyRegValue> found = Read(setting);
    if (!found) return false;
    *value = static_cast<int32_t>(found->GetUInt32(0));
    return true;
}

bool RegSettingsReader::GetBool(const char* setting, bool* value) {
    if (!value) return false;
    RCPtr<SyRegValue> found = Read(setting);
    if (!found) return false;
    *value = found->GetBool(false);
    return true;
}

std::string RegSettingsReader::GetLocation(const char* setting) {
    return FileUtils::JoinPath(watcher->GetLocation(), setting ? setting : "");
}
