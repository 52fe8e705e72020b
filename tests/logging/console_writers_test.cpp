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

TEST(ConsoleWriters, EachMessageGoesWholeToItsOwnOutputOnTheLoggingThreadAndNowhereElse) {
    const struct {
        const char* what;
        int32_t type;
        const char* lineEnd;  // the streams are in text mode
    } rows[] = {{"debugger", DebugWriter::kType, "\n"},
                {"out", StdOutWriter::kType, "\r\n"},
                {"err", StdErrWriter::kType, "\r\n"}};
    for (const auto& row : rows) {
        ScratchFolder folder("stream");
        const std::string out = folder.Path() + "out", err = folder.Path() + "err";
        RCPtr<Logger> logger = LooseLogger("fido2Client");
        RCPtr<LogWriter> writer = logger->AddWriter(row.type);
        ASSERT_TRUE(writer && logger->Start()) << row.what;  // the start-up lines go before the capture
        EXPECT_FALSE(writer->IsBuffered()) << row.what;
        std::vector<std::string> debugger;
        {
            DebugOutputCapture debugOutput;
            Redirect toOut(stdout, out), toErr(stderr, err);
            logger->Write("Test::Stream()", LOG_WARN, "to %s\nof two lines\n", row.what);
            logger->Write("", LOG_WARN, "continued\n");
            debugger = debugOutput.Seen();
        }
        std::string seen[] = {"", ReadWholeFile(out), ReadWholeFile(err)};
        for (const std::string& text : debugger) seen[0] += text;
        const std::string first = std::string(" W Test::Stream(): to ") + row.what + row.lineEnd + "of two lines" + row.lineEnd;
        const std::string& mine = seen[&row - rows];
        const size_t header = mine.find(first);
        ASSERT_NE(header, std::string::npos) << row.what << ": " << mine;
        // The continuation stands under the text of the line above.
        EXPECT_EQ(mine.substr(header + first.size()), std::string(header + 19, ' ') + "continued" + row.lineEnd);
        for (size_t other = 0; other < 3; ++other) {
            EXPECT_TRUE(other == static_cast<size_t>(&row - rows) || seen[other].empty()) << row.what << " in " << other;
        }
        logger->Shutdown();
    }
}

}  // namespace
