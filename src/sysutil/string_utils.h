// Fixed text forms of sizes, durations, time stamps, the time zone and hex dumps, the
// UTF-8/UTF-16 conversions, and the small string tools the foundation leans on.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

#include "logging/log.h"  // SY_PRINTF_FORMAT

struct _TIME_ZONE_INFORMATION;

namespace StringUtils {

// Short-lived converter: built from one form, asked for the other.
class XString {
public:
    XString() = default;
    explicit XString(const char* text) { SetNarrow(text, false); }
    explicit XString(const wchar_t* text) { SetWide(text, false); }
    virtual ~XString() { Clear(); }

    // A null text becomes an empty string that isn't owned. An owned text must come from new[].
    void SetNarrow(const char* text, bool own);
    void SetWide(const wchar_t* text, bool own);
    void CopyWide(const wchar_t* text);
    // Null if the conversion failed.
    const char* GetNarrow();
    const wchar_t* GetWide();
    void Clear();

    XString(const XString&) = delete;
    XString& operator=(const XString&) = delete;

private:
    wchar_t* wide = nullptr;
    bool ownsWide = false;
    char* narrow = nullptr;
    bool ownsNarrow = false;
};

std::wstring Utf8ToWide(const std::string& text);
std::string WideToUtf8(const std::wstring& text);
// Narrow platform functions speak the process's ANSI code page; everything inside is UTF-8.
std::string AnsiToUtf8(const std::string& text);
std::string Utf8ToAnsi(const std::string& text);

std::string FormatBytes(double value, int precision);
std::string FormatDuration(double seconds, int precision);
// Classic dump with offsets, hex and printable columns. Returns characters written.
int HexDump(char* buffer, int bufferSize, const uint8_t* data, int dataSize, int bytesPerLine, int indent);
std::string FormatTimeStamp(bool utc);
int FormatTimeStamp(char* buffer, int size, bool utc);
std::wstring GetTimeZoneText();
// The text for one reading of GetTimeZoneInformation: its result and the record it filled.
std::wstring FormatTimeZoneText(uint32_t zoneId, const _TIME_ZONE_INFORMATION& info);
uint32_t ParseLogLevel(const char* name, uint32_t defaultLevel);

// Formatted in a buffer of 10,240 characters; beyond that the text is cut.
std::string FormatString(const char* format, ...) SY_PRINTF_FORMAT(1, 2);
// Characters written: -1 for a formatting error, size - 1 when the text was cut.
int FormatBuffer(char* buffer, int size, const char* format, ...) SY_PRINTF_FORMAT(3, 4);
int FormatBufferV(char* buffer, int size, const char* format, va_list args);

bool EndsWith(const char* text, const char* suffix, bool caseSensitive);
const char* FindNoCase(const char* text, const char* pattern);
// Copies up to count characters and always terminates; dest holds count + 1.
int CopyBounded(char* dest, const char* source, int count);

}  // namespace StringUtils
