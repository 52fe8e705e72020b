// The engine behind the log calls: the manager of all loggers with their poll thread and
// message pool, and the logger that hands one formatted message to each of its writers.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "foundation/rc_object.h"
#include "foundation/sy_mutex.h"
#include "foundation/sy_poll_thread.h"
#include "logging/log.h"
#include "logging/log_message.h"
#include "logging/log_settings.h"
#include "logging/log_writer.h"

// The registry hive of a settings reader, as the platform declares it (no platform header here).
struct HKEY__;

// The one lock of the whole log system, and the poll lock of the logger's poll thread.
SyMutex& LogMutex();

// Log calls under way inside LogMutex(); a second one on the same thread is dropped.
extern std::atomic<int32_t> logCallDepth;

// Holds LogMutex() and one step of logCallDepth for a log call; Entered() tells whether the
// call may go on (it isn't nested inside another log call on this thread).
class LogCallScope {
public:
    LogCallScope();
    ~LogCallScope();
    bool Entered() const { return entered; }

    LogCallScope(const LogCallScope&) = delete;
    LogCallScope& operator=(const LogCallScope&) = delete;

private:
    SyMutexGuard guard;
    bool entered;
};

// Writes the text of one message behind its header, into out with room bytes (NUL included);
// returns the bytes written. indent is the visible length of the header, for text that puts
// further lines under the first. The log calls each bring their own.
class LogTextSource {
public:
    virtual int32_t Format(char* out, int32_t room, int32_t indent) const = 0;

protected:
    ~LogTextSource() = default;
};

// A printf format with its arguments; the arguments are copied, so it can be formatted again.
class FormattedText : public LogTextSource {
public:
    FormattedText(const char* format, va_list args);
    ~FormattedText();
    int32_t Format(char* out, int32_t room, int32_t indent) const override;

    FormattedText(const FormattedText&) = delete;
    FormattedText& operator=(const FormattedText&) = delete;

private:
    const char* format;
    va_list args;
};

class Logger : public RCObject {
public:
    static constexpr int32_t kFirstWriterType = 0;
    static constexpr int32_t kLastWriterType = 5;

    Logger(const std::string& name, const std::string& appName, const RCPtr<LogMessageManager>& messages);

    // Key path below the hive; HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER only.
    bool AddRegistryReader(const std::string& keyPath, HKEY__* hive);
    // Creates the writer of that type; null once started, for a type that exists already, or
    // for a type outside the table or not built into this program.
    RCPtr<LogWriter> AddWriter(int32_t type);
    // Takes a writer made elsewhere under its own type, with the same refusals as AddWriter.
    RCPtr<LogWriter> AttachWriter(const RCPtr<LogWriter>& writer);
    RCPtr<LogWriter> GetWriter(int32_t type);
    const char* GetLevelName() const { return LogLevelName(level); }

    bool Start();
    bool Shutdown();
    void LogStartupInfo();

    // Applies one settings source; called under LogMutex() at the start and on a reload.
    void ApplySettings(SettingsReader* reader);

    // Whether a message of this level passes; read under LogMutex().
    bool Passes(int32_t messageLevel) const { return started && messageLevel <= level; }
    // One message to every writer in service, formatted once by the first of them. The
    // caller holds a LogCallScope that was entered.
    void Dispatch(const char* function, int32_t messageLevel, const LogTextSource& text);
    // Log with this logger in place of the primary one, with all the guards of a log call.
    void Write(const char* function, int32_t messageLevel, const char* format, ...) SY_PRINTF_FORMAT(4, 5);
    void WriteV(const char* function, int32_t messageLevel, const char* format, va_list args);

    std::map<int32_t, RCPtr<LogWriter>> writers;
    std::list<RCPtr<SettingsReader>> readers;
    std::string name;
    std::string appName;
    int32_t level = LOG_INFO;
    std::string levelSource;
    bool useLocalTime = true;
    bool started = false;
    bool creatingWriters = true;
    bool traceEnabledFallback = false;
    RCPtr<LogMessageManager> messageManager;
};

class LoggerManager {
public:
    static LoggerManager& GetInstance();

    RCPtr<Logger> CreateLogger(const std::string& name, const std::string& appName, bool makePrimary);
    RCPtr<Logger> GetLogger(const std::string& name);
    RCPtr<Logger> GetPrimaryLogger();
    // For the log calls, which hold LogMutex() already: the primary can't change meanwhile.
    Logger* PrimaryWhileLocked() const;
    void SetPrimaryLogger(const RCPtr<Logger>& logger);
    // Started first if it isn't running.
    RCPtr<SyPollThread> GetPollThread();
    bool IsShuttingDown();
    void ShutdownAll();

    RCPtr<LogMessageManager> GetMessageManager();

    LoggerManager(const LoggerManager&) = delete;
    LoggerManager& operator=(const LoggerManager&) = delete;

private:
    LoggerManager();

    RCPtr<Logger> primaryLogger;
    std::map<std::string, RCPtr<Logger>> loggers;
    RCPtr<LogMessageManager> messageManager;
    RCPtr<SyPollThread> pollThread;
    bool shuttingDown = false;
};
