// fido2sim doctor: for the machine it runs on, what fido2Client.dll would find there — the
// WebAuthn library and the record versions it allows, every registry setting of the plug-in
// and what it resolves to, the log file's folder and whether it can be written. Each answer
// comes from the plug-in's own code run in this process, not from a second reading of the
// rules, so the doctor can't disagree with the plug-in.
#pragma once

#include <windows.h>

#include <ostream>
#include <string>
#include <vector>

namespace sim {

// One record that crosses the library: the newest version the library of the reported API
// version deals in (0 when the API version is newer than the platform's table here), and the
// newest the plug-in decodes (options) or writes (results).
struct DoctorRecord {
    const char* name;
    bool result;  // handed out by the library; else options that the agent sends
    DWORD library;
    DWORD plugin;
};

struct DoctorLibrary {
    bool loaded = false;  // a webauthn.dll is in this process after the plug-in's attempt
    std::string path;     // where it was found
    std::string fileVersion;
    DWORD loadError = 0;  // why LoadLibraryW found none
    std::string loadErrorText;
    std::string missingExport;  // the first function of the table that didn't resolve
    bool usable = false;        // the plug-in's own verdict: all ten functions resolved
    DWORD apiVersion = 0;       // what the agent is told; 0 means no usable library
    bool apiInTable = false;
    std::vector<DoctorRecord> records;
};

// One registry value that the plug-in reads, or that sits under its key.
struct DoctorSetting {
    std::string name;
    bool set = false;        // the registry holds data for it
    std::string type;        // REG_SZ, REG_DWORD, ...
    std::string data;        // as stored, in text
    bool read = false;       // the plug-in reads it as things stand
    bool wrongType = false;  // text where a number or flag is read, or the reverse
    std::string readAs;      // what the plug-in's reader made of it
    std::string resolves;    // what the plug-in does with it
};

struct DoctorLog {
    std::string level;
    std::string folder;
    bool defaultFolder = false;  // no logDirectory: the folder the plug-in settles by itself
    std::string fileName;        // of a plug-in process; process id and date as this process has them
    bool fileWriterOn = false;
    bool writable = false;
    std::string notWritable;  // why, when it isn't
    std::vector<std::string> writers;
};

struct DoctorReport {
    std::string registryKey;
    DoctorLibrary library;
    std::vector<DoctorSetting> settings;
    DoctorLog log;
    std::string sideChannel;  // "none", "tcp" or "virtual": what the plug-in asks for
    bool strictVersions = false;
    bool redirectionWorks = false;
    std::string reason;  // why not, when it wouldn't
};

// Loads the library the way the plug-in does (once per process, by name), applies the
// registry settings to a logger that never starts, and probes the log folder.
DoctorReport Examine();
DoctorLibrary ExamineLibrary();
void ExamineSettings(DoctorReport* report);

void PrintDoctorText(const DoctorReport& report, std::ostream& out);
// One JSON object on one line.
void PrintDoctorJson(const DoctorReport& report, std::ostream& out);

// The command: 0 when redirection would work, 1 when it wouldn't.
int RunDoctor(bool json, std::ostream& out);

}  // namespace sim
