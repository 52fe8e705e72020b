// A sink for the writer core's tests: keeps every message that reaches Write, byte for byte,
// with the message's identity, and can refuse to open. Buffered like the file writer when asked.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "logging/log_writer.h"

class RecordingWriter : public LogWriter {
public:
    explicit RecordingWriter(int32_t type, bool bufferedWriter = false) : LogWriter(type) {
        if (bufferedWriter) SetBuffered(true);
    }

    bool Open() override { return ++opens > opensLeftToFail; }
    bool Write(const RCPtr<LogMessage>& message) override {
        std::lock_guard<std::mutex> lock(mutex);
        texts.emplace_back(message->text, static_cast<size_t>(message->length));
        identities.push_back(message.Get());
        return true;
    }
    bool Close() override { return ++closes > 0; }

    std::vector<std::string> Texts() {
        std::lock_guard<std::mutex> lock(mutex);
        return texts;
    }
    std::vector<const LogMessage*> Identities() {  // never dereferenced
        std::lock_guard<std::mutex> lock(mutex);
        return identities;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex);
        texts.clear();
        identities.clear();
    }

    int opensLeftToFail = 0;
    int opens = 0;
    int closes = 0;

private:
    std::mutex mutex;
    std::vector<std::string> texts;
    std::vector<const LogMessage*> identities;
};
