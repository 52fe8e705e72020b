// Hands each message to a function with the signature of the plain log call. Its own header
// carries the level and the function name through the message, so the receiver gets them
// back apart from the text.
#pragma once

#include <cstdint>

#include "logging/log_writer.h"

class ProxyWriter : public LogWriter {
public:
    static constexpr int32_t kType = 2;
    using ProxyFn = void (*)(const char* function, int32_t level, const char* format, ...);

    ProxyWriter() : LogWriter(kType) {}

    bool Open() override { return true; }
    bool Write(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    // "@PROXY/", the level's digit, the function name and "/".
    int FormatHeader(char* buffer, int size, const char* function, int32_t level) override;

    ProxyFn proxy = nullptr;

protected:
    // Where a message goes once its header is taken apart; a writer that records instead of
    // calling a function replaces this.
    virtual bool Forward(const char* function, int32_t level, const char* text);
};
