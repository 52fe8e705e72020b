// The registry part of the doctor. The log settings go through the plug-in's own reader into
// a logger that is never started, exactly as the plug-in's start applies them; a reader in
// between records what was asked and what came back. The side-channel values go through the
// framework's own configure steps, and the flags through the binding's reader.
#include <cstring>
#include <new>

#include "channel/rpc_manager.h"
#include "logging/fido2_logger.h"
#include "logging/file_writer.h"
#include "logging/log_folder.h"
#include "logging/logger.h"
#include "plugin/fido2_client.h"
#include "plugin/webauthn_binding.h"
#include "registry/sy_reg_key.h"
#include "sim/doctor.h"
#include "sysutil/file_utils.h"
#include "sysutil/scoped_handle.h"
#include "sysutil/string_utils.h"

namespace sim {

namespace {

// Passes every question on to the plug-in's reader and keeps the answers in the order asked.
class RecordingReader : public SettingsReader {
public:
    struct Answer {
        std::string key;
        bool text;  // asked for text; else for a number or a flag
        bool found;
        std::string value;
    };

    explicit RecordingReader(const RCPtr<SettingsReader>& reader) : inner(reader) {}

    int IsReady() override { return inner->IsReady(); }
    const char* GetName() override { return inner->GetName(); }
    bool GetString(const char* setting, std::string* value) override {
        bool found = inner->GetString(setting, value);
        Note(setting, true, found, found && value ? "\"" + *value + "\"" : "");
        return found;
    }
    bool GetInt(const char* setting, int32_t* value) override {
        bool found = inner->GetInt(setting, value);
        Note(setting, false, found, found ? std::to_string(*value) : "");
        return found;
    }
    bool GetBool(const char* setting, bool* value) override {
        bool found = inner->GetBool(setting, value);
        Note(setting, false, found, found ? (*value ? "true" : "false") : "");
        return found;
    }
    std::string GetLocation(const char* setting) override { return inner->GetLocation(setting); }

    std::vector<Answer> answers;

private:
    void Note(const char* setting, bool text, bool found, const std::string& value) {
        answers.push_back({setting ? setting : "", text, found, value});
    }

