// The debugger and console writers: each message whole and unchanged on its own output, on the
// thread that logs, through a real logger.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <regex>
#include <string>

#include "logging/debug_writer.h"
#include "logging/logger.h"
#include "logging/std_writers.h"
#include "logging/writer_files.h"
#include "support/debug_output.h"

namespace {

// Points a descriptor of the runtime at a file for a scope.
class Redirect {
public:
    Redirect(FILE* stream, const std::string& path) : stream(stream), fd(_fileno(stream)), saved(_dup(fd)) {
        fflush(stream);
        const int file = _open(path.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_TEXT, 0600);
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
    int fd, saved;
};

TEST(ConsoleWriters, EachMessageGoesWholeToItsOwnOutputOnTheLoggingThreadAndNowhereElse) {
    // The debugger, the console's out and err; the streams are in text mode.
    const int32_t types[] = {DebugWriter::kType, StdOutWriter::kType, StdErrWriter::kType};
    const char* const lineEnds[] = {"\n", "\r\n", "\r\n"};
    for (size_t row = 0; row < 3; ++row) {
        ScratchFolder folder("stream");
        RCPtr<Logger> logger = LooseLogger("fido2Client");
        RCPtr<LogWriter> writer = logger->AddWriter(types[row]);
        ASSERT_TRUE(writer && logger->Start()) << row;  // the start-up lines go before the capture
        EXPECT_FALSE(writer->IsBuffered()) << row;
        std::string seen[3];
        {
            DebugOutputCapture debugger;
            Redirect out(stdout, folder.Path() + "out"), err(stderr, folder.Path() + "err");
            logger->Write("Test::Stream()", LOG_WARN, "to %zu\nof two lines\n", row);
            for (const std::string& text : debugger.Seen()) seen[0] += text;
        }
        seen[1] = ReadWholeFile(folder.Path() + "out");
        seen[2] = ReadWholeFile(folder.Path() + "err");
        const std::regex whole(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{4,}> \[[0-9A-F]{4,}\] W Test::Stream\(\): to )" +
                               std::to_string(row) + lineEnds[row] + "of two lines" + lineEnds[row]);
        for (size_t output = 0; output < 3; ++output) {
            EXPECT_TRUE(output == row ? std::regex_match(seen[output], whole) : seen[output].empty())
                << row << " in " << output << ": " << seen[output];
        }
        logger->Shutdown();
    }
}

}  // namespace
