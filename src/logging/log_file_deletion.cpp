#include "logging/log_file_deletion.h"

#include <algorithm>
#include <cstring>

#include "logging/log.h"
#include "sysutil/file_utils.h"
#include "sysutil/string_utils.h"

namespace {

const char kFindLabel[] = "FileWriter::FindLogFiles()";
const char kOldLabel[] = "FileWriter::DeleteOldLogFiles()";
const char kMaxLabel[] = "FileWriter::DeleteMaxLogFiles()";
const char kDoneLabel[] = "FileWriter::ScanLogFilesDone()";

// Ages beyond this (10,000 days) are taken for a broken stamp, like stamps in the future.
constexpr int64_t kMaxSaneAgeSeconds = 864000000;
constexpr uint64_t kFileTimeUnitsPerSecond = 10000000;

const char* Plural(int64_t count) { return count == 1 ? "" : "s"; }

}  // namespace

// --- FileInfo ---

const std::string& LogFileDeletion::FileInfo::GetAgeText() {
    if (ageText.empty()) ageText = StringUtils::FormatDuration(static_cast<double>(age), 0);
    return ageText;
}

// --- DirectoryIterator ---

LogFileDeletion::DirectoryIterator::DirectoryIterator(const std::string& listFolder, const std::string& listPattern)
    : folder(listFolder), pattern(FileUtils::JoinPath(listFolder, listPattern.empty() ? "*" : listPattern)) {
    SYSTEMTIME system;
    GetSystemTime(&system);
    FILETIME stamp;
    if (SystemTimeToFileTime(&system, &stamp)) {
        now = (static_cast<uint64_t>(stamp.dwHighDateTime) << 32) | stamp.dwLowDateTime;
    }
}

LogFileDeletion::DirectoryIterator::~DirectoryIterator() {
    if (findHandle && findHandle != INVALID_HANDLE_VALUE) FindClose(findHandle);
}

RCPtr<LogFileDeletion::FileInfo> LogFileDeletion::DirectoryIterator::Next() {
    WIN32_FIND_DATAW found;
    for (;;) {
        memset(&found, 0, sizeof(found));
        if (!findHandle) {
            HANDLE h = FindFirstFileW(StringUtils::Utf8ToWide(pattern).c_str(), &found);
            if (h == INVALID_HANDLE_VALUE) return nullptr;
            findHandle = h;
        } else if (findHandle == INVALID_HANDLE_VALUE || !FindNextFileW(findHandle, &found)) {
            return nullptr;
        }
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;

        RCPtr<FileInfo> info(new FileInfo());
        info->name = StringUtils::WideToUtf8(found.cFileName);
        info->path = FileUtils::JoinPath(folder, info->name);
        info->fileTime = (static_cast<uint64_t>(found.ftLastWriteTime.dwHighDateTime) << 32) |
                         found.ftLastWriteTime.dwLowDateTime;
        // A stamp in the future or absurdly far back counts as just written.
        int64_t age = static_cast<int64_t>(now - info->fileTime) / static_cast<int64_t>(kFileTimeUnitsPerSecond);
        info->age = (age < 0 || age > kMaxSaneAgeSeconds) ? 0 : static_cast<int32_t>(age);
        return info;
    }
}

// --- PollDeleteLogFiles ---

PollDeleteLogFiles::PollDeleteLogFiles(LogFileDeletion* owner) : SyPollItem("DeleteLogFiles"), writer(owner) {}

bool PollDeleteLogFiles::Run(bool timedOut) {
    RCPtr<LogFileDeletion> scan = writer.Lock();
    if (!scan) return false;
    SetTimeoutMS(scan->Step(timedOut), false);
    return true;
}

// --- LogFileDeletion ---

LogFileDeletion::LogFileDeletion()
    : deleteItem(new PollDeleteLogFiles(this)), wakeEvent(new SyEvent(false, false, "")) {
    deleteItem->SetRCEvent(wakeEvent);
    deleteItem->SetTimeoutMS(kFirstScanMs, true);
}

LogFileDeletion::~LogFileDeletion() { Detach(true); }

