#include "logging/log_message.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "logging/logger.h"
#include "sysutil/string_utils.h"

namespace {

constexpr const char kSizeLine[] = "Log message cache size is %d";

int32_t SizeReportLevel(int32_t reportsSoFar) { return reportsSoFar <= 1 ? LOG_VERBOSE : LOG_TRACE; }

}  // namespace

// ---- LogMessage ----

void LogMessage::Set(int32_t newLevel, const char* source, int32_t sourceLength) {
    level = newLevel;
    length = 0;
    if (!source) source = "";
    int32_t sourceBytes = sourceLength < 0 ? static_cast<int32_t>(strlen(source)) : sourceLength;
    int32_t room = kTextRoom;

    LogMessageCache* owner = block ? block->cache.Get() : nullptr;
    // Read without the lock first: the pending buffer is empty almost always.
    if (owner && owner->pendingLength.load(std::memory_order_relaxed) > 0) {
        std::lock_guard<std::mutex> guard(owner->lock);
        int32_t pending = owner->pendingLength;
        int32_t spare = (kTextRoom - 1) - sourceBytes;
        if (pending > 0 && (spare > 511 || spare >= pending)) {
            int32_t copy = pending < spare ? pending : spare;
            memcpy(text, owner->pendingText, static_cast<size_t>(copy));
            length = copy;
            owner->pendingLength = 0;
            if (length > 0 && text[length - 1] != '\n') text[length++] = '\n';
            room -= length;
        }
    }

    int32_t copy = sourceBytes < room ? sourceBytes : room;
    if (copy > 0) memcpy(text + length, source, static_cast<size_t>(copy));
    length += copy;
    if (length == 0 || text[length - 1] != '\n') text[length++] = '\n';
    text[length] = '\0';
}

bool LogMessage::OnFinalRelease() {
    RCPtr<LogMessageBlock> home = block;
    if (!home) return true;
    RCPtr<LogMessageCache> owner = home->cache;
    {
        std::lock_guard<std::mutex> guard(owner->lock);
        // Oldest free message is used next: append at the tail.
        next = nullptr;
        if (!home->firstFree) {
            home->firstFree = this;
            home->lastFree = this;
            home->freeCount = 1;
        } else {
            home->lastFree->next = this;
            home->lastFree = this;
            ++home->freeCount;
        }
        if (home->freeCount >= LogMessageBlock::kMessages) home->idleTimer.Elapsed(TimerOp::Reset);
        block = nullptr;
    }
    return true;
}

// ---- LogMessageBlock ----

LogMessageBlock::LogMessageBlock(LogMessageCache* owner)
    : firstFree(&messages[0]), lastFree(&messages[kMessages - 1]), freeCount(kMessages), cache(owner) {
    for (int32_t i = 0; i + 1 < kMessages; ++i) messages[i].next = &messages[i + 1];
}

// ---- BlockReleaseTimer ----

BlockReleaseTimer::BlockReleaseTimer(LogMessageCache* owner)
    : SyPollItem("LogMessageCache::BlockReleaseTimer"), cache(owner) {
    LoggerManager& manager = LoggerManager::GetInstance();
    if (manager.GetPrimaryLogger() && !manager.IsShuttingDown()) {
        RCPtr<SyPollThread> poll = manager.GetPollThread();
        if (poll) poll->AddItem(this, kPeriodMs);
    }
}

bool BlockReleaseTimer::Run(bool) {
    cache->OnBlockReleaseTimer();
    return true;
}

// ---- LogMessageCache ----

LogMessageCache::LogMessageCache() = default;

LogMessageCache::~LogMessageCache() {
    RCPtr<BlockReleaseTimer> timer;
    {
        std::lock_guard<std::mutex> guard(lock);
        timer = releaseTimer;
        releaseTimer = nullptr;
    }
    if (timer) timer->Remove(true);
    // Blocks hold the cache by strong pointers; a cache that gets here has none left, but
    // the list is taken down one block at a time all the same.
    while (true) {
        RCPtr<LogMessageBlock> front;
        {
            std::lock_guard<std::mutex> guard(lock);
            if (blocks.empty()) break;
            front = blocks.front();
            blocks.pop_front();
        }
    }
}

