// A writer of the real log system that records what it gets, for tests that prove what the
// code logs. ScopedLogCapture makes a logger with this writer the primary one for a scope and
// sets processLogLevel to its threshold; at the end of the scope the process has no primary
// logger again and processLogLevel is 0. The log's own poll thread speaks whenever its timers
// say: its lines are left out unless the capture is asked for them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "logging/logger.h"
#include "logging/proxy_writer.h"

struct CapturedLine {
    std::string function;
    int32_t level;
    std::string text;  // as the writer got it, with the line feed that every message ends in
};

class LogCapture : public ProxyWriter {
public:
    // Records one line; a capture that also signals replaces it and calls it.
    virtual void Deliver(const char* function, int32_t level, const char* text);

    std::vector<CapturedLine> Lines() const;
    // Lines whose text contains the fragment.
    size_t Count(const std::string& fragment) const;
    void ClearLines();

    // Lines logged on this poll thread's scheduler are left out; null: none are. Set under LogMutex().
    RCPtr<SyPollThread> skipped;

protected:
    bool Forward(const char* function, int32_t level, const char* text) override;

private:
    mutable std::mutex mutex;
    std::vector<CapturedLine> lines;
};

// A started logger of its own name whose one writer is a LogCapture; made once per name and
// kept (until a shutdown of the whole log system takes it down).
RCPtr<Logger> CaptureLogger(const std::string& name, LogCapture** capture);

class ScopedLogCapture {
public:
    explicit ScopedLogCapture(int32_t threshold = LOG_NEVER, bool withLogPollThread = false);
    // With a capture of the caller's own class, on a logger of its own.
    ScopedLogCapture(int32_t threshold, const RCPtr<LogCapture>& own);
    ~ScopedLogCapture();
    LogCapture* operator->() const { return capture; }
    LogCapture& operator*() const { return *capture; }
    Logger* GetLogger() const { return logger.Get(); }

    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

private:
    void MakePrimary(int32_t threshold, bool withLogPollThread);

    RCPtr<Logger> logger;
    LogCapture* capture = nullptr;  // owned by the logger
};