void LogFileDeletion::SetLocation(const std::string& folder, const std::string& pattern,
                                  const std::string& prefix) {
    SyMutexGuard guard(&locationLock);
    folderPath = folder;
    filePattern = pattern;
    processPrefix = prefix;
}

void LogFileDeletion::SetMaxDaysKept(int32_t days) {
    maxDaysKept = days;
    WakeItem();
}

void LogFileDeletion::SetMaxNumFiles(uint32_t count) {
    maxNumFiles = count;
    WakeItem();
}

void LogFileDeletion::SetMinAgeInHours(int32_t hours) {
    minAgeInHours = hours;
    WakeItem();
}

void LogFileDeletion::WakeItem() {
    // The event stays set until the item is on a poll thread, which then starts a scan at once.
    wakeEvent->Set();
}

bool LogFileDeletion::Attach(const RCPtr<SyPollThread>& pollThread) {
    if (!pollThread) return false;
    if (pollThread->HasItem(deleteItem.Get())) return true;
    return pollThread->AddItem(deleteItem.Get());
}

void LogFileDeletion::Detach(bool wait) { deleteItem->Remove(wait); }

int32_t LogFileDeletion::Step(bool timedOut) {
    if (!timedOut && scanState != 0) ScanLogFilesDone(true);
    switch (scanState) {
        case 0:
            if (!FindLogFiles()) scanState = 1;
            break;
        case 1:
            if (!DeleteOldLogFiles()) scanState = 2;
            break;
        case 2:
            if (!DeleteMaxLogFiles()) scanState = 3;
            break;
        default:
            ScanLogFilesDone(false);
            return kScanIntervalMs;
    }
    return kStepMs;
}

bool LogFileDeletion::FindLogFiles() {
    if (!iterator) {
        std::string folder, pattern;
        {
            SyMutexGuard guard(&locationLock);
            folder = folderPath;
            pattern = filePattern;
        }
        iterator = new DirectoryIterator(folder, pattern);
        SY_LOG(LOG_INFO, kFindLabel, "Scanning \"%s\"", iterator->pattern.c_str());
        if (iterator->now == 0) {
            SY_LOG(LOG_ERROR, kFindLabel, "Failed to start iteration");
            iterator = nullptr;
            return false;
        }
    }
    std::string prefix;
    {
        SyMutexGuard guard(&locationLock);
        prefix = processPrefix;
    }
    for (int i = 0; i < kStepEntries; ++i) {
        RCPtr<FileInfo> info = iterator->Next();
        if (!info) {
            SY_LOG(LOG_INFO, kFindLabel, "Scan complete; %zd file%s found", static_cast<ptrdiff_t>(foundFiles.size()),
                   Plural(static_cast<int64_t>(foundFiles.size())));
            iterator = nullptr;
            return false;
        }
        // Any writer, this process's own included, keeps its file open; the open fails then.
        FileUtils::SyFile probe(info->path);
        bool closed = probe.Open("a", true);
        probe.Close();
        if (!closed) {
            SY_LOG(LOG_VERBOSE, kFindLabel, "Skipping active log file \"%s\" (age %s)", info->name.c_str(),
                   info->GetAgeText().c_str());
            ++activeSessions;
        } else if (!prefix.empty() && _strnicmp(info->path.c_str(), prefix.c_str(), prefix.size()) == 0) {
            // Earlier files of this process: rolling keeps their number in check.
            SY_LOG(LOG_VERBOSE, kFindLabel, "Skipping current process \"%s\" (age %s)", info->name.c_str(),
                   info->GetAgeText().c_str());
        } else {
            SY_LOG(LOG_VERBOSE, kFindLabel, "Found \"%s\" (age %s)", info->name.c_str(), info->GetAgeText().c_str());
            foundFiles.emplace(info->age, info);
            ++filesFound;
        }
    }
    return true;
}

