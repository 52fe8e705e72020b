// Blocking IPv4 socket over Winsock. Winsock is started by the first socket that needs it
// and cleaned up when the last of them goes.
#pragma once

#include <cstdint>

#include "foundation/rc_object.h"

class SySocket : public RCObject {
public:
    SySocket() = default;
    ~SySocket() override;

    bool Init(int type, int protocol);
    // On a datagram socket this only fixes the peer.
    bool Connect(const char* host, uint16_t port);
    // Total sent, 0 for an empty request, or the failing send's negative result.
    int32_t SendAll(const char* data, int length);

    bool IsInitialized() const { return initialized; }
    // Number of sockets that hold Winsock started.
    static int32_t GetStartupCount();

    SySocket(const SySocket&) = delete;
    SySocket& operator=(const SySocket&) = delete;

private:
    int64_t socket = -1;
    bool initialized = false;
    bool holdsStartup = false;
};
