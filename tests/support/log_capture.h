// A primary log target that records every delivered message, for tests that prove what
// the code logs. Attaching it sets processLogLevel to its threshold; detaching restores 0.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "logging/log.h"

struct CapturedLine {
    std::string function;
    int32_t level;
    std::string text;
};

class LogCapture : public LogTarget {
public:
    explicit LogCapture(int32_t threshold) : LogTarget(threshold) {}
    void Deliver(const char* function, int32_t level, const char* text) override;

    std::vector<CapturedLine> Lines() const;
    // Lines whose text contains the fragment.
    size_t Count(const std::string& fragment) const;
    void ClearLines();

private:
    mutable std::mutex mutex;
    std::vector<CapturedLine> lines;
};

// Attaches a LogCapture as the primary target for a scope.
class ScopedLogCapture {
public:
    explicit ScopedLogCapture(int32_t threshold = LOG_NEVER);
    ~ScopedLogCapture();
    LogCapture* operator->() const { return capture.Get(); }
    LogCapture& operator*() const { return *capture; }

private:
    RCPtr<LogCapture> capture;
};
