// The base of every log sink: the form of a line, the hand-over of messages from the threads
// that log to the thread that writes, the account of dropped messages and the last line of a
// log. A sink gives only Open, Write and Close of its medium.
//
// A buffered writer queues messages; its poll item empties the queue on the logger's poll
// thread once a second, and while it writes, logging threads fill the other queue. If the
// poll thread can't keep up, the writer goes into batch mode for the rest of its life and the
// logging threads write themselves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/rc_object.h"
#include "foundation/sy_poll_thread.h"
#include "foundation/sy_timer.h"
#include "logging/log_message.h"

class Logger;

// First in, first out, on a ring that only ever grows: once it has held its peak, pushing and
// popping allocate nothing.
class LogQueue {
public:
    void Push(const RCPtr<LogMessage>& message);
    // Takes the oldest message out; false when empty.
    bool Pop(RCPtr<LogMessage>* message);
    uint32_t Size() const { return count; }
    bool Empty() const { return count == 0; }

    int32_t droppedCount = 0;

private:
    std::vector<RCPtr<LogMessage>> ring;
    uint32_t head = 0;
    uint32_t count = 0;
};

class LogWriter : public RCObject {
public:
    static constexpr uint32_t kBatchThreshold = 15000;
    static constexpr int32_t kBatchIntervalMs = 1000;
    static constexpr uint32_t kPollIntervalMs = 1000;
    static constexpr int32_t kWholeQueue = 2147483647;

    class PollLogWriter : public SyPollItem {
    public:
        explicit PollLogWriter(LogWriter* owner) : SyPollItem("LogWriter"), writer(owner) {}
        bool Run(bool timedOut) override;

        std::atomic<bool> running{false};

    private:
        LogWriter* writer;  // not owned: the writer owns its item
    };

    explicit LogWriter(int32_t writerType);
    ~LogWriter() override;

    virtual bool IsFiltered(const RCPtr<LogMessage>& message);
    virtual bool SetSetting(const char* setting, const char* value);
    virtual bool GetSetting(const char* setting, std::string* value);
    virtual bool Open() = 0;
    // Must not change the message: other writers hold the same one.
    virtual bool Write(const RCPtr<LogMessage>& message) = 0;
    virtual bool Close() = 0;
    virtual void BeginWrite() {}
    virtual void EndWrite() {}
    // The line header "%s%s <%04X> [%04X] %c %s: " (separator, time, thread, process, letter,
    // function) into buffer; a null or empty function gives blanks as long as the last header.
    virtual int FormatHeader(char* buffer, int size, const char* function, int32_t level);

    bool Init();
    void Shutdown();
    // Called under LogMutex() by the log call; true if the message was taken.
    bool Enqueue(const RCPtr<LogMessage>& message);
    bool SetBuffered(bool value);
    bool SetEnabled(bool value);
    void Flush(int32_t queueIndex, int32_t maxCount);
    void FlushAll();
    bool EnterBatchMode();

    int32_t GetType() const { return type; }
    bool IsInitialized() const { return initialized; }
    bool IsBuffered() const { return buffered; }
    bool IsEnabled() const { return enabled; }
    bool IsBatchMode() const { return batchMode; }
    int32_t GetLastHeaderLength() const { return lastHeaderLength; }
    PollLogWriter* GetPollItem() const { return pollItem.Get(); }

    int32_t type;
    uint32_t batchThreshold = kBatchThreshold;
    int32_t batchIntervalMs = kBatchIntervalMs;
    uint32_t processId;
    uint32_t lastThreadId = 0;
    RCPtr<Logger> logger;  // set by Logger::AttachWriter

protected:
    // A message of level 0 with this text and no header, straight to Write.
    void WriteBare(const char* text);
    void WriteBareAt(int32_t level, const char* text);
    RCPtr<LogMessageManager> Messages();

    bool buffered = false;
    bool initialized = false;
    bool stopping = false;
    bool enabled = true;
    int32_t lastHeaderLength = 0;
    SyElapsedTimer batchTimer;
    bool batchMode = false;
    RCPtr<PollLogWriter> pollItem;
    LogQueue queues[2];
    int32_t activeQueue = 0;
    int32_t drainQueue = 1;

private:
    void SwapQueues();
    bool SetFlag(bool* flag, bool value);
};