LogMessageBlock* LogMessageCache::AddBlock() {
    RCPtr<LogMessageBlock> created(new (std::nothrow) LogMessageBlock(this));
    if (!created) return nullptr;
    try {
        blocks.push_front(created);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    created->listPosition = blocks.begin();
    return created.Get();
}

LogMessage* LogMessageCache::NewMessage() {
    bool wantTimer = false;
    int32_t grownTo = 0;
    int32_t reportLevel = LOG_VERBOSE;
    LogMessage* message = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock);
        LogMessageBlock* found = nullptr;
        for (const RCPtr<LogMessageBlock>& candidate : blocks) {
            if (candidate->freeCount > 0) {
                found = candidate.Get();
                break;
            }
        }
        if (!found) {
            if (!releaseTimer && !creatingTimer && !blocks.empty()) {
                creatingTimer = true;
                wantTimer = true;
            }
            found = AddBlock();
            if (found) {
                grownTo = static_cast<int32_t>(blocks.size()) * LogMessageBlock::kMessages;
                reportLevel = SizeReportLevel(++sizeReports);
            }
        }
        if (found) {
            message = found->firstFree;
            found->firstFree = message->next;
            --found->freeCount;
            message->block = found;
            message->next = nullptr;
            if (!found->firstFree) {
                found->lastFree = nullptr;
                blocks.splice(blocks.end(), blocks, found->listPosition);
            }
        }
    }
    // Both outside the pool's lock: they ask the logger, whose lock comes before this one.
    // The size line still lands in front of the message being made, which is the next one.
    if (wantTimer) StartReleaseTimer();
    if (grownTo > 0) AddPendingLine("LogMessageCache::NewMessage()", reportLevel, kSizeLine, grownTo);
    return message;
}

void LogMessageCache::StartReleaseTimer() {
    RCPtr<BlockReleaseTimer> timer(new (std::nothrow) BlockReleaseTimer(this));
    std::lock_guard<std::mutex> guard(lock);
    releaseTimer = timer;
    creatingTimer = false;
}

void LogMessageCache::OnBlockReleaseTimer() {
    RCPtr<LogMessageBlock> released;
    int32_t remaining = 0;
    int32_t reportLevel = LOG_VERBOSE;
    {
        std::lock_guard<std::mutex> guard(lock);
        if (blocks.size() < 2) return;
        for (auto it = blocks.begin(); it != blocks.end(); ++it) {
            LogMessageBlock* candidate = it->Get();
            if (candidate->freeCount >= LogMessageBlock::kMessages &&
                candidate->idleTimer.ElapsedMs() >= kBlockIdleMs) {
                released = *it;
                blocks.erase(it);
                ++sizeReports;
                reportLevel = SizeReportLevel(sizeReports);
                break;
            }
        }
        remaining = static_cast<int32_t>(blocks.size());
    }
    if (!released) return;
    // Outside the pool's lock: a log call takes the logger's lock first.
    SY_LOG(reportLevel, "LogMessageCache::OnBlockReleaseTimer()", "Log message cache size is %d\n",
           remaining * LogMessageBlock::kMessages);
    std::lock_guard<std::mutex> guard(lock);
    released = nullptr;
}

void LogMessageCache::AddPendingLine(const char* function, int32_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    AddPendingLineV(function, level, format, args);
    va_end(args);
}

void LogMessageCache::AddPendingLineV(const char* function, int32_t level, const char* format, va_list args) {
    if (level > processLogLevel) return;
    // Formatted before the pool's lock is taken: the time form comes from the logger.
    RCPtr<Logger> primary = LoggerManager::GetInstance().GetPrimaryLogger();
    bool utc = primary && !primary->useLocalTime;
    char line[kLogMessageBytes];
    int32_t used = StringUtils::FormatTimeStamp(line, kLogMessageBytes, utc);
    used += StringUtils::FormatBuffer(line + used, kLogMessageBytes - used, " <%04X> [%04X] %c %s: ",
                                      static_cast<unsigned>(GetCurrentThreadId()),
                                      static_cast<unsigned>(GetCurrentProcessId()), LogLevelLetter(level),
                                      function ? function : "");
    int32_t written = StringUtils::FormatBufferV(line + used, kLogMessageBytes - used, format, args);
    if (written > 0) used += written;

    std::lock_guard<std::mutex> guard(lock);
    int32_t length = pendingLength;
    if (length + 1 >= kLogMessageBytes) return;
    int32_t copy = used < kLogMessageBytes - 1 - length ? used : kLogMessageBytes - 1 - length;
    memcpy(pendingText + length, line, static_cast<size_t>(copy));
    length += copy;
    if (pendingText[length - 1] != '\n') {
        if (length + 1 < kLogMessageBytes) {
            pendingText[length++] = '\n';
        } else {
            pendingText[length - 1] = '\n';
        }
    }
    pendingText[length] = '\0';
    pendingLength = length;
}

int32_t LogMessageCache::BlockCount() {
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<int32_t>(blocks.size());
}

int32_t LogMessageCache::FreeCount() {
    std::lock_guard<std::mutex> guard(lock);
    int32_t free = 0;
    for (const RCPtr<LogMessageBlock>& each : blocks) free += each->freeCount;
    return free;
}

bool LogMessageCache::HasReleaseTimer() {
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<bool>(releaseTimer);
}

// ---- LogMessageManager ----

LogMessageManager::LogMessageManager() : cache(new LogMessageCache) {}

bool LogMessageManager::NewMessage(RCPtr<LogMessage>& message, int32_t level, const char* text, int32_t length) {
    LogMessage* taken = cache->NewMessage();
    if (!taken) {
        message = nullptr;
        return false;
    }
    taken->Set(level, text, length);
    message = taken;
    return true;
}
