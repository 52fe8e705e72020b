#include "logging/function_trace.h"

#include <cstdarg>

#include "sysutil/string_utils.h"

FunctionTrace::FunctionTrace(int32_t level, const char* function, LogTarget* givenLogger, const char* format, ...)
    : functionName(function), exitText{}, enterLevel(level), exitLevel(level), logger(givenLogger) {
    if (!TakeLoggerFor(level)) return;
    if (!logger->Passes(level)) return;
    char text[kLogMessageBytes];
    if (!format || !*format) {
        StringUtils::CopyBounded(text, "Enter\n", kLogMessageBytes - 1);
    } else {
        char entry[kLogMessageBytes];
        va_list args;
        va_start(args, format);
        StringUtils::FormatBufferV(entry, sizeof(entry), format, args);
        va_end(args);
        StringUtils::FormatBuffer(text, sizeof(text), "Enter - %s", entry);
    }
    logdetail::DeliverFormatted(logger, functionName, level, text);
}

// Without a logger of its own the tracer takes the primary one, but only when the
// process-wide level lets this level through at all.
bool FunctionTrace::TakeLoggerFor(int32_t level) {
    if (!logger) {
        if (processLogLevel < level) return false;
        logger = GetPrimaryLogTarget();
    }
    return static_cast<bool>(logger);
}

void FunctionTrace::SetExitText(int32_t level, const char* format, ...) {
    if (!TakeLoggerFor(level) || !logger->Passes(level)) return;
    exitLevel = level;
    va_list args;
    va_start(args, format);
    StringUtils::FormatBufferV(exitText, sizeof(exitText), format, args);
    va_end(args);
}

FunctionTrace::~FunctionTrace() {
    if (!logger) return;
    char elapsed[32] = "";
    if (showElapsed) {
        StringUtils::FormatBuffer(elapsed, sizeof(elapsed), "(%dms)", static_cast<int>(timer.ElapsedMs()));
    }
    char text[kLogMessageBytes];
    bool entered = logger->Passes(enterLevel);
    if (exitText[0] == '\0') {
        if (!entered) return;
        StringUtils::FormatBuffer(text, sizeof(text), "Exit%s\n", elapsed);
        logdetail::DeliverFormatted(logger, functionName, enterLevel, text);
    } else if (entered) {
        StringUtils::FormatBuffer(text, sizeof(text), "Exit%s - %s", elapsed, exitText);
        logdetail::DeliverFormatted(logger, functionName, exitLevel, text);
    } else {
        logdetail::DeliverFormatted(logger, functionName, exitLevel, exitText);
    }
}
