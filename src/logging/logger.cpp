#include "logging/logger.h"

#include <windows.h>

#include <new>

#include "logging/debug_writer.h"
#include "logging/file_writer.h"
#include "logging/proxy_writer.h"
#include "logging/socket_writer.h"
#include "logging/std_writers.h"
#include "sysutil/file_utils.h"
#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"
#include "sysutil/version_texts.h"

std::atomic<int32_t> logCallDepth{0};

SyMutex& LogMutex() {
    static SyMutex mutex(false, "");
    return mutex;
}

LogCallScope::LogCallScope() : guard(&LogMutex()), entered(++logCallDepth < 2) {}

LogCallScope::~LogCallScope() { --logCallDepth; }

namespace {

// The writers that this program has, by type.
RCPtr<LogWriter> CreateLogWriter(int32_t type) {
    switch (type) {
        case DebugWriter::kType:
            return RCPtr<LogWriter>(new (std::nothrow) DebugWriter());
        case FileWriter::kType:
            return RCPtr<LogWriter>(new (std::nothrow) FileWriter());
        case ProxyWriter::kType:
            return RCPtr<LogWriter>(new (std::nothrow) ProxyWriter());
        case SocketWriter::kType:
            return RCPtr<LogWriter>(new (std::nothrow) SocketWriter());
        case StdOutWriter::kType:
            return RCPtr<LogWriter>(new (std::nothrow) StdOutWriter());
        case StdErrWriter::kType:
            return RCPtr<LogWriter>(new (std::nothrow) StdErrWriter());
        default:
            return nullptr;
    }
}

}  // namespace

FormattedText::FormattedText(const char* text, va_list arguments) : format(text) { va_copy(args, arguments); }

FormattedText::~FormattedText() { va_end(args); }

int32_t FormattedText::Format(char* out, int32_t room, int32_t) const {
    va_list copy;
    va_copy(copy, const_cast<va_list&>(args));
    int32_t written = StringUtils::FormatBufferV(out, room, format, copy);
    va_end(copy);
    return written < 0 ? 0 : written;
}

// ---- Logger ----

Logger::Logger(const std::string& loggerName, const std::string& application, const RCPtr<LogMessageManager>& messages)
    : name(loggerName), appName(application), messageManager(messages) {}

bool Logger::AddRegistryReader(const std::string& keyPath, HKEY__* hive) {
    const char* root = nullptr;
    if (hive == HKEY_LOCAL_MACHINE) root = "HKLM";
    if (hive == HKEY_CURRENT_USER) root = "HKCU";
    if (keyPath.empty() || !root) return false;
    RCPtr<SettingsReader> reader(new (std::nothrow) RegSettingsReader(this, std::string(root) + "\\" + keyPath));
    if (!reader) return false;
    SyMutexGuard guard(&LogMutex());
    readers.push_back(reader);
    return true;
}

RCPtr<LogWriter> Logger::AddWriter(int32_t type) {
    SyMutexGuard guard(&LogMutex());
    if (started || type < kFirstWriterType || type > kLastWriterType || writers.count(type)) return nullptr;
    return AttachWriter(CreateLogWriter(type));
}

RCPtr<LogWriter> Logger::AttachWriter(const RCPtr<LogWriter>& writer) {
    SyMutexGuard guard(&LogMutex());
    if (!writer || started) return nullptr;
    int32_t type = writer->GetType();
    if (type < kFirstWriterType || type > kLastWriterType || writers.count(type)) return nullptr;
    writer->logger = this;
    writers[type] = writer;
    return writer;
}

RCPtr<LogWriter> Logger::GetWriter(int32_t type) {
    SyMutexGuard guard(&LogMutex());
    auto found = writers.find(type);
    return found == writers.end() ? nullptr : found->second;
}

void Logger::ApplySettings(SettingsReader* reader) {
    SyMutexGuard guard(&LogMutex());
    if (reader) ApplyLogSettings(*this, *reader);
}

bool Logger::Start() {
    SyMutexGuard guard(&LogMutex());
    if (started) return true;
    for (const RCPtr<SettingsReader>& reader : readers) ApplySettings(reader.Get());
    int32_t live = 0;
    for (auto& entry : writers) {
        if (entry.second->Init()) ++live;
    }
    if (live == 0) return false;
    if (LoggerManager::GetInstance().GetPrimaryLogger().Get() == this) processLogLevel = level;
    started = true;
    creatingWriters = false;
    LogStartupInfo();
    return true;
}

bool Logger::Shutdown() {
    std::map<int32_t, RCPtr<LogWriter>> aside;
    std::list<RCPtr<SettingsReader>> oldReaders;
    {
        SyMutexGuard guard(&LogMutex());
        aside.swap(writers);
        oldReaders.swap(readers);
    }
    // Readers stop their watchers on the poll thread: not under the log's lock.
    oldReaders.clear();
    for (auto& entry : aside) entry.second->Shutdown();
    return true;
}

