#include "logging/writer_files.h"

#include <algorithm>
#include <atomic>

#include "sysutil/scoped_handle.h"
#include "sysutil/string_utils.h"

namespace {
std::atomic<int> folderCount{0};

std::wstring Wide(const std::string& path) { return StringUtils::Utf8ToWide(path); }

// Also what a failed test left in subfolders: a process id comes round again under Wine, and so
// would the folder's name.
void RemoveTree(const std::wstring& folder) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW((folder + L"*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = data.cFileName;
            if (name == L"." || name == L"..") continue;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(folder + name + L"\\");
            } else {
                DeleteFileW((folder + name).c_str());
            }
        } while (FindNextFileW(find, &data));
        FindClose(find);
    }
    RemoveDirectoryW(folder.c_str());
}
}  // namespace

ScratchFolder::ScratchFolder(const std::string& tag) {
    wchar_t temp[MAX_PATH + 1];
    GetTempPathW(MAX_PATH, temp);
    path = StringUtils::WideToUtf8(temp) + "writers-" + tag + "-" + std::to_string(GetCurrentProcessId()) + "-" +
           std::to_string(++folderCount) + "\\";
    RemoveTree(Wide(path));
    CreateDirectoryW(Wide(path).c_str(), nullptr);
}

ScratchFolder::~ScratchFolder() { RemoveTree(Wide(path)); }

std::vector<std::string> ScratchFolder::Files() const {
    std::vector<std::string> names;
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(Wide(path + "*").c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) return names;
    do {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(StringUtils::WideToUtf8(data.cFileName));
    } while (FindNextFileW(find, &data));
    FindClose(find);
    std::sort(names.begin(), names.end());
    return names;
}

bool WriteAgedFile(const std::string& path, int64_t ageSeconds) {
    ScopedHandle file{CreateFileW(Wide(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                  nullptr)};
    DWORD written = 0;
    if (!file.Valid() || !WriteFile(file.Get(), "line\r\n", 6, &written, nullptr)) return false;
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER stamp{{now.dwLowDateTime, now.dwHighDateTime}};
    stamp.QuadPart -= static_cast<uint64_t>(ageSeconds * 10000000LL);
    const FILETIME when = {stamp.LowPart, stamp.HighPart};
    return SetFileTime(file.Get(), nullptr, nullptr, &when) != FALSE;
}

std::string ReadWholeFile(const std::string& path) {
    ScopedHandle file{CreateFileW(Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)};
    std::string bytes;
    char chunk[65536];
    DWORD got = 0;
    while (file.Valid() && ReadFile(file.Get(), chunk, sizeof(chunk), &got, nullptr) && got > 0) bytes.append(chunk, got);
    return bytes;
}

RCPtr<Logger> LooseLogger(const std::string& appName) {
    return RCPtr<Logger>(new Logger(appName, appName, RCPtr<LogMessageManager>(new LogMessageManager)));
}

bool EnqueueText(LogWriter* writer, const std::string& text, int32_t level) {
    RCPtr<LogMessage> message;
    writer->logger->messageManager->NewMessage(message, level, text.c_str(), -1);
    SyMutexGuard guard(&LogMutex());
    return writer->Enqueue(message);
}
