// The debugger and console writers: each message's text, whole and unchanged, on the thread
// that logs, through a real logger.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "logging/debug_writer.h"
#include "logging/logger.h"
#include "logging/std_writers.h"
#include "logging/writer_files.h"
#include "support/debug_output.h"

namespace {

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

RCPtr<Logger> StartedLogger(int32_t type, RCPtr<LogWriter>* writer) {
    RCPtr<Logger> logger(new Logger("console", "fido2Client", RCPtr<LogMessageManager>(new LogMessageManager)));
    *writer = logger->AddWriter(type);
    EXPECT_TRUE(*writer);
    // The start-up lines are of no interest here; they go before the capture begins.
    EXPECT_TRUE(logger->Start());
    return logger;
}

TEST(DebugWriter, EachMessageGoesToTheDebuggerOutputOnTheLoggingThread) {
    RCPtr<LogWriter> writer;
    RCPtr<Logger> logger = StartedLogger(DebugWriter::kType, &writer);
    EXPECT_FALSE(writer->IsBuffered());
    std::vector<std::string> seen;
    {
        DebugOutputCapture debugger;
        ASSERT_TRUE(debugger.Active());
        logger->Write("Test::Debug()", LOG_INFO, "first %d\n", 1);
        logger->Write("Test::Debug()", LOG_ERROR, "second\nwith two lines\n");
        seen = debugger.Seen();
    }
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(EndsWith(seen[0], " I Test::Debug(): first 1\n")) << seen[0];
    EXPECT_TRUE(EndsWith(seen[1], " E Test::Debug(): second\nwith two lines\n")) << seen[1];
    logger->Shutdown();
}

// Points a descriptor of the runtime at a file for a scope.
class Redirect {
public:
    Redirect(FILE* stream, const std::string& path) : stream(stream), fd(_fileno(stream)) {
        fflush(stream);
        saved = _dup(fd);
        int file = _open(path.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_TEXT, 0600);
        _dup2(file, fd);
        _close(file);
    }
    ~Redirect() {
        fflush(stream);
        _dup2(saved, fd);
        _close(saved);
    }

private:
    FILE* stream;
    int fd;
    int saved;
};

TEST(StreamWriters, EachWritesToItsOwnStreamAndNothingToTheOther) {
    struct Row {
        const char* what;
        int32_t type;
        bool toStdout;
    };
    for (const Row& row : {Row{"standard output", StdOutWriter::kType, true},
                           Row{"standard error", StdErrWriter::kType, false}}) {
        ScratchFolder folder("stream");
        const std::string out = folder.Path() + "out.txt";
        const std::string err = folder.Path() + "err.txt";
        RCPtr<LogWriter> writer;
        RCPtr<Logger> logger = StartedLogger(row.type, &writer);
        EXPECT_FALSE(writer->IsBuffered()) << row.what;
        {
            Redirect toOut(stdout, out);
            Redirect toErr(stderr, err);
            logger->Write("Test::Stream()", LOG_WARN, "to %s\n", row.what);
            logger->Write("", LOG_WARN, "continued\n");
        }
        const std::string expected = std::string("to ") + row.what + "\r\n";
        const std::string written = ReadWholeFile(row.toStdout ? out : err);
        const std::string other = ReadWholeFile(row.toStdout ? err : out);
        ASSERT_GT(written.size(), expected.size()) << row.what;
        EXPECT_EQ(CountLines(written), 2u) << written;
        EXPECT_NE(written.find("W Test::Stream(): " + expected), std::string::npos) << written;
        const size_t firstEnd = written.find('\n') + 1;
        // The continuation stands under the text of the line above.
        EXPECT_EQ(written.substr(firstEnd), std::string(firstEnd - expected.size(), ' ') + "continued\r\n") << written;
        EXPECT_EQ(other, "") << row.what;
        logger->Shutdown();
    }
}

}  // namespace