void Logger::LogStartupInfo() {
    std::string library = ProcessUtils::GetModulePath(true);
    Write(library.empty() ? "Logger::LogStartupInfo()" : library.c_str(), LOG_ALWAYS, "%s%s\n",
          ProcessUtils::GetFileVersionText(library).c_str(), ", buildtype=release/x64");
    std::string executable = ProcessUtils::GetModulePath(false);
    if (!executable.empty() && executable != library) {
        Write(executable.c_str(), LOG_ALWAYS, "%s\n", ProcessUtils::GetFileVersionText(executable).c_str());
    }
    Write("OS Version", LOG_ALWAYS, "%s%s\n", ProcessUtils::GetOSVersionText().c_str(),
          StringUtils::FormatString(", sessionId=%d", static_cast<int>(ProcessUtils::GetSessionID(true))).c_str());
    // The clock that the lines don't use, so that a reader can relate the two.
    Write("Time Zone", LOG_ALWAYS, "%ls, %s time is %s\n", StringUtils::GetTimeZoneText().c_str(),
          useLocalTime ? "UTC" : "Local", StringUtils::FormatTimeStamp(useLocalTime).c_str());
    Write("Log Level", LOG_ALWAYS, "%s (read from %s)\n", GetLevelName(), levelSource.c_str());
}

void Logger::Dispatch(const char* function, int32_t messageLevel, const LogTextSource& text) {
    if (!Passes(messageLevel)) return;
    RCPtr<LogMessage> message;
    for (auto& entry : writers) {
        LogWriter* writer = entry.second.Get();
        if (!writer->IsInitialized()) continue;
        if (!message) {
            char buffer[kLogMessageBytes];
            int32_t header = writer->FormatHeader(buffer, kLogMessageBytes, function, messageLevel);
            if (header < 0) header = 0;
            if (header > kLogMessageBytes - 1) header = kLogMessageBytes - 1;
            int32_t body = text.Format(buffer + header, kLogMessageBytes - header, writer->GetLastHeaderLength());
            if (!messageManager || !messageManager->NewMessage(message, messageLevel, buffer, header + body)) return;
        }
        writer->Enqueue(message);
    }
}

void Logger::Write(const char* function, int32_t messageLevel, const char* format, ...) {
    va_list args;
    va_start(args, format);
    WriteV(function, messageLevel, format, args);
    va_end(args);
}

void Logger::WriteV(const char* function, int32_t messageLevel, const char* format, va_list args) {
    LogCallScope scope;
    if (!scope.Entered()) return;
    Dispatch(function, messageLevel, FormattedText(format, args));
}

// ---- LoggerManager ----

LoggerManager& LoggerManager::GetInstance() {
    // Never destroyed: log calls may come from static destructors at the end of the process.
    static LoggerManager* instance = new (std::nothrow) LoggerManager();
    return *instance;
}

LoggerManager::LoggerManager() : pollThread(new SyPollThread("Logger")) { pollThread->SetLock(&LogMutex()); }

RCPtr<Logger> LoggerManager::CreateLogger(const std::string& loggerName, const std::string& appName,
                                          bool makePrimary) {
    SyMutexGuard guard(&LogMutex());
    if (loggerName.empty() || loggers.count(loggerName)) return nullptr;
    if (!messageManager) messageManager = new (std::nothrow) LogMessageManager();
    RCPtr<Logger> logger(new (std::nothrow) Logger(loggerName, appName, messageManager));
    if (!logger) return nullptr;
    loggers[loggerName] = logger;
    if (makePrimary) SetPrimaryLogger(logger);
    return logger;
}

RCPtr<Logger> LoggerManager::GetLogger(const std::string& loggerName) {
    SyMutexGuard guard(&LogMutex());
    auto found = loggers.find(loggerName);
    return found == loggers.end() ? nullptr : found->second;
}

RCPtr<Logger> LoggerManager::GetPrimaryLogger() {
    SyMutexGuard guard(&LogMutex());
    return primaryLogger;
}

Logger* LoggerManager::PrimaryWhileLocked() const { return primaryLogger.Get(); }

void LoggerManager::SetPrimaryLogger(const RCPtr<Logger>& logger) {
    SyMutexGuard guard(&LogMutex());
    primaryLogger = logger;
    processLogLevel = (logger && logger->started) ? logger->level : 0;
}

RCPtr<SyPollThread> LoggerManager::GetPollThread() {
    SyMutexGuard guard(&LogMutex());
    if (pollThread) pollThread->StartScheduler();
    return pollThread;
}

RCPtr<LogMessageManager> LoggerManager::GetMessageManager() {
    SyMutexGuard guard(&LogMutex());
    return messageManager;
}

bool LoggerManager::IsShuttingDown() {
    SyMutexGuard guard(&LogMutex());
    return shuttingDown;
}

void LoggerManager::ShutdownAll() {
    {
        SyMutexGuard guard(&LogMutex());
        shuttingDown = true;
    }
    // From here on no buffered writer is served by the poll thread.
    pollThread->StopScheduler();
    pollThread->RemoveAllItems(true);
    std::map<std::string, RCPtr<Logger>> aside;
    {
        SyMutexGuard guard(&LogMutex());
        aside.swap(loggers);
        primaryLogger = nullptr;
        processLogLevel = 0;
    }
    for (auto& entry : aside) entry.second->Shutdown();
    {
        SyMutexGuard guard(&LogMutex());
        messageManager = nullptr;
    }
}
