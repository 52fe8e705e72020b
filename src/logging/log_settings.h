// Sources of log settings. A logger applies each of its readers when it starts; a registry
// reader follows its key while the process runs and applies itself again on each change.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/rc_object.h"
#include "registry/sy_reg_watcher.h"

class Logger;
class RegSettingsReader;

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

// Applies the settings of one reader to the logger, in the order of the settings table;
// the caller holds LogMutex(). Before the logger starts this may create writers and set
// folders, addresses and ports; afterwards it only tunes what exists, and logs each change.
void ApplyLogSettings(Logger& logger, SettingsReader& reader);

// What one key of the settings table drives, for tools that explain a configuration: the
// writer type that an on/off key switches (-1 for other keys), and the file writer's own
// name of a numeric key (null for other keys).
int32_t LogSettingWriterType(const char* key);
const char* LogSettingFileWriterName(const char* key);

// Applies its reader again, under the log's lock, whenever the key has changed.
class LogRegKeyWatcher : public SyRegKeyWatcher {
public:
    LogRegKeyWatcher(const std::string& keyPath, RegSettingsReader* owner);
    bool OnKeyChanged() override;

    RegSettingsReader* reader;  // not owned; cleared before the reader goes
};

// Settings below one registry key, by a path with the hive's root in front ("HKLM\...").
// A key that doesn't exist reads as absent everywhere, so the defaults apply.
class RegSettingsReader : public SettingsReader {
public:
    RegSettingsReader(Logger* owner, const std::string& keyPath);
    ~RegSettingsReader() override;

    int IsReady() override { return 0; }
    const char* GetName() override { return "RegistryReader"; }
    bool GetString(const char* setting, std::string* value) override;
    bool GetInt(const char* setting, int32_t* value) override;
    bool GetBool(const char* setting, bool* value) override;
    std::string GetLocation(const char* setting) override;

    Logger* GetLogger() const { return logger; }
    const RCPtr<LogRegKeyWatcher>& GetWatcher() const { return watcher; }

private:
    // The value if the key holds it now, else null.
    RCPtr<SyRegValue> Read(const char* setting);

    Logger* logger;  // not owned: the logger owns its readers
    RCPtr<LogRegKeyWatcher> watcher;
};
