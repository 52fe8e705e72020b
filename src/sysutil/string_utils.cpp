#include "sysutil/string_utils.h"

#include <windows.h>

#include <sys/timeb.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <limits>

namespace StringUtils {

namespace {
const char kEmptyNarrow[1] = "";
const wchar_t kEmptyWide[1] = L"";
constexpr int kFormatStringChars = 0x2800;
constexpr int kShortTextChars = 128;
}  // namespace

// --- XString ---

void XString::Clear() {
    if (ownsWide) delete[] wide;
    if (ownsNarrow) delete[] narrow;
    wide = nullptr;
    narrow = nullptr;
    ownsWide = false;
    ownsNarrow = false;
}

void XString::SetNarrow(const char* text, bool own) {
    Clear();
    if (!text) {
        text = kEmptyNarrow;
        own = false;
    }
    narrow = const_cast<char*>(text);
    ownsNarrow = own;
}

void XString::SetWide(const wchar_t* text, bool own) {
    Clear();
    if (!text) {
        text = kEmptyWide;
        own = false;
    }
    wide = const_cast<wchar_t*>(text);
    ownsWide = own;
}

void XString::CopyWide(const wchar_t* text) {
    Clear();
    if (text) {
        size_t n = wcslen(text) + 1;
        wchar_t* copy = new (std::nothrow) wchar_t[n];
        if (copy) {
            memcpy(copy, text, n * sizeof(wchar_t));
            wide = copy;
            ownsWide = true;
            return;
        }
    }
    wide = const_cast<wchar_t*>(kEmptyWide);
}

const char* XString::GetNarrow() {
    if (!narrow && wide) {
        int n = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
        if (n > 0) {
            char* block = new (std::nothrow) char[n]();
            if (block && WideCharToMultiByte(CP_UTF8, 0, wide, -1, block, n, nullptr, nullptr) > 0) {
                narrow = block;
                ownsNarrow = true;
            } else {
                delete[] block;
            }
        }
    }
    return narrow;
}

const wchar_t* XString::GetWide() {
    if (!wide && narrow) {
        int n = MultiByteToWideChar(CP_UTF8, 0, narrow, -1, nullptr, 0);
        if (n > 0) {
            wchar_t* block = new (std::nothrow) wchar_t[n]();
            if (block && MultiByteToWideChar(CP_UTF8, 0, narrow, -1, block, n) > 0) {
                wide = block;
                ownsWide = true;
            } else {
                delete[] block;
            }
        }
    }
    return wide;
}

namespace {

std::wstring ToWide(UINT codePage, const std::string& text) {
    if (text.empty()) return std::wstring();
    int n = MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    if (n <= 0) return std::wstring();
    std::wstring result(static_cast<size_t>(n), L'\0');
    if (MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), &result[0], n) <= 0) {
        return std::wstring();
    }
    return result;
}

std::string FromWide(UINT codePage, const std::wstring& text) {
    if (text.empty()) return std::string();
    int n = WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    if (n <= 0) return std::string();
    std::string result(static_cast<size_t>(n), '\0');
    if (WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()), &result[0], n, nullptr,
                            nullptr) <= 0) {
        return std::string();
    }
    return result;
}

}  // namespace

std::wstring Utf8ToWide(const std::string& text) { return ToWide(CP_UTF8, text); }

std::string WideToUtf8(const std::wstring& text) { return FromWide(CP_UTF8, text); }

std::string AnsiToUtf8(const std::string& text) { return FromWide(CP_UTF8, ToWide(CP_ACP, text)); }

std::string Utf8ToAnsi(const std::string& text) { return FromWide(CP_ACP, ToWide(CP_UTF8, text)); }

// --- Text forms ---

std::string FormatBytes(double value, int precision) {
    static const char kLetters[] = {'\0', 'K', 'M', 'G', 'T', 'P'};
    int step = 0;
    // Threshold 1000, divisor 1024: 1000 bytes already print as kilobytes.
    while (std::fabs(value) >= 1000.0 && step < 5) {
        value *= 0.0009765625;
        ++step;
    }
    char buffer[kShortTextChars];
    if (step > 0) {
        snprintf(buffer, sizeof(buffer), "%*.*f%cB", precision + 2, precision, value, kLetters[step]);
    } else {
        snprintf(buffer, sizeof(buffer), "%dB", static_cast<int>(value));
    }
    return buffer;
}

