// Registry keys and values by one path text ("HKLM\Software\..."), in a chosen view and for a
// chosen session, opened for reading on demand, with typed getters over the raw bytes.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/rc_object.h"
#include "foundation/sy_mutex.h"

enum class RegView : int32_t {
    Win32Default = 0,
    Alternate = 1,
    Reg64Bit = 2,
    Reg32Bit = 3,
};

// The name of a view as logged; a view outside the table prints as its number.
std::string RegViewName(RegView view);
// The desired access of an open in this view.
REGSAM RegViewAccess(RegView view);
// The name of a registry type as logged; outside 0..11 its number.
std::string RegTypeName(uint32_t type);

// session -1: the path's own text; else "Session\<n>\<path>", kept in out.
const char* FormatName(int32_t session, const std::string& path, std::string& out);
// Where a view really reads: the 32-bit views put "WOW6432Node\" behind "\SOFTWARE\".
std::string GetWow64Path(const std::string& path, RegView view);
// The little-endian number in the first `width` bytes of a value, reading no more than the
// value's `size` bytes.
uint64_t RegLittleEndian(const uint8_t* bytes, uint32_t size, uint32_t width);

// Result of OpenKey for a path that can't name a key.
constexpr LONG kRegBadPath = ERROR_BAD_FORMAT;
static_assert(ERROR_BAD_FORMAT == 11, "malformed paths answer 11");

class SyRegKey : public RCObject {
public:
    SyRegKey(const std::string& path, RegView view = RegView::Win32Default, bool openNow = false);
    ~SyRegKey() override;

    virtual void UpdateName();
    virtual void OnNameChanged() {}

    // 0, or a Windows error code; 11 for a malformed path, 2 for a missing key.
    LONG OpenKey();
    void CloseKey();
    bool SetSessionID(int32_t session);

    bool IsOpen() const { return isOpen; }
    HKEY GetKey() const { return key; }
    const char* GetDisplayName() const { return displayName; }
    const std::string& GetKeyPath() const { return keyPath; }
    RegView GetView() const { return view; }
    int32_t GetSessionId() const { return sessionId; }

protected:
    const char* displayName = "";
    std::string sessionName;
    std::string keyPath;
    RegView view;
    bool isOpen = false;
    HKEY rootKey = nullptr;
    HKEY key = nullptr;
    int32_t sessionId = -1;
    int32_t nextSessionId = -1;
    int32_t logLevel = 7;
};

class SyRegValue : public SyRegKey {
public:
    SyRegValue(const std::string& keyPath, const std::string& valueName, RegView view, bool loadNow);
    SyRegValue(const std::string& fullPath, RegView view, bool loadNow);

    void OnNameChanged() override;

    // True when the value changed since the last load: appeared, vanished, or other type,
    // size or bytes. Wide loads keep text in UTF-16.
    bool Load(bool wide, int32_t level);
    // Forgets the data (and reloads if asked); returns whether there was data.
    bool Clear(bool reload);
    // One line with location, type and size, and a dump of the bytes; false if level is off.
    bool LogData(const char* function, int32_t level);

    bool GetBool(bool defaultValue);
    uint64_t GetUInt64(uint64_t defaultValue);
    uint32_t GetUInt32(uint32_t defaultValue);
    std::string GetString(const std::string& defaultValue);
    std::wstring GetWString(const std::wstring& defaultValue);

    bool HasData() const { return hasData; }
    uint32_t GetDataType() const { return dataType; }
    uint32_t GetDataSize() const { return dataSize; }
    bool IsWide() const { return isWide; }
    const std::string& GetValueName() const { return valueName; }
    const char* GetValueDisplayName() const { return valueDisplayName; }

    // Held by a watcher while it checks this value; Load takes no lock itself.
    SyMutex mutex;

private:
    bool IsText() const { return dataType == REG_SZ || dataType == REG_EXPAND_SZ || dataType == REG_MULTI_SZ; }
    // The first string of a text value, narrowed if it was loaded wide.
    std::string FirstString() const;

    const char* valueDisplayName = "";
    std::string valueSessionName;
    std::string valuePath;
    std::string valueName;
    bool hasData = false;
    std::vector<uint8_t> data;
    uint32_t dataSize = 0;
    uint32_t dataType = 0;
    bool isWide = false;
};

// Reads one value by its full path; the key is open only for the call. level -1 means 7.
bool ReadRegValue(const std::string& fullPath, RegView view, std::string* narrow, std::wstring* wide, int32_t level);
// Empty when the value can't be read.
std::string ReadRegString(const std::string& fullPath, int32_t level = -1);
std::string ReadRegString(const std::string& fullPath, RegView view, int32_t level);
bool ReadRegString(const std::string& fullPath, std::string* out, int32_t level = -1);
