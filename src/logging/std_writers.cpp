#include "logging/std_writers.h"

bool StreamWriter::Write(const RCPtr<LogMessage>& message) {
    if (message) fputs(message->text, Stream());
    return true;
}
