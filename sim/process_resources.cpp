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

uint64_t LiveHeapBytes() {
    HANDLE heaps[64];
    DWORD count = GetProcessHeaps(64, heaps);
    uint64_t bytes = 0;
    for (DWORD i = 0; i < count && i < 64; ++i) {
        if (!HeapLock(heaps[i])) continue;
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heaps[i], &entry)) {
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) bytes += entry.cbData;
        }
        HeapUnlock(heaps[i]);
    }
    return bytes;
}

}  // namespace

uint64_t PrivateBytes() {
    PROCESS_MEMORY_COUNTERS_EX memory{};
    memory.cb = sizeof(memory);
    if (!GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                              sizeof(memory))) {
        return 0;
    }
    return memory.PrivateUsage != 0 ? memory.PrivateUsage : memory.PagefileUsage;
}

ProcessResources SampleProcessResources() {
    ProcessResources r;
    r.privateBytes = PrivateBytes();
    DWORD handles = 0;
    if (!GetProcessHandleCount(GetCurrentProcess(), &handles) || handles == 0) handles = ProbeHandleTable();
    r.handles = handles;
    r.threads = ThreadCount();
    r.heapBytes = LiveHeapBytes();
    return r;
}

}  // namespace sim
