#include "sim/soak_log.h"

#include <windows.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "logging/fido2_logger.h"
#include "logging/log_message.h"

namespace sim {

namespace {

constexpr uint64_t kMB = 1024 * 1024;
constexpr DWORD kRollingFiles = 4;
// A roll is checked after each batch of writes, so a file ends up to one batch above the limit.
constexpr uint64_t kLargestRolled = 2 * kMB;

struct LogFile {
    int number;
    uint64_t bytes;
    std::string name;
};

// The files of the folder by their number: "(N)" in the name, none for a first file at a
// level that leaves it out.
std::vector<LogFile> LogFiles(const std::string& folder) {
    std::vector<LogFile> files;
    WIN32_FIND_DATAA found;
    HANDLE find = FindFirstFileA((folder + "\\*.log").c_str(), &found);
    if (find == INVALID_HANDLE_VALUE) return files;
    do {
        const char* open = strchr(found.cFileName, '(');
        files.push_back(LogFile{open ? atoi(open + 1) : 1,
                                (static_cast<uint64_t>(found.nFileSizeHigh) << 32) | found.nFileSizeLow,
                                found.cFileName});
    } while (FindNextFileA(find, &found));
    FindClose(find);
    std::sort(files.begin(), files.end(), [](const LogFile& a, const LogFile& b) { return a.number < b.number; });
    return files;
}

std::wstring PluginKey() {
    const std::string key = Fido2Logger::kRegistryPath;
    return std::wstring(key.begin(), key.end());
}

bool WriteText(const wchar_t* name, const std::string& value) {
    std::wstring wide(value.begin(), value.end());
    return WriteHklmValue(PluginKey(), name, REG_SZ, wide.c_str(),
                          static_cast<DWORD>((wide.size() + 1) * sizeof(wchar_t)));
}

bool WriteNumber(const wchar_t* name, DWORD value) {
    return WriteHklmValue(PluginKey(), name, REG_DWORD, &value,
                          sizeof(value));
}

}  // namespace

SyslogSink::SyslogSink() {
    WSADATA data;
    started = WSAStartup(MAKEWORD(2, 2), &data) == 0;
    if (!started) return;
    socket = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int length = sizeof(address);
    if (socket == INVALID_SOCKET || bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return;
    }
    port = ntohs(address.sin_port);
    // A VERBOSE round comes in a burst; the pool's size lines must not be lost to a full buffer.
    int buffer = 4 * 1024 * 1024;
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&buffer), sizeof(buffer));
    receiver = std::thread([this] { Receive(); });
}

SyslogSink::~SyslogSink() {
    // Closing the socket ends the receiver's wait.
    if (socket != INVALID_SOCKET) closesocket(socket);
    if (receiver.joinable()) receiver.join();
    if (started) WSACleanup();
}

void SyslogSink::Receive() {
    static const char kPoolSize[] = "Log message cache size is ";
    char datagram[2048];
    for (;;) {
        int received = recv(socket, datagram, sizeof(datagram) - 1, 0);
        if (received == SOCKET_ERROR) {
            if (WSAGetLastError() == WSAEMSGSIZE) continue;
            return;
        }
        if (received <= 0 || datagram[received - 1] != '\n') continue;
        ++lines;
        datagram[received] = 0;
        // The pool's own line rides in front of the next message, so it may be anywhere.
        if (const char* size = strstr(datagram, kPoolSize)) poolMessages = strtoull(size + sizeof(kPoolSize) - 1, nullptr, 10);
    }
}

SoakLog::SoakLog(const std::string& logFolder) : folder(logFolder) {
    CreateDirectoryA(folder.c_str(), nullptr);
    for (const LogFile& file : LogFiles(folder)) DeleteFileA((folder + "\\" + file.name).c_str());
}

bool SoakLog::Configure(std::ostream& err) {
    bool ok = isolation.IsActive() && sink.Listening() && WriteText(L"logLevel", "VERBOSE") &&
              WriteNumber(L"logMaxFileSizeMB", 1) && WriteNumber(L"logMaxRollingFiles", kRollingFiles) &&
              WriteText(L"logDirectory", folder) && WriteNumber(L"logToSyslog", 1) &&
              WriteText(L"logRemoteAddress", "127.0.0.1") && WriteNumber(L"logRemotePort", sink.Port());
    if (!ok) err << "soak: the log's registry values or the syslog sink could not be set up\n";
    return ok;
}

uint64_t SoakLog::PoolBytes() const {
    return sink.PoolMessages() / LogMessageBlock::kMessages * sizeof(LogMessageBlock);
}

bool SoakLog::Check(std::ostream& out, std::ostream& err) {
    std::vector<LogFile> files = LogFiles(folder);
    bool ok = true;
    auto fail = [&](const std::string& what) {
        err << "soak: log: " << what << "\n";
        ok = false;
    };
    if (files.size() < 2) fail("the log never rolled");
    // The first file stays; of the rolled ones only the newest few, in an unbroken run.
    if (files.size() > kRollingFiles + 1) fail(std::to_string(files.size()) + " files: rolled ones were not deleted");
    if (!files.empty() && files[0].number != 1) fail("the first file is gone");
    for (size_t i = 2; i < files.size(); ++i) {
        if (files[i].number != files[i - 1].number + 1) fail("rolled files kept are not the newest");
    }
    uint64_t largest = 0;
    for (size_t i = 0; i + 1 < files.size(); ++i) {
        if (files[i].bytes < kMB || files[i].bytes >= kLargestRolled) fail(files[i].name + " rolled away from 1 MB");
        largest = std::max(largest, files[i].bytes);
    }
    if (sink.Lines() == 0) fail("the syslog receiver got no line");
    out << "log: " << files.size() << " files in " << folder << ", pool " << sink.PoolMessages()
        << " messages, newest number "
        << (files.empty() ? 0 : files.back().number) << ", largest rolled " << largest << " bytes; syslog lines "
        << sink.Lines() << "\n";
    return ok;
}

}  // namespace sim