std::string FormatDuration(double seconds, int precision) {
    long long whole;
    long long fraction;
    if (precision < 1) {
        precision = 0;
        fraction = 0;
        whole = static_cast<long long>(seconds + 0.5);
    } else {
        whole = static_cast<long long>(seconds);
        if (precision > 32) precision = 32;
        // Cut, never rounded: just below a full second stays below it.
        double scaled = std::pow(10.0, precision) * (seconds - static_cast<double>(whole));
        const double limit = static_cast<double>(std::numeric_limits<long long>::max());
        fraction = scaled >= limit ? std::numeric_limits<long long>::max() : static_cast<long long>(scaled);
    }
    int days = static_cast<int>(whole / 86400);
    int hours = static_cast<int>((whole / 3600) % 24);
    int minutes = static_cast<int>((whole / 60) % 60);
    int secs = static_cast<int>(whole % 60);

    char buffer[kShortTextChars];
    int used = 0;
    auto append = [&](const char* format, auto... args) {
        if (used < kShortTextChars) {
            int n = snprintf(buffer + used, sizeof(buffer) - used, format, args...);
            if (n > 0) used = std::min(used + n, kShortTextChars - 1);
        }
    };
    buffer[0] = '\0';

    if (days >= 1) {
        append("%d day%s ", days, days == 1 ? "" : "s");
        if (hours == 0 && minutes == 0 && secs == 0 && precision == 0) {
            buffer[--used] = '\0';
            return buffer;
        }
    } else if (hours == 0 && minutes == 0) {
        if (precision == 0) {
            append("%ds", secs);
        } else if (secs > 0) {
            append("%d.%0*llds", secs, precision, fraction);
        } else if (precision == 3) {
            append("%lldms", fraction);
        } else if (precision == 6) {
            append("%lldus", fraction);
        } else if (precision == 9) {
            append("%lldns", fraction);
        } else {
            append("%d.%0*llds", secs, precision, fraction);
        }
        return buffer;
    }
    if (precision == 0) {
        append("%d:%02d:%02d", hours, minutes, secs);
    } else {
        append("%d:%02d:%02d.%0*lld", hours, minutes, secs, precision, fraction);
    }
    return buffer;
}

int HexDump(char* buffer, int bufferSize, const uint8_t* data, int dataSize, int bytesPerLine, int indent) {
    if (!buffer || bufferSize < 1) return 0;
    buffer[0] = '\0';
    if (!data && dataSize != 0) return 0;
    if (dataSize < 0) dataSize = 0;
    if (bytesPerLine < 1) bytesPerLine = 1;
    const int absIndent = indent < 0 ? -indent : indent;
    const int lineLength = absIndent + 4 * bytesPerLine + 10;
    const int linesThatFit = (bufferSize - 1) / lineLength;

    int used = 0;
    buffer[0] = '\0';
    // Bounded append; keeps room for the terminator whatever the offsets' width.
    auto put = [&](const char* format, auto... args) {
        if (used >= bufferSize - 1) return;
        int n = snprintf(buffer + used, static_cast<size_t>(bufferSize - used), format, args...);
        if (n > 0) used = std::min(used + n, bufferSize - 1);
    };

    int offset = 0;
    for (int line = 0; line < linesThatFit && (offset < dataSize || (dataSize == 0 && line == 0)); ++line) {
        int blanks = (indent < 0 && line == 0) ? 0 : absIndent;
        put("%*s0x%04x: ", blanks, "", offset);
        int count = std::min(bytesPerLine, dataSize - offset);
        for (int i = 0; i < bytesPerLine; ++i) {
            if (i < count) {
                put("%02X ", data[offset + i]);
            } else {
                put("   ");
            }
        }
        put(" ");
        for (int i = 0; i < bytesPerLine; ++i) {
            if (i < count) {
                int c = data[offset + i];
                put("%c", isprint(c) ? c : '.');
            } else {
                put(" ");
            }
        }
        put("\n");
        offset += count;
    }

    int freeChars = bufferSize - used;
    if (offset < dataSize && freeChars > 2) put("%.*s\n", freeChars - 2, "BUFFER TOO SMALL");
    buffer[used] = '\0';
    return used;
}

