#include "logging/log_writer.h"

#include <windows.h>

#include "logging/logger.h"
#include "sysutil/string_utils.h"

namespace {
constexpr const char kThreadSeparator[] = "---------------------------------------\n";
constexpr int kTimeBytes = 64;
}  // namespace

// ---- LogQueue ----

void LogQueue::Push(const RCPtr<LogMessage>& message) {
    if (count == ring.size()) {
        // Grow by unrolling the ring into a larger one; the order stays oldest first.
        std::vector<RCPtr<LogMessage>> larger(ring.empty() ? 64 : ring.size() * 2);
        for (uint32_t i = 0; i < count; ++i) larger[i] = std::move(ring[(head + i) % ring.size()]);
        ring.swap(larger);
        head = 0;
    }
    ring[(head + count) % ring.size()] = message;
    ++count;
}

bool LogQueue::Pop(RCPtr<LogMessage>* message) {
    if (count == 0) return false;
    *message = std::move(ring[head]);
    head = (head + 1) % static_cast<uint32_t>(ring.size());
    --count;
    return true;
}

// ---- LogWriter ----

LogWriter::LogWriter(int32_t writerType)
    : type(writerType), processId(GetCurrentProcessId()), pollItem(new PollLogWriter(this)) {
    pollItem->SetTimeoutMS(kPollIntervalMs, true);
    batchTimer.Elapsed(TimerOp::StartPaused);
    batchMode = false;
    // One Disable for each of "not enabled" and "not buffered": the item runs only for an
    // enabled, buffered writer.
    if (!enabled) pollItem->Disable(true);
    if (!buffered) pollItem->Disable(true);
}

LogWriter::~LogWriter() {
    if (pollItem) pollItem->Remove(true);
}

bool LogWriter::IsFiltered(const RCPtr<LogMessage>&) { return false; }
bool LogWriter::SetSetting(const char*, const char*) { return false; }
bool LogWriter::GetSetting(const char*, std::string*) { return false; }

int LogWriter::FormatHeader(char* buffer, int size, const char* function, int32_t level) {
    if (!function || !*function) {
        // A continuation stands under the text of the line above.
        return StringUtils::FormatBuffer(buffer, size, "%*s", lastHeaderLength, "");
    }
    uint32_t threadId = GetCurrentThreadId();
    const char* separator = (lastThreadId != 0 && lastThreadId != threadId) ? kThreadSeparator : "";
    lastThreadId = threadId;
    char timeText[kTimeBytes];
    StringUtils::FormatTimeStamp(timeText, kTimeBytes, logger && !logger->useLocalTime);
    int length = StringUtils::FormatBuffer(buffer, size, "%s%s <%04X> [%04X] %c %s: ", separator, timeText,
                                           static_cast<unsigned>(threadId), static_cast<unsigned>(processId),
                                           LogLevelLetter(level), function);
    if (length < 0) length = 0;
    // The separator is a line of its own; what a continuation lines up with is the rest.
    int separatorLength = separator[0] ? static_cast<int>(sizeof(kThreadSeparator) - 1) : 0;
    lastHeaderLength = length > separatorLength ? length - separatorLength : 0;
    return length;
}

RCPtr<LogMessageManager> LogWriter::Messages() {
    if (logger && logger->messageManager) return logger->messageManager;
    return LoggerManager::GetInstance().GetMessageManager();
}

void LogWriter::WriteBare(const char* text) { WriteBareAt(LOG_ALWAYS, text); }

void LogWriter::WriteBareAt(int32_t level, const char* text) {
    RCPtr<LogMessageManager> messages = Messages();
    RCPtr<LogMessage> message;
    if (messages && messages->NewMessage(message, level, text, -1)) Write(message);
}

bool LogWriter::Init() {
    if (initialized) return true;
    if (!Open()) return false;
    RCPtr<SyPollThread> poll = LoggerManager::GetInstance().GetPollThread();
    if (poll) poll->AddItem(pollItem.Get());
    initialized = true;
    return true;
}

