#include "logging/fido2_logger.h"

#include <windows.h>

namespace {

// There is no log yet when these happen: the debugger output is all there is.
bool ReportStartFailure(const char* text) {
    OutputDebugStringA(text);
    return false;
}

}  // namespace

Fido2Logger::Fido2Logger() : name("Fido2Logger"), started(false), lock(false, "") {}

Fido2Logger::~Fido2Logger() {
    if (logger) Stop();
}

bool Fido2Logger::Start(const std::string& appName) {
    SyMutexGuard guard(&lock);
    if (started) return true;
    LoggerManager& manager = LoggerManager::GetInstance();
    // After a failure below the name stays taken, so a second Start fails here.
    RCPtr<Logger> created = manager.CreateLogger(name, appName, true);
    if (!created) return ReportStartFailure("Failed to create logger for Corvale FIDO2 redirection");
    logger = created;
    if (!logger->AddRegistryReader(kRegistryPath, HKEY_LOCAL_MACHINE)) {
        return ReportStartFailure("Failed to set add registry reader for Corvale FIDO2 redirection");
    }
    if (!logger->AddWriter(kFileWriterType)) {
        return ReportStartFailure("Failed to initialize logger for Corvale FIDO2 redirection");
    }
    if (!logger->Start()) return ReportStartFailure("Failed to start the Corvale FIDO2 redirection Logger");
    Log("Fido2Logger::Start()", LOG_ALWAYS, "Log level is set to %s\n", logger->GetLevelName());
    started = true;
    return true;
}

void Fido2Logger::Stop() {
    SyMutexGuard guard(&lock);
    started = false;
    if (logger) {
        LoggerManager::GetInstance().ShutdownAll();
        logger = nullptr;
    }
}

bool Fido2Logger::IsStarted() {
    SyMutexGuard guard(&lock);
    return started;
}

Fido2Logger& TheFido2Logger() {
    static Fido2Logger fido2Logger;
    return fido2Logger;
}
