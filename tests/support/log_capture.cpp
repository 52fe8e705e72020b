#include "support/log_capture.h"

#include <atomic>

bool LogCapture::Forward(const char* function, int32_t level, const char* text) {
    if (!skipped || !skipped->IsSchedulerThread()) Deliver(function, level, text);
    return true;
}

void LogCapture::Deliver(const char* function, int32_t level, const char* text) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.push_back({function ? function : "", level, text ? text : ""});
}

std::vector<CapturedLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
}

size_t LogCapture::Count(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (const auto& line : lines) {
        if (line.text.find(fragment) != std::string::npos) ++n;
    }
    return n;
}

void LogCapture::ClearLines() {
    std::lock_guard<std::mutex> lock(mutex);
    lines.clear();
}

RCPtr<Logger> CaptureLogger(const std::string& name, LogCapture** capture) {
    LoggerManager& manager = LoggerManager::GetInstance();
    SyMutexGuard guard(&LogMutex());
    RCPtr<Logger> logger = manager.GetLogger(name);
    if (!logger) {
        logger = manager.CreateLogger(name, name, false);
        logger->AttachWriter(RCPtr<LogWriter>(new LogCapture));
        logger->Start();
    }
    *capture = static_cast<LogCapture*>(logger->GetWriter(ProxyWriter::kType).Get());
    // What the logger wrote when it started is not what a test asks about.
    (*capture)->ClearLines();
    return logger;
}

ScopedLogCapture::ScopedLogCapture(int32_t threshold, bool withLogPollThread) {
    SyMutexGuard guard(&LogMutex());
    logger = CaptureLogger("ScopedLogCapture", &capture);
    MakePrimary(threshold, withLogPollThread);
}

ScopedLogCapture::ScopedLogCapture(int32_t threshold, const RCPtr<LogCapture>& own) {
    static std::atomic<int> made{0};
    LoggerManager& manager = LoggerManager::GetInstance();
    SyMutexGuard guard(&LogMutex());
    std::string name = "ScopedLogCapture-" + std::to_string(++made);
    logger = manager.CreateLogger(name, name, false);
    logger->AttachWriter(own);
    logger->Start();
    capture = own.Get();
    capture->ClearLines();
    MakePrimary(threshold, false);
}

void ScopedLogCapture::MakePrimary(int32_t threshold, bool withLogPollThread) {
    // Started already: the capture's own writer went onto it.
    capture->skipped = withLogPollThread ? nullptr : LoggerManager::GetInstance().GetPollThread();
    logger->level = threshold;
    LoggerManager::GetInstance().SetPrimaryLogger(logger);
}

ScopedLogCapture::~ScopedLogCapture() { LoggerManager::GetInstance().SetPrimaryLogger(nullptr); }
