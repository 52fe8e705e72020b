// Real folders and files for the writers' tests: a fresh folder in the Wine prefix's temp
// folder for each test, read back byte for byte, and emptied again at the end.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

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

// The bytes on disk, also while a writer holds the file open; empty if it can't be read.
std::string ReadWholeFile(const std::string& path);
// Line feeds counted in the text.
size_t CountLines(const std::string& text);
