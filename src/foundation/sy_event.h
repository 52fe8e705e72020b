// Windows events with shared ownership of the handle, and the wait over several of them
// that threads and the poll scheduler rest on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "foundation/rc_object.h"

typedef void* HANDLE;

// Wait results shared by every wait of the foundation.
enum : int32_t {
    kWaitTimeout = -1,
    kWaitError = -2,
    kWaitAlerted = -3,
};

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

class SyEventData : public RCObject {
public:
    SyEventData(HANDLE h, bool owns) : handle(h), ownsHandle(owns) {}
    ~SyEventData() override;

    HANDLE handle;
    bool ownsHandle;
};

class SyEvent : public RCObject {
public:
    SyEvent();  // empty
    SyEvent(bool manualReset, bool initiallySignalled, const char* name = "");
    SyEvent(HANDLE handle, bool owned);
    SyEvent(SyEvent&& other) noexcept;
    // Moves: takes the source's data and leaves the source empty.
    SyEvent& operator=(SyEvent&& other) noexcept;
    SyEvent(const SyEvent&) = delete;
    SyEvent& operator=(const SyEvent&) = delete;

    bool IsValid() const;
    HANDLE GetHandle() const;
    uint32_t GetHandleValue() const;
    bool Set();
    bool Reset();
    // 0 signalled, -1 timed out, -2 any other outcome (empty event included).
    int32_t Wait(uint32_t timeoutMs);

    // Index of the signalled event (lowest wins), the count itself for a window message,
    // -1 time-out, -3 alerted, -2 anything else. Null or empty events make the wait fail.
    static int32_t WaitMultiple(SyEvent* const* events, size_t count, bool waitAll, uint32_t timeoutMs,
                                bool waitMessages, bool alertable);
    static int32_t WaitMultiple(const std::vector<SyEvent*>& events, bool waitAll, uint32_t timeoutMs,
                                bool waitMessages = false, bool alertable = false) {
        return WaitMultiple(events.data(), events.size(), waitAll, timeoutMs, waitMessages, alertable);
    }

    // Maps a result of the platform's multiple-object waits onto the results above.
    static int32_t MapWaitResult(uint32_t platformResult, size_t count);

private:
    RCPtr<SyEventData> data;
};
