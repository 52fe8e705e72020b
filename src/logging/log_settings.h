// Sources of log settings. A logger applies each of its readers when it starts; a registry
// reader follows its key while the process runs.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/rc_object.h"

class Logger;

class SettingsReader : public RCObject {
public:
    // The TraceEnabled fallback of the level is looked at only while this gives 0.
    virtual int IsReady() = 0;
    // The function name of this reader's log lines.
    virtual const char* GetName() = 0;
    virtual bool GetString(const char* setting, std::string* value) = 0;
    virtual bool GetInt(const char* setting, int32_t* value) = 0;
    virtual bool GetBool(const char* setting, bool* value) = 0;
    virtual std::string GetLocation(const char* setting) = 0;
};

// Settings below one registry key, by a path with the hive's root in front ("HKLM\...").
// Until the key is read, every setting counts as absent, so the defaults apply.
class RegSettingsReader : public SettingsReader {
public:
    RegSettingsReader(Logger* owner, const std::string& keyPath);

    int IsReady() override { return 0; }
    const char* GetName() override { return "RegistryReader"; }
    bool GetString(const char* setting, std::string* value) override;
    bool GetInt(const char* setting, int32_t* value) override;
    bool GetBool(const char* setting, bool* value) override;
    std::string GetLocation(const char* setting) override;

    const std::string& GetPath() const { return path; }

private:
    Logger* logger;  // not owned: the logger owns its readers
    std::string path;
};
