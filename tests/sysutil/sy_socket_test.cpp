#include "sysutil/sy_socket.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "support/log_capture.h"

namespace {

TEST(SySocketStartup, WinsockIsCleanedUpWhenTheLastSocketGoes) {
    ScopedLogCapture log;
    ASSERT_EQ(SySocket::GetStartupCount(), 0);
    auto first = std::make_unique<SySocket>(), second = std::make_unique<SySocket>();
    ASSERT_TRUE(first->Init(SOCK_DGRAM, IPPROTO_UDP));
    EXPECT_TRUE(first->Init(SOCK_DGRAM, IPPROTO_UDP)) << "a second Init is a success";
    EXPECT_EQ(log->Count("SySocket is already initialized.\n"), 1u);
    EXPECT_EQ(SySocket::GetStartupCount(), 1) << "and takes no second start-up";
    ASSERT_TRUE(second->Init(SOCK_DGRAM, IPPROTO_UDP));
    EXPECT_EQ(SySocket::GetStartupCount(), 2);

    first.reset();
    EXPECT_EQ(SySocket::GetStartupCount(), 1);
    SOCKET probe = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_NE(probe, INVALID_SOCKET) << "Winsock must still be up for the second socket";
    if (probe != INVALID_SOCKET) closesocket(probe);

    second.reset();
    EXPECT_EQ(SySocket::GetStartupCount(), 0);
    probe = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    EXPECT_EQ(probe, INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED) << "the last socket must have cleaned Winsock up";
}

TEST(SySocketFailures, AFailedSendIsLoggedAndAFailedCreationKeepsTheStartup) {
    ScopedLogCapture log(LOG_VERBOSE);
    {
        SySocket stream;
        ASSERT_TRUE(stream.Init(SOCK_STREAM, IPPROTO_TCP));
        EXPECT_LT(stream.SendAll("data", 4), 0) << "a stream socket that never connected can't send";
    }
    // The code differs between systems (not connected, or reset); the form and level do not.
    std::vector<CapturedLine> sends;
    for (const CapturedLine& line : log->Lines()) {
        if (line.function == "SySocket::SendAll()") sends.push_back(line);
    }
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].level, LOG_ERROR);
    EXPECT_TRUE(std::regex_match(sends[0].text, std::regex(R"(SendAll\(\) failed\.; \(100\d\d\) \S.*\n)"))) << sends[0].text;
    {
        SySocket bad;
        EXPECT_FALSE(bad.Init(SOCK_DGRAM, IPPROTO_TCP));
        EXPECT_FALSE(bad.IsInitialized());
        EXPECT_EQ(log->Count("Socket creation failed.; ("), 1u);
        EXPECT_EQ(SySocket::GetStartupCount(), 1);
    }
    EXPECT_EQ(SySocket::GetStartupCount(), 0);
}

}  // namespace
