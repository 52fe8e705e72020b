// Passes each message to the debugger output, on the thread that logs.
#pragma once

#include <cstdint>

#include "logging/log_writer.h"

class DebugWriter : public LogWriter {
public:
    static constexpr int32_t kType = 0;

    DebugWriter() : LogWriter(kType) {}

    bool Open() override { return true; }
    bool Write(const RCPtr<LogMessage>& message) override;
    bool Close() override { return true; }
};
