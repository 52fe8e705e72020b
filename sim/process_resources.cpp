#include "sim/process_resources.h"

#include <windows.h>

#include <psapi.h>
#include <tlhelp32.h>

#include "sysutil/scoped_handle.h"

namespace sim {

namespace {

// Handle values are multiples of 4 and handed out from the lowest free one, so open handles,
// leaked ones too, lie close together: the probe ends after this many free values in a row.
constexpr uintptr_t kFreeRunEnd = 4 * 1024;

uint32_t ProbeHandleTable() {
    uint32_t count = 0;
    uintptr_t lastOpen = 0;
    for (uintptr_t value = 4; value - lastOpen < kFreeRunEnd; value += 4) {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
            ++count;
            lastOpen = value;
        }
    }
    return count;
}

uint32_t ThreadCount() {
    ScopedHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    if (!snapshot.Valid()) return 0;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    uint32_t count = 0;
    DWORD self = GetCurrentProcessId();
    for (BOOL more = Thread32First(snapshot.Get(), &entry); more; more = Thread32Next(snapshot.Get(), &entry)) {
        if (entry.th32OwnerProcessID == self) ++count;
    }
    return count;
}

}  // namespace

ProcessResources SampleProcessResources() {
    ProcessResources r;
    PROCESS_MEMORY_COUNTERS_EX memory{};
    memory.cb = sizeof(memory);
    if (GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                             sizeof(memory))) {
        r.privateBytes = memory.PrivateUsage != 0 ? memory.PrivateUsage : memory.PagefileUsage;
    }
    DWORD handles = 0;
    if (!GetProcessHandleCount(GetCurrentProcess(), &handles) || handles == 0) handles = ProbeHandleTable();
    r.handles = handles;
    r.threads = ThreadCount();
    return r;
}

}  // namespace sim
