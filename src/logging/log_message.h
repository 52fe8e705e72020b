// The pool of log messages: blocks of 100 reference-counted messages that go back to their
// block when the last RCPtr lets go, so that a log call in the steady state allocates nothing.
// The pool can't log through the logger (it runs inside a log call), so its own lines wait in
// a small buffer and ride along in front of the next message.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <list>
#include <mutex>

#include "foundation/rc_object.h"
#include "foundation/sy_poll_thread.h"
#include "foundation/sy_timer.h"
#include "logging/log.h"

class LogMessageBlock;
class LogMessageCache;

class LogMessage : public RCObject {
public:
    static constexpr int32_t kTextBytes = kLogMessageBytes;
    // Room for the text itself; a line feed and the terminator follow it.
    static constexpr int32_t kTextRoom = kTextBytes - 2;

    LogMessage() = default;

    // Stores level and text (length < 0: NUL-terminated), with the pool's pending lines in
    // front when there is room; the result always ends in a line feed.
    void Set(int32_t level, const char* source, int32_t sourceLength);
    // Puts the message back on its block's free list; it is never deleted one by one.
    bool OnFinalRelease() override;

    char text[kTextBytes] = {};
    int32_t length = 0;
    int32_t level = LOG_NEVER;
    RCPtr<LogMessageBlock> block;
    LogMessage* next = nullptr;
};

class LogMessageBlock : public RCObject {
public:
    static constexpr int32_t kMessages = 100;

    explicit LogMessageBlock(LogMessageCache* owner);

    LogMessage messages[kMessages];
    LogMessage* firstFree;
    LogMessage* lastFree;
    int32_t freeCount;
    SyElapsedTimer idleTimer;  // since when all messages are free
    RCPtr<LogMessageCache> cache;
    std::list<RCPtr<LogMessageBlock>>::iterator listPosition;
};

class BlockReleaseTimer : public SyPollItem {
public:
    static constexpr uint32_t kPeriodMs = 60000;

    // Goes onto the logger's poll thread when there is a primary logger and no shutdown.
    explicit BlockReleaseTimer(LogMessageCache* owner);
    bool Run(bool timedOut) override;

private:
    LogMessageCache* cache;  // not owned: the cache owns this timer
};

class LogMessageCache : public RCObject {
public:
    // A block that has been all free for this long goes at the next timer event.
    static constexpr int64_t kBlockIdleMs = 600000;

    LogMessageCache();
    ~LogMessageCache() override;

    // A free message taken off its block, or null if a needed block can't be allocated.
    LogMessage* NewMessage();
    void OnBlockReleaseTimer();
    // A line of the pool itself, in the form of a log line, for the front of the next message.
    void AddPendingLine(const char* function, int32_t level, const char* format, ...) SY_PRINTF_FORMAT(4, 5);

    // For diagnostics and tests.
    int32_t BlockCount();
    int32_t FreeCount();
    bool HasReleaseTimer();
    int32_t PendingLength() const { return pendingLength; }

private:
    friend class LogMessage;

    void AddPendingLineV(const char* function, int32_t level, const char* format, va_list args);
    LogMessageBlock* AddBlock();
    void StartReleaseTimer();

    // A leaf lock held for a few instructions on every message: a lock of the process, not a
    // kernel object, since two of them come with each log line.
    std::mutex lock;
    std::list<RCPtr<LogMessageBlock>> blocks;  // blocks with free messages in front, full ones behind
    RCPtr<BlockReleaseTimer> releaseTimer;
    bool creatingTimer = false;
    char pendingText[kLogMessageBytes] = {};
    std::atomic<int32_t> pendingLength{0};  // read without the lock as a hint
    int32_t sizeReports = 0;
};

class LogMessageManager : public RCObject {
public:
    LogMessageManager();

    // A message with level and text (length < 0: NUL-terminated). False only when the pool
    // can't grow; the message is then dropped.
    bool NewMessage(RCPtr<LogMessage>& message, int32_t level, const char* text, int32_t length);
    LogMessageCache* GetCache() const { return cache.Get(); }

private:
    RCPtr<LogMessageCache> cache;
};
