// The soak's log, set as an administrator sets it: registry values under the plug-in's key ask
// for VERBOSE, files rolled at 1 MB and every line also to syslog, here to a UDP sink in this
// process. The values go to a private key that stands in for HKEY_LOCAL_MACHINE in this
// process only, so other programs of the same prefix keep their own log.
#pragma once

#include <winsock2.h>

#include <atomic>
#include <cstdint>
#include <ostream>
#include <string>
#include <thread>

#include "sim/registry_isolation.h"

namespace sim {

// Counts the syslog datagrams that arrive on a free loopback port.
class SyslogSink {
public:
    SyslogSink();
    ~SyslogSink();
    bool Listening() const { return port != 0; }
    uint16_t Port() const { return port; }
    // Datagrams of whole lines: one message each, its line feed included.
    uint64_t Lines() const { return lines; }
    // Messages in the log's pool, by the last line on its size that came by.
    uint64_t PoolMessages() const { return poolMessages; }

    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

private:
    void Receive();

    bool started = false;
    SOCKET socket = INVALID_SOCKET;
    uint16_t port = 0;
    std::atomic<uint64_t> lines{0};
    std::atomic<uint64_t> poolMessages{0};
    std::thread receiver;
};

class SoakLog {
public:
    // folder: where the plug-in's files go; emptied of earlier log files first.
    explicit SoakLog(const std::string& folder);

    // Before the plug-in starts its logger.
    bool Configure(std::ostream& err);
    // After the plug-in's exit, which writes the last line: the files rolled at 1 MB, no more
    // of them than the rolling keeps, and the sink got lines.
    bool Check(std::ostream& out, std::ostream& err);
    // The heap that the log's message pool holds now. The pool grows by blocks to the largest
    // queue a lagging writer ever had and gives them back only after ten idle minutes, so a
    // soak counts it apart from what it judges for leaks.
    uint64_t PoolBytes() const;

private:
    std::string folder;
    ScopedHklmOverride isolation;
    SyslogSink sink;
};

}  // namespace sim
