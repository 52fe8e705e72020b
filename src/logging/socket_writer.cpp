#include "logging/socket_writer.h"

#include <winsock2.h>

#include <cstdlib>
#include <cstring>

#include "logging/logger.h"
#include "sysutil/string_utils.h"

namespace {
// Room for the longest NetBIOS computer name and its terminator.
constexpr DWORD kComputerNameBytes = 16;
}  // namespace

SocketWriter::SocketWriter() : LogWriter(kType) { SetBuffered(true); }

bool SocketWriter::SetSetting(const char* setting, const char* value) {
    if (!setting || !*setting || !value || !*value) return false;
    SyMutexGuard guard(&LogMutex());
    // Address and port are resolved once, when the logger starts.
    if (logger && logger->started) return false;
    const std::string name(setting);
    if (name == "remoteAddress") {
        remoteAddress = value;
        return true;
    }
    if (name == "remotePort") {
        remotePort = static_cast<uint16_t>(strtoul(value, nullptr, 0));
        return true;
    }
    return LogWriter::SetSetting(setting, value);
}

bool SocketWriter::GetSetting(const char* setting, std::string* value) {
    if (!setting || !value) return false;
    SyMutexGuard guard(&LogMutex());
    const std::string name(setting);
    if (name == "remoteAddress") {
        *value = remoteAddress;
        return true;
    }
    if (name == "remotePort") {
        *value = StringUtils::FormatString("%u", static_cast<unsigned>(remotePort));
        return true;
    }
    return LogWriter::GetSetting(setting, value);
}

bool SocketWriter::Open() {
    RCPtr<SySocket> created(new SySocket());
    if (!created->Init(SOCK_DGRAM, IPPROTO_UDP)) return false;
    socket = created;
    // UDP has no connection to lose: this fixes the peer, and a receiver that is away costs
    // only the datagrams.
    if (!socket->Connect(remoteAddress.c_str(), remotePort)) return false;
    if (logger) appName = logger->appName;
    if (appName.empty()) appName = "-";
    return true;
}

bool SocketWriter::Write(const RCPtr<LogMessage>& message) {
    if (!initialized || !message) return false;
    if (!socket) return true;
    const int length = static_cast<int>(strlen(message->text));
    // One datagram per message, line feed included.
    return socket->SendAll(message->text, length) == length;
}

bool SocketWriter::Close() {
    socket = nullptr;
    return true;
}

std::string SocketWriter::HostName(ComputerNameFn query) {
    char name[kComputerNameBytes] = {};
    DWORD size = kComputerNameBytes;
    if (!query || !query(name, &size)) return "-";
    return name;
}

int SocketWriter::FormatHeader(char* buffer, int size, const char*, int32_t) {
    SYSTEMTIME now;
    GetSystemTime(&now);
    const std::string host = HostName(GetComputerNameA);
    int length = StringUtils::FormatBuffer(buffer, size, "<1>1 %04d-%02d-%02dT%02d:%02d:%02d.%03dZ %s %s - - ",
                                           now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond,
                                           now.wMilliseconds, host.c_str(), appName.c_str());
    lastHeaderLength = length < 0 ? 0 : length;
    return lastHeaderLength;
}
