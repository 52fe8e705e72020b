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
#include "logging/logger.h"
#include "logging/recording_writer.h"
#include "logging/writer_files.h"

namespace {

RCPtr<Logger> NewLogger(const std::string& appName) {
    return RCPtr<Logger>(new Logger(appName, appName, RCPtr<LogMessageManager>(new LogMessageManager)));
}

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

TEST(SocketWriterSettings, AddressAndPortUntilTheLoggerStarts) {
    struct Row {
        const char* name;
        const char* value;
        bool accepted;
        const char* read;
    };
    const Row rows[] = {
        {"remotePort", "70000", true, "4464"},
        {"remotePort", "0x202", true, "514"},
        {"remotePort", "65535", true, "65535"},
        {"remoteAddress", "syslog.example.com", true, "syslog.example.com"},
        {"remoteAddress", "", false, "syslog.example.com"},
        {"", "1", false, nullptr},
        {"other", "1", false, nullptr},
    };
    RCPtr<Logger> logger = NewLogger("settings");
    RCPtr<LogWriter> writer = logger->AddWriter(SocketWriter::kType);
    ASSERT_TRUE(writer);
    std::string value;
    ASSERT_TRUE(writer->GetSetting("remotePort", &value));
    EXPECT_EQ(value, "514");
    EXPECT_TRUE(writer->IsBuffered()) << "network I/O belongs to the poll thread";
    for (const Row& row : rows) {
        EXPECT_EQ(writer->SetSetting(row.name, row.value), row.accepted) << row.name << "=" << row.value;
        if (!row.read) continue;
        ASSERT_TRUE(writer->GetSetting(row.name, &value));
        EXPECT_EQ(value, row.read) << row.name << "=" << row.value;
    }
    EXPECT_FALSE(writer->GetSetting("other", &value));

    // Started (with a writer of its own, since that address needn't resolve): fixed.
    writer->SetSetting("remoteAddress", "127.0.0.1");
    ASSERT_TRUE(logger->AttachWriter(RCPtr<LogWriter>(new RecordingWriter(4))));
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(writer->SetSetting("remoteAddress", "elsewhere"));
    EXPECT_FALSE(writer->SetSetting("remotePort", "99"));
    ASSERT_TRUE(writer->GetSetting("remoteAddress", &value));
    EXPECT_EQ(value, "127.0.0.1");
    ASSERT_TRUE(writer->GetSetting("remotePort", &value));
    EXPECT_EQ(value, "65535");
    logger->Shutdown();
}

TEST(SocketWriterHeader, PrefixWithUtcTimeHostAndApplicationForEveryLevel) {
    EXPECT_EQ(SocketWriter::HostName(ComputerNameFails), "-");
    EXPECT_EQ(SocketWriter::HostName(nullptr), "-");
    EXPECT_EQ(SocketWriter::HostName(GetComputerNameA), ComputerName());

    RCPtr<SocketWriter> writer(new SocketWriter());
    const std::string host = Escape(ComputerName());
    for (int32_t level : {LOG_ALWAYS, LOG_ERROR, LOG_INFO, LOG_VERBOSE}) {
        char buffer[kLogMessageBytes];
        int length = writer->FormatHeader(buffer, sizeof(buffer), "Test::Ignored()", level);
        EXPECT_EQ(length, static_cast<int>(strlen(buffer)));
        EXPECT_EQ(writer->GetLastHeaderLength(), length);
        EXPECT_TRUE(std::regex_match(
            buffer, std::regex(R"(<1>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )" + host + R"( (-)? - - )")))
            << buffer;
    }
}

// ---- against the receiver ----

struct Receiver {
    uint16_t port = 0;
    std::string rawPath;
    std::string fieldsPath;
};

bool ReceiverFromEnvironment(Receiver* receiver) {
    char text[MAX_PATH] = {};
    if (!GetEnvironmentVariableA("SYSLOG_TEST_PORT", text, sizeof(text))) return false;
    receiver->port = static_cast<uint16_t>(atoi(text));
    GetEnvironmentVariableA("SYSLOG_TEST_RAW", text, sizeof(text));
    receiver->rawPath = text;
    GetEnvironmentVariableA("SYSLOG_TEST_FIELDS", text, sizeof(text));
    receiver->fieldsPath = text;
    return receiver->port != 0;
}

std::vector<std::string> LinesWith(const std::string& path, const std::string& fragment) {
    std::vector<std::string> lines;
    std::istringstream in(ReadWholeFile(path));
    for (std::string line; std::getline(in, line);) {
        if (line.find(fragment) != std::string::npos) lines.push_back(line);
    }
    return lines;
}

// The receiver writes what it got a moment later; waits until the count is there, then a
// little more to see that no further line comes.
std::vector<std::string> AwaitLines(const std::string& path, const std::string& fragment, size_t count) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::vector<std::string> lines;
    while ((lines = LinesWith(path, fragment)).size() < count && std::chrono::steady_clock::now() < deadline) {
        Sleep(50);
    }
    return lines;
}

