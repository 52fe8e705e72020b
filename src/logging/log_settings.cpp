#include "logging/log_settings.h"

#include "logging/logger.h"
#include "sysutil/file_utils.h"

RegSettingsReader::RegSettingsReader(Logger* owner, const std::string& keyPath) : logger(owner), path(keyPath) {}

bool RegSettingsReader::GetString(const char*, std::string*) { return false; }

bool RegSettingsReader::GetInt(const char*, int32_t*) { return false; }

bool RegSettingsReader::GetBool(const char*, bool*) { return false; }

std::string RegSettingsReader::GetLocation(const char* setting) { return FileUtils::JoinPath(path, setting ? setting : ""); }
