#include "sysutil/version_texts.h"

#include <windows.h>

#include <mutex>

#include "registry/sy_reg_key.h"
#include "sysutil/scoped_handle.h"
#include "sysutil/string_utils.h"

namespace ProcessUtils {

namespace {

bool ReadOSValue(const char* name, std::string* out) {
    SyRegValue value("HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", name, RegView::Reg64Bit, false);
    if (!value.Load(false, 7)) return false;
    *out = value.GetString(std::string());
    return true;
}

}  // namespace

std::string GetFileDateText(const std::string& path) {
    if (path.empty()) return std::string();
    ScopedHandle file{CreateFileW(StringUtils::Utf8ToWide(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr)};
    if (!file.Valid()) return std::string();
    FILETIME written, local;
    SYSTEMTIME t;
    if (!GetFileTime(file.Get(), nullptr, nullptr, &written) || !FileTimeToLocalFileTime(&written, &local) ||
        !FileTimeToSystemTime(&local, &t)) {
        return std::string();
    }
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const char* month = t.wMonth >= 1 && t.wMonth <= 12 ? kMonths[t.wMonth - 1] : "???";
    return StringUtils::FormatString("%s %2d %d %02d:%02d:%02d", month, t.wDay, t.wYear, t.wHour, t.wMinute,
                                     t.wSecond);
}

std::string GetProductVersionText(const std::string& path) {
    if (path.empty()) return std::string();
    const std::wstring widePath = StringUtils::Utf8ToWide(path);
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(widePath.c_str(), &ignored);
    if (size == 0) return std::string();
    MemoryBuffer block;
    if (!block.Allocate(static_cast<int32_t>(size)) || !GetFileVersionInfoW(widePath.c_str(), 0, size, block.value)) {
        return std::string();
    }
    std::string version = "unknown";
    struct Translation {
        WORD language;
        WORD codePage;
    }* translations = nullptr;
    UINT length = 0;
    if (VerQueryValueW(block.value, L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translations), &length)) {
        for (UINT i = 0; i < length / sizeof(Translation); ++i) {
            std::wstring key = StringUtils::Utf8ToWide(StringUtils::FormatString(
                "\\StringFileInfo\\%04x%04x\\ProductVersion", translations[i].language, translations[i].codePage));
            wchar_t* text = nullptr;
            UINT textLength = 0;
            if (VerQueryValueW(block.value, key.c_str(), reinterpret_cast<void**>(&text), &textLength) && text) {
                version = StringUtils::WideToUtf8(text);
                break;
            }
        }
    }
    return version + " (" + GetFileDateText(path) + ")";
}

std::string GetFileVersionText(const std::string& path) {
    std::string product = GetProductVersionText(path);
    if (!product.empty()) return "version=" + product;
    std::string date = GetFileDateText(path);
    return date.empty() ? "No version information" : "No version information (" + date + ")";
}

std::string GetOSVersionText() {
    static std::once_flag once;
    static std::string text;
    std::call_once(once, [] {
        std::string value;
        text = ReadOSValue("ProductName", &value) ? value : "Windows unknown";
        if (ReadOSValue("CSDVersion", &value)) text += ", " + value;
        OSVERSIONINFOEXA info{};
        info.dwOSVersionInfoSize = sizeof(info);
        info.wSuiteMask = VER_SUITE_SINGLEUSERTS;
        const DWORDLONG condition = VerSetConditionMask(0, VER_SUITENAME, VER_OR);
        if (!VerifyVersionInfoA(&info, VER_SUITENAME, condition)) text += ", RDS installed";
        std::string major, minor, version;
        if (ReadOSValue("CurrentMajorVersionNumber", &major) && ReadOSValue("CurrentMinorVersionNumber", &minor)) {
            version = major + "." + minor;
        } else {
            ReadOSValue("CurrentVersion", &version);
        }
        text += ", Version " + version;
        if (ReadOSValue("ReleaseId", &value)) text += "." + value;
        if (ReadOSValue("CurrentBuildNumber", &value) || ReadOSValue("CurrentBuild", &value)) {
            text += ", Build " + value;
        }
        text += ", 64-bit";
    });
    return text;
}

}  // namespace ProcessUtils
