// The log's main sink: one text file per process and per roll in the log folder, a roll when
// the file reaches its limit, only the newest few rolled files of this process kept, and all
// but the gravest lines held back while the disk is nearly full. Buffered: its disk work runs
// on the logger's poll thread.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "foundation/sy_timer.h"
#include "logging/log_file_deletion.h"
#include "logging/log_writer.h"
#include "sysutil/file_utils.h"

class FileWriter : public LogWriter {
public:
    static constexpr int32_t kType = 1;
    static constexpr uint32_t kMaxFileSizeMB = 1024;
    static constexpr uint32_t kMaxRollingFiles = 1000;
    // Resumption needs at least this much more than the low threshold, so the state can't flap.
    static constexpr uint32_t kResumeGapMB = 50;
    // MakeFileName: the pattern of all files of this name, and the part up to the process id.
    static constexpr int32_t kPatternName = 0;
    static constexpr int32_t kPrefixName = -1;

    FileWriter();
    ~FileWriter() override;

    bool IsFiltered(const RCPtr<LogMessage>& message) override;
    bool SetSetting(const char* setting, const char* value) override;
    bool GetSetting(const char* setting, std::string* value) override;
    bool Open() override;
    bool Write(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    void EndWrite() override;

    std::string MakeFileName(int32_t number);
    // In MB; 0: the file never rolls.
    uint32_t GetSizeLimitMB();
    void RollLogFile();
    void CheckDiskSpace();

    const std::string& GetCurrentPath() const { return currentPath; }
    const std::string& GetFolderPath() const { return folderPath; }
    const std::string& GetProcessPrefix() const { return processPrefix; }
    uint32_t GetFileNumber() const { return fileNumber; }
    bool IsSuspended() const { return suspended; }
    // The clean-up of the log folder that this writer keeps going on the poll thread.
    LogFileDeletion* GetScan() const { return scan.Get(); }

protected:
    // The bytes free to this process on the log folder's volume.
    virtual bool QueryFreeSpace(uint64_t* bytes);

private:
    void WriteDiskLine(bool suspension, uint64_t freeBytes);

    std::string baseName;
    std::string currentName;
    std::string folderPath;
    std::string currentPath;
    std::string processPrefix;
    int32_t maxFileSizeMB = -1;
    uint32_t maxRollingFiles = 4;
    uint32_t fileNumber = 0;
    std::list<std::string> rolledFiles;
    uint32_t diskThresholdLowMB = 200;
    uint32_t diskThresholdHighMB = 500;
    bool thresholdLowered = false;
    bool suspended = false;
    SyElapsedTimer suspendTimer;
    RCPtr<FileUtils::SyFile> file;
    // Holds the three limits of the clean-up (maxDaysKept, maxNumFiles, minAgeInHours).
    RCPtr<LogFileDeletion> scan;
};
