#include "logging/file_writer.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "logging/log_folder.h"
#include "logging/logger.h"
#include "sysutil/process_utils.h"
#include "sysutil/string_utils.h"

namespace {

constexpr uint64_t kBytesPerMB = 1048576;
constexpr const char kStars[] = "*******";
// The header of a disk line loses its level letter, blank, "*", colon and blank, so that the
// line runs from the ids straight into the text.
constexpr int kDiskHeaderCut = 5;

constexpr const char kBanner[] =
    "\n"
    "******************************************************************************\n"
    "************************   NEW LOG SESSION STARTING   ************************\n"
    "******************************************************************************\n"
    "\n";

uint32_t ParseNumber(const char* value) { return static_cast<uint32_t>(strtoul(value, nullptr, 0)); }

}  // namespace

FileWriter::FileWriter() : LogWriter(kType), scan(new LogFileDeletion()) { SetBuffered(true); }

FileWriter::~FileWriter() = default;

bool FileWriter::IsFiltered(const RCPtr<LogMessage>& message) {
    // While the disk is nearly full only ALWAYS and ERROR get through.
    return suspended && message && message->level >= LOG_WARN;
}

bool FileWriter::SetSetting(const char* setting, const char* value) {
    if (!setting || !*setting || !value || !*value) return false;
    SyMutexGuard guard(&LogMutex());
    const std::string name(setting);
    const bool fileOpen = file && file->IsOpen();
    if (name == "filename") {
        if (fileOpen) return false;
        baseName = value;
    } else if (name == "folderPath") {
        if (fileOpen) return false;
        folderPath = value;
    } else if (name == "maxDaysKept") {
        scan->SetMaxDaysKept(static_cast<int32_t>(ParseNumber(value)));
    } else if (name == "maxNumFiles") {
        scan->SetMaxNumFiles(ParseNumber(value));
    } else if (name == "minAgeInHours") {
        scan->SetMinAgeInHours(static_cast<int32_t>(ParseNumber(value)));
    } else if (name == "maxFileSizeMB") {
        int32_t size = static_cast<int32_t>(ParseNumber(value));
        if (size != -1 && (size < 0 || size > static_cast<int32_t>(kMaxFileSizeMB))) size = kMaxFileSizeMB;
        maxFileSizeMB = size;
    } else if (name == "maxRollingFiles") {
        maxRollingFiles = std::min(ParseNumber(value), kMaxRollingFiles);
    } else if (name == "diskThresholdLowMB") {
        uint32_t low = ParseNumber(value);
        // Lets the next check lift a suspension that the new value no longer justifies.
        if (low < diskThresholdLowMB) thresholdLowered = true;
        diskThresholdLowMB = low;
    } else if (name == "diskThresholdHighMB") {
        diskThresholdHighMB = ParseNumber(value);
    } else {
        LogWriter::SetSetting(setting, value);
    }
    return true;
}

bool FileWriter::GetSetting(const char* setting, std::string* value) {
    if (!setting || !value) return false;
    SyMutexGuard guard(&LogMutex());
    const std::string name(setting);
    uint32_t number;
    if (name == "filename") {
        *value = currentName;
        return true;
    }
    if (name == "folderPath") {
        *value = folderPath;
        return true;
    }
    if (name == "maxDaysKept") {
        number = static_cast<uint32_t>(scan->GetMaxDaysKept());
    } else if (name == "maxNumFiles") {
        number = scan->GetMaxNumFiles();
    } else if (name == "minAgeInHours") {
        number = static_cast<uint32_t>(scan->GetMinAgeInHours());
    } else if (name == "maxFileSizeMB") {
        number = GetSizeLimitMB();
    } else if (name == "maxRollingFiles") {
        number = maxRollingFiles;
    } else if (name == "diskThresholdLowMB") {
        number = diskThresholdLowMB;
    } else if (name == "diskThresholdHighMB") {
        number = diskThresholdHighMB;
    } else {
        return LogWriter::GetSetting(setting, value);
    }
    *value = StringUtils::FormatString("%u", number);
    return true;
}

uint32_t FileWriter::GetSizeLimitMB() {
    if (maxFileSizeMB != -1) return static_cast<uint32_t>(maxFileSizeMB);
    // Looked up each time: a change of level moves the limit at the next check.
    switch (logger ? logger->level : LOG_INFO) {
        case LOG_VERBOSE:
            return 99;
        case LOG_TRACE:
            return 75;
        case LOG_DEBUG:
            return 50;
        default:
            return 15;
    }
}

std::string FileWriter::MakeFileName(int32_t number) {
    std::string namePart = baseName;
    if (namePart.empty() && logger) namePart = logger->appName;
    if (namePart.empty()) namePart = "default";
    std::string tail;
    if (number == kPatternName) {
        tail = "*";
    } else {
        tail = StringUtils::FormatString("%c%d%c%d", '-', static_cast<int>(ProcessUtils::GetSessionID(false)), '-',
                                         static_cast<int>(processId));
        if (number != kPrefixName) {
            const int32_t level = logger ? logger->level : LOG_INFO;
            if (number > 1 || maxRollingFiles == 0 || level > LOG_INFO) {
                tail += StringUtils::FormatString("(%0*d)", maxRollingFiles == 0 ? 4 : 1, static_cast<int>(number));
            }
            // Local time whatever the lines use, cut to the minute: 2024-05-14-09-31.
            char date[32];
            StringUtils::FormatTimeStamp(date, sizeof(date), false);
            date[10] = '-';
            date[13] = '-';
            date[16] = '\0';
            tail += StringUtils::FormatString("__%s", date) + ".log";
        }
    }
    return StringUtils::FormatString("orvane%c%s%s", '-', namePart.c_str(), tail.c_str());
}

