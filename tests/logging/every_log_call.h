// Every form of log call at every level, for the states of the log system in which none of
// them may reach a writer or fault.
#pragma once

#include "logging/function_trace.h"
#include "logging/log.h"

inline void LogAtEveryLevelEveryWay() {
    for (int level = LOG_ALWAYS; level <= LOG_NEVER; ++level) {
        Log("Test::Every()", level, "line %d\n", level);
        LogHex("Test::Every()", level, "abc", 3);
        LogLastError("Test::Every()", level, "line\n");
        LogSocketError("Test::Every()", level, "line\n");
        LogError(5, "Test::Every()", level, "line\n");
        FunctionTrace trace(level, "Test::Every()");
        trace.SetExitText(level, "exit\n");
    }
}
