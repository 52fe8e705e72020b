// The log call surface used by every unit. A statement tests processLogLevel before it
// evaluates a single argument, so a disabled statement costs one load and one compare.
#pragma once

#include <cstdint>

enum LogLevel : int32_t {
    LOG_ALWAYS = 0,
    LOG_ERROR = 1,
    LOG_WARN = 2,
    LOG_INFO = 3,
    LOG_DEBUG = 4,
    LOG_TRACE = 5,
    LOG_VERBOSE = 6,
    LOG_NEVER = 7,
};

// Threshold of the primary logger while that logger is started, else 0. Read without a lock.
extern int32_t processLogLevel;

// Printed name of a level ("ALWAYS" .. "NEVER"), "UNKNOWN" outside 0..7.
const char* LogLevelName(int32_t level);
// Letter of a level in a line, from "AEWIDTVN"; '?' outside 0..7.
char LogLevelLetter(int32_t level);

#if defined(__clang__)
#define SY_PRINTF_FORMAT(fmtIndex, argIndex) __attribute__((format(printf, fmtIndex, argIndex)))
#else
#define SY_PRINTF_FORMAT(fmtIndex, argIndex) __attribute__((format(gnu_printf, fmtIndex, argIndex)))
#endif

void Log(const char* function, int32_t level, const char* format, ...) SY_PRINTF_FORMAT(3, 4);
void LogHex(const char* function, int32_t level, const void* data, int32_t length);
void LogLastError(const char* function, int32_t level, const char* format, ...) SY_PRINTF_FORMAT(3, 4);
void LogSocketError(const char* function, int32_t level, const char* format, ...) SY_PRINTF_FORMAT(3, 4);
void LogError(uint32_t errorCode, const char* function, int32_t level, const char* format, ...)
    SY_PRINTF_FORMAT(4, 5);

// Call-site forms: nothing right of the level is evaluated unless the level passes.
#define SY_LOG(level, function, ...) \
    do { if (processLogLevel >= (level)) Log((function), (level), __VA_ARGS__); } while (0)
#define SY_LOG_HEX(level, function, data, length) \
    do { if (processLogLevel >= (level)) LogHex((function), (level), (data), (length)); } while (0)
#define SY_LOG_LAST_ERROR(level, function, ...) \
    do { if (processLogLevel >= (level)) LogLastError((function), (level), __VA_ARGS__); } while (0)
#define SY_LOG_SOCKET_ERROR(level, function, ...) \
    do { if (processLogLevel >= (level)) LogSocketError((function), (level), __VA_ARGS__); } while (0)
#define SY_LOG_ERROR(code, level, function, ...) \
    do { if (processLogLevel >= (level)) LogError((code), (function), (level), __VA_ARGS__); } while (0)

// Size of the text buffer of one message; longer text is cut.
constexpr int kLogMessageBytes = 1024;

// The engine behind these calls (src/logging/logger.h); call sites never need its definition.
class Logger;