    RCPtr<SettingsReader> inner;
};

const char* WriterName(int32_t type) {
    static const char* const kNames[] = {"debugger", "file", "proxy", "syslog", "stdout", "stderr"};
    return type >= 0 && type < 6 ? kNames[type] : "unknown";
}

bool IsTextType(uint32_t type) { return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ; }

// The registry's side of one value: whether it is there, its type and its data as text.
DoctorSetting Stored(const std::string& name, const std::string& fullPath, RegView view, uint32_t* type) {
    DoctorSetting setting;
    setting.name = name;
    RCPtr<SyRegValue> value(new SyRegValue(fullPath, view, true));
    setting.set = value->HasData();
    *type = setting.set ? value->GetDataType() : REG_NONE;
    if (setting.set) {
        setting.type = RegTypeName(*type);
        setting.data = value->GetString(std::string());
        if (IsTextType(*type)) setting.data = "\"" + setting.data + "\"";
    }
    return setting;
}

std::string WriterSetting(const RCPtr<LogWriter>& writer, const char* name) {
    std::string value;
    if (writer) writer->GetSetting(name, &value);
    return value;
}

// What the not-started logger holds for one key after the plug-in's settings pass.
std::string Resolved(Logger& logger, const std::string& key) {
    const RCPtr<LogWriter> file = logger.GetWriter(Fido2Logger::kFileWriterType);
    if (key == "logLevel") return std::string("level ") + logger.GetLevelName();
    if (key == "useLocalTime") return logger.useLocalTime ? "local time in the lines" : "UTC in the lines";
    if (key == "enableBuffering") return file && file->IsBuffered() ? "file writer buffered" : "file writer unbuffered";
    if (key == "logDirectory") {
        const std::string folder = WriterSetting(file, "folderPath");
        return folder.empty() ? "the default folder" : "folder " + folder;
    }
    const int32_t type = LogSettingWriterType(key.c_str());
    if (type >= 0) {
        const RCPtr<LogWriter> writer = logger.GetWriter(type);
        if (!writer) return std::string("no ") + WriterName(type) + " writer";
        return std::string(WriterName(type)) + " writer " + (writer->IsEnabled() ? "on" : "off");
    }
    if (const char* name = LogSettingFileWriterName(key.c_str())) {
        return std::string(name) + " " + WriterSetting(file, name);
    }
    const RCPtr<LogWriter> socket = logger.GetWriter(LogSettingWriterType("logToSyslog"));
    if (key == "logRemoteAddress") return "syslog to " + WriterSetting(socket, "remoteAddress");
    if (key == "logRemotePort") return "syslog port " + WriterSetting(socket, "remotePort");
    return std::string();
}

void AddLogSettings(Logger& logger, RecordingReader& reader, std::vector<DoctorSetting>* settings) {
    for (const RecordingReader::Answer& answer : reader.answers) {
        uint32_t type = REG_NONE;
        DoctorSetting setting = Stored(answer.key, reader.GetLocation(answer.key.c_str()), RegView::Reg64Bit, &type);
        setting.read = true;
        setting.readAs = answer.value;
        setting.wrongType = answer.found && answer.text != IsTextType(type);
        setting.resolves = Resolved(logger, answer.key);
        settings->push_back(setting);
    }
}

// The folder that a plug-in process would write its log to, and whether it can.
void AddLogFile(Logger& logger, DoctorLog* log) {
    log->level = logger.GetLevelName();
    for (const auto& entry : logger.writers) {
        const LogWriter& writer = *entry.second;
        log->writers.push_back(std::string(WriterName(entry.first)) + (writer.IsEnabled() ? " on" : " off") +
                               (writer.IsBuffered() ? ", buffered" : ""));
    }
    RCPtr<LogWriter> writer = logger.GetWriter(Fido2Logger::kFileWriterType);
    if (!writer) return;
    auto* file = static_cast<FileWriter*>(writer.Get());
    log->fileWriterOn = file->IsEnabled();
    log->folder = WriterSetting(writer, "folderPath");
    log->defaultFolder = log->folder.empty();
    // The plug-in settles its default folder the same way when it opens its file, making the
    // user's folder if it has to.
    if (log->defaultFolder) log->folder = LogFolder::SettleDefault();
    if (log->folder.empty()) {
        log->notWritable =
            "no default folder: the program-data log folder is missing, or the user's folder can't be made";
        return;
    }
    log->fileName = file->MakeFileName(1);
    if (!FileUtils::IsDirectory(log->folder)) {
        log->notWritable = "the folder doesn't exist";
        return;
    }
    const std::string probe =
        FileUtils::JoinPath(log->folder, StringUtils::FormatString("orvane-doctor-%lu.tmp", GetCurrentProcessId()));
    ScopedHandle handle(CreateFileW(StringUtils::Utf8ToWide(probe).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    log->writable = handle.Valid();
    if (!log->writable) {
        log->notWritable = StringUtils::FormatString("a file can't be made there (error %lu)", GetLastError());
    }
}

// The values under the key that the plug-in doesn't read as things stand.
void AddUnread(const std::string& keyPath, std::vector<DoctorSetting>* settings) {
    SyRegKey key(keyPath, RegView::Reg64Bit, true);
    if (!key.IsOpen()) return;
    for (DWORD index = 0;; ++index) {
        char name[256];
        DWORD length = sizeof(name);
        if (RegEnumValueA(key.GetKey(), index, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        bool known = false;
        for (const DoctorSetting& setting : *settings) known = known || _stricmp(setting.name.c_str(), name) == 0;
        if (known) continue;
        uint32_t type = REG_NONE;
        DoctorSetting setting = Stored(name, FileUtils::JoinPath(keyPath, name), RegView::Reg64Bit, &type);
        setting.resolves = "not read by the plug-in as things stand";
        settings->push_back(setting);
    }
}

}  // namespace

void ExamineSettings(DoctorReport* report) {
    // The start of the plug-in's log, short of starting it: same reader, same writer, same pass.
    RCPtr<Logger> logger(new Logger("Fido2Doctor", "fido2Client", LoggerManager::GetInstance().GetMessageManager()));
    logger->AddRegistryReader(Fido2Logger::kRegistryPath, HKEY_LOCAL_MACHINE);
    logger->AddWriter(Fido2Logger::kFileWriterType);
    RCPtr<RecordingReader> reader(new RecordingReader(logger->readers.front()));
    {
        SyMutexGuard guard(&LogMutex());
        ApplyLogSettings(*logger, *reader);
    }
    report->registryKey = FileUtils::GetDirName(reader->GetLocation("logLevel"));
    AddLogSettings(*logger, *reader, &report->settings);
    AddLogFile(*logger, &report->log);
    logger->Shutdown();

    // The framework's client start reads the virtual side channel only when TCP isn't wanted.
    RCPtr<RPCManager> manager(new RPCManager(kFido2TokenName, "", "", "", false));
    manager->ConfigureTcpSideChan();
    if (!manager->tcpEnabled) manager->ConfigureVirtualSideChan();
    for (const char* name : {"tcpEnabled", "vchanSideChannelEnabled"}) {
        const std::string path = manager->SettingPath(name);
        uint32_t type = REG_NONE;
        DoctorSetting setting = Stored(name, path, RegView::Win32Default, &type);
        const bool tcp = strcmp(name, "tcpEnabled") == 0;
        setting.read = tcp || !manager->tcpEnabled;
        setting.readAs = setting.read ? "\"" + ReadRegString(path, RegView::Win32Default, 7) + "\"" : "";
        setting.wrongType = setting.set && !IsTextType(type);
        if (!setting.read) {
            setting.resolves = "not read: the TCP side channel is wanted";
        } else {
            const bool on = tcp ? manager->tcpEnabled : manager->vchanEnabled;
            setting.resolves = std::string(tcp ? "TCP" : "virtual") + " side channel " + (on ? "wanted" : "not wanted");
        }
        report->settings.push_back(setting);
    }
    report->sideChannel = manager->tcpEnabled ? "tcp" : manager->vchanEnabled ? "virtual" : "none";

    uint32_t type = REG_NONE;
    DoctorSetting flags = Stored("FIDO2Flags", manager->SettingPath("FIDO2Flags"), RegView::Reg64Bit, &type);
    report->strictVersions = webauthn::GetFIDO2Flags();
    flags.read = true;
    flags.readAs =
        flags.set ? "\"" + ReadRegString(manager->SettingPath("FIDO2Flags"), RegView::Reg64Bit, -1) + "\"" : "";
    flags.wrongType = flags.set && !IsTextType(type) && type != REG_DWORD;
    flags.resolves = report->strictVersions ? "strict: a result record newer than the plug-in knows gets no answer"
                                            : "lenient: a newer result record goes out as the newest version known";
    report->settings.push_back(flags);

    AddUnread(report->registryKey, &report->settings);
}

}  // namespace sim
