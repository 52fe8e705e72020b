// A sink for the writer core's tests: keeps every message that reaches Write, byte for byte,
// with the message's identity and the writing thread, and can refuse to open. Buffered like
// the file writer when asked.
#pragma once

#include <windows.h>

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
        writerThreads.push_back(GetCurrentThreadId());
        return true;
    }
    bool Close() override { return ++closes > 0; }

    std::vector<std::string> Texts() { return Copy(texts); }
    std::vector<const LogMessage*> Identities() { return Copy(identities); }  // never dereferenced
    std::vector<uint32_t> WriterThreads() { return Copy(writerThreads); }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex);
        texts.clear();
        identities.clear();
        writerThreads.clear();
    }

    // What the tests look at of the base's state.
    uint32_t QueueLength(int32_t index) const { return queues[index].Size(); }
    int32_t Dropped(int32_t index) const { return queues[index].droppedCount; }
    int32_t ActiveQueue() const { return activeQueue; }

    int opensLeftToFail = 0;
    int opens = 0;
    int closes = 0;

private:
    template <class T>
    std::vector<T> Copy(const std::vector<T>& source) {
        std::lock_guard<std::mutex> lock(mutex);
        return source;
    }

    std::mutex mutex;
    std::vector<std::string> texts;
    std::vector<const LogMessage*> identities;
    std::vector<uint32_t> writerThreads;
};