RCPtr<LogWriter> AddSocketWriter(const RCPtr<Logger>& logger, const Receiver& receiver) {
    RCPtr<LogWriter> writer = logger->AddWriter(SocketWriter::kType);
    EXPECT_TRUE(writer);
    writer->SetSetting("remoteAddress", "127.0.0.1");
    writer->SetSetting("remotePort", std::to_string(receiver.port).c_str());
    return writer;
}

constexpr int kMessages = 60;

void LogNumbered(const RCPtr<Logger>& logger, const std::string& tag) {
    for (int i = 0; i < kMessages; ++i) logger->Write("Test::Syslog()", LOG_INFO, "%s line %d\n", tag.c_str(), i);
    logger->Write("Test::Syslog()", LOG_WARN, "%s multi\nsecond of multi\n", tag.c_str());
}

class SocketWriterReceiver : public testing::Test {
protected:
    void SetUp() override {
        if (!ReceiverFromEnvironment(&receiver)) GTEST_SKIP() << "needs the receiver of syslog_receiver.sh";
        tag = "tag" + std::to_string(GetCurrentProcessId()) + "-" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    Receiver receiver;
    std::string tag;
};

TEST_F(SocketWriterReceiver, AsTheFirstWriterInServiceLinesArriveInTheRfc5424Form) {
    struct Row {
        const char* what;
        bool brokenFileWriter;  // a file writer before it that didn't come up
    };
    for (const Row& row : {Row{"socket writer alone", false}, Row{"file writer out of service", true}}) {
        const std::string app = "app-" + tag + (row.brokenFileWriter ? "-b" : "-a");
        RCPtr<Logger> logger = NewLogger(app);
        if (row.brokenFileWriter) {
            RCPtr<LogWriter> file = logger->AddWriter(FileWriter::kType);
            ASSERT_TRUE(file);
            file->SetSetting("folderPath", "C:\\no\\such\\folder\\");
        }
        AddSocketWriter(logger, receiver);
        ASSERT_TRUE(logger->Start()) << row.what;
        LogNumbered(logger, app);
        logger->Shutdown();

        const std::string host = ComputerName();
        std::vector<std::string> raw = AwaitLines(receiver.rawPath, app + " line ", kMessages);
        ASSERT_EQ(raw.size(), static_cast<size_t>(kMessages)) << row.what;
        const std::string prefix = R"(<1>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )" + Escape(host) + " " + Escape(app) + " - - ";
        for (int i = 0; i < kMessages; ++i) {
            const std::string& line = raw[static_cast<size_t>(i)];
            EXPECT_TRUE(std::regex_match(line, std::regex(prefix + Escape(app) + " line " + std::to_string(i))))
                << "whole and in order: " << line;
        }
        std::vector<std::string> multi = AwaitLines(receiver.rawPath, app + " multi", 1);
        ASSERT_EQ(multi.size(), 1u) << "a message of two lines is one datagram";
        EXPECT_TRUE(std::regex_match(multi[0], std::regex(prefix + Escape(app) + " multi#012second of multi")))
            << multi[0];
        // The receiver parsed them as RFC 5424 messages of this host and application.
        std::vector<std::string> fields = AwaitLines(receiver.fieldsPath, "|" + app + "|", kMessages + 1);
        size_t numbered = 0;
        for (const std::string& line : fields) {
            const std::string parsed = "1|" + host + "|" + app + "|-|-|";
            EXPECT_EQ(line.compare(0, parsed.size(), parsed), 0) << line;
            if (line.find(app + " line ") != std::string::npos) ++numbered;
        }
        EXPECT_EQ(numbered, static_cast<size_t>(kMessages)) << row.what;
        const std::string last = fields.empty() ? "" : fields.back();
        EXPECT_NE(last.find("*** LOG FILE COMPLETE ***"), std::string::npos) << "the last line comes last: " << last;
    }
}

TEST_F(SocketWriterReceiver, BehindALiveFileWriterTheDatagramsCarryTheFileLines) {
    ScratchFolder folder("syslog");
    RCPtr<Logger> logger = NewLogger("app-" + tag);
    RCPtr<LogWriter> file = logger->AddWriter(FileWriter::kType);
    ASSERT_TRUE(file);
    file->SetSetting("folderPath", folder.Path().c_str());
    AddSocketWriter(logger, receiver);
    ASSERT_TRUE(logger->Start());
    const std::string path = static_cast<FileWriter*>(file.Get())->GetCurrentPath();
    LogNumbered(logger, tag);
    logger->Shutdown();

    std::vector<std::string> raw = AwaitLines(receiver.rawPath, tag + " line ", kMessages);
    std::vector<std::string> inFile = LinesWith(path, tag + " line ");
    ASSERT_EQ(raw.size(), static_cast<size_t>(kMessages));
    ASSERT_EQ(inFile.size(), static_cast<size_t>(kMessages));
    const std::regex fileForm(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] I Test::Syslog\(\): )" +
                              tag + R"( line \d+)");
    for (size_t i = 0; i < raw.size(); ++i) {
        EXPECT_TRUE(std::regex_match(raw[i], fileForm)) << raw[i];
        EXPECT_EQ(raw[i] + "\r", inFile[i]) << "the same bytes as the file's line";
    }
    std::vector<std::string> multi = AwaitLines(receiver.rawPath, tag + " multi", 1);
    ASSERT_EQ(multi.size(), 1u);
    EXPECT_NE(multi[0].find(" W Test::Syslog(): " + tag + " multi#012second of multi"), std::string::npos) << multi[0];
}

