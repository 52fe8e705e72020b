// The log calls: each takes the log's lock, formats its text once behind the header of the
// primary logger's first writer in service, and hands that one message to every writer.
#include "logging/log.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdarg>
#include <cstring>

#include "logging/logger.h"
#include "sysutil/string_utils.h"

int32_t processLogLevel = 0;

namespace {

// The caller's text without one trailing line feed, then "; (%d) %s" with the code and the
// system's text for it.
class ErrorText : public FormattedText {
public:
    ErrorText(uint32_t code, const char* systemText, const char* format, va_list args)
        : FormattedText(format, args), code(code), systemText(systemText) {}

    int32_t Format(char* out, int32_t room, int32_t indent) const override {
        int32_t length = FormattedText::Format(out, room, indent);
        if (length > 0 && out[length - 1] == '\n') out[--length] = '\0';
        int32_t added = StringUtils::FormatBuffer(out + length, room - length, "; (%d) %s", static_cast<int>(code),
                                                  systemText ? systemText : "");
        return added > 0 ? length + added : length;
    }

private:
    uint32_t code;
    const char* systemText;
};

class HexText : public LogTextSource {
public:
    HexText(const void* data, int32_t length) : data(static_cast<const uint8_t*>(data)), length(length) {}

    // The first line goes on behind the header; the others stand under it. Data that isn't
    // there gets a line that says so, not an empty one.
    int32_t Format(char* out, int32_t room, int32_t indent) const override {
        if (!data && length != 0) return StringUtils::FormatBuffer(out, room, "(null)\n");
        return StringUtils::HexDump(out, room, data, length, 16, -indent);
    }

private:
    const uint8_t* data;
    int32_t length;
};

// Owns the system's text of one error code, allocated by FormatMessageA.
class SystemErrorText {
public:
    explicit SystemErrorText(uint32_t code) {
        FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS |
                           FORMAT_MESSAGE_MAX_WIDTH_MASK,
                       nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text), 0,
                       nullptr);
    }
    ~SystemErrorText() {
        if (text) LocalFree(text);
    }
    const char* Get() const { return text; }

    SystemErrorText(const SystemErrorText&) = delete;
    SystemErrorText& operator=(const SystemErrorText&) = delete;

private:
    char* text = nullptr;
};

void DispatchToPrimary(const char* function, int32_t level, const LogTextSource& text) {
    LogCallScope scope;
    Logger* primary = LoggerManager::GetInstance().PrimaryWhileLocked();
    if (!scope.Entered() || !primary) return;
    primary->Dispatch(function, level, text);
}

void LogWithError(uint32_t code, const char* function, int32_t level, const char* format, va_list args) {
    LogCallScope scope;
    Logger* primary = LoggerManager::GetInstance().PrimaryWhileLocked();
    if (!scope.Entered() || !primary || !primary->Passes(level)) return;
    SystemErrorText systemText(code);
    primary->Dispatch(function, level, ErrorText(code, systemText.Get(), format, args));
}

}  // namespace

const char* LogLevelName(int32_t level) {
    static const char* const names[] = {"ALWAYS", "ERROR", "WARN", "INFO", "DEBUG", "TRACE", "VERBOSE", "NEVER"};
    return (level >= 0 && level <= 7) ? names[level] : "UNKNOWN";
}

char LogLevelLetter(int32_t level) { return (level >= 0 && level <= 7) ? "AEWIDTVN"[level] : '?'; }

void Log(const char* function, int32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    DispatchToPrimary(function, level, FormattedText(format, args));
    va_end(args);
}

void LogHex(const char* function, int32_t level, const void* data, int32_t length) {
    DispatchToPrimary(function, level, HexText(data, length));
}

void LogLastError(const char* function, int32_t level, const char* format, ...) {
    // Read before the lock: taking it must not be what the line reports.
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
