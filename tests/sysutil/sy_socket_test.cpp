#include "sysutil/sy_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "sysutil/sy_guid.h"

namespace {

// A UDP receiver on 127.0.0.1 with its own hold on Winsock.
class UdpReceiver {
public:
    UdpReceiver() {
        WSADATA data;
        started = WSAStartup(MAKEWORD(2, 2), &data) == 0;
        sock = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        int length = sizeof(address);
        getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        DWORD timeout = 5000;
        setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof(timeout));
    }
    ~UdpReceiver() {
        closesocket(sock);
        if (started) WSACleanup();
    }
    std::string Receive() {
        char buffer[2048];
        int n = recv(sock, buffer, sizeof(buffer), 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }
    bool started;
    SOCKET sock;
    uint16_t port = 0;
};

TEST(SySocketUdp, DatagramReachesALoopbackReceiver) {
    UdpReceiver receiver;
    ASSERT_TRUE(receiver.started);
    ASSERT_NE(receiver.port, 0);
    RCPtr<SySocket> sender(new SySocket);
    ASSERT_TRUE(sender->Init(SOCK_DGRAM, IPPROTO_UDP));
    ASSERT_TRUE(sender->Connect("127.0.0.1", receiver.port));
    EXPECT_EQ(sender->SendAll("<134>hello", 10), 10);
    EXPECT_EQ(receiver.Receive(), "<134>hello");
    EXPECT_EQ(sender->SendAll("ignored", 0), 0);
    EXPECT_EQ(sender->SendAll("ignored", -5), 0);
    ASSERT_TRUE(sender->Connect("localhost", receiver.port));
    EXPECT_EQ(sender->SendAll("again", 5), 5);
    EXPECT_EQ(receiver.Receive(), "again");
}

TEST(SySocketStartup, WinsockIsCleanedUpWhenTheLastSocketGoes) {
    ScopedLogCapture log;
    ASSERT_EQ(SySocket::GetStartupCount(), 0);
    auto* first = new SySocket;
    auto* second = new SySocket;
    ASSERT_TRUE(first->Init(SOCK_DGRAM, IPPROTO_UDP));
    EXPECT_TRUE(first->Init(SOCK_DGRAM, IPPROTO_UDP)) << "a second Init is a success";
    EXPECT_EQ(log->Count("SySocket is already initialized.\n"), 1u);
    EXPECT_EQ(SySocket::GetStartupCount(), 1) << "and takes no second start-up";
    ASSERT_TRUE(second->Init(SOCK_DGRAM, IPPROTO_UDP));
    EXPECT_EQ(SySocket::GetStartupCount(), 2);

    delete first;
    EXPECT_EQ(SySocket::GetStartupCount(), 1);
    SOCKET probe = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_NE(probe, INVALID_SOCKET) << "Winsock must still be up for the second socket";
    if (probe != INVALID_SOCKET) closesocket(probe);

    delete second;
    EXPECT_EQ(SySocket::GetStartupCount(), 0);
    probe = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_EQ(probe, INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED) << "the last socket must have cleaned Winsock up";
}

TEST(SySocketFailures, FailedSendsAreLoggedAndAFailedCreationKeepsTheStartup) {
    ScopedLogCapture log(LOG_VERBOSE);
    {
        SySocket stream;
        ASSERT_TRUE(stream.Init(SOCK_STREAM, IPPROTO_TCP));
        EXPECT_LT(stream.SendAll("data", 4), 0) << "a stream socket that never connected can't send";
    }
    std::vector<CapturedLine> sends;
    for (const CapturedLine& line : log->Lines()) {
        if (line.function == "SySocket::SendAll()") sends.push_back(line);
    }
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].level, LOG_ERROR);
    // The code differs between systems (not connected, or reset); the form does not.
    EXPECT_TRUE(std::regex_match(sends[0].text, std::regex(R"(SendAll\(\) failed\.; \(100\d\d\) \S.*\n)")))
        << sends[0].text;
    {
        SySocket bad;
        EXPECT_FALSE(bad.Init(SOCK_DGRAM, IPPROTO_TCP));
        EXPECT_FALSE(bad.IsInitialized());
        EXPECT_EQ(log->Count("Socket creation failed.; ("), 1u);
        EXPECT_EQ(SySocket::GetStartupCount(), 1);
    }
    EXPECT_EQ(SySocket::GetStartupCount(), 0);
}

TEST(GuidText, PrintsUpperCaseWithoutBraces) {
    EXPECT_EQ(Syguid(0, 0).ToString(), "00000000-0000-0000-0000-000000000000");
    // Bytes 00 11 22 .. FF in memory order.
    Syguid sequence(0x7766554433221100ULL, 0xFFEEDDCCBBAA9988ULL);
    EXPECT_EQ(sequence.Data1, 0x33221100u);
    EXPECT_EQ(sequence.Data2, 0x5544);
    EXPECT_EQ(sequence.Data3, 0x7766);
    EXPECT_EQ(sequence.ToString(), "33221100-5544-7766-8899-AABBCCDDEEFF");
}

}  // namespace
