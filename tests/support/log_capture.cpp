#include "support/log_capture.h"

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

ScopedLogCapture::ScopedLogCapture(int32_t threshold) : capture(new LogCapture(threshold)) {
    SetPrimaryLogTarget(RCPtr<LogTarget>(capture.Get()));
}

ScopedLogCapture::~ScopedLogCapture() { SetPrimaryLogTarget(nullptr); }
