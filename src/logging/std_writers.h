// Write each message to the process's standard output or standard error stream, on the
// thread that logs; flushing is left to the stream.
#pragma once

#include <cstdint>
#include <cstdio>

#include "logging/log_writer.h"

class StreamWriter : public LogWriter {
public:
    bool Open() override { return true; }
    bool Write(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }

protected:
    explicit StreamWriter(int32_t writerType) : LogWriter(writerType) {}
    // Looked up at each write: the runtime's stream may be redirected meanwhile.
    virtual FILE* Stream() = 0;
};

class StdOutWriter : public StreamWriter {
public:
    static constexpr int32_t kType = 4;
    StdOutWriter() : StreamWriter(kType) {}

protected:
    FILE* Stream() override { return stdout; }
};

class StdErrWriter : public StreamWriter {
public:
    static constexpr int32_t kType = 5;
    StdErrWriter() : StreamWriter(kType) {}

protected:
    FILE* Stream() override { return stderr; }
};
