#include "logging/heap_counter.h"

#include <windows.h>

#include <cstdlib>
#include <cstring>

namespace {

using MallocFn = void* (*)(size_t);
using CallocFn = void* (*)(size_t, size_t);
using ReallocFn = void* (*)(void*, size_t);

std::atomic<long> allocations{0};
std::atomic<long> ownAllocations{0};
std::atomic<DWORD> countedThread{0};

void Counted() {
    ++allocations;
    if (GetCurrentThreadId() == countedThread.load()) ++ownAllocations;
}
MallocFn realMalloc = nullptr;
CallocFn realCalloc = nullptr;
ReallocFn realRealloc = nullptr;

void* CountedMalloc(size_t size) {
    Counted();
    return realMalloc(size);
}
void* CountedCalloc(size_t count, size_t size) {
    Counted();
    return realCalloc(count, size);
}
void* CountedRealloc(void* block, size_t size) {
    Counted();
    return realRealloc(block, size);
}

// The slot of the program's import table that holds the named function, or null.
void** FindImport(const char* name) {
    auto* base = reinterpret_cast<uint8_t*>(GetModuleHandleW(nullptr));
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0) return nullptr;
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name; ++desc) {
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->FirstThunk);
        for (; names->u1.AddressOfData; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (strcmp(reinterpret_cast<const char*>(byName->Name), name) == 0) {
                return reinterpret_cast<void**>(&slots->u1.Function);
            }
        }
    }
    return nullptr;
}

void Swap(void** slot, void* value) {
    DWORD old = 0;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    *slot = value;
    VirtualProtect(slot, sizeof(void*), old, &old);
}

}  // namespace

HeapCounter::HeapCounter() {
    void** mallocSlot = FindImport("malloc");
    void** callocSlot = FindImport("calloc");
    void** reallocSlot = FindImport("realloc");
    if (!mallocSlot || !callocSlot || !reallocSlot) return;
    realMalloc = reinterpret_cast<MallocFn>(*mallocSlot);
    realCalloc = reinterpret_cast<CallocFn>(*callocSlot);
    realRealloc = reinterpret_cast<ReallocFn>(*reallocSlot);
    allocations = 0;
    ownAllocations = 0;
    countedThread = GetCurrentThreadId();
    Swap(mallocSlot, reinterpret_cast<void*>(&CountedMalloc));
    Swap(callocSlot, reinterpret_cast<void*>(&CountedCalloc));
    Swap(reallocSlot, reinterpret_cast<void*>(&CountedRealloc));
    hooked = true;
}

HeapCounter::~HeapCounter() {
    if (!hooked) return;
    Swap(FindImport("malloc"), reinterpret_cast<void*>(realMalloc));
    Swap(FindImport("calloc"), reinterpret_cast<void*>(realCalloc));
    Swap(FindImport("realloc"), reinterpret_cast<void*>(realRealloc));
}

long HeapCounter::Count() const { return ownAllocations.load(); }

long HeapCounter::CountAllThreads() const { return allocations.load(); }
