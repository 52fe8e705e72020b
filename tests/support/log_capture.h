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
    std::vector<CapturedLine> Lines() const;
    size_t Count(const std::string& fragment) const;  // of the lines whose text contains it
    void ClearLines();

    // Lines logged on this poll thread's scheduler are left out; null: none are. Set under LogMutex().
    RCPtr<SyPollThread> skipped;

protected:
    bool Forward(const char* function, int32_t level, const char* text) override;

private:
    mutable std::mutex mutex;
    std::vector<CapturedLine> lines;
};

class ScopedLogCapture {
public:
    explicit ScopedLogCapture(int32_t threshold = LOG_NEVER, bool withLogPollThread = false);
    ~ScopedLogCapture();
    LogCapture* operator->() const { return capture; }
    LogCapture& operator*() const { return *capture; }

    ScopedLogCapture(const ScopedLogCapture&) = delete;
    ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

private:
    RCPtr<Logger> logger;
    LogCapture* capture = nullptr;  // owned by the logger
};
