#include "registry/sy_reg_key.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "logging/function_trace.h"
#include "logging/log.h"
#include "sysutil/file_utils.h"
#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

namespace {

struct RootName {
    const char* name;
    HKEY root;
};

const RootName kRoots[] = {
    {"HKLM", HKEY_LOCAL_MACHINE}, {"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
    {"HKCU", HKEY_CURRENT_USER},  {"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
    {"HKU", HKEY_USERS},          {"HKEY_USERS", HKEY_USERS},
    {"HKCR", HKEY_CLASSES_ROOT},  {"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
    {"HKCC", HKEY_CURRENT_CONFIG}, {"HKEY_CURRENT_CONFIG", HKEY_CURRENT_CONFIG},
};

HKEY FindRoot(const std::string& name) {
    if (name.size() > 31) return nullptr;
    for (const RootName& r : kRoots) {
        if (_stricmp(r.name, name.c_str()) == 0) return r.root;
    }
    return nullptr;
}

bool Enabled(int32_t level) { return processLogLevel >= level; }

}  // namespace

std::string RegViewName(RegView view) {
    switch (view) {
        case RegView::Win32Default: return "Win32Default";
        case RegView::Alternate: return "Alternate";
        case RegView::Reg64Bit: return "Reg64Bit";
        case RegView::Reg32Bit: return "Reg32Bit";
    }
    return std::to_string(static_cast<int32_t>(view));
}

REGSAM RegViewAccess(RegView view) {
    switch (view) {
        case RegView::Alternate:
        case RegView::Reg32Bit: return 0x20219;
        case RegView::Reg64Bit: return 0x20119;
        default: return 0x20019;
    }
}

std::string RegTypeName(uint32_t type) {
    static const char* const kNames[] = {"REG_NONE",
                                         "REG_SZ",
                                         "REG_EXPAND_SZ",
                                         "REG_BINARY",
                                         "REG_DWORD",
                                         "REG_DWORD_BIG_ENDIAN",
                                         "REG_LINK",
                                         "REG_MULTI_SZ",
                                         "REG_RESOURCE_LIST",
                                         "REG_FULL_RESOURCE_DESCRIPTOR",
                                         "REG_RESOURCE_REQUIREMENTS_LIST",
                                         "REG_QWORD"};
    return type < 12 ? kNames[type] : std::to_string(type);
}

const char* FormatName(int32_t session, const std::string& path, std::string& out) {
    if (session == -1) return path.c_str();
    out = StringUtils::FormatString("Session%s%d%s%s", "\\", session, "\\", path.c_str());
    return out.c_str();
}

std::string GetWow64Path(const std::string& path, RegView view) {
    if (view != RegView::Alternate && view != RegView::Reg32Bit) return path;
    static const char kSoftware[] = "\\SOFTWARE\\";
    const char* at = StringUtils::FindNoCase(path.c_str(), kSoftware);
    if (!at) return path;
    size_t head = static_cast<size_t>(at - path.c_str()) + strlen(kSoftware);
    return StringUtils::FormatString("%.*sWOW6432Node\\%s", static_cast<int>(head), path.c_str(), path.c_str() + head);
}

// --- SyRegKey ---

SyRegKey::SyRegKey(const std::string& path, RegView keyView, bool openNow) : keyPath(path), view(keyView) {
    FunctionTrace trace(logLevel, "SyRegKey::SyRegKey()");
    UpdateName();
    if (openNow) OpenKey();
}

SyRegKey::~SyRegKey() {
    FunctionTrace trace(logLevel, "SyRegKey::~SyRegKey()");
    SY_LOG(logLevel, "SyRegKey::~SyRegKey()", "%s", displayName);
    CloseKey();
}

void SyRegKey::UpdateName() {
    displayName = FormatName(sessionId, keyPath, sessionName);
    OnNameChanged();
}

LONG SyRegKey::OpenKey() {
    static const char* const kLabel = "SyRegKey::OpenKey()";
    if (sessionId != nextSessionId) {
        CloseKey();
        sessionId = nextSessionId;
        UpdateName();
    }
    if (key) return ERROR_SUCCESS;
    isOpen = false;

    size_t separator = keyPath.find_first_of("/\\");
    if (keyPath.empty() || separator == std::string::npos) {
        SY_LOG(LOG_WARN, kLabel, "Missing root key \"%s\"", displayName);
        return kRegBadPath;
    }
    HKEY root = FindRoot(keyPath.substr(0, separator));
    if (!root) {
        SY_LOG(LOG_WARN, kLabel, "Invalid root key \"%s\"", displayName);
        return kRegBadPath;
    }
    std::string subKey = keyPath.substr(separator + 1);
    if (subKey.empty()) {
        SY_LOG(LOG_WARN, kLabel, "Missing key name \"%s\"", displayName);
        return kRegBadPath;
    }

    const REGSAM access = RegViewAccess(view);
    if (root == HKEY_CURRENT_USER) {
        char* sid = nullptr;
        // A session's user is reached through HKEY_USERS and the SID, whoever the process runs as.
        if (sessionId != -1 && ProcessUtils::GetUserSIDForSession(static_cast<uint32_t>(sessionId), &sid, LOG_ERROR)) {
            root = HKEY_USERS;
            subKey = std::string(sid) + "\\" + subKey;
            free(sid);
        } else {
            LONG rc = RegOpenCurrentUser(access, &rootKey);
            if (rc == ERROR_SUCCESS) {
                root = rootKey;
            } else {
                rootKey = nullptr;
                SY_LOG_ERROR(static_cast<uint32_t>(rc), LOG_ERROR, kLabel, "%s - RegOpenCurrentUser() failed",
                             displayName);
            }
        }
    }

    LONG rc = RegOpenKeyExW(root, StringUtils::Utf8ToWide(subKey).c_str(), 0, access, &key);
    if (rc == ERROR_SUCCESS) {
        SY_LOG(logLevel, kLabel, "key %s opened", displayName);
        isOpen = true;
        return ERROR_SUCCESS;
    }
    key = nullptr;
    // A missing key is an ordinary answer, not a fault.
    if (rc != ERROR_FILE_NOT_FOUND) {
        SY_LOG_ERROR(static_cast<uint32_t>(rc), LOG_ERROR, kLabel, "RegOpenKeyEx(%s) failed", displayName);
    }
    CloseKey();
    return rc;
}

void SyRegKey::CloseKey() {
    if (key) {
        if (RegCloseKey(key) != ERROR_SUCCESS) {
            SY_LOG(LOG_ERROR, "SyRegKey::CloseKey()", "RegCloseKey(%s) failed", displayName);
        }
        key = nullptr;
    }
    if (rootKey) {
        if (RegCloseKey(rootKey) != ERROR_SUCCESS) {
            SY_LOG(LOG_ERROR, "SyRegKey::CloseKey()", "RegCloseKey(hkeyRoot) failed");
        }
        rootKey = nullptr;
    }
    isOpen = false;
}

bool SyRegKey::SetSessionID(int32_t session) {
    static const char* const kLabel = "SyRegKey::SetSessionID()";
    if (session == nextSessionId) return true;
    if (!ProcessUtils::IsSessionValid(static_cast<uint32_t>(session), nullptr)) {
        SY_LOG(LOG_ERROR, kLabel, "key %s - invalid session ID %d", displayName, session);
        return false;
    }
    nextSessionId = session;
    if (!key) {
        sessionId = session;
        UpdateName();
        SY_LOG(LOG_DEBUG, kLabel, "key %s - not opened yet, reopen ignored", displayName);
        return true;
    }
    return OpenKey() == ERROR_SUCCESS;
}

// --- SyRegValue ---

SyRegValue::SyRegValue(const std::string& path, const std::string& name, RegView valueView, bool loadNow)
    : SyRegKey(path, valueView, false), valuePath(FileUtils::JoinPath(path, name)), valueName(name) {
    OnNameChanged();
    if (loadNow) Load(false, 7);
}

SyRegValue::SyRegValue(const std::string& fullPath, RegView valueView, bool loadNow)
    : SyRegValue(FileUtils::GetDirName(fullPath), FileUtils::GetLeafName(fullPath), valueView, loadNow) {}

void SyRegValue::OnNameChanged() { valueDisplayName = FormatName(sessionId, valuePath, valueSessionName); }

bool SyRegValue::Load(bool wide, int32_t requestedLevel) {
    static const char* const kLabel = "SyRegValue::Load()";
    const int32_t level = std::min(requestedLevel, logLevel);

    LONG rc = OpenKey();
    if (rc != ERROR_SUCCESS) {
        if (Enabled(level)) LogError(static_cast<uint32_t>(rc), kLabel, level, "RegOpenKeyEx(\"%s\") failed", valueDisplayName);
        return Clear(false);
    }

    // The narrow function takes the name and gives text in the ANSI code page; the getters
    // turn such text into UTF-8.
    std::wstring wideName = StringUtils::Utf8ToWide(valueName);
    std::string ansiName = StringUtils::Utf8ToAnsi(valueName);
    auto query = [&](uint8_t* buffer, DWORD* size, DWORD* type) {
        return wide ? RegQueryValueExW(key, wideName.c_str(), nullptr, type, buffer, size)
                    : RegQueryValueExA(key, ansiName.c_str(), nullptr, type, buffer, size);
    };

    DWORD type = 0;
    DWORD size = 0;
    rc = query(nullptr, &size, &type);
    if (rc == ERROR_MORE_DATA) rc = ERROR_SUCCESS;
    if (rc == ERROR_SUCCESS) {
        std::vector<uint8_t> fresh(static_cast<size_t>(size) + 4, 0);
        rc = query(fresh.data(), &size, &type);
        if (rc == ERROR_SUCCESS) {
            fresh.resize(static_cast<size_t>(size) + 4);
            bool unchanged = hasData && type == dataType && size == dataSize &&
                             memcmp(fresh.data(), data.data(), size) == 0;
            if (unchanged) {
                if (LogData("SyRegValue::LogData()", level)) {
                    Log(kLabel, level, "\"%s\" has not changed", valueDisplayName);
                }
                return false;
            }
            data.swap(fresh);
            dataSize = size;
            dataType = type;
            hasData = true;
            isWide = wide;
            if (LogData("SyRegValue::LogData()", level)) Log(kLabel, level, "\"%s\" has changed", valueDisplayName);
            return true;
        }
    }
    if (Enabled(level)) LogError(static_cast<uint32_t>(rc), kLabel, level, "RegQueryValueEx(\"%s\") failed", valueDisplayName);
    return Clear(false);
}

bool SyRegValue::Clear(bool reload) {
    bool had = hasData;
    hasData = false;
    dataSize = 0;
    dataType = 0;
    data.clear();
    CloseKey();
    if (reload) Load(isWide, 7);
    return had;
}

bool SyRegValue::LogData(const char* function, int32_t level) {
    if (!Enabled(level)) return false;
    const char* wow = GetWow64Path(keyPath, view) != keyPath ? "/WOW64" : "";
    std::string dump;
    if (dataSize > 0) {
        char buffer[1023];
        int indent = static_cast<int>(strlen(function)) + 42;
        StringUtils::HexDump(buffer, sizeof(buffer), data.data(), static_cast<int>(dataSize), 20, indent);
        dump = std::string("\n") + buffer;
    }
    Log(function, level, "%s  Location(%s%s)  Type(%s/%c)  Size(%d)%s", valueDisplayName, RegViewName(view).c_str(),
        wow, RegTypeName(dataType).c_str(), isWide ? 'W' : 'A', static_cast<int>(dataSize), dump.c_str());
    return true;
}

std::string SyRegValue::FirstString() const {
    if (data.empty()) return std::string();
    if (isWide) return StringUtils::WideToUtf8(reinterpret_cast<const wchar_t*>(data.data()));
    return StringUtils::AnsiToUtf8(reinterpret_cast<const char*>(data.data()));
}

bool SyRegValue::GetBool(bool defaultValue) {
    switch (dataType) {
        case REG_SZ:
        case REG_EXPAND_SZ:
        case REG_MULTI_SZ: {
            std::string text = FirstString();
            for (const char* yes : {"true", "yes", "1"}) {
                if (_stricmp(text.c_str(), yes) == 0) return true;
            }
            for (const char* no : {"false", "no", "0"}) {
                if (_stricmp(text.c_str(), no) == 0) return false;
            }
            return defaultValue;
        }
        case REG_BINARY:
            return std::any_of(data.begin(), data.begin() + dataSize, [](uint8_t b) { return b != 0; });
        case REG_DWORD:
        case REG_QWORD:
            return GetUInt64(0) != 0;
        default:
            return defaultValue;
    }
}

uint64_t RegLittleEndian(const uint8_t* bytes, uint32_t size, uint32_t width) {
    uint64_t value = 0;
    for (uint32_t i = 0; i < width && i < size && i < 8; ++i) value |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    return value;
}

uint64_t SyRegValue::GetUInt64(uint64_t defaultValue) {
    // A number value may be stored shorter than its type; only its own bytes are read.
    auto little = [&](uint32_t width) { return RegLittleEndian(data.data(), dataSize, width); };
    switch (dataType) {
        case REG_SZ:
        case REG_EXPAND_SZ:
        case REG_MULTI_SZ:
            // Base 0: "0x10" is 16 and "010" is 8.
            if (isWide) return wcstoul(reinterpret_cast<const wchar_t*>(data.data()), nullptr, 0);
            return strtoul(reinterpret_cast<const char*>(data.data()), nullptr, 0);
        case REG_BINARY:
            if (dataSize >= 8) return little(8);
            if (dataSize >= 4) return little(4);
            if (dataSize >= 2) return little(2);
            if (dataSize == 1) return little(1);
            return defaultValue;
        case REG_DWORD:
            return little(4);
        case REG_QWORD:
            return little(8);
        default:
            return defaultValue;
    }
}

uint32_t SyRegValue::GetUInt32(uint32_t defaultValue) {
    return static_cast<uint32_t>(std::min<uint64_t>(GetUInt64(defaultValue), 0xFFFFFFFFu));
}

std::string SyRegValue::GetString(const std::string& defaultValue) {
    // Narrow text is UTF-8 here: read it as UTF-16, since a narrow query goes through the ANSI
    // code page and loses every character outside it.
    if (IsText() && !isWide) Load(true, 7);
    switch (dataType) {
        case REG_SZ:
        case REG_EXPAND_SZ:
        case REG_MULTI_SZ:
            return FirstString();
        case REG_BINARY: {
            std::string text;
            for (uint32_t i = 0; i < dataSize; ++i) text += StringUtils::FormatString(i ? " %02x" : "%02x", data[i]);
            return text;
        }
        case REG_DWORD:
            return StringUtils::FormatString("%d", static_cast<int32_t>(GetUInt64(0)));
        case REG_QWORD:
            return StringUtils::FormatString("%lld", static_cast<long long>(GetUInt64(0)));
        default:
            return defaultValue;
    }
}

std::wstring SyRegValue::GetWString(const std::wstring& defaultValue) {
    // Text comes straight from the registry in UTF-16 rather than through a narrow copy.
    if (IsText() && !isWide) Load(true, 7);
    if (IsText()) return isWide ? std::wstring(reinterpret_cast<const wchar_t*>(data.data())) : defaultValue;
    if (dataType == REG_BINARY || dataType == REG_DWORD || dataType == REG_QWORD) {
        return StringUtils::Utf8ToWide(GetString(std::string()));
    }
    return defaultValue;
}

// --- One-call reads ---

bool ReadRegValue(const std::string& fullPath, RegView view, std::string* narrow, std::wstring* wide, int32_t level) {
    RCPtr<SyRegValue> value(new SyRegValue(fullPath, view, false));
    if (level == -1) level = 7;
    if (!value->Load(wide != nullptr, level)) return false;
    if (narrow) *narrow = value->GetString(std::string());
    if (wide) *wide = value->GetWString(std::wstring());
    return true;
}

std::string ReadRegString(const std::string& fullPath, int32_t level) {
    return ReadRegString(fullPath, RegView::Win32Default, level);
}

std::string ReadRegString(const std::string& fullPath, RegView view, int32_t level) {
    std::string text;
    ReadRegValue(fullPath, view, &text, nullptr, level);
    return text;
}

bool ReadRegString(const std::string& fullPath, std::string* out, int32_t level) {
    std::string text;
    bool found = ReadRegValue(fullPath, RegView::Win32Default, &text, nullptr, level);
    if (out) *out = text;
    return found;
}
