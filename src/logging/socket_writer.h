// Sends each message as one UDP datagram to a syslog receiver. When it is the first writer in
// service, the lines carry the RFC 5424 prefix; otherwise the line of the writer before it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "logging/log_writer.h"
#include "sysutil/sy_socket.h"

class SocketWriter : public LogWriter {
public:
    static constexpr int32_t kType = 3;
    static constexpr uint16_t kDefaultPort = 514;
    static constexpr const char* kDefaultAddress = "localhost";

    using ComputerNameFn = BOOL(WINAPI*)(LPSTR, LPDWORD);

    SocketWriter();

    bool SetSetting(const char* setting, const char* value) override;
    bool GetSetting(const char* setting, std::string* value) override;
    bool Open() override;
    bool Write(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    // "<1>1 time host app - - ": one priority for every level, the time in UTC.
    int FormatHeader(char* buffer, int size, const char* function, int32_t level) override;

    // The host name of the line, by the query given: "-" when it can't be read.
    static std::string HostName(ComputerNameFn query);

    const std::string& GetAppName() const { return appName; }

private:
    std::string appName;
    std::string remoteAddress = kDefaultAddress;
    uint16_t remotePort = kDefaultPort;
    RCPtr<SySocket> socket;
};
