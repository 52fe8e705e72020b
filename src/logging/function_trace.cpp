#include "logging/function_trace.h"

#include <cstdarg>

#include "logging/logger.h"
#include "sysutil/string_utils.h"

FunctionTrace::FunctionTrace(int32_t level, const char* function, Logger* givenLogger, const char* format, ...)
    : functionName(function), exitText{}, enterLevel(level), exitLevel(level), logger(givenLogger) {
    if (!TakeLoggerFor(level)) return;
    if (!format || !*format) {
        WriteLine(level, "Enter\n");
        return;
    }
    char entry[kLogMessageBytes];
    va_list args;
    va_start(args, format);
    StringUtils::FormatBufferV(entry, sizeof(entry), format, args);
    va_end(args);
    WriteLine(level, "Enter - %s", entry);
}

// Without a logger of its own the tracer takes the primary one, but only when the
// process-wide level lets this level through at all; a logger must be started and pass it.
bool FunctionTrace::TakeLoggerFor(int32_t level) {
    if (!logger) {
        if (processLogLevel < level) return false;
        logger = LoggerManager::GetInstance().GetPrimaryLogger();
    }
    return LoggerPasses(level);
}

bool FunctionTrace::LoggerPasses(int32_t level) const { return logger && logger->Passes(level); }

void FunctionTrace::WriteLine(int32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    logger->WriteV(functionName, level, format, args);
    va_end(args);
}

void FunctionTrace::SetExitText(int32_t level, const char* format, ...) {
    if (!TakeLoggerFor(level)) return;
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
    bool entered = LoggerPasses(enterLevel);
    if (exitText[0] == '\0') {
        if (entered) WriteLine(enterLevel, "Exit%s\n", elapsed);
    } else if (entered) {
        WriteLine(exitLevel, "Exit%s - %s", elapsed, exitText);
    } else {
        WriteLine(exitLevel, "%s", exitText);
    }
}
