#include "logging/debug_writer.h"

#include <windows.h>

bool DebugWriter::Write(const RCPtr<LogMessage>& message) {
    if (message) OutputDebugStringA(message->text);
    return true;
}
