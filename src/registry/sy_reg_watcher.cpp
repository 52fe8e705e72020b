#include "registry/sy_reg_watcher.h"

#include <vector>

#include "logging/function_trace.h"
#include "logging/log.h"
#include "sysutil/file_utils.h"
#include "sysutil/string_utils.h"

namespace {

// Names and last-set times of the key itself; only names (subkeys appearing) of an ancestor.
constexpr DWORD kKeyFilter = REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET;
constexpr DWORD kAncestorFilter = REG_NOTIFY_CHANGE_NAME;

}  // namespace

// --- SyRegValueWatcher ---

SyRegValueWatcher::SyRegValueWatcher(const std::string& keyPath, const std::string& valueName, RegView view)
    : SyRegValue(keyPath, valueName, view, false) {}

void SyRegValueWatcher::OnKeyChanged() {
    FunctionTrace trace(valueLogLevel, "SyRegValueWatcher::OnKeyChanged()");
    SyMutexGuard guard(&mutex);
    if (!IsAttached()) {
        trace.SetExitText(valueLogLevel, "%s - already detached", GetValueDisplayName());
        return;
    }
    if (!Load(IsWide(), valueLogLevel)) {
        trace.SetExitText(valueLogLevel, "%s - value not changed", GetValueDisplayName());
        return;
    }
    guard.Unlock();
    OnValueChanged();
    trace.SetExitText(valueLogLevel, "%s - value changed", GetValueDisplayName());
}

void SyRegValueWatcher::Detach() {
    SyMutexGuard guard(&mutex);
    keyWatcher = nullptr;
}

bool SyRegValueWatcher::IsAttached() {
    SyMutexGuard guard(&mutex);
    return static_cast<bool>(keyWatcher.Lock());
}

// --- SyRegKeyWatcher ---

SyRegKeyWatcher::SyRegKeyWatcher(const std::string& path, RegView keyView, bool subtree)
    : SyPollItem(StringUtils::FormatString("SyRegKeyWatcher(%s)", path.c_str())),
      keyPath(path),
      view(keyView),
      watchSubtree(subtree),
      notifyEvent(new SyEvent(false, false, "")) {
    SetRCEvent(notifyEvent);
    displayName = FormatName(sessionId, keyPath, sessionName);
    SY_LOG(logLevel, "SyRegKeyWatcher::SyRegKeyWatcher()", "%s", displayName);
    OpenRegKey();
}

SyRegKeyWatcher::~SyRegKeyWatcher() = default;

bool SyRegKeyWatcher::OnKeyChanged() { return onChanged ? onChanged(this) : true; }

bool SyRegKeyWatcher::Start(const RCPtr<SyPollThread>& pollThread) {
    FunctionTrace trace(logLevel, "SyRegKeyWatcher::Start()");
    SyMutexGuard guard(&watcherMutex);
    if (!pollThread) {
        trace.SetExitText(logLevel, "%s: pollThread == NULL", GetName().c_str());
        return false;
    }
    // A time-out of 0 brings the first run at once; it arms the notification.
    if (!pollThread->AddItem(this, 0)) {
        trace.SetExitText(LOG_ERROR, "Failed to add %s to %s", GetName().c_str(), pollThread->GetName().c_str());
        return false;
    }
    return true;
}

bool SyRegKeyWatcher::Stop() {
    FunctionTrace trace(logLevel, "SyRegKeyWatcher::Stop()");
    if (!Remove(true)) {
        trace.SetExitText(LOG_ERROR, "Failed to remove %s", GetName().c_str());
        return false;
    }
    return true;
}

bool SyRegKeyWatcher::OpenRegKey() {
    static const char* const kLabel = "SyRegKeyWatcher::OpenRegKey()";
    isWatchingKey = false;
    std::string candidate = keyPath;
    for (int depth = 0;; ++depth) {
        // The new key replaces the old one, whose handle closes and takes its notification along.
        regKey = new SyRegKey(candidate, view, false);
        if (sessionId != -1 && !regKey->SetSessionID(sessionId)) break;
        LONG rc = regKey->OpenKey();
        if (rc == ERROR_SUCCESS) {
            if (depth == 0) {
                SY_LOG(logLevel, kLabel, "Watching \"%s\"", displayName);
                isWatchingKey = true;
            } else {
                std::string rest = keyPath.substr(candidate.size());
                if (!rest.empty() && (rest[0] == '\\' || rest[0] == '/')) rest.erase(0, 1);
                SY_LOG(logLevel, kLabel, "Watching \"%s\" ... \"%s\"", candidate.c_str(), rest.c_str());
            }
            return true;
        }
        // Anything but absence (a bad root, no access) ends the walk here.
        if (rc != ERROR_FILE_NOT_FOUND) break;
        candidate = FileUtils::GetDirName(candidate);
        if (candidate == ".") break;
    }
    SY_LOG(LOG_WARN, kLabel, "Not watching \"%s\"", displayName);
    regKey = nullptr;
    return false;
}