TEST_F(SocketWriterReceiver, AnUnreachableReceiverCostsOnlyTheDatagrams) {
    // A host that can't be resolved: the socket writer stays out of service, the others go on.
    RCPtr<Logger> unresolved = NewLogger("unresolved-" + tag);
    RCPtr<LogWriter> socketWriter = unresolved->AddWriter(SocketWriter::kType);
    socketWriter->SetSetting("remoteAddress", "no-such-host.invalid");
    RCPtr<RecordingWriter> other(new RecordingWriter(4));
    ASSERT_TRUE(unresolved->AttachWriter(other));
    ASSERT_TRUE(unresolved->Start());
    EXPECT_FALSE(socketWriter->IsInitialized());
    other->Clear();
    for (int i = 0; i < 5; ++i) unresolved->Write("Test::Unresolved()", LOG_INFO, "%s kept %d\n", tag.c_str(), i);
    EXPECT_EQ(other->Texts().size(), 5u);
    unresolved->Shutdown();

    // A port where nobody listens: every datagram is lost, nothing else.
    RCPtr<Logger> deaf = NewLogger("deaf-" + tag);
    Receiver nobody = receiver;
    nobody.port = static_cast<uint16_t>(receiver.port == 65535 ? 65534 : receiver.port + 1);
    RCPtr<LogWriter> deafWriter = AddSocketWriter(deaf, nobody);
    RCPtr<RecordingWriter> witness(new RecordingWriter(4));
    ASSERT_TRUE(deaf->AttachWriter(witness));
    ASSERT_TRUE(deaf->Start());
    EXPECT_TRUE(deafWriter->IsInitialized()) << "UDP has no connection to refuse";
    witness->Clear();
    for (int i = 0; i < 20; ++i) deaf->Write("Test::Deaf()", LOG_INFO, "%s lost %d\n", tag.c_str(), i);
    for (int i = 0; i < 20; ++i) deaf->Write("Test::Deaf()", LOG_INFO, "%s lost again %d\n", tag.c_str(), i);
    deaf->Shutdown();
    size_t witnessed = 0;
    for (const std::string& text : witness->Texts()) witnessed += text.find(tag + " lost") != std::string::npos;
    EXPECT_EQ(witnessed, 40u) << "the other writer got every line";
    EXPECT_TRUE(LinesWith(receiver.rawPath, tag + " lost").empty());
}

}  // namespace
