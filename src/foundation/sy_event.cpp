#include "foundation/sy_event.h"

#include <windows.h>

namespace {
// QS_ALLINPUT with the touch and pointer bits of current systems.
constexpr DWORD kAllInputMask = 0x1CFF;
}  // namespace

SyEventData::~SyEventData() {
    if (ownsHandle && handle) CloseHandle(handle);
    handle = nullptr;
}

SyEvent::SyEvent() = default;

SyEvent::SyEvent(bool manualReset, bool initiallySignalled, const char* name)
    : data(new SyEventData(CreateEventA(nullptr, manualReset, initiallySignalled,
                                       (name && *name) ? name : nullptr),
                           true)) {}

SyEvent::SyEvent(HANDLE handle, bool owned) : data(new SyEventData(handle, owned)) {}

SyEvent::SyEvent(SyEvent&& other) noexcept : RCObject(), data(std::move(other.data)) {}

SyEvent& SyEvent::operator=(SyEvent&& other) noexcept {
    if (this != &other) data = std::move(other.data);
    return *this;
}

bool SyEvent::IsValid() const {
    RCPtr<SyEventData> d = data;
    return d && d->handle;
}

HANDLE SyEvent::GetHandle() const {
    RCPtr<SyEventData> d = data;
    return d ? d->handle : nullptr;
}

uint32_t SyEvent::GetHandleValue() const {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(GetHandle()));
}

bool SyEvent::Set() {
    RCPtr<SyEventData> d = data;
    return d && d->handle && SetEvent(d->handle);
}

bool SyEvent::Reset() {
    RCPtr<SyEventData> d = data;
    return d && d->handle && ResetEvent(d->handle);
}

int32_t SyEvent::Wait(uint32_t timeoutMs) {
    HANDLE h = nullptr;
    {
        // The caller keeps the event alive across the wait; holding the data here would
        // keep a handle open that a concurrent owner wants closed.
        RCPtr<SyEventData> d = data;
        if (!d || !d->handle) return kWaitError;
        h = d->handle;
    }
    switch (WaitForSingleObject(h, timeoutMs)) {
        case WAIT_OBJECT_0: return 0;
        case WAIT_TIMEOUT: return kWaitTimeout;
        default: return kWaitError;
    }
}

int32_t SyEvent::MapWaitResult(uint32_t platformResult, size_t count) {
    if (platformResult <= count) return static_cast<int32_t>(platformResult);
    if (platformResult == WAIT_TIMEOUT) return kWaitTimeout;
    if (platformResult == WAIT_IO_COMPLETION) return kWaitAlerted;
    return kWaitError;
}

int32_t SyEvent::WaitMultiple(SyEvent* const* events, size_t count, bool waitAll, uint32_t timeoutMs,
                              bool waitMessages, bool alertable) {
    std::vector<HANDLE> handles(count, nullptr);
    for (size_t i = 0; i < count; ++i) {
        if (events && events[i]) handles[i] = events[i]->GetHandle();
    }
    DWORD n = static_cast<DWORD>(count);
    DWORD result;
    if (waitMessages) {
        result = MsgWaitForMultipleObjects(n, handles.data(), waitAll, timeoutMs, kAllInputMask);
    } else {
        result = WaitForMultipleObjectsEx(n, handles.data(), waitAll, timeoutMs, alertable);
    }
    return MapWaitResult(result, count);
}
