// A runtime file stream with a path, and the path and file functions of the log writers.
// Paths are UTF-8 and go to the system in wide form.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "foundation/rc_object.h"

namespace FileUtils {

class SyFile : public RCObject {
public:
    explicit SyFile(std::string filePath) : path(std::move(filePath)) {}
    ~SyFile() override { Close(); }

    // Never creates the file. With denyWrite, success proves that no other writer has it open.
    bool Open(const char* mode, bool denyWrite);
    bool Close();
    bool Flush();
    bool Write(const char* text);
    // Open for appending: the file's size, also before the first write; open otherwise: the
    // stream position; closed: the size on disk.
    bool GetSize(int64_t* size);

    bool IsOpen() const { return stream != nullptr; }
    const std::string& GetPath() const { return path; }

private:
    std::string path;
    FILE* stream = nullptr;
    bool appending = false;
};

// Created with a security descriptor without DACL, so that every account may use the file.
bool CreateEmptyFile(const std::string& path, bool truncate);
// True also when the delete failed but the file is gone; error gets the system's code.
bool DeleteFileAt(const std::string& path, uint32_t* error);
bool GetFreeDiskSpace(const std::string& path, uint64_t* bytes);
bool PathExists(const std::string& path);
bool IsFile(const std::string& path);
bool IsDirectory(const std::string& path);
std::string GetLeafName(const std::string& path);
std::string GetDirName(const std::string& path);
std::string JoinPath(const std::string& folder, const std::string& name);

}  // namespace FileUtils