bool LogFileDeletion::DeleteOldLogFiles() {
    const int32_t days = maxDaysKept;
    if (days == 0) {
        SY_LOG(LOG_INFO, kOldLabel, "Deleting old log files disabled");
        logOldHeader = true;
        return false;
    }
    // The minimum age outranks a shorter number of days.
    const int64_t limit = std::max<int64_t>(static_cast<int64_t>(minAgeInHours) * 3600, static_cast<int64_t>(days) * 86400);
    if (logOldHeader) {
        SY_LOG(LOG_INFO, kOldLabel, "Deleting files older than %s",
               StringUtils::FormatDuration(static_cast<double>(limit), 0).c_str());
        logOldHeader = false;
    }
    if (DeleteOldest(0, limit, kOldLabel)) return true;
    logOldHeader = true;
    return false;
}

bool LogFileDeletion::DeleteMaxLogFiles() {
    int64_t keep = maxNumFiles;
    const int64_t minAge = static_cast<int64_t>(minAgeInHours) * 3600;
    if (keep == 0) {
        SY_LOG(LOG_INFO, kMaxLabel, "Deleting old log files disabled");
        logMaxHeader = true;
        return false;
    }
    // Each process that is writing now may keep its own share.
    if (activeSessions > 1) keep *= activeSessions;
    if (logMaxHeader) {
        SY_LOG(LOG_INFO, kMaxLabel, "Keeping %d file%s, minimum age %s, %d active session%s", static_cast<int>(keep),
               Plural(keep), StringUtils::FormatDuration(static_cast<double>(minAge), 0).c_str(), activeSessions,
               Plural(activeSessions));
        logMaxHeader = false;
    }
    if (DeleteOldest(static_cast<size_t>(keep), minAge, kMaxLabel)) return true;
    logMaxHeader = true;
    return false;
}

bool LogFileDeletion::DeleteOldest(size_t keep, int64_t minAge, const char* function) {
    int done = 0;
    while (foundFiles.size() > keep) {
        auto oldest = foundFiles.begin();
        FileInfo& info = *oldest->second;
        if (info.age <= minAge) {
            SY_LOG(LOG_INFO, function, "Stopping at \"%s\" (age %s)", info.name.c_str(), info.GetAgeText().c_str());
            return false;
        }
        if (DeleteLogFile(info, function)) ++filesDeleted;
        // A file that couldn't go isn't tried again in this scan.
        foundFiles.erase(oldest);
        if (++done == kStepEntries) return true;
    }
    return false;
}

bool LogFileDeletion::DeleteLogFile(FileInfo& info, const char* function) {
    uint32_t error = 0;
    if (FileUtils::DeleteFileAt(info.path, &error)) {
        SY_LOG(LOG_INFO, function, "Deleted \"%s\" (age %s)", info.name.c_str(), info.GetAgeText().c_str());
        return true;
    }
    if (error == ERROR_SHARING_VIOLATION) {
        // Opened by another process between the test and the delete.
        SY_LOG(LOG_VERBOSE, function, "Skipping active log file \"%s\" (age %s)", info.name.c_str(),
               info.GetAgeText().c_str());
        return false;
    }
    SY_LOG_ERROR(error, LOG_WARN, function, "Failed to delete \"%s\" (age %s)", info.name.c_str(),
                 info.GetAgeText().c_str());
    return false;
}

void LogFileDeletion::ScanLogFilesDone(bool interrupted) {
    const char* how = interrupted ? "interrupted" : "complete";
    const std::string next = StringUtils::FormatDuration(kScanIntervalMs / 1000.0, 0);
    if (filesFound == 0) {
        SY_LOG(LOG_INFO, kDoneLabel, "Scan %s; no log files found, next scan in %s", how, next.c_str());
    } else {
        const int64_t remain = static_cast<int64_t>(foundFiles.size());
        SY_LOG(LOG_INFO, kDoneLabel, "Scan %s; %d file%s deleted, %d file%s remain%s, next scan in %s", how,
               filesDeleted, Plural(filesDeleted), static_cast<int>(remain), Plural(remain), remain == 1 ? "s" : "",
               next.c_str());
    }
    scanState = 0;
    filesDeleted = 0;
    filesFound = 0;
    activeSessions = 0;
    foundFiles.clear();
    // An interrupted listing starts over from the first entry.
    iterator = nullptr;
    logOldHeader = true;
    logMaxHeader = true;
}
