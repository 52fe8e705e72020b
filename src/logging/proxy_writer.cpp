#include "logging/proxy_writer.h"

#include <cstring>

#include "sysutil/string_utils.h"

namespace {
constexpr const char kPrefix[] = "@PROXY/";
constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
}  // namespace

int ProxyWriter::FormatHeader(char* buffer, int size, const char* function, int32_t level) {
    int length = StringUtils::FormatBuffer(buffer, size, "%s%c%s%c", kPrefix, static_cast<char>('0' + level),
                                           function ? function : "", '/');
    lastHeaderLength = length < 0 ? 0 : length;
    return lastHeaderLength;
}

bool ProxyWriter::Write(const RCPtr<LogMessage>& message) {
    if (!message) return false;
    const char* text = message->text;
    if (strncmp(text, kPrefix, kPrefixLength) != 0) {
        // Formatted by another writer: its header is part of the text.
        while (*text == ' ') ++text;
        return Forward("", LOG_ALWAYS, text);
    }
    const char* digit = text + kPrefixLength;
    if (*digit == '\0') return false;
    const char* function = digit + 1;
    const char* slash = strchr(function, '/');
    if (!slash) return false;
    // The message is shared with other writers and must stay as it is: the name is copied.
    char name[kLogMessageBytes];
    StringUtils::CopyBounded(name, function, static_cast<int>(slash - function));
    return Forward(name, *digit - '0', slash + 1);
}

bool ProxyWriter::Forward(const char* function, int32_t level, const char* text) {
    if (!proxy) return false;
    proxy(function, level, "%s", text);
    return true;
}

bool ProxyWriter::Close() {
    proxy = nullptr;
    return true;
}
