// The socket writer against a real syslog receiver (rsyslogd, started by syslog_receiver.sh): one
// datagram per message, whole, in the RFC 5424 form when the socket writer is the first writer in
// service and in the file form otherwise, and as many as were logged.
#include "logging/socket_writer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "logging/file_writer.h"
#include "logging/writer_files.h"
#include "support/log_wait.h"

namespace {

std::string Escape(const std::string& text) {
    return std::regex_replace(text, std::regex(R"([\\^$.|?*+()\[\]{}-])"), R"(\$&)");
}

// The lines of the receiver's file that hold the fragment, once there are as many as expected:
// the receiver writes what it got a moment later.
std::vector<std::string> AwaitLines(const std::string& variable, const std::string& fragment, size_t count) {
    std::vector<std::string> lines;
    WaitUntil(
        [&] {
            lines.clear();
            std::istringstream in(ReadWholeFile(getenv(variable.c_str())));
            for (std::string line; std::getline(in, line);) {
                if (line.find(fragment) != std::string::npos) lines.push_back(line);
            }
            return lines.size() >= count;
        },
        30000);
    return lines;
}

TEST(SocketWriterReceiver, TheReceiverGetsEveryMessageWholeInTheFormOfTheFirstWriterInService) {
    char computer[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = sizeof(computer);
    const std::string host = GetComputerNameA(computer, &size) ? computer : "";
    EXPECT_EQ(SocketWriter::HostName([](LPSTR, LPDWORD) -> BOOL { return FALSE; }), "-");
    const char* port = getenv("SYSLOG_TEST_PORT");
    if (!port) GTEST_SKIP() << "needs the receiver of syslog_receiver.sh";
    enum FileWriterState { kNone, kBroken, kLive };
    constexpr int kMessages = 60;
    for (FileWriterState state : {kNone, kBroken, kLive}) {
        SCOPED_TRACE(state);
        const std::string app = "app-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(state);
        ScratchFolder folder("syslog");
        RCPtr<Logger> logger = LooseLogger(app);
        if (state != kNone) {
            RCPtr<LogWriter> file = logger->AddWriter(FileWriter::kType);
            ASSERT_TRUE(file && file->SetSetting("folderPath", state == kLive ? folder.Path().c_str() : "C:\\no\\such\\"));
        }
        RCPtr<LogWriter> socket = logger->AddWriter(SocketWriter::kType);
        ASSERT_TRUE(socket && socket->SetSetting("remoteAddress", "127.0.0.1") &&
                    socket->SetSetting("remotePort", port));
        EXPECT_TRUE(socket->IsBuffered()) << "network I/O belongs to the poll thread";
        ASSERT_TRUE(logger->Start());
        // The last message has two lines, and goes as one datagram.
        for (int i = 0; i < kMessages; ++i) {
            logger->Write("Test::Syslog()", LOG_INFO, i + 1 < kMessages ? "%s line %d\n" : "%s line %d\nof two\n", app.c_str(), i);
        }
        logger->Shutdown();

        const std::string prefix =
            state == kLive ? R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] I Test::Syslog\(\): )"
                           : R"(<1>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )" + Escape(host) + " " + Escape(app) + " - - ";
        const std::vector<std::string> raw = AwaitLines("SYSLOG_TEST_RAW", app + " line ", kMessages);
        ASSERT_EQ(raw.size(), static_cast<size_t>(kMessages));
        for (int i = 0; i < kMessages; ++i) {
            const std::string tail = i + 1 < kMessages ? "" : "#012of two";
            EXPECT_TRUE(std::regex_match(raw[i], std::regex(prefix + Escape(app) + " line " + std::to_string(i) + tail))) << raw[i];
        }
        if (state == kLive) {
            const std::string inFile = ReadWholeFile(folder.Path() + folder.Files().at(0));
            for (const std::string& line : raw) {
                EXPECT_NE(inFile.find(std::regex_replace(line, std::regex("#012"), "\r\n") + "\r\n"), std::string::npos) << line;
            }
            continue;
        }
        // The receiver parsed them as RFC 5424 messages of this host and application.
        const std::vector<std::string> fields = AwaitLines("SYSLOG_TEST_FIELDS", "|" + app + "|", kMessages + 1);
        ASSERT_GT(fields.size(), static_cast<size_t>(kMessages));
        for (const std::string& line : fields) EXPECT_EQ(line.rfind("1|" + host + "|" + app + "|-|-|", 0), 0u) << line;
        EXPECT_NE(fields.back().find("*** LOG FILE COMPLETE ***"), std::string::npos) << "the last line comes last";
    }
}

}  // namespace
