#include "support/log_capture.h"

bool LogCapture::Forward(const char* function, int32_t level, const char* text) {
    if (skipped && skipped->IsSchedulerThread()) return true;
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back({function ? function : "", level, text ? text : ""});
    return true;
}

std::vector<CapturedLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
}

size_t LogCapture::Count(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (const auto& line : lines) n += line.text.find(fragment) != std::string::npos;
    return n;
}

void LogCapture::ClearLines() {
    std::lock_guard<std::mutex> lock(mutex);
    lines.clear();
}

// One logger for every capture, made at the first and kept (until a shutdown of the whole log
// system takes it down).
ScopedLogCapture::ScopedLogCapture(int32_t threshold, bool withLogPollThread) {
    LoggerManager& manager = LoggerManager::GetInstance();
    SyMutexGuard guard(&LogMutex());
    logger = manager.GetLogger("ScopedLogCapture");
    if (!logger) {
        logger = manager.CreateLogger("ScopedLogCapture", "ScopedLogCapture", false);
        logger->AttachWriter(RCPtr<LogWriter>(new LogCapture));
        logger->Start();
    }
    capture = static_cast<LogCapture*>(logger->GetWriter(ProxyWriter::kType).Get());
    // What the logger wrote when it started is not what a test asks about.
    capture->ClearLines();
    capture->skipped = withLogPollThread ? nullptr : manager.GetPollThread();
    logger->level = threshold;
    manager.SetPrimaryLogger(logger);
}

ScopedLogCapture::~ScopedLogCapture() { LoggerManager::GetInstance().SetPrimaryLogger(nullptr); }
