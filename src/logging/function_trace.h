// Scope tracer: an "Enter" line when built and an "Exit" line when it goes out of scope,
// each written only while the log passes the tracer's level.
#pragma once

#include <cstdint>

#include "foundation/rc_object.h"
#include "foundation/sy_timer.h"
#include "logging/log.h"

class FunctionTrace {
public:
    // logger may be null: the primary logger is then used, if processLogLevel passes level.
    // A null or empty format means no entry text.
    FunctionTrace(int32_t level, const char* function, Logger* logger = nullptr, const char* format = nullptr,
                  ...) SY_PRINTF_FORMAT(5, 6);
    virtual ~FunctionTrace();

    void SetExitText(int32_t level, const char* format, ...) SY_PRINTF_FORMAT(3, 4);

    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

    // Set by the caller after construction to add "(Nms)" to the exit line.
    bool showElapsed = false;

private:
    bool TakeLoggerFor(int32_t level);
    bool LoggerPasses(int32_t level) const;
    void WriteLine(int32_t level, const char* format, ...) SY_PRINTF_FORMAT(3, 4);

    const char* functionName;
    char exitText[kLogMessageBytes];
    int32_t enterLevel;
    int32_t exitLevel;
    SyElapsedTimer timer;
    RCPtr<Logger> logger;
};
