#include "sysutil/sy_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include "foundation/sy_mutex.h"
#include "logging/log.h"

namespace {
int32_t startupCount = 0;
// Built with the other globals at load time.
SyMutex startupLock(false, "");
}  // namespace

int32_t SySocket::GetStartupCount() {
    SyMutexGuard guard(&startupLock);
    return startupCount;
}

bool SySocket::Init(int type, int protocol) {
    if (initialized) {
        SY_LOG(LOG_DEBUG, "SySocket::Init()", "SySocket is already initialized.\n");
        return true;
    }
    if (!holdsStartup) {
        SyMutexGuard guard(&startupLock);
        if (startupCount == 0) {
            WSADATA wsaData;
            int rc = WSAStartup(MAKEWORD(2, 0), &wsaData);
            if (rc != 0) {
                WSASetLastError(rc);
                SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::Init()", "Unable to load WinSock DLL.\n");
                return false;
            }
        }
        ++startupCount;
        holdsStartup = true;
    }
    SOCKET s = ::socket(AF_INET, type, protocol);
    if (s == INVALID_SOCKET) {
        // The start-up count stays taken; the destructor gives it back.
        SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::Init()", "Socket creation failed.\n");
        return false;
    }
    socket = static_cast<int64_t>(s);
    initialized = true;
    return true;
}

bool SySocket::Connect(const char* host, uint16_t port) {
    hostent* entry = gethostbyname(host);
    if (!entry || entry->h_addrtype != AF_INET || !entry->h_addr_list || !entry->h_addr_list[0]) {
        SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::Connect()", "Failed to resolve name.\n");
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    memcpy(&address.sin_addr, entry->h_addr_list[0], sizeof(address.sin_addr));
    address.sin_port = htons(port);
    if (connect(static_cast<SOCKET>(socket), reinterpret_cast<sockaddr*>(&address), sizeof(address)) < 0) {
        SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::Connect()", "Connect failed.\n");
        return false;
    }
    return true;
}

int32_t SySocket::SendAll(const char* data, int length) {
    if (length < 1) return 0;
    int total = 0;
    while (total < length) {
        int sent = send(static_cast<SOCKET>(socket), data + total, length - total, 0);
        if (sent < 0) {
            SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::SendAll()", "SendAll() failed.\n");
            return sent;
        }
        total += sent;
    }
    return total;
}

SySocket::~SySocket() {
    if (socket != -1) {
        if (closesocket(static_cast<SOCKET>(socket)) != 0) {
            SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::~SySocket()", "Close socket error.\n");
        }
        socket = -1;
    }
    if (holdsStartup) {
        SyMutexGuard guard(&startupLock);
        if (--startupCount == 0 && WSACleanup() != 0) {
            SY_LOG_SOCKET_ERROR(LOG_ERROR, "SySocket::~SySocket()", "WSACleaup Failed.\n");
        }
        holdsStartup = false;
    }
}