bool LogWriter::Enqueue(const RCPtr<LogMessage>& message) {
    LogQueue& queue = queues[activeQueue];
    if (!enabled) {
        ++queue.droppedCount;
        return false;
    }
    if (!buffered) {
        BeginWrite();
        Write(message);
        EndWrite();
        return true;
    }
    if (stopping || IsFiltered(message)) {
        ++queue.droppedCount;
        return false;
    }
    queue.Push(message);
    if (!batchMode) {
        if (!batchTimer.IsPaused() || queue.Size() >= batchThreshold) EnterBatchMode();
        return true;
    }
    // Each flush writes up to twice what has arrived since the last, so the queue shrinks
    // while the calls go on.
    if (queue.Size() % 100 == 0) {
        Flush(activeQueue, 200);
        batchTimer.Elapsed(TimerOp::Reset);
    } else if (batchTimer.ElapsedMs() >= batchIntervalMs) {
        Flush(activeQueue, 100);
        batchTimer.Elapsed(TimerOp::Reset);
    }
    return true;
}

bool LogWriter::EnterBatchMode() {
    if (batchTimer.IsPaused()) {
        batchTimer.Elapsed(TimerOp::Start);
        pollItem->Disable(false);
    }
    // The poll thread is still writing its drain queue to this sink; the next Enqueue comes
    // back here, since the timer now runs.
    if (pollItem->running.load()) return false;
    WriteBare("\n***** BATCH MODE ENABLED *****\n\n");
    batchMode = true;
    return true;
}

void LogWriter::Flush(int32_t queueIndex, int32_t maxCount) {
    LogQueue& queue = queues[queueIndex];
    if (queue.Empty() || maxCount <= 0) return;
    BeginWrite();
    RCPtr<LogMessage> message;
    for (int32_t written = 0; written < maxCount && queue.Pop(&message); ++written) {
        Write(message);  // a message that fails is lost, and isn't counted
    }
    message = nullptr;
    int32_t dropped = queue.droppedCount;
    queue.droppedCount = 0;
    if (dropped > 0) {
        char text[kLogMessageBytes];
        StringUtils::FormatBuffer(text, sizeof(text), "\n%s Dropped %d messages %s\n\n", "*******",
                                  static_cast<int>(dropped), "*******");
        WriteBareAt(LOG_INFO, text);
    }
    EndWrite();
}

void LogWriter::SwapQueues() {
    int32_t previous = activeQueue;
    activeQueue = drainQueue;
    drainQueue = previous;
}

void LogWriter::FlushAll() {
    // Two passes reach both queues, the older one first, and leave the roles as they were.
    for (int pass = 0; pass < 2; ++pass) {
        Flush(drainQueue, kWholeQueue);
        SyMutexGuard guard(&LogMutex());
        SwapQueues();
    }
}

bool LogWriter::SetFlag(bool* flag, bool value) {
    SyMutexGuard guard(&LogMutex());
    if (*flag == value) return true;
    if (*flag) {
        pollItem->Disable(true);
        FlushAll();
    }
    *flag = value;
    if (value) {
        FlushAll();
        pollItem->Enable();
    }
    return true;
}

bool LogWriter::SetBuffered(bool value) { return SetFlag(&buffered, value); }

bool LogWriter::SetEnabled(bool value) { return SetFlag(&enabled, value); }

void LogWriter::Shutdown() {
    {
        SyMutexGuard guard(&LogMutex());
        stopping = true;
    }
    pollItem->Remove(true);
    FlushAll();
    {
        SyMutexGuard guard(&LogMutex());
        char line[kLogMessageBytes];
        int header = FormatHeader(line, sizeof(line), "Logger Shutdown", LOG_ALWAYS);
        StringUtils::FormatBuffer(line + header, static_cast<int>(sizeof(line)) - header, "%s\n",
                                  "*** LOG FILE COMPLETE ***");
        WriteBare(line);
    }
    initialized = false;
    Close();
}

bool LogWriter::PollLogWriter::Run(bool) {
    running = true;
    if (writer->enabled && writer->buffered) {
        int32_t full;
        {
            SyMutexGuard guard(&LogMutex());
            full = writer->activeQueue;
            writer->SwapQueues();
        }
        // The drain queue belongs to this thread alone now: the disk gets no lock.
        writer->Flush(full, kWholeQueue);
    }
    running = false;
    return true;
}