bool SyRegKeyWatcher::WatchRegKey() {
    static const char* const kLabel = "SyRegKeyWatcher::WatchRegKey()";
    FunctionTrace trace(logLevel, kLabel);
    if (!OpenRegKey()) return false;
    // An ancestor only needs to wake us when the next step down appears, not when its values change.
    LONG rc = RegNotifyChangeKeyValue(regKey->GetKey(), isWatchingKey ? watchSubtree : FALSE,
                                      isWatchingKey ? kKeyFilter : kAncestorFilter, notifyEvent->GetHandle(), TRUE);
    if (rc != ERROR_SUCCESS) {
        SY_LOG_ERROR(static_cast<uint32_t>(rc), LOG_ERROR, kLabel, "RegNotifyChangeKeyValue(%s) failed", displayName);
        return false;
    }
    return true;
}

bool SyRegKeyWatcher::Run(bool timedOut) {
    static const char* const kLabel = "SyRegKeyWatcher::Run()";
    FunctionTrace trace(logLevel, kLabel);
    SyMutexGuard guard(&watcherMutex);
    if (!timedOut) {
        // The notification is spent now; later changes within the settling time join this one.
        SetTimeoutMS(kSettleMs, true);
        return true;
    }
    if (timeoutMs == 0) {
        SetTimeoutMS(-1, true);
        return WatchRegKey();
    }

    // Re-armed before anyone is told, so that a change during the report isn't lost.
    SetTimeoutMS(-1, true);
    const bool wasWatchingKey = isWatchingKey;
    if (!WatchRegKey()) return false;
    if (!isWatchingKey && !wasWatchingKey) return true;  // an ancestor changed; the key is still missing

    std::vector<RCPtr<SyRegValueWatcher>> values;
    for (auto it = valueWatchers.begin(); it != valueWatchers.end();) {
        RCPtr<SyRegValueWatcher> value = it->Lock();
        if (!value) {
            SY_LOG(LOG_WARN, kLabel, "%s - deleted value watcher found in list", displayName);
            it = valueWatchers.erase(it);
            continue;
        }
        values.push_back(value);
        ++it;
    }
    guard.Unlock();

    for (const RCPtr<SyRegValueWatcher>& value : values) {
        SY_LOG(logLevel, kLabel, "%s - OnKeyChanged()", value->GetValueDisplayName());
        value->OnKeyChanged();
    }
    SY_LOG(logLevel, kLabel, "%s - OnKeyChanged()", displayName);
    return OnKeyChanged();
}

RCPtr<SyRegValue> SyRegKeyWatcher::GetValue(const std::string& valueName, bool load) {
    RCPtr<SyRegValue> value(new SyRegValue(keyPath, valueName, view, false));
    // An invalid session is logged by the value itself, which then stays on its default: read
    // in the process's own session, it would give another user's setting.
    if (sessionId != -1 && !value->SetSessionID(sessionId)) return value;
    if (load) value->Load(value->IsWide(), 7);
    return value;
}

std::string SyRegKeyWatcher::GetLocation() const { return GetWow64Path(keyPath, view); }

RCPtr<SyRegValueWatcher> SyRegKeyWatcher::WatchValue(const std::string& valueName) {
    RCPtr<SyRegValueWatcher> value(new SyRegValueWatcher(keyPath, valueName, view));
    AddValueWatcher(value);
    return value;
}

void SyRegKeyWatcher::AddValueWatcher(const RCPtr<SyRegValueWatcher>& value) {
    if (!value) return;
    {
        SyMutexGuard valueGuard(&value->mutex);
        value->keyWatcher = this;
        // The present content is the baseline: only what changes after this is reported.
        value->Load(value->IsWide(), value->valueLogLevel);
    }
    SyMutexGuard guard(&watcherMutex);
    valueWatchers.push_back(WkPtr<SyRegValueWatcher>(value.Get()));
}
