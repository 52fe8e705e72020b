// Clean-up of a log folder that many short-lived processes share. On the log's poll thread,
// in small steps, it lists the log files of one application, deletes those that are too old,
// then the oldest until few enough remain. A file that some process still has open for
// writing is never touched: the test is an open for appending with deny-write, which the
// system refuses while anybody writes the file. No lock or marker file is involved.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "foundation/rc_object.h"
#include "foundation/sy_mutex.h"
#include "foundation/sy_poll_thread.h"

class LogFileDeletion;

// The poll item that drives the scan; it holds its scan weakly, so a scan that is gone
// simply ends the item.
class PollDeleteLogFiles : public SyPollItem {
public:
    explicit PollDeleteLogFiles(LogFileDeletion* owner);
    bool Run(bool timedOut) override;

private:
    WkPtr<LogFileDeletion> writer;
};

class LogFileDeletion : public RCObject {
public:
    // Entries looked at per step, pause between steps, pause between scans, delay of the first.
    static constexpr int kStepEntries = 20;
    static constexpr int32_t kStepMs = 1000;
    static constexpr int32_t kScanIntervalMs = 14400000;
    static constexpr int32_t kFirstScanMs = 60000;

    class FileInfo : public RCObject {
    public:
        const std::string& GetAgeText();

        std::string name;
        std::string path;
        std::string ageText;
        int32_t age = 0;  // seconds
        uint64_t fileTime = 0;
    };

    // One listing of folder\pattern; ages are measured against the clock read at construction.
    class DirectoryIterator : public RCObject {
    public:
        DirectoryIterator(const std::string& folder, const std::string& pattern);
        ~DirectoryIterator() override;
        // Null at the end of the listing; folders are skipped.
        RCPtr<FileInfo> Next();

        std::string folder;
        std::string pattern;
        uint64_t now = 0;  // FILETIME units; 0 if the clock couldn't be read
        HANDLE findHandle = nullptr;
    };

    LogFileDeletion();
    ~LogFileDeletion() override;

    // Where the files lie: the folder, the name pattern ("orvane-<name>*") and the folder and
    // name up to this process's id, which marks the files that rolling takes care of.
    void SetLocation(const std::string& folder, const std::string& pattern, const std::string& processPrefix);

    // Each change wakes the item, so that a scan in progress starts anew with the new limits.
    void SetMaxDaysKept(int32_t days);
    void SetMaxNumFiles(uint32_t count);
    void SetMinAgeInHours(int32_t hours);
    int32_t GetMaxDaysKept() const { return maxDaysKept; }
    uint32_t GetMaxNumFiles() const { return maxNumFiles; }
    int32_t GetMinAgeInHours() const { return minAgeInHours; }

    // Puts the item on the poll thread unless it is there; the first scan follows a minute
    // later, or at once if a limit was changed before.
    bool Attach(const RCPtr<SyPollThread>& pollThread);
    // Takes the item off its poll thread; with wait, after a step in progress.
    void Detach(bool wait);
    const RCPtr<PollDeleteLogFiles>& GetItem() const { return deleteItem; }

    // The stages of a scan; each does at most kStepEntries files and says whether more remain.
    bool FindLogFiles();
    bool DeleteOldLogFiles();
    bool DeleteMaxLogFiles();
    bool DeleteLogFile(FileInfo& info, const char* function);
    void ScanLogFilesDone(bool interrupted);
    // One call of the item: a fired event restarts a scan in progress. Returns the time-out
    // until the next step.
    int32_t Step(bool timedOut);

    int32_t GetScanState() const { return scanState; }

private:
    void WakeItem();
    // Deletes the oldest files while more than keep remain, up to the first that is no older
    // than minAge; true if the step's share ran out first.
    bool DeleteOldest(size_t keep, int64_t minAge, const char* function);

    // The scan's own state, touched only by the poll thread.
    int32_t scanState = 0;  // 0 list, 1 delete old, 2 delete surplus, 3 finish
    bool logOldHeader = true;
    bool logMaxHeader = true;
    int32_t filesFound = 0;
    int32_t filesDeleted = 0;
    int32_t activeSessions = 0;
    RCPtr<PollDeleteLogFiles> deleteItem;
    RCPtr<SyEvent> wakeEvent;
    // Oldest first; equal ages in the order they were found.
    std::multimap<int32_t, RCPtr<FileInfo>, std::greater<int32_t>> foundFiles;
    RCPtr<DirectoryIterator> iterator;

    // Single values that another thread may change while a scan runs.
    std::atomic<int32_t> maxDaysKept{7};
    std::atomic<uint32_t> maxNumFiles{25};
    std::atomic<int32_t> minAgeInHours{2};

    SyMutex locationLock;
    std::string folderPath;
    std::string filePattern;
    std::string processPrefix;
};
