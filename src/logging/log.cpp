#include "logging/log.h"

#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "foundation/sy_mutex.h"
#include "sysutil/string_utils.h"

int32_t processLogLevel = 0;

namespace {

std::atomic<int32_t> logCallDepth{0};

// The one lock of the log system; created on first use.
SyMutex& LogMutex() {
    static SyMutex mutex(false, "");
    return mutex;
}

RCPtr<LogTarget>& PrimaryTarget() {
    static RCPtr<LogTarget> target;
    return target;
}

// Runs body(target) under the log lock when a call at this level may reach the target,
// and never for a call made from inside another log call on this thread.
template <class Body>
void WithTarget(int32_t level, Body body) {
    SyMutexGuard guard(&LogMutex());
    RCPtr<LogTarget> target = PrimaryTarget();
    int32_t depth = ++logCallDepth;
    if (depth < 2 && target && target->Passes(level)) body(target);
    --logCallDepth;
}

void FormatInto(char* buffer, const char* format, va_list args) {
    StringUtils::FormatBufferV(buffer, kLogMessageBytes, format, args);
}

// Removes one trailing line feed and appends "; (%d) %s" with the code and the system's text.
void AppendErrorText(char* buffer, uint32_t code) {
    char* systemText = nullptr;
    FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                       FORMAT_MESSAGE_MAX_WIDTH_MASK,
                   nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&systemText),
                   0, nullptr);
    size_t len = strlen(buffer);
    if (len > 0 && buffer[len - 1] == '\n') buffer[--len] = '\0';
    StringUtils::FormatBuffer(buffer + len, static_cast<int>(kLogMessageBytes - len), "; (%d) %s",
                              static_cast<int>(code), systemText ? systemText : "");
    if (systemText) LocalFree(systemText);
}

void LogWithError(uint32_t code, const char* function, int32_t level, const char* format, va_list args) {
    WithTarget(level, [&](const RCPtr<LogTarget>& target) {
        char text[kLogMessageBytes];
        FormatInto(text, format, args);
        AppendErrorText(text, code);
        target->Deliver(function, level, text);
    });
}

}  // namespace

const char* LogLevelName(int32_t level) {
    static const char* const names[] = {"ALWAYS", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "VERBOSE", "NEVER"};
    return (level >= 0 && level <= 7) ? names[level] : "UNKNOWN";
}

char LogLevelLetter(int32_t level) { return (level >= 0 && level <= 7) ? "AEWIDTVN"[level] : '?'; }

void SetPrimaryLogTarget(const RCPtr<LogTarget>& target) {
    SyMutexGuard guard(&LogMutex());
    PrimaryTarget() = target;
    processLogLevel = target ? target->level : 0;
}

RCPtr<LogTarget> GetPrimaryLogTarget() {
    SyMutexGuard guard(&LogMutex());
    return PrimaryTarget();
}

void Log(const char* function, int32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    WithTarget(level, [&](const RCPtr<LogTarget>& target) {
        char text[kLogMessageBytes];
        FormatInto(text, format, args);
        target->Deliver(function, level, text);
    });
    va_end(args);
}

void LogHex(const char* function, int32_t level, const void* data, int32_t length) {
    WithTarget(level, [&](const RCPtr<LogTarget>& target) {
        if (!data && length != 0) return target->Deliver(function, level, "(null)\n");
        char text[kLogMessageBytes];
        StringUtils::HexDump(text, kLogMessageBytes, static_cast<const uint8_t*>(data), length, 16, 0);
        target->Deliver(function, level, text);
    });
}

void LogLastError(const char* function, int32_t level, const char* format, ...) {
    // Read before anything here can change it.
    uint32_t code = GetLastError();
    va_list args;
    va_start(args, format);
    LogWithError(code, function, level, format, args);
    va_end(args);
}

void LogSocketError(const char* function, int32_t level, const char* format, ...) {
    uint32_t code = static_cast<uint32_t>(WSAGetLastError());
    va_list args;
    va_start(args, format);
    LogWithError(code, function, level, format, args);
    va_end(args);
}

void LogError(uint32_t errorCode, const char* function, int32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogWithError(errorCode, function, level, format, args);
    va_end(args);
}

namespace logdetail {
void DeliverFormatted(const RCPtr<LogTarget>& target, const char* function, int32_t level, const char* text) {
    SyMutexGuard guard(&LogMutex());
    int32_t depth = ++logCallDepth;
    if (depth < 2 && target && target->Passes(level)) target->Deliver(function, level, text);
    --logCallDepth;
}
}  // namespace logdetail
