#include "sysutil/file_utils.h"

#include <windows.h>

#include <io.h>
#include <share.h>

#include <cstring>
#include <sys/stat.h>

#include "logging/log.h"
#include "sysutil/scoped_handle.h"
#include "sysutil/string_utils.h"

namespace FileUtils {

namespace {

std::wstring Wide(const std::string& path) { return StringUtils::Utf8ToWide(path); }

DWORD Attributes(const std::string& path) { return GetFileAttributesW(Wide(path).c_str()); }

}  // namespace

bool SyFile::Open(const char* mode, bool denyWrite) {
    if (path.empty()) {
        SY_LOG(LOG_DEBUG, "FileUtils::SyFile::Open()", "The abolute path of the file is not set.\n");
        return false;
    }
    if (!IsFile(path)) {
        SY_LOG(LOG_DEBUG, "FileUtils::SyFile::Open()", "%s file does not exist.\n", path.c_str());
        return false;
    }
    Close();
    std::wstring widePath = Wide(path);
    std::wstring wideMode = StringUtils::Utf8ToWide(mode ? mode : "");
    stream = _wfsopen(widePath.c_str(), wideMode.c_str(), denyWrite ? _SH_DENYWR : _SH_DENYNO);
    appending = stream && mode && strchr(mode, 'a');
    return stream != nullptr;
}

bool SyFile::Close() {
    if (stream) fclose(stream);
    stream = nullptr;
    return true;
}

bool SyFile::Flush() { return stream && fflush(stream) == 0; }

bool SyFile::Write(const char* text) {
    if (!stream) return false;
    fprintf(stream, "%s", text ? text : "");
    return true;
}

bool SyFile::GetSize(int64_t* size) {
    if (path.empty()) return false;
    int64_t value;
    if (!stream) {
        struct _stat64 info;
        if (_wstat64(Wide(path).c_str(), &info) != 0) return false;
        value = info.st_size;
    } else if (appending) {
        // An append stream stands at 0 until its first write moves it to the end, and other
        // writers may grow the file meanwhile: the length of the file itself is the size.
        if (fflush(stream) != 0) return false;
        value = _filelengthi64(_fileno(stream));
        if (value == -1) return false;
    } else {
        value = _ftelli64(stream);
        if (value == -1) return false;
    }
    if (size) *size = value;
    return true;
}

bool CreateEmptyFile(const std::string& path, bool truncate) {
    SECURITY_DESCRIPTOR descriptor;
    if (!InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION)) return false;
    // A present but null DACL grants everyone access.
    if (!SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE)) return false;
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), &descriptor, FALSE};
    ScopedHandle file{CreateFileW(Wide(path).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                &attributes, truncate ? CREATE_ALWAYS : OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)};
    return file.Valid();
}

bool DeleteFileAt(const std::string& path, uint32_t* error) {
    if (DeleteFileW(Wide(path).c_str())) {
        if (error) *error = 0;
        return true;
    }
    DWORD code = GetLastError();
    if (error) *error = code;
    return Attributes(path) == INVALID_FILE_ATTRIBUTES;
}

bool GetFreeDiskSpace(const std::string& path, uint64_t* bytes) {
    ULARGE_INTEGER available;
    if (!GetDiskFreeSpaceExW(Wide(path).c_str(), &available, nullptr, nullptr)) return false;
    if (bytes) *bytes = available.QuadPart;
    return true;
}

bool PathExists(const std::string& path) { return Attributes(path) != INVALID_FILE_ATTRIBUTES; }

bool IsFile(const std::string& path) {
    DWORD a = Attributes(path);
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsDirectory(const std::string& path) {
    DWORD a = Attributes(path);
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

std::string GetLeafName(const std::string& path) {
    size_t at = path.find_last_of("/\\");
    return at == std::string::npos ? path : path.substr(at + 1);
}

std::string GetDirName(const std::string& path) {
    size_t at = path.find_last_of("/\\");
    if (at == std::string::npos) return ".";
    if (at == 0) return path.substr(0, 1);
    if (at == 2 && path[1] == ':') return path.substr(0, 3);
    return path.substr(0, at);
}

std::string JoinPath(const std::string& folder, const std::string& name) {
    if (folder.empty()) return name;
    char last = folder.back();
    return (last == '/' || last == '\\') ? folder + name : folder + "\\" + name;
}

}  // namespace FileUtils
