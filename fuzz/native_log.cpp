// The log calls of the wire code, for the native fuzz build: the level stays 0, so no
// statement of the wire layer reaches these, and they need only exist.
#include "logging/log.h"

int32_t processLogLevel = 0;

void Log(const char*, int32_t, const char*, ...) {}
void LogHex(const char*, int32_t, const void*, int32_t) {}
void LogLastError(const char*, int32_t, const char*, ...) {}
void LogSocketError(const char*, int32_t, const char*, ...) {}
void LogError(uint32_t, const char*, int32_t, const char*, ...) {}
