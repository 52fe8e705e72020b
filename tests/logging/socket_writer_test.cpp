// The socket writer: its settings and line prefix, and what a real syslog receiver (rsyslogd,
// started by tests/logging/syslog_receiver.sh) gets: one datagram per message, whole, in the
// RFC 5424 form when the socket writer is the first writer in service and in the file form
// otherwise, and as many as were logged.
#include "logging/socket_writer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "logging/file_writer.h"
#include "logging/writer_files.h"

namespace {

BOOL WINAPI ComputerNameFails(LPSTR, LPDWORD) {
    SetLastError(ERROR_BUFFER_OVERFLOW);
    return FALSE;
}

std::string Escape(const std::string& text) {
    return std::regex_replace(text, std::regex(R"([\\^$.|?*+()\[\]{}-])"), R"(\$&)");
}

std::string ComputerName() {
    char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = sizeof(name);
    return GetComputerNameA(name, &size) ? name : "";
}

// Port and address stand until the logger starts (the settings' test shows that through the
// registry); here what the registry can't give: a port by base detection, and empty values.
TEST(SocketWriterSettings, PortByBaseEmptyValuesRefusedAndAHostThatCantBeReadIsADash) {
    RCPtr<Logger> logger = LooseLogger("settings");
    RCPtr<LogWriter> writer = logger->AddWriter(SocketWriter::kType);
    ASSERT_TRUE(writer);
    EXPECT_TRUE(writer->IsBuffered()) << "network I/O belongs to the poll thread";
    std::string port, address;
    EXPECT_TRUE(writer->SetSetting("remotePort", "0x202") && writer->GetSetting("remotePort", &port));
    EXPECT_EQ(port, "514");
    EXPECT_FALSE(writer->SetSetting("remoteAddress", "") || writer->SetSetting("", "1"));
    EXPECT_FALSE(writer->SetSetting("x", "1"));
    EXPECT_TRUE(writer->GetSetting("remoteAddress", &address) && address == SocketWriter::kDefaultAddress) << address;
    EXPECT_EQ(SocketWriter::HostName(ComputerNameFails), "-");
    EXPECT_EQ(SocketWriter::HostName(GetComputerNameA), ComputerName());
}

// The receiver's port and files, as syslog_receiver.sh gives them; false when run without it.
struct Receiver {
    uint16_t port = 0;
    std::string rawPath, fieldsPath;

    bool FromEnvironment() {
        char text[MAX_PATH] = {};
        if (!GetEnvironmentVariableA("SYSLOG_TEST_PORT", text, sizeof(text))) return false;
        port = static_cast<uint16_t>(atoi(text));
        GetEnvironmentVariableA("SYSLOG_TEST_RAW", text, sizeof(text));
        rawPath = text;
        GetEnvironmentVariableA("SYSLOG_TEST_FIELDS", text, sizeof(text));
        fieldsPath = text;
        return port != 0;
    }
};

std::vector<std::string> LinesWith(const std::string& path, const std::string& fragment) {
    std::vector<std::string> lines;
    std::istringstream in(ReadWholeFile(path));
    for (std::string line; std::getline(in, line);) {
        if (line.find(fragment) != std::string::npos) lines.push_back(line);
    }
    return lines;
}

// The receiver writes what it got a moment later: waits until the count is there.
std::vector<std::string> AwaitLines(const std::string& path, const std::string& fragment, size_t count) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::vector<std::string> lines;
    while ((lines = LinesWith(path, fragment)).size() < count && std::chrono::steady_clock::now() < deadline) Sleep(50);
    return lines;
}

TEST(SocketWriterReceiver, TheReceiverGetsEveryMessageWholeInTheFormOfTheFirstWriterInService) {
    Receiver receiver;
    if (!receiver.FromEnvironment()) GTEST_SKIP() << "needs the receiver of syslog_receiver.sh";
    enum FileWriterState { kNone, kBroken, kLive };
    const struct {
        const char* what;
        FileWriterState file;
    } rows[] = {
        {"socket writer alone: RFC 5424", kNone},
        {"file writer out of service before it: RFC 5424", kBroken},
        {"live file writer before it: the file's lines", kLive},
    };
    constexpr int kMessages = 60;
    const std::string host = ComputerName();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const std::string app = "app-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(row.file);
        ScratchFolder folder("syslog");
        RCPtr<Logger> logger = LooseLogger(app);
        if (row.file != kNone) {
            RCPtr<LogWriter> file = logger->AddWriter(FileWriter::kType);
            ASSERT_TRUE(file);
            file->SetSetting("folderPath", row.file == kLive ? folder.Path().c_str() : "C:\\no\\such\\folder\\");
        }
        RCPtr<LogWriter> socket = logger->AddWriter(SocketWriter::kType);
        ASSERT_TRUE(socket && socket->SetSetting("remoteAddress", "127.0.0.1") &&
                    socket->SetSetting("remotePort", std::to_string(receiver.port).c_str()));
        ASSERT_TRUE(logger->Start());
        for (int i = 0; i < kMessages; ++i) logger->Write("Test::Syslog()", LOG_INFO, "%s line %d\n", app.c_str(), i);
        logger->Write("Test::Syslog()", LOG_WARN, "%s multi\nsecond of multi\n", app.c_str());
        logger->Shutdown();

        const std::string prefix =
            row.file == kLive
                ? R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] [IW] Test::Syslog\(\): )"
                : R"(<1>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )" + Escape(host) + " " + Escape(app) + " - - ";
        std::vector<std::string> raw = AwaitLines(receiver.rawPath, app + " line ", kMessages);
        ASSERT_EQ(raw.size(), static_cast<size_t>(kMessages));
        for (int i = 0; i < kMessages; ++i) {
            EXPECT_TRUE(std::regex_match(raw[i], std::regex(prefix + Escape(app) + " line " + std::to_string(i))))
                << "whole and in order: " << raw[i];
        }
        std::vector<std::string> multi = AwaitLines(receiver.rawPath, app + " multi", 1);
        ASSERT_EQ(multi.size(), 1u) << "a message of two lines is one datagram";
        EXPECT_TRUE(std::regex_match(multi[0], std::regex(prefix + Escape(app) + " multi#012second of multi"))) << multi[0];
        if (row.file == kLive) {
            const std::vector<std::string> inFile = LinesWith(folder.Path() + folder.Files().at(0), app + " line ");
            ASSERT_EQ(inFile.size(), raw.size());
            for (size_t i = 0; i < raw.size(); ++i) EXPECT_EQ(raw[i] + "\r", inFile[i]) << "the same bytes as the file's";
            continue;
        }
        // The receiver parsed them as RFC 5424 messages of this host and application.
        std::vector<std::string> fields = AwaitLines(receiver.fieldsPath, "|" + app + "|", kMessages + 1);
        size_t numbered = 0;
        for (const std::string& line : fields) {
            EXPECT_EQ(line.rfind("1|" + host + "|" + app + "|-|-|", 0), 0u) << line;
            numbered += line.find(app + " line ") != std::string::npos;
        }
        EXPECT_EQ(numbered, static_cast<size_t>(kMessages));
        ASSERT_FALSE(fields.empty());
        EXPECT_NE(fields.back().find("*** LOG FILE COMPLETE ***"), std::string::npos) << "the last line comes last";
    }
}

}  // namespace
