// Real folders and files for the writers' tests, in the Wine prefix's temp folder, and a logger
// of no manager's for a writer under test.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "logging/logger.h"

// A fresh folder for one test, emptied and removed at its end.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& tag);
    ~ScratchFolder();
    // With a trailing backslash.
    const std::string& Path() const { return path; }
    // Names of the files in it, sorted.
    std::vector<std::string> Files() const;

    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

private:
    std::string path;
};

// A closed file of one line whose last write lies ageSeconds back (ahead, if negative).
bool WriteAgedFile(const std::string& path, int64_t ageSeconds);
// The bytes on disk, also while a writer holds the file open; empty if it can't be read.
std::string ReadWholeFile(const std::string& path);

// A logger that isn't registered anywhere: it gives a writer its pool, its clock and its name.
RCPtr<Logger> LooseLogger(const std::string& appName = "loose");
// A message of that text and level handed to the writer as a log call does; true if taken.
bool EnqueueText(LogWriter* writer, const std::string& text, int32_t level = LOG_INFO);
