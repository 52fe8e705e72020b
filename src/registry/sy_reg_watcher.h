// Follows one registry key from a poll thread and reports when its content has changed. A
// key that doesn't exist yet is followed through its nearest existing ancestor: the watcher
// moves down when the key is created and back up when it is deleted. A change only starts a
// settling time, so a burst of changes gives one report.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>

#include "foundation/rc_object.h"
#include "foundation/sy_event.h"
#include "foundation/sy_mutex.h"
#include "foundation/sy_poll_thread.h"
#include "registry/sy_reg_key.h"

class SyRegKeyWatcher;

// A value that its key watcher loads again on every report of the key, and that reports
// when the load finds it changed.
class SyRegValueWatcher : public SyRegValue {
public:
    SyRegValueWatcher(const std::string& keyPath, const std::string& valueName, RegView view);

    virtual void OnValueChanged() {}

    // The key watcher's check: loads the value again and calls OnValueChanged on a change.
    void OnKeyChanged();
    // After this the key watcher no longer checks the value.
    void Detach();
    bool IsAttached();

    int32_t valueLogLevel = 7;

private:
    friend class SyRegKeyWatcher;
    WkPtr<SyRegKeyWatcher> keyWatcher;
};

class SyRegKeyWatcher : public SyPollItem {
public:
    // Time a change is given to settle before the key is looked at again.
    static constexpr int32_t kSettleMs = 2000;

    SyRegKeyWatcher(const std::string& path, RegView view, bool watchSubtree);
    ~SyRegKeyWatcher() override;

    // Called on the poll thread after each report of a change; false ends the watcher.
    virtual bool OnKeyChanged();
    bool Run(bool timedOut) override;

    bool Start(const RCPtr<SyPollThread>& pollThread);
    // Leaves the poll thread, after a run in progress has ended.
    bool Stop();

    // A new value object of the watched key, loaded if asked; it shares nothing with the watch.
    RCPtr<SyRegValue> GetValue(const std::string& valueName, bool load);
    std::string GetLocation() const;

    // Values checked on each report, ahead of OnKeyChanged; the list holds them weakly.
    RCPtr<SyRegValueWatcher> WatchValue(const std::string& valueName);
    void AddValueWatcher(const RCPtr<SyRegValueWatcher>& value);
    void SetOnChanged(std::function<bool(SyRegKeyWatcher*)> callback) { onChanged = std::move(callback); }

    bool IsWatchingKey() const { return isWatchingKey; }
    const std::string& GetKeyPath() const { return keyPath; }
    const char* GetDisplayName() const { return displayName; }

protected:
    // Opens keyPath, or else the nearest ancestor that exists; false if none could be opened.
    bool OpenRegKey();
    // OpenRegKey, then arms the change notification on what it opened.
    bool WatchRegKey();

    SyMutex watcherMutex;
    int32_t logLevel = 7;
    const char* displayName = "";
    std::string sessionName;
    std::string keyPath;
    RegView view;
    bool isWatchingKey = false;
    bool watchSubtree;
    int32_t sessionId = -1;
    std::function<bool(SyRegKeyWatcher*)> onChanged;
    RCPtr<SyEvent> notifyEvent;  // the item's event, and the target of the notification
    RCPtr<SyRegKey> regKey;
    std::list<WkPtr<SyRegValueWatcher>> valueWatchers;
};
