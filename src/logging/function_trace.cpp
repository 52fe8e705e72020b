#include "logging/function_trace.h"

#include <cstdarg>

#include "logging/logger.h"
#include "sysutil/string_utils.h"

namespace {

// "Enter", or "Enter - " and the caller's entry text cut to one message's buffer.
class EntryText : public LogTextSource {
public:
    EntryText(const char* format, va_list arguments) : format(format) { va_copy(args, arguments); }
    ~EntryText() { va_end(args); }

    int32_t Format(char* out, int32_t room, int32_t) const override {
        if (!format || !*format) return Written(StringUtils::FormatBuffer(out, room, "Enter\n"));
        char entry[kLogMessageBytes];
        va_list copy;
        va_copy(copy, const_cast<va_list&>(args));
        StringUtils::FormatBufferV(entry, sizeof(entry), format, copy);
        va_end(copy);
        return Written(StringUtils::FormatBuffer(out, room, "Enter - %s", entry));
    }

    EntryText(const EntryText&) = delete;
    EntryText& operator=(const EntryText&) = delete;

private:
    static int32_t Written(int32_t length) { return length < 0 ? 0 : length; }

    const char* format;
    va_list args;
};

}  // namespace

FunctionTrace::FunctionTrace(int32_t level, const char* function, Logger* givenLogger, const char* format, ...)
    : functionName(function), exitText{}, enterLevel(level), exitLevel(level), logger(givenLogger) {
    if (!logger && processLogLevel < level) return;
    // One hold of the log's lock both finds the primary logger and writes the line: every
    // acquire of that kernel mutex is a round trip to the system.
    LogCallScope scope;
    if (!logger) logger = LoggerManager::GetInstance().PrimaryWhileLocked();
    if (!scope.Entered() || !LoggerPasses(level)) return;
    va_list args;
    va_start(args, format);
    EntryText entry(format, args);
    logger->Dispatch(functionName, level, entry);
    va_end(args);
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
