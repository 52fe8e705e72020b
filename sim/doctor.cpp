#include "sim/doctor.h"

#include <cstdio>
#include <iomanip>

namespace sim {

namespace {

std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// Members of one JSON object, each written as it comes.
class JsonObject {
public:
    explicit JsonObject(std::ostream& stream) : out(stream) { out << '{'; }
    ~JsonObject() { out << '}'; }
    std::ostream& Key(const char* name) {
        out << (first ? "" : ",") << Quoted(name) << ':';
        first = false;
        return out;
    }
    void Text(const char* name, const std::string& value) { Key(name) << Quoted(value); }
    void Flag(const char* name, bool value) { Key(name) << (value ? "true" : "false"); }
    void Number(const char* name, unsigned long value) { Key(name) << value; }
    // An array member; each(stream, item) writes one element.
    template <class T, class Each>
    void List(const char* name, const std::vector<T>& items, Each each) {
        std::ostream& list = Key(name) << '[';
        for (size_t i = 0; i < items.size(); ++i) each(i ? list << ',' : list, items[i]);
        list << ']';
    }

    JsonObject(const JsonObject&) = delete;
    JsonObject& operator=(const JsonObject&) = delete;

private:
    std::ostream& out;
    bool first = true;
};

std::string Reason(const DoctorLibrary& library) {
    if (!library.loaded) {
        return "no usable library: no webauthn.dll could be loaded (error " + std::to_string(library.loadError) + ": " +
               library.loadErrorText + ")";
    }
    if (!library.usable) {
        return "no usable library: " + library.path + " lacks " + library.missingExport +
               ", and the plug-in needs all ten of its functions";
    }
    if (library.apiVersion == 0) {
        return "no usable library: the library reports API version 0, which tells the agent so";
    }
    return std::string();
}

// What the gap between library and plug-in means for one record, or nothing if there is none.
std::string RecordNote(const DoctorRecord& record, bool strict) {
    if (!record.result) {
        if (record.library == 0 || record.library >= record.plugin) return std::string();
        return "options above v" + std::to_string(record.library) +
               " reach this library unchanged, and it may refuse them";
    }
    if (record.library != 0 && record.library <= record.plugin) return std::string();
    const std::string which = record.library == 0 ? "a version newer than v" + std::to_string(record.plugin)
                                                  : "v" + std::to_string(record.library);
    return strict ? "a record of " + which + " gets no answer (FIDO2Flags bit 0 set)"
                  : "a record of " + which + " goes out as v" + std::to_string(record.plugin) +
                        ", the newer fields left out";
}

std::string Cell(DWORD version) { return version == 0 ? "?" : "v" + std::to_string(version); }

void PrintLibrary(const DoctorReport& report, std::ostream& out) {
    const DoctorLibrary& library = report.library;
    out << "WebAuthn library\n";
    if (library.loaded) {
        out << "  found      " << library.path;
        if (!library.fileVersion.empty()) out << ", " << library.fileVersion;
        out << "\n";
    } else {
        out << "  found      none (error " << library.loadError << ": " << library.loadErrorText << ")\n";
    }
    out << "  usable     "
        << (library.usable   ? "yes, all ten functions resolved"
            : library.loaded ? "no, " + library.missingExport + " is missing"
                             : std::string("no"))
        << "\n";
    out << "  API version " << library.apiVersion << ", as the agent is told"
        << (library.usable && !library.apiInTable && library.apiVersion != 0 ? " (newer than this tool's table)" : "")
        << "\n";
    if (!library.usable) return;
    out << "  " << std::left << std::setw(26) << "newest record" << std::setw(10) << "library"
        << "plug-in\n";
    for (const DoctorRecord& record : library.records) {
        out << "  " << std::setw(26) << record.name << std::setw(10) << Cell(record.library)
            << (record.result ? "writes " : "decodes ") << Cell(record.plugin) << "\n";
        const std::string note = RecordNote(record, report.strictVersions);
        if (!note.empty()) out << "    " << note << "\n";
    }
}

void PrintSettings(const DoctorReport& report, std::ostream& out) {
    out << "Settings under " << report.registryKey << "\n";
    for (const DoctorSetting& setting : report.settings) {
        out << "  " << std::left << std::setw(24) << setting.name;
        if (!setting.set) {
            out << "not set";
        } else {
            out << setting.type << " " << setting.data;
            if (setting.read && setting.readAs != setting.data) out << ", read as " << setting.readAs;
            if (setting.wrongType) out << " (wrong type)";
        }
        out << " -> " << setting.resolves << "\n";
    }
}

void PrintLog(const DoctorLog& log, std::ostream& out) {
    out << "Log\n  level      " << log.level << "\n  writers   ";
    for (const std::string& writer : log.writers) out << " " << writer << ";";
    out << "\n  folder     " << (log.folder.empty() ? "none" : log.folder)
        << (log.defaultFolder ? " (the default)" : " (logDirectory)") << "\n";
    if (!log.fileName.empty()) out << "  file       named like " << log.fileName << "\n";
    out << "  writable   " << (log.writable ? "yes" : "no, " + log.notWritable)
        << (log.fileWriterOn ? "" : " (the file writer is off)") << "\n";
}

}  // namespace

DoctorReport Examine() {
    DoctorReport report;
    // Settings first: the strict-versions answer shapes what the library part says.
    ExamineSettings(&report);
    report.library = ExamineLibrary();
    report.reason = Reason(report.library);
    report.redirectionWorks = report.reason.empty();
    return report;
}

void PrintDoctorText(const DoctorReport& report, std::ostream& out) {
    PrintLibrary(report, out);
    out << "\n";
    PrintSettings(report, out);
    out << "\n";
    PrintLog(report.log, out);
    out << "\nSide channel wanted: " << report.sideChannel << "\nResult records newer than the plug-in's: "
        << (report.strictVersions ? "no answer (strict)" : "cut to the newest known (lenient)") << "\n\n";
    out << (report.redirectionWorks ? "Redirection would work.\n" : "Redirection would answer " + report.reason + "\n");
}

void PrintDoctorJson(const DoctorReport& report, std::ostream& out) {
    JsonObject top(out);
    top.Flag("redirection", report.redirectionWorks);
    top.Text("reason", report.reason);
    {
        const DoctorLibrary& l = report.library;
        JsonObject library(top.Key("library"));
        library.Flag("loaded", l.loaded);
        library.Text("path", l.path);
        library.Text("fileVersion", l.fileVersion);
        library.Number("loadError", l.loadError);
        library.Text("loadErrorText", l.loadErrorText);
        library.Text("missingExport", l.missingExport);
        library.Flag("usable", l.usable);
        library.Number("apiVersion", l.apiVersion);
        library.Flag("apiInTable", l.apiInTable);
        library.List("records", l.records, [&](std::ostream& out, const auto& r) {
            JsonObject record(out);
            record.Text("name", r.name);
            record.Flag("result", r.result);
            record.Number("library", r.library);
            record.Number("plugin", r.plugin);
            record.Text("note", RecordNote(r, report.strictVersions));
        });
    }
    top.Text("registryKey", report.registryKey);
    top.List("settings", report.settings, [](std::ostream& out, const DoctorSetting& s) {
        JsonObject setting(out);
        setting.Text("name", s.name);
        setting.Flag("set", s.set);
        setting.Text("type", s.type);
        setting.Text("data", s.data);
        setting.Flag("read", s.read);
        setting.Flag("wrongType", s.wrongType);
        setting.Text("readAs", s.readAs);
        setting.Text("resolves", s.resolves);
    });
    {
        JsonObject log(top.Key("log"));
        log.Text("level", report.log.level);
        log.Text("folder", report.log.folder);
        log.Flag("defaultFolder", report.log.defaultFolder);
        log.Text("fileName", report.log.fileName);
        log.Flag("fileWriterOn", report.log.fileWriterOn);
        log.Flag("writable", report.log.writable);
        log.Text("notWritable", report.log.notWritable);
        log.List("writers", report.log.writers, [](std::ostream& out, const std::string& w) { out << Quoted(w); });
    }
    top.Text("sideChannel", report.sideChannel);
    top.Flag("strictVersions", report.strictVersions);
}

int RunDoctor(bool json, std::ostream& out) {
    const DoctorReport report = Examine();
    if (json) {
        PrintDoctorJson(report, out);
        out << "\n";
    } else {
        PrintDoctorText(report, out);
    }
    return report.redirectionWorks ? 0 : 1;
}

}  // namespace sim