int FormatTimeStamp(char* buffer, int size, bool utc) {
    if (!buffer || size < 1) return 0;
    struct __timeb64 now;
    _ftime64(&now);
    struct tm parts {};
    bool split = utc ? _gmtime64_s(&parts, &now.time) == 0 : _localtime64_s(&parts, &now.time) == 0;
    if (!split) {
        buffer[0] = '\0';
        return 0;
    }
    int n = snprintf(buffer, static_cast<size_t>(size), "%04d-%02d-%02d%c%02d:%02d:%02d.%03d%s", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, utc ? 'T' : ' ', parts.tm_hour, parts.tm_min, parts.tm_sec,
                     static_cast<int>(now.millitm), utc ? "Z" : "");
    if (n < 0) return 0;
    return n >= size ? size - 1 : n;
}

std::string FormatTimeStamp(bool utc) {
    char buffer[kShortTextChars];
    FormatTimeStamp(buffer, sizeof(buffer), utc);
    return buffer;
}

std::wstring FormatTimeZoneText(uint32_t zoneId, const TIME_ZONE_INFORMATION& info) {
    const wchar_t* name;
    long bias;
    if (zoneId == TIME_ZONE_ID_STANDARD) {
        name = info.StandardName;
        bias = info.Bias + info.StandardBias;
    } else if (zoneId == TIME_ZONE_ID_DAYLIGHT) {
        name = info.DaylightName;
        bias = info.Bias + info.DaylightBias;
    } else {
        return std::wstring();
    }
    if (name[0] == L'\0') return std::wstring();
    // The platform counts the bias from local time to UTC, so the sign is the other way round.
    wchar_t sign = bias < 0 ? L'+' : L'-';
    long absBias = bias < 0 ? -bias : bias;
    int hours = static_cast<int>(absBias / 60);
    int minutes = static_cast<int>(absBias % 60);
    wchar_t buffer[kShortTextChars];
    if (minutes == 0) {
        swprintf(buffer, kShortTextChars, L"%ls (UTC %lc%d)", name, sign, hours);
    } else {
        swprintf(buffer, kShortTextChars, L"%ls (UTC %lc%d:%02d)", name, sign, hours, minutes);
    }
    return buffer;
}

std::wstring GetTimeZoneText() {
    TIME_ZONE_INFORMATION info{};
    DWORD id = GetTimeZoneInformation(&info);
    return FormatTimeZoneText(id, info);
}

uint32_t ParseLogLevel(const char* name, uint32_t defaultLevel) {
    static const char* const kNames[] = {"always", "error", "warn", "info", "debug", "trace", "verbose", "never"};
    if (name) {
        for (uint32_t i = 0; i < 8; ++i) {
            if (_stricmp(name, kNames[i]) == 0) return i;
        }
    }
    return defaultLevel < 8 ? defaultLevel : 3;
}

int FormatBufferV(char* buffer, int size, const char* format, va_list args) {
    if (!buffer || size < 1) return -1;
    int n = vsnprintf(buffer, static_cast<size_t>(size), format, args);
    if (n < 0) {
        buffer[0] = '\0';
        return -1;
    }
    return n >= size ? size - 1 : n;
}

int FormatBuffer(char* buffer, int size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int n = FormatBufferV(buffer, size, format, args);
    va_end(args);
    return n;
}

std::string FormatString(const char* format, ...) {
    std::string text(kFormatStringChars, '\0');
    va_list args;
    va_start(args, format);
    int n = FormatBufferV(&text[0], kFormatStringChars, format, args);
    va_end(args);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

// --- String tools ---

bool EndsWith(const char* text, const char* suffix, bool caseSensitive) {
    if (!text || !suffix) return false;
    size_t textLength = strlen(text);
    size_t suffixLength = strlen(suffix);
    if (suffixLength > textLength) return false;
    const char* tail = text + (textLength - suffixLength);
    return caseSensitive ? strcmp(tail, suffix) == 0 : _stricmp(tail, suffix) == 0;
}

const char* FindNoCase(const char* text, const char* pattern) {
    if (!pattern || !*pattern) return text;
    if (!text || !*text) return nullptr;
    for (const char* start = text; *start; ++start) {
        const char* t = start;
        const char* p = pattern;
        while (*t && *p && tolower(static_cast<unsigned char>(*t)) == tolower(static_cast<unsigned char>(*p))) {
            ++t;
            ++p;
        }
        if (!*p) return start;
    }
    return nullptr;
}

int CopyBounded(char* dest, const char* source, int count) {
    if (!dest) return 0;
    int copied = 0;
    if (source) {
        while (copied < count && source[copied] != '\0') {
            dest[copied] = source[copied];
            ++copied;
        }
    }
    dest[copied] = '\0';
    return copied;
}

}  // namespace StringUtils
