// The one object that starts and stops the log of this plug-in, in static storage: the
// plug-in's start brings the log up with its file writer and registry settings, and the
// plug-in's exit takes the whole log system down as its last step.
#pragma once

#include <string>

#include "foundation/sy_mutex.h"
#include "logging/logger.h"

// The one object that starts and stops the log of this plug-in. Lives in static storage.
class Fido2Logger {
public:
    static constexpr const char* kRegistryPath = "Software\\Orvane, Inc.\\Orvane TBXService\\Plugins\\fido2";
    // The file writer always exists.
    static constexpr int32_t kFileWriterType = 1;

    Fido2Logger();
    ~Fido2Logger();

    bool Start(const std::string& appName);
    void Stop();
    bool IsStarted();

    Fido2Logger(const Fido2Logger&) = delete;
    Fido2Logger& operator=(const Fido2Logger&) = delete;

private:
    RCPtr<Logger> logger;
    std::string name;
    bool started;
    SyMutex lock;
};

Fido2Logger& TheFido2Logger();