bool FileWriter::Open() {
    if (folderPath.empty()) {
        folderPath = LogFolder::SettleDefault();
        if (folderPath.empty()) return false;
    }
    ++fileNumber;
    currentName = MakeFileName(static_cast<int32_t>(fileNumber));
    processPrefix = FileUtils::JoinPath(folderPath, MakeFileName(kPrefixName));
    currentPath = FileUtils::JoinPath(folderPath, currentName);
    const bool existed = FileUtils::PathExists(currentPath);
    // Made without a DACL, so that any account running the same program may append to it.
    if (!existed && !FileUtils::CreateEmptyFile(currentPath, false)) return false;
    RCPtr<FileUtils::SyFile> opened(new FileUtils::SyFile(currentPath));
    // No deny mode: a reader can follow the file, and a cleaner finds out that it is in use.
    if (!opened->Open("a", false)) return false;
    file = opened;
    // The first file of a process is never removed by rolling.
    if (fileNumber > 1) rolledFiles.push_back(currentPath);
    if (existed) file->Write(kBanner);
    // The first scan of the folder follows a minute after the first file; a roll leaves a
    // scan in progress alone.
    scan->SetLocation(folderPath, MakeFileName(kPatternName), processPrefix);
    scan->Attach(LoggerManager::GetInstance().GetPollThread());
    return true;
}

bool FileWriter::Write(const RCPtr<LogMessage>& message) {
    if (!initialized || !file || !message || IsFiltered(message)) return false;
    return file->Write(message->text);
}

bool FileWriter::Close() {
    if (stopping) scan->Detach(true);
    if (file) {
        file->Close();
        file = nullptr;
    }
    return true;
}

void FileWriter::EndWrite() {
    const uint64_t limit = GetSizeLimitMB();
    int64_t size = 0;
    // Compared once per batch: a file may pass its limit by one batch.
    if (limit != 0 && file && file->GetSize(&size) && static_cast<uint64_t>(size) >= limit * kBytesPerMB) {
        RollLogFile();
    } else if (file) {
        file->Flush();
    }
    CheckDiskSpace();
}

void FileWriter::RollLogFile() {
    Close();
    if (!Open() || maxRollingFiles == 0) return;
    while (rolledFiles.size() > maxRollingFiles) {
        std::string oldest = rolledFiles.front();
        rolledFiles.pop_front();
        uint32_t error = 0;
        std::string leaf = FileUtils::GetLeafName(oldest);
        if (FileUtils::DeleteFileAt(oldest, &error)) {
            SY_LOG(LOG_INFO, "FileWriter::RollLogFile()", "Deleted \"%s\"\n", leaf.c_str());
        } else {
            SY_LOG_ERROR(error, LOG_WARN, "FileWriter::RollLogFile()", "Failed to delete \"%s\"\n", leaf.c_str());
        }
    }
}

bool FileWriter::QueryFreeSpace(uint64_t* bytes) { return FileUtils::GetFreeDiskSpace(folderPath, bytes); }

void FileWriter::CheckDiskSpace() {
    uint64_t freeBytes = 0;
    if (!QueryFreeSpace(&freeBytes)) return;
    const uint64_t low = diskThresholdLowMB * kBytesPerMB;
    if (!suspended) {
        if (freeBytes > low) {
            thresholdLowered = false;
            return;
        }
        suspended = true;
        thresholdLowered = false;
        WriteDiskLine(true, freeBytes);
        return;
    }
    const uint64_t resume =
        std::max<uint64_t>(static_cast<uint64_t>(diskThresholdLowMB) + kResumeGapMB, diskThresholdHighMB) * kBytesPerMB;
    if (freeBytes >= resume || (thresholdLowered && freeBytes >= low)) {
        suspended = false;
        thresholdLowered = false;
        WriteDiskLine(false, freeBytes);
        return;
    }
    thresholdLowered = false;
}

void FileWriter::WriteDiskLine(bool suspension, uint64_t freeBytes) {
    char line[kLogMessageBytes];
    int at = 0;
    if (suspension) line[at++] = '\n';
    int header = FormatHeader(line + at, static_cast<int>(sizeof(line)) - at, "*", LOG_ALWAYS);
    at += std::max(header - kDiskHeaderCut, 0);
    const std::string space = StringUtils::FormatBytes(static_cast<double>(freeBytes), 1);
    if (suspension) {
        StringUtils::FormatBuffer(line + at, static_cast<int>(sizeof(line)) - at,
                                  "%s Free disk space is %s - Logging suspended %s\n", kStars, space.c_str(), kStars);
        suspendTimer.Elapsed(TimerOp::Reset);
    } else {
        const std::string length = StringUtils::FormatDuration(suspendTimer.ElapsedSeconds(), 3);
        StringUtils::FormatBuffer(line + at, static_cast<int>(sizeof(line)) - at,
                                  "%s Free disk space is %s - Logging resumed after %s %s\n\n", kStars, space.c_str(),
                                  length.c_str(), kStars);
    }
    WriteBare(line);
    // While suspended few lines follow to push this one out of the stream's buffer.
    if (file) file->Flush();
}
